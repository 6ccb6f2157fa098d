#include "vision/core/image.h"

#include "vision/core/exception.h"

namespace vision {

const char* PixelTypeName(PixelType t) {
  switch (t) {
    case PixelType::Byte: return "byte";
    case PixelType::UInt2: return "uint2";
    case PixelType::Int2: return "int2";
    case PixelType::Int4: return "int4";
    case PixelType::Real: return "real";
    case PixelType::VectorField: return "vector_field";
  }
  return "?";
}

PixelType PixelTypeFromName(const std::string& n, const char* op) {
  if (n == "byte") return PixelType::Byte;
  if (n == "uint2") return PixelType::UInt2;
  if (n == "int2") return PixelType::Int2;
  if (n == "int4") return PixelType::Int4;
  if (n == "real") return PixelType::Real;
  if (n == "vector_field") return PixelType::VectorField;
  throw HException(op, "Wrong pixel type '" + n + "'", kErrWrongParamValue);
}

int PixelTypeCvDepth(PixelType t) {
  switch (t) {
    case PixelType::Byte: return CV_8U;
    case PixelType::UInt2: return CV_16U;
    case PixelType::Int2: return CV_16S;
    case PixelType::Int4: return CV_32S;
    case PixelType::Real:
    case PixelType::VectorField: return CV_32F;
  }
  return CV_8U;
}

bool Image::FullDomain() const {
  const auto& runs = domain.Runs();
  if (runs.size() != size_t(height)) return false;
  for (int r = 0; r < height; ++r)
    if (runs[size_t(r)].row != r || runs[size_t(r)].cb != 0 || runs[size_t(r)].ce != width - 1)
      return false;
  return true;
}

Image Image::Clone() const {
  Image c = *this;
  for (auto& p : c.planes) p = p.clone();
  return c;
}

Image Image::FromPlanes(PixelType type, std::vector<cv::Mat> planes) {
  Image img;
  img.type = type;
  if (!planes.empty()) {
    img.width = planes[0].cols;
    img.height = planes[0].rows;
  }
  img.planes = std::move(planes);
  img.domain = Region::Rectangle(0, 0, img.height - 1, img.width - 1);
  return img;
}

}  // namespace vision
