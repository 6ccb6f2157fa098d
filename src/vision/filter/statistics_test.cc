#include "vision/filter/statistics.h"

#include <gtest/gtest.h>

#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::MakeImage;

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
