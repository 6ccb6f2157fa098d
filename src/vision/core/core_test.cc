#include <gtest/gtest.h>

#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {
namespace {

TEST(TupleTest, ArithmeticKeepsIntegerDivisionAndBroadcasts) {
  struct Case {
    HTuple a, b, sum, quot;
  } cases[] = {
      {HTuple(7), HTuple(2), HTuple(9), HTuple(3)},
      {HTuple(-7), HTuple(2), HTuple(-5), HTuple(-3)},  // truncates toward zero
      {HTuple(7.0), HTuple(2), HTuple(9.0), HTuple(3.5)},
      {HTuple{1, 2, 3}, HTuple(2), HTuple{3, 4, 5}, HTuple{0, 1, 1}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.a + c.b, c.sum) << c.a.ToString();
    EXPECT_EQ(c.a / c.b, c.quot) << c.a.ToString();
  }
  EXPECT_TRUE((HTuple(7) / HTuple(2)).IsInt(0));
  EXPECT_TRUE((HTuple(7.0) / HTuple(2)).IsReal(0));
  EXPECT_EQ((HTuple("a") + HTuple(1)).S(), "a1");
  EXPECT_THROW(HTuple(1) / HTuple(0), HException);
  EXPECT_THROW((HTuple{1, 2} + HTuple{1, 2, 3}), HException);
  EXPECT_THROW(HTuple("x").D(), HException);
  EXPECT_TRUE((HTuple() + HTuple(1)).Empty());
}

struct FakeHandle : HandleBase {
  const char* TypeName() const override { return "fake"; }
};

TEST(TupleTest, ClearedHandlesAreRefused) {
  auto h = std::make_shared<FakeHandle>();
  HTuple t{HHandle(h)};
  EXPECT_EQ(HandleCast<FakeHandle>(t, "op"), h.get());
  h->Clear();
  EXPECT_THROW(HandleCast<FakeHandle>(t, "op"), HException);
  EXPECT_THROW(HandleCast<FakeHandle>(HTuple(3), "op"), HException);
}

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
