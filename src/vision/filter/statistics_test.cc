#include "vision/filter/statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::MakeImage;
using test::RandomImage;
using test::RandomRegion;

// Straightforward ranking: all values of the clipped region sorted, n skipped
// at each end but never past the median.
void ReferenceMinMax(const Region& reg, const Image& img, double percent, double* lo, double* hi) {
  const Region r = reg.Clipped(img.height, img.width);
  cv::Mat d;
  img.planes[0].convertTo(d, CV_64F);
  std::vector<double> v;
  for (const Run& run : r.Runs())
    for (int c = run.cb; c <= run.ce; ++c) v.push_back(d.at<double>(run.row, c));
  *lo = *hi = 0;
  if (v.empty()) return;
  std::sort(v.begin(), v.end());
  const size_t n = std::min<size_t>(size_t(double(v.size()) * percent / 100.0), (v.size() - 1) / 2);
  *lo = v[n];
  *hi = v[v.size() - 1 - n];
}

// 60 pixels with the histogram 0:2, 1:8, 3:7, 4:13, 250:10, 251:10, 252:5,
// 253:3, 254:1, 255:1.
std::vector<double> KnownHistogram() {
  std::vector<double> v;
  for (auto [g, n] : {std::pair{0, 2}, {1, 8}, {3, 7}, {4, 13}, {250, 10}, {251, 10}, {252, 5}, {253, 3},
                      {254, 1}, {255, 1}})
    v.insert(v.end(), size_t(n), double(g));
  return v;
}

TEST(Statistics, MinMaxGrayPercentCutsPixelsAtBothEnds) {
  const std::vector<double> v = KnownHistogram();
  struct Case { double percent, min, max; } cases[] = {
      {0, 0, 255}, {5, 1, 253}, {10, 1, 252}, {20, 3, 251},
  };
  for (PixelType t : {PixelType::Byte, PixelType::Real, PixelType::UInt2}) {
    HObject img(MakeImage(t, 10, 6, v));
    for (const Case& c : cases) {
      HTuple mn, mx, rg;
      min_max_gray(img, img, c.percent, &mn, &mx, &rg);
      EXPECT_EQ(mn.D(0), c.min) << PixelTypeName(t) << " " << c.percent;
      EXPECT_EQ(mx.D(0), c.max) << PixelTypeName(t) << " " << c.percent;
      EXPECT_EQ(rg.D(0), c.max - c.min);
    }
  }
}

// Every pixel type, odd sizes, regions partly outside the image, many ties
// (small spread) and few (large spread), the percentages at the extremes.
TEST(Statistics, MinMaxGrayMatchesFullSortOnRandomInputs) {
  std::mt19937 rng(4711);
  const double percents[] = {0, 0.3, 5, 10, 10, 25, 49.5, 50};
  const double spreads[] = {2, 300, 1e5, 3e9};
  for (PixelType t : {PixelType::Byte, PixelType::UInt2, PixelType::Int2, PixelType::Int4, PixelType::Real}) {
    for (int trial = 0; trial < 150; ++trial) {
      const int w = 1 + int(rng() % 71), h = 1 + int(rng() % 37);
      const double spread = spreads[rng() % 4];
      const Image img = RandomImage(rng, t, w, h, spread);
      HObject regions;
      for (int k = 0; k < 3; ++k) regions.Push(RandomRegion(rng, h, w));
      const double pc = percents[rng() % 8];
      HTuple mn, mx, rg;
      min_max_gray(regions, HObject(img), pc, &mn, &mx, &rg);
      ASSERT_EQ(mn.Length(), 3);
      for (long k = 0; k < 3; ++k) {
        double lo, hi;
        ReferenceMinMax(regions.RegionAt(k), img, pc, &lo, &hi);
        ASSERT_EQ(mn.D(k), lo) << PixelTypeName(t) << " " << w << "x" << h << " percent " << pc << " trial " << trial;
        ASSERT_EQ(mx.D(k), hi) << PixelTypeName(t) << " " << w << "x" << h << " percent " << pc << " trial " << trial;
        ASSERT_EQ(rg.D(k), hi - lo);
      }
    }
  }
}

// Large real images with a narrow cluster and far outliers put most values
// in one coarse bin; infinities must rank like any other value.
TEST(Statistics, MinMaxGrayRealClustersAndInfinities) {
  std::mt19937 rng(99);
  std::normal_distribution<double> g(0.0, 1e-3);
  std::vector<double> v(size_t(301 * 211));
  for (double& x : v) x = 17.0 + g(rng);
  v[5] = -1e30;
  v[77] = 3e30;
  HObject img(MakeImage(PixelType::Real, 301, 211, v));
  for (double pc : {0.0, 0.001, 1.0, 10.0, 50.0}) {
    HTuple mn, mx, rg;
    min_max_gray(img, img, pc, &mn, &mx, &rg);
    double lo, hi;
    ReferenceMinMax(img.ImageAt(0).domain, img.ImageAt(0), pc, &lo, &hi);
    EXPECT_EQ(mn.D(0), lo) << pc;
    EXPECT_EQ(mx.D(0), hi) << pc;
  }
  const double inf = std::numeric_limits<double>::infinity();
  HObject with_inf(MakeImage(PixelType::Real, 5, 1, {3, -inf, 1, inf, 2}));
  for (auto [pc, lo, hi] : {std::tuple{0.0, -inf, inf}, {20.0, 1.0, 3.0}, {50.0, 2.0, 2.0}}) {
    HTuple mn, mx, rg;
    min_max_gray(with_inf, with_inf, pc, &mn, &mx, &rg);
    EXPECT_EQ(mn.D(0), lo) << pc;
    EXPECT_EQ(mx.D(0), hi) << pc;
  }
}

TEST(Statistics, MinMaxGrayUsesRegionsNotDomain) {
  Image img = MakeImage(PixelType::Byte, 4, 1, {5, 9, 1, 7});
  img.domain = Region::Rectangle(0, 0, 0, 0);
  HObject regions(Region::Rectangle(0, 1, 0, 3));
  regions.Push(Region::Rectangle(0, 2, 5, 9));  // mostly outside: clipped to column 2..3
  regions.Push(Region());
  HTuple mn, mx, rg;
  min_max_gray(regions, HObject(img), 0, &mn, &mx, &rg);
  EXPECT_EQ(mn, HTuple({1.0, 1.0, 0.0}));
  EXPECT_EQ(mx, HTuple({9.0, 7.0, 0.0}));
  EXPECT_THROW(min_max_gray(regions, HObject(img), 60, &mn, &mx, &rg), HException);
}

TEST(Statistics, GrayHistoCountsAndRelativeSumsToOne) {
  HObject img(MakeImage(PixelType::Byte, 10, 6, KnownHistogram()));
  HTuple abs_h, rel_h;
  gray_histo(img, img, &abs_h, &rel_h);
  ASSERT_EQ(abs_h.Length(), 256);
  EXPECT_EQ(abs_h.L(4), 13);
  EXPECT_EQ(abs_h.L(2), 0);
  EXPECT_EQ(abs_h.L(255), 1);
  double sum = 0;
  for (Hlong i = 0; i < 256; ++i) sum += rel_h.D(i);
  EXPECT_NEAR(sum, 1.0, 1e-12);
  EXPECT_NEAR(rel_h.D(1), 8.0 / 60.0, 1e-12);

  // Real images: 256 equal bins between the minimum and the maximum.
  HObject real(MakeImage(PixelType::Real, 4, 1, {-1.0, 0.0, 0.99, 1.0}));
  gray_histo(real, real, &abs_h, &rel_h);
  EXPECT_EQ(abs_h.L(0), 1);
  EXPECT_EQ(abs_h.L(128), 1);
  EXPECT_EQ(abs_h.L(254), 1);
  EXPECT_EQ(abs_h.L(255), 1);  // the maximum falls in the last bin
}

}  // namespace
}  // namespace vision
