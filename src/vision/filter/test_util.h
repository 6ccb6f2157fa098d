#pragma once
// Small builders for the tests of this area.
#include <cmath>
#include <random>
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

// Random one-channel image of odd, small sizes. `spread` bounds the values
// (clipped to the type): a small spread gives many ties.
inline Image RandomImage(std::mt19937& rng, PixelType t, int w, int h, double spread) {
  std::uniform_real_distribution<double> u(-spread, spread);
  const bool integer = t != PixelType::Real;
  cv::Mat d(h, w, CV_64F);
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      double v = u(rng);
      if (integer) v = std::round(v) + (t == PixelType::Byte || t == PixelType::UInt2 ? spread : 0);
      d.at<double>(r, c) = v;
    }
  cv::Mat p;
  d.convertTo(p, PixelTypeCvDepth(t));  // saturates to the type
  return Image::FromPlanes(t, {p});
}

// Random region around an h x w image: runs may start left of it, end right
// of it, or lie in rows outside it; sometimes empty, sometimes the full image.
inline Region RandomRegion(std::mt19937& rng, int h, int w) {
  const int kind = int(rng() % 8);
  if (kind == 0) return Region();
  if (kind == 1) return Region::Rectangle(0, 0, h - 1, w - 1);
  std::vector<Run> runs;
  const int n = 1 + int(rng() % unsigned(2 * h + 3));
  for (int i = 0; i < n; ++i) {
    const int row = int(rng() % unsigned(h + 4)) - 2;
    const int cb = int(rng() % unsigned(w + 6)) - 3;
    const int len = int(rng() % unsigned(w / 2 + 2));
    runs.push_back({row, cb, cb + len});
  }
  return Region::FromRuns(std::move(runs));
}

}  // namespace vision::test
