#include <cmath>

#include <gtest/gtest.h>

#include "vision/region/region_ops.h"
#include "vision/region/region_test_util.h"

namespace vision {
namespace {

using test::Art;

struct ShapeCase {
  const char* name;
  Region region;
  double area, row, col, width, height, holes, connect;
};

TEST(RegionFeatures, KnownShapes) {
  const ShapeCase cases[] = {
      {"rectangle", Region::Rectangle(10, 20, 12, 23), 12, 11, 21.5, 4, 3, 0, 1},
      {"single pixel", Region::Rectangle(-3, 7, -3, 7), 1, -3, 7, 1, 1, 0, 1},
      {"L-shape", Art({"#..", "#..", "###"}), 5, 1.4, 0.6, 3, 3, 0, 1},
      {"ring", Art({"###", "#.#", "###"}), 8, 1, 1, 3, 3, 1, 1},
      {"two blobs", Art({"##...", "....#"}), 3, 1.0 / 3, 5.0 / 3, 5, 2, 0, 2},
      // Diagonal contact joins in the 8-neighbourhood; the enclosed pixel is
      // a hole because the background is 4-connected.
      {"diamond", Art({".#.", "#.#", ".#."}), 4, 1, 1, 3, 3, 1, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HTuple v;
    region_features(HObject(c.region),
                    HTuple{"area", "row", "column", "width", "height", "holes_num", "connect_num",
                           "euler_number", "ratio"},
                    &v);
    ASSERT_EQ(v.Length(), 9);
    EXPECT_EQ(v.L(0), Hlong(c.area));
    EXPECT_NEAR(v.D(1), c.row, 1e-9);
    EXPECT_NEAR(v.D(2), c.col, 1e-9);
    EXPECT_EQ(v.L(3), Hlong(c.width));
    EXPECT_EQ(v.L(4), Hlong(c.height));
    EXPECT_EQ(v.L(5), Hlong(c.holes));
    EXPECT_EQ(v.L(6), Hlong(c.connect));
    EXPECT_EQ(v.L(7), Hlong(c.connect - c.holes));
    EXPECT_NEAR(v.D(8), c.height / c.width, 1e-9);
  }
}

// A disc of radius 30 near its continuous values; a 10x40 rectangle.
TEST(RegionFeatures, DiscAndRectangleValueRanges) {
  const double r = 30, area = M_PI * r * r, inf = HUGE_VAL;
  const Region disc = test::Disc(r, 100, -40), rect = Region::Rectangle(0, 0, 9, 39);
  struct Case { const Region& region; const char* feature; double above, below; };
  const Case cases[] = {
      {disc, "area", 0.99 * area, 1.01 * area},
      {disc, "ra", r - 0.3, r + 0.3},
      {disc, "rb", r - 0.3, r + 0.3},
      {disc, "circularity", 0.95, inf},
      {disc, "compactness", 0.85, 1.15},  // a digital contour is a little longer
      {disc, "convexity", 0.98, 1.02},
      {disc, "anisometry", 0.99, 1.01},
      {disc, "outer_radius", r - 0.1, r + 0.1},
      {disc, "inner_radius", r - 1, r + 1},
      {disc, "max_diameter", 2 * r - 0.1, 2 * r + 0.1},
      {disc, "rectangularity", -inf, 0.95},  // a disc is no rectangle
      {rect, "convexity", 1 - 1e-9, 1 + 1e-9},
      {rect, "rectangularity", 0.97, inf},
      {rect, "contlength", 96 - 1e-6, 96 + 1e-6},  // through the border pixel centres
      {rect, "anisometry", 3.95, 4.05},
  };
  for (const auto& c : cases) {
    HTuple v;
    region_features(HObject(c.region), HTuple(c.feature), &v);
    EXPECT_GT(v.D(0), c.above) << c.feature;
    EXPECT_LT(v.D(0), c.below) << c.feature;
  }
}

TEST(RegionFeatures, AngleConventionsAndSmallestRectangle2) {
  // Rising to the right on screen (row falls as column grows) is positive. The
  // rectangle passes through the pixel centres: a one pixel wide line has
  // Length2 0, a single pixel both lengths 0 (and no angle to check).
  struct Case { const char* name; Region r; double phi, row, col, l1, l2; };
  const double diag = 2 * M_SQRT2;  // half the diagonal of a 5x5 box
  const Case cases[] = {
      {"rising", Art({"....#", "...#.", "..#..", ".#...", "#...."}), M_PI / 4, 2, 2, diag, 0},
      {"falling", Art({"#....", ".#...", "..#..", "...#.", "....#"}), -M_PI / 4, 2, 2, diag, 0},
      {"vertical", Region::Rectangle(0, 0, 19, 2), M_PI / 2, 9.5, 1, 9.5, 1},
      {"horizontal", Region::Rectangle(0, 0, 9, 19), 0, 4.5, 9.5, 9.5, 4.5},
      {"single pixel", Region::Rectangle(5, 5, 5, 5), NAN, 5, 5, 0, 0},
  };
  HObject all;
  for (const auto& c : cases) concat_obj(all, HObject(c.r), &all);
  HTuple phi, row, col, p2, l1, l2;
  region_features(all, HTuple("phi"), &phi);
  smallest_rectangle2(all, &row, &col, &p2, &l1, &l2);
  ASSERT_EQ(l1.Length(), Hlong(std::size(cases)));
  for (Hlong i = 0; i < l1.Length(); ++i) {
    const Case& c = cases[size_t(i)];
    SCOPED_TRACE(c.name);
    if (!std::isnan(c.phi)) {
      EXPECT_NEAR(phi.D(i), c.phi, 1e-6);
      EXPECT_NEAR(p2.D(i), c.phi, 1e-6);
    }
    EXPECT_NEAR(row.D(i), c.row, 1e-9);
    EXPECT_NEAR(col.D(i), c.col, 1e-9);
    EXPECT_NEAR(l1.D(i), c.l1, 1e-9);
    EXPECT_NEAR(l2.D(i), c.l2, 1e-9);
  }
}

TEST(RegionFeatures, EmptyRegionAndEmptyList) {
  HTuple a, r, c;
  area_center(HObject(), &a, &r, &c);
  EXPECT_EQ(a.Length(), 0);
  HTuple v;
  region_features(HObject(Region()), HTuple{"area", "circularity", "holes_num"}, &v);
  EXPECT_EQ(v.Length(), 3);
  HObject sel;
  select_shape(HObject(), &sel, HTuple("area"), HTuple("and"), HTuple(0), HTuple(10));
  EXPECT_EQ(sel.Count(), 0);
  EXPECT_THROW(region_features(HObject(Region()), HTuple("no_such_feature"), &v), HException);
}

TEST(RegionFeatures, AreaCenterIsThePixelMeanOfEveryObject) {
  // Sums of pixel coordinates are exact in double, so the centre must equal
  // the plain per-pixel mean to the last bit, wherever the region lies.
  HObject regions;
  std::vector<Region> rs;
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Region r = test::RandomBlobs(seed, 13 + int(seed) * 7, 5 + int(seed) * 31, 0.1 * seed);
    rs.push_back(r.Translated(int(seed) * 37 - 120, 900 - int(seed) * 400));
  }
  rs.push_back(Region());
  for (const Region& r : rs) concat_obj(regions, HObject(r), &regions);
  HTuple a, row, col;
  area_center(regions, &a, &row, &col);
  ASSERT_EQ(a.Length(), Hlong(rs.size()));
  for (size_t i = 0; i < rs.size(); ++i) {
    double n = 0, sr = 0, sc = 0;
    for (const vision::Run& x : rs[i].Runs())
      for (int c = x.cb; c <= x.ce; ++c) n += 1, sr += x.row, sc += c;
    EXPECT_EQ(a.L(Hlong(i)), Hlong(n)) << i;
    EXPECT_EQ(row.D(Hlong(i)), n > 0 ? sr / n : 0.0) << i;
    EXPECT_EQ(col.D(Hlong(i)), n > 0 ? sc / n : 0.0) << i;
  }
}

TEST(SelectShape, InclusiveBoundsAndOperations) {
  HObject list;
  for (int n : {1, 4, 9, 16}) concat_obj(list, HObject(Region::Rectangle(0, 0, 0, n - 1)), &list);
  struct Case { HTuple features, op, min, max; std::vector<Hlong> areas; };
  const Case cases[] = {
      {HTuple("area"), HTuple("and"), HTuple(4), HTuple(9), {4, 9}},
      {HTuple{"area", "width"}, HTuple("and"), HTuple{1, 5}, HTuple{100, 100}, {9, 16}},
      {HTuple{"area", "width"}, HTuple("or"), HTuple{1, 10}, HTuple{1, 100}, {1, 16}},
      {HTuple{"area", "height"}, HTuple("and"), HTuple(1.0), HTuple(1.0), {1}},
  };
  for (const auto& c : cases) {
    HObject sel;
    select_shape(list, &sel, c.features, c.op, c.min, c.max);
    HTuple a, r, col;
    area_center(sel, &a, &r, &col);
    EXPECT_EQ(a.ToLVec(), c.areas) << c.features.ToString() << " " << c.op.ToString();
  }
  HObject sel;
  EXPECT_THROW(select_shape(list, &sel, HTuple("area"), HTuple("xor"), HTuple(0), HTuple(1)),
               HException);
  EXPECT_THROW(
      select_shape(list, &sel, HTuple{"area", "width"}, HTuple("and"), HTuple{0, 1, 2}, HTuple(1)),
      HException);
}

enum Axis { kRow, kColumn };
// Row1 or Column1 of every region's bounding box, in list order.
std::vector<Hlong> Start(const HObject& regions, Axis axis) {
  HTuple r1, c1, r2, c2;
  smallest_rectangle1(regions, &r1, &c1, &r2, &c2);
  return (axis == kRow ? r1 : c1).ToLVec();
}

TEST(SortRegion, Modes) {
  // a: top right, tall; b: lower left; c: middle, starts lowest.
  HObject list;
  gen_rectangle1(&list, HTuple{0, 5, 7}, HTuple{20, 0, 10}, HTuple{9, 6, 8}, HTuple{22, 2, 11});
  // Two text lines: "character" reads line by line, "first_point" by column.
  HObject lines;
  gen_rectangle1(&lines, HTuple{0, 10, 1}, HTuple{10, 5, 0}, HTuple{5, 15, 6}, HTuple{12, 7, 2});
  struct Case { const HObject& list; const char *mode, *order, *dir; std::vector<Hlong> cols; };
  const Case cases[] = {
      {list, "first_point", "true", "column", {0, 10, 20}},
      {list, "first_point", "false", "column", {20, 10, 0}},
      {list, "first_point", "true", "row", {20, 0, 10}},
      {list, "last_point", "true", "row", {0, 10, 20}},
      {list, "upper_left", "true", "row", {20, 0, 10}},
      {list, "lower_right", "true", "row", {0, 10, 20}},
      {list, "upper_right", "false", "column", {20, 10, 0}},
      {list, "lower_left", "true", "row", {0, 10, 20}},
      {list, "character", "true", "row", {0, 10, 20}},  // all three share rows: one line
      {lines, "character", "true", "row", {0, 10, 5}},
      {lines, "first_point", "true", "column", {0, 5, 10}},
  };
  HObject sorted;
  for (const auto& c : cases) {
    sort_region(c.list, &sorted, HTuple(c.mode), HTuple(c.order), HTuple(c.dir));
    EXPECT_EQ(Start(sorted, kColumn), c.cols) << c.mode << " " << c.order << " " << c.dir;
  }
  EXPECT_THROW(sort_region(list, &sorted, HTuple("diagonal"), HTuple("true"), HTuple("row")),
               HException);
}

TEST(ObjectLists, SelectCopyConcatCount) {
  HObject rects;
  gen_rectangle1(&rects, HTuple{0, 10, 20}, HTuple{0, 0, 0}, HTuple{1, 11, 21}, HTuple{5, 5, 5});
  HTuple n;
  count_obj(rects, &n);
  EXPECT_EQ(n.L(0), 3);
  HObject sel;
  select_obj(rects, &sel, HTuple{3, 1});
  EXPECT_EQ(Start(sel, kRow), (std::vector<Hlong>{20, 0}));
  EXPECT_THROW(select_obj(rects, &sel, HTuple(0)), HException);
  EXPECT_THROW(select_obj(rects, &sel, HTuple(4)), HException);
  copy_obj(rects, &sel, HTuple(2), HTuple(-1));
  EXPECT_EQ(Start(sel, kRow), (std::vector<Hlong>{10, 20}));
  EXPECT_THROW(copy_obj(rects, &sel, HTuple(2), HTuple(3)), HException);
  EXPECT_THROW(gen_rectangle1(&sel, HTuple(5), HTuple(0), HTuple(4), HTuple(0)), HException);

  HTuple rows, cols;
  get_region_points(HObject(Art({".#", "##"})), &rows, &cols);
  EXPECT_EQ(rows.ToLVec(), (std::vector<Hlong>{0, 1, 1}));
  EXPECT_EQ(cols.ToLVec(), (std::vector<Hlong>{1, 0, 1}));
  select_region_point(rects, &sel, HTuple(11), HTuple(5));
  EXPECT_EQ(Start(sel, kRow), (std::vector<Hlong>{10}));
}

TEST(ObjectLists, ReduceDomainIntersectsTheOldDomain) {
  Image img = Image::FromPlanes(PixelType::Byte, {cv::Mat(4, 6, CV_8UC1, cv::Scalar(7))});
  img.domain = Region::Rectangle(0, 0, 3, 2);
  HObject reduced, dom;
  reduce_domain(HObject(img), HObject(Region::Rectangle(-5, 1, 1, 100)), &reduced);
  get_domain(reduced, &dom);
  EXPECT_EQ(test::R(dom), Region::Rectangle(0, 1, 1, 2));
  EXPECT_THROW(reduce_domain(HObject(img), HObject(), &reduced), HException);
}

}  // namespace
}  // namespace vision
