#pragma once
// Shared by the data-code and bar-code operators: the grey view of an input
// image and the symbol outline as a region.
#include <array>

#include <opencv2/core.hpp>

#include "vision/core/object.h"

namespace vision::code {

// 8-bit grey view of the single image in `image` (the first channel of one-
// and two-channel images, luminance of RGB(A) ones), cut to the bounding box
// of its domain; `offset` is where the view's (0,0) lies in the image.
// Raises HException(op, ...) for a missing image, a region or a non-byte type.
cv::Mat GrayView(const HObject& image, const char* op, cv::Point* offset);

// The filled quadrilateral, clipped to the image.
Region QuadRegion(const std::array<cv::Point2d, 4>& corners, cv::Point offset, int width, int height);

}  // namespace vision::code
