#pragma once
// Images: one or more channels of one pixel type, always with a domain.
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "vision/core/region.h"

namespace vision {

enum class PixelType { Byte, UInt2, Int2, Int4, Real, VectorField };

// "byte", "uint2", "int2", "int4", "real", "vector_field".
const char* PixelTypeName(PixelType t);
// Raises HException(op, ...) for an unknown name.
PixelType PixelTypeFromName(const std::string& name, const char* op);
int PixelTypeCvDepth(PixelType t);  // CV_8U, CV_16U, CV_16S, CV_32S, CV_32F

// Channel planes are cv::Mat of width x height, single channel, of the depth
// that belongs to the pixel type. A vector field has one logical channel held
// as two CV_32F planes: planes[0] the row component, planes[1] the column
// component. Planes are shared between copies; operators never write into a
// plane they did not allocate (use Clone for that).
struct Image {
  int width = 0, height = 0;
  PixelType type = PixelType::Byte;
  std::vector<cv::Mat> planes;
  Region domain;  // full rectangle unless reduced
  std::string vector_field_type;  // "vector_field_relative" or "vector_field_absolute"

  int Channels() const { return type == PixelType::VectorField ? 1 : int(planes.size()); }
  bool FullDomain() const;
  Image Clone() const;  // deep copy of the planes
  // New image with the given planes and the full rectangle as domain.
  static Image FromPlanes(PixelType type, std::vector<cv::Mat> planes);
};

}  // namespace vision
