#pragma once
// Small builders for the tests of this area.
#include <vector>

#include "vision/core/object.h"

namespace vision::test {

// One-channel image of the given cv depth from row-major values.
inline Image MakeImage(PixelType t, int w, int h, const std::vector<double>& v) {
  cv::Mat d(h, w, CV_64F);
  for (int i = 0; i < w * h; ++i) d.at<double>(i / w, i % w) = v[size_t(i)];
  cv::Mat p;
  d.convertTo(p, PixelTypeCvDepth(t));
  return Image::FromPlanes(t, {p});
}

inline double At(const HObject& o, int r, int c, int channel = 0, long index = 0) {
  const Image& img = o.ImageAt(index);
  cv::Mat d;
  img.planes[size_t(channel)].convertTo(d, CV_64F);
  return d.at<double>(r, c);
}

}  // namespace vision::test
