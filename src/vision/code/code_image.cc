#include "vision/code/code_image.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace vision::code {

cv::Mat GrayView(const HObject& image, const char* op, cv::Point* offset) {
  if (image.Count() < 1) throw HException(op, "No input image", kErrEmptyInput);
  if (!image.IsImage(0)) throw HException(op, "Wrong kind of iconic object: image expected", kErrWrongObject);
  const Image& img = image.ImageAt(0, op);
  if (img.type != PixelType::Byte) throw HException(op, "Wrong pixel type: byte image expected", kErrWrongParamType);
  if (img.planes.empty() || img.width <= 0 || img.height <= 0) throw HException(op, "Empty input image", kErrEmptyInput);
  cv::Mat gray;
  auto same = [&](const cv::Mat& a, const cv::Mat& b) {
    if (a.data == b.data) return true;
    for (int y = 0; y < img.height; ++y)
      if (std::memcmp(a.ptr(y), b.ptr(y), size_t(img.width)) != 0) return false;
    return true;
  };
  // Grey pictures sent as RGB (the usual camera case) need no conversion:
  // the luminance weights sum to one, so it would give the same plane.
  if (img.planes.size() >= 3 && same(img.planes[0], img.planes[1]) && same(img.planes[0], img.planes[2])) {
    gray = img.planes[0];
  } else if (img.planes.size() >= 3) {
    // Integer luminance as zxing-cpp computes it for RGB input.
    const cv::Mat &r = img.planes[0], &g = img.planes[1], &b = img.planes[2];
    gray.create(img.height, img.width, CV_8U);
    for (int y = 0; y < img.height; ++y) {
      const uint8_t *pr = r.ptr<uint8_t>(y), *pg = g.ptr<uint8_t>(y), *pb = b.ptr<uint8_t>(y);
      uint8_t* o = gray.ptr<uint8_t>(y);
      for (int x = 0; x < img.width; ++x) o[x] = uint8_t((306 * pr[x] + 601 * pg[x] + 117 * pb[x] + 0x200) >> 10);
    }
  } else {
    gray = img.planes[0];
  }
  *offset = cv::Point(0, 0);
  if (!img.FullDomain()) {
    int r1, c1, r2, c2;
    img.domain.BoundingBox(&r1, &c1, &r2, &c2);
    cv::Rect box = cv::Rect(c1, r1, c2 - c1 + 1, r2 - r1 + 1) & cv::Rect(0, 0, img.width, img.height);
    if (img.domain.Empty() || box.area() <= 0) return cv::Mat();
    gray = gray(box);
    *offset = box.tl();
  }
  return gray.isContinuous() ? gray : gray.clone();
}

Region QuadRegion(const std::array<cv::Point2d, 4>& corners, cv::Point offset, int width, int height) {
  std::vector<cv::Point> pts;
  for (const auto& p : corners)
    pts.emplace_back(int(std::lround(std::clamp(p.x + offset.x, -1.0, double(width)))),
                     int(std::lround(std::clamp(p.y + offset.y, -1.0, double(height)))));
  cv::Rect box = cv::boundingRect(pts);
  cv::Mat mask(box.height + 1, box.width + 1, CV_8U, cv::Scalar(0));
  for (auto& p : pts) p -= box.tl();
  std::vector<std::vector<cv::Point>> poly{pts};
  cv::fillPoly(mask, poly, cv::Scalar(255));
  // Linear codes report a line, not an area: draw it so the region is not empty.
  cv::polylines(mask, poly, true, cv::Scalar(255));
  return Region::FromMask(mask, box.y, box.x).Clipped(height, width);
}

}  // namespace vision::code
