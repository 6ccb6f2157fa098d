#pragma once
// Test helpers: regions drawn as text, '#' or 'x' marking foreground pixels.
#include <initializer_list>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "vision/core/object.h"
#include "vision/core/region.h"

namespace vision {
// Readable failure messages: the runs of a region.
inline void PrintTo(const Region& r, std::ostream* os) {
  *os << "{";
  for (const Run& x : r.Runs()) *os << " " << x.row << ":" << x.cb << ".." << x.ce;
  *os << " }";
}
}  // namespace vision

namespace vision::test {

inline Region Art(std::initializer_list<const char*> rows, int row0 = 0, int col0 = 0) {
  std::vector<Run> runs;
  int r = row0;
  for (const char* line : rows) {
    std::string s(line);
    for (int c = 0; c < int(s.size()); ++c)
      if (s[size_t(c)] == '#' || s[size_t(c)] == 'x') runs.push_back({r, c + col0, c + col0});
    ++r;
  }
  return Region::FromRuns(std::move(runs));
}

inline Region Disc(double radius, int row, int col) {
  std::vector<Run> runs;
  int k = int(radius);
  for (int dr = -k; dr <= k; ++dr)
    for (int dc = -k; dc <= k; ++dc)
      if (dr * dr + dc * dc <= radius * radius) runs.push_back({row + dr, col + dc, col + dc});
  return Region::FromRuns(std::move(runs));
}

inline Region RandomBlobs(unsigned seed, int h, int w, double density) {
  std::mt19937 rng(seed);
  std::bernoulli_distribution on(density);
  cv::Mat m(h, w, CV_8UC1);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) m.at<uint8_t>(y, x) = on(rng) ? 255 : 0;
  return Region::FromMask(m);
}

inline const Region& R(const HObject& o, long i = 0) { return o.RegionAt(i); }

}  // namespace vision::test
