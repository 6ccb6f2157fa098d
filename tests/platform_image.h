#pragma once
// Test and benchmark images as the host sends them: an 8-bit RGB picture
// (OpenCV's channel order is taken as given) wrapped as an archived
// platform image.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "archive/archive.h"

namespace velmora::testing {

inline archive::ObjectPtr PlatformImage(const cv::Mat& rgb) {
  CV_Assert(rgb.type() == CV_8UC3 && rgb.isContinuous());
  archive::RawBitmap bm;
  bm.width = rgb.cols;
  bm.height = rgb.rows;
  bm.samples_per_pixel = 3;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = size_t(rgb.cols) * 3;
  bm.data.assign(rgb.data, rgb.data + rgb.total() * 3);
  return archive::MakeImage(bm);
}

// A grey picture sent as the host sends it: RGB with equal channels.
inline archive::ObjectPtr PlatformImageFromGray(const cv::Mat& gray) {
  cv::Mat rgb;
  cv::cvtColor(gray, rgb, cv::COLOR_GRAY2RGB);
  return PlatformImage(rgb);
}

}  // namespace velmora::testing
