#include <gtest/gtest.h>

#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {
namespace {

TEST(RegionTest, NormalisationMergesTouchingRuns) {
  Region r = Region::FromRuns({{1, 5, 6}, {0, 0, 2}, {1, 0, 4}, {0, 3, 3}, {2, 4, 3}});
  std::vector<vision::Run> want{{0, 0, 3}, {1, 0, 6}};
  EXPECT_EQ(r.Runs(), want);
  EXPECT_EQ(r.Area(), 11);
}

TEST(RegionTest, SetOperationsAgreeWithMasks) {
  // Two overlapping shapes with negative coordinates; compare every set
  // operation with its pixel-wise definition.
  Region a = Region::Rectangle(-2, -3, 4, 5);
  Region b = Region::FromRuns({{0, 0, 10}, {1, -10, -2}, {3, 2, 3}, {3, 5, 8}, {7, 0, 0}});
  const int r0 = -12, c0 = -12, n = 30;
  cv::Mat ma = a.ToMask(n, n, r0, c0), mb = b.ToMask(n, n, r0, c0);
  cv::Mat u, i, d;
  cv::bitwise_or(ma, mb, u);
  cv::bitwise_and(ma, mb, i);
  cv::bitwise_and(ma, ~mb, d);
  EXPECT_EQ(a.Union(b), Region::FromMask(u, r0, c0));
  EXPECT_EQ(a.Intersection(b), Region::FromMask(i, r0, c0));
  EXPECT_EQ(a.Difference(b), Region::FromMask(d, r0, c0));
  EXPECT_TRUE(a.Intersection(Region()).Empty());
  EXPECT_EQ(Region().Union(b), b);
}

TEST(RegionTest, BoundingBoxContainsAndClipping) {
  Region r = Region::FromRuns({{-1, 4, 9}, {3, -2, 0}});
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  EXPECT_EQ((std::vector<int>{r1, c1, r2, c2}), (std::vector<int>{-1, -2, 3, 9}));
  EXPECT_TRUE(r.Contains(3, -2));
  EXPECT_FALSE(r.Contains(3, 1));
  EXPECT_FALSE(r.Contains(0, 5));
  std::vector<vision::Run> clipped{{3, 0, 0}};
  EXPECT_EQ(r.Clipped(5, 5).Runs(), clipped);
}

TEST(ObjectTest, AccessChecksKindAndIndex) {
  HObject o(Region::Rectangle(0, 0, 1, 1));
  o.Push(Image::FromPlanes(PixelType::Byte, {cv::Mat(3, 4, CV_8U, cv::Scalar(1))}));
  EXPECT_THROW(o.ImageAt(0, "op"), HException);
  EXPECT_THROW(o.RegionAt(5, "op"), HException);
  EXPECT_EQ(o.RegionOrDomainAt(1).Area(), 12);
}

}  // namespace
}  // namespace vision
