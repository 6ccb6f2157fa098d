#include "vision/filter/statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <utility>

#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::MakeImage;
using test::RandomImage;
using test::RandomRegion;
using MinMaxPair = std::pair<double, double>;

// Straightforward ranking: all values of the clipped region sorted, n skipped
// at each end but never past the median; an empty region gives 0, 0.
MinMaxPair ReferenceMinMax(const Region& reg, const Image& img, double percent) {
  const Region r = reg.Clipped(img.height, img.width);
  cv::Mat d;
  img.planes[0].convertTo(d, CV_64F);
  std::vector<double> v;
  for (const Run& run : r.Runs())
    for (int c = run.cb; c <= run.ce; ++c) v.push_back(d.at<double>(run.row, c));
  if (v.empty()) return {0, 0};
  std::sort(v.begin(), v.end());
  const size_t n = std::min<size_t>(size_t(double(v.size()) * percent / 100.0), (v.size() - 1) / 2);
  return {v[n], v[v.size() - 1 - n]};
}

// min_max_gray of one region as {min, max}; the range must be their difference.
MinMaxPair MinMax(const HObject& region, const HObject& image, double percent) {
  HTuple mn, mx, rg;
  min_max_gray(region, image, percent, &mn, &mx, &rg);
  EXPECT_EQ(rg, HTuple(mx.D(0) - mn.D(0)));
  return {mn.D(0), mx.D(0)};
}

// 60 pixels: gray value and count.
constexpr std::pair<int, int> kHistogram[] = {{0, 2},    {1, 8},   {3, 7},   {4, 13},  {250, 10},
                                              {251, 10}, {252, 5}, {253, 3}, {254, 1}, {255, 1}};

// Every pixel type, odd sizes, regions partly outside the image, many ties
// (small spread) and few (large spread), the percentages at the extremes.
TEST(Statistics, MinMaxGrayMatchesFullSortOnRandomInputs) {
  std::mt19937 rng(4711);
  const double percents[] = {0, 0.3, 5, 10, 10, 25, 49.5, 50};
  const double spreads[] = {2, 300, 1e5, 3e9};
  for (PixelType t :
       {PixelType::Byte, PixelType::UInt2, PixelType::Int2, PixelType::Int4, PixelType::Real}) {
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
      SCOPED_TRACE(testing::Message() << PixelTypeName(t) << " " << w << "x" << h << " percent "
                                      << pc << " trial " << trial);
      for (long k = 0; k < 3; ++k) {
        const auto [lo, hi] = ReferenceMinMax(regions.RegionAt(k), img, pc);
        ASSERT_EQ(mn.D(k), lo);
        ASSERT_EQ(mx.D(k), hi);
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
  for (double pc : {0.0, 0.001, 1.0, 10.0, 50.0})
    EXPECT_EQ(MinMax(img, img, pc), ReferenceMinMax(img.ImageAt(0).domain, img.ImageAt(0), pc))
        << pc;
  const double inf = std::numeric_limits<double>::infinity();
  HObject with_inf(MakeImage(PixelType::Real, 5, 1, {3, -inf, 1, inf, 2}));
  EXPECT_EQ(MinMax(with_inf, with_inf, 0), MinMaxPair(-inf, inf));
  EXPECT_EQ(MinMax(with_inf, with_inf, 20), MinMaxPair(1, 3));
  EXPECT_EQ(MinMax(with_inf, with_inf, 50), MinMaxPair(2, 2));
}

TEST(Statistics, MinMaxGrayUsesRegionsNotDomain) {
  Image img = MakeImage(PixelType::Byte, 4, 1, {5, 9, 1, 7});
  img.domain = Region::Rectangle(0, 0, 0, 0);
  const HObject region(Region::Rectangle(0, 1, 0, 3));
  EXPECT_EQ(MinMax(region, HObject(img), 0), MinMaxPair(1, 9));
  HTuple mn, mx, rg;
  EXPECT_THROW(min_max_gray(region, HObject(img), 60, &mn, &mx, &rg), HException);
}

TEST(Statistics, GrayHistoAbsoluteAndRelativeBins) {
  std::vector<double> v;
  for (auto [g, n] : kHistogram) v.insert(v.end(), size_t(n), double(g));
  const HObject img(MakeImage(PixelType::Byte, 10, 6, v));
  HTuple abs_h, rel_h;
  gray_histo(img, img, &abs_h, &rel_h);
  std::vector<Hlong> want(256, 0);
  for (auto [g, n] : kHistogram) want[size_t(g)] = n;
  EXPECT_EQ(abs_h, HTuple::Ints(want));
  ASSERT_EQ(rel_h.Length(), 256);
  for (Hlong i = 0; i < 256; ++i) EXPECT_DOUBLE_EQ(rel_h.D(i), double(want[size_t(i)]) / 60.0) << i;

  // Real images: 256 equal bins between the minimum and the maximum.
  HObject real(MakeImage(PixelType::Real, 4, 1, {-1.0, 0.0, 0.99, 1.0}));
  gray_histo(real, real, &abs_h, &rel_h);
  want.assign(256, 0);
  for (size_t bin : {0, 128, 254, 255}) want[bin] = 1;  // the maximum falls in the last bin
  EXPECT_EQ(abs_h, HTuple::Ints(want));
}

// The histogram reads the region twice instead of gathering it: bins against
// the gathered list's (std::minmax_element's range) for every type, regions
// reaching outside the image, and many ties (a narrow spread).
TEST(Statistics, GrayHistoMatchesGatheredValues) {
  std::mt19937 rng(31);
  const PixelType types[] = {PixelType::Byte, PixelType::Int2, PixelType::UInt2, PixelType::Int4,
                             PixelType::Real};
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 1 + int(rng() % 19), h = 1 + int(rng() % 13);
    const PixelType t = types[trial % 5];
    const Image img = RandomImage(rng, t, w, h, trial % 2 ? 3 : 400);
    const Region reg = RandomRegion(rng, h, w);
    std::vector<double> v;
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c)
        if (reg.Contains(r, c)) v.push_back(test::At(HObject(img), r, c));
    std::vector<Hlong> want(256, 0);
    if (!v.empty()) {
      const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
      const double step = (*hi - *lo) / 256.0;
      for (double x : v)
        ++want[size_t(t == PixelType::Byte ? int(x) : std::clamp(step > 0 ? int((x - *lo) / step) : 0, 0, 255))];
    }
    HTuple abs_h, rel_h;
    gray_histo(HObject(reg), HObject(img), &abs_h, &rel_h);
    EXPECT_EQ(abs_h, HTuple::Ints(want)) << PixelTypeName(t) << " " << w << "x" << h;
    for (Hlong i = 0; i < 256; ++i)
      ASSERT_EQ(rel_h.D(i), v.empty() ? 0.0 : double(want[size_t(i)]) / double(v.size()));
  }
}

}  // namespace
}  // namespace vision
