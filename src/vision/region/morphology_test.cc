#include <random>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "vision/region/region_ops.h"
#include "vision/region/region_test_util.h"

namespace vision {
namespace {

using test::R;

Region Apply(void (*op)(const HObject&, HObject*, const HTuple&, const HTuple&), const Region& r,
             int w, int h) {
  HObject out;
  op(HObject(r), &out, HTuple(w), HTuple(h));
  return R(out);
}

Region ApplyDisc(void (*op)(const HObject&, HObject*, const HTuple&), const Region& r,
                 double radius) {
  HObject out;
  op(HObject(r), &out, HTuple(radius));
  return R(out);
}

// OpenCV's raster morphology of r with the element `el` whose reference point is `ref`.
// OpenCV's dilate adds the reflected element, so it gets the reflection; the margin holds the
// whole dilation, which a closing then erodes.
struct RasterResult { Region dilation, erosion, opening, closing; };
RasterResult RasterMorphology(const Region& r, const cv::Mat& el, cv::Point ref) {
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  const int mr = el.rows + 2, mc = el.cols + 2, row0 = r1 - mr, col0 = c1 - mc;
  cv::Mat mask = r.ToMask(r2 - r1 + 1 + 2 * mr, c2 - c1 + 1 + 2 * mc, row0, col0), flipped;
  cv::flip(el, flipped, -1);
  const cv::Point flipped_ref(el.cols - 1 - ref.x, el.rows - 1 - ref.y);
  auto dilate = [&](const cv::Mat& in) {
    cv::Mat out;
    cv::dilate(in, out, flipped, flipped_ref, 1, cv::BORDER_CONSTANT, 0);
    return out;
  };
  auto erode = [&](const cv::Mat& in) {
    cv::Mat out;
    cv::erode(in, out, el, ref, 1, cv::BORDER_CONSTANT, 0);
    return out;
  };
  auto region = [&](const cv::Mat& m) { return Region::FromMask(m, row0, col0); };
  return {region(dilate(mask)), region(erode(mask)), region(dilate(erode(mask))),
          region(erode(dilate(mask)))};
}

// Disc morphology against the raster with the element built from its definition (pixel centres
// within the radius; an integer radius gives an even diameter, its centre half a pixel right of
// and below the reference point), on regions dense and sparse, narrow and several words wide,
// at negative and positive offsets.
TEST(Morphology, DiscMorphologyMatchesRasterMorphology) {
  std::mt19937 rng(17);
  std::vector<Region> shapes;
  for (int k = 0; k < 8; ++k) {
    const int h = 1 + int(rng() % 40), w = 1 + int(rng() % 200);
    Region r = test::RandomBlobs(unsigned(100 + k), h, w, 0.3 + 0.1 * (k % 6));
    shapes.push_back(r.Translated(int(rng() % 40) - 20, int(rng() % 300) - 150));
  }
  shapes.push_back(Region::Rectangle(0, 0, 30, 140).Difference(Region::Rectangle(4, 5, 20, 70)));
  shapes.push_back(test::RandomBlobs(12, 40, 50, 0.6));
  // Far apart pieces, too large for a raster: each result is the union of the pieces' results.
  const Region near = Region::Rectangle(0, 0, 3, 3);
  const Region far = Region::Rectangle(5000, 7000, 5006, 7003);
  for (double radius : {0.5, 1.0, 1.5, 2.0, 2.5, 3.5, 5.0, 12.5}) {
    SCOPED_TRACE(radius);
    const double c = radius == std::round(radius) ? 0.5 : 0.0;  // even diameter
    const int k = int(std::ceil(radius + 1));
    cv::Mat disc = cv::Mat::zeros(2 * k + 1, 2 * k + 1, CV_8U);
    for (int y = -k; y <= k; ++y)
      for (int x = -k; x <= k; ++x)
        disc.at<uint8_t>(y + k, x + k) =
            (y - c) * (y - c) + (x - c) * (x - c) <= radius * radius + 1e-9;
    for (const Region& r : shapes) {
      const RasterResult want = RasterMorphology(r, disc, {k, k});
      EXPECT_EQ(ApplyDisc(dilation_circle, r, radius), want.dilation);
      EXPECT_EQ(ApplyDisc(erosion_circle, r, radius), want.erosion);
      EXPECT_EQ(ApplyDisc(opening_circle, r, radius), want.opening);
      EXPECT_EQ(ApplyDisc(closing_circle, r, radius), want.closing);
    }
    for (auto op : {dilation_circle, erosion_circle, opening_circle, closing_circle})
      EXPECT_EQ(ApplyDisc(op, near.Union(far), radius),
                ApplyDisc(op, near, radius).Union(ApplyDisc(op, far, radius)));
  }
  HObject out;
  EXPECT_THROW(dilation_circle(HObject(near), &out, HTuple(0.2)), HException);
}

// Rectangle morphology against the raster, with line-shaped elements as long as a text line
// (one row or one column) among them. Even sizes put the reference point left of and above
// the centre.
TEST(Morphology, RectangleMorphologyMatchesRasterMorphology) {
  std::mt19937 rng(29);
  for (int k = 0; k < 10; ++k) {
    const int h = 1 + int(rng() % 50), w = 1 + int(rng() % 150);
    Region r = test::RandomBlobs(unsigned(200 + k), h, w, 0.15 + 0.08 * k)
                   .Translated(int(rng() % 30) - 15, int(rng() % 30) - 15);
    if (k == 0) r = r.Union(Region::Rectangle(-400, 3, -380, 3));  // far above, one column
    for (auto [kw, kh] : {std::pair{1, 2}, {1, 3}, {1, 8}, {1, 300}, {2, 1}, {5, 1}, {300, 1},
                          {1, 1}, {3, 4}, {2, 5}, {7, 2}}) {
      SCOPED_TRACE(testing::Message() << "shape " << k << ", " << kw << "x" << kh);
      const RasterResult want =
          RasterMorphology(r, cv::Mat::ones(kh, kw, CV_8U), {(kw - 1) / 2, (kh - 1) / 2});
      EXPECT_EQ(Apply(dilation_rectangle1, r, kw, kh), want.dilation);
      EXPECT_EQ(Apply(erosion_rectangle1, r, kw, kh), want.erosion);
      EXPECT_EQ(Apply(opening_rectangle1, r, kw, kh), want.opening);
      EXPECT_EQ(Apply(closing_rectangle1, r, kw, kh), want.closing);
    }
  }
  HObject out;
  EXPECT_THROW(dilation_rectangle1(HObject(Region::Rectangle(0, 0, 0, 0)), &out, HTuple(0),
                                   HTuple(3)),
               HException);
}

TEST(Morphology, EmptyRegionsAndLists) {
  EXPECT_TRUE(Apply(closing_rectangle1, Region(), 1, 300).Empty());
  EXPECT_TRUE(Apply(opening_rectangle1, Region(), 300, 1).Empty());
  EXPECT_TRUE(ApplyDisc(erosion_circle, Region(), 2.5).Empty());
  HObject out;
  opening_circle(HObject(), &out, HTuple(2.5));
  EXPECT_EQ(out.Count(), 0);
}

// Zhang-Suen thinning written out: every pass decides on all pixels of the
// unchanged picture, then removes; until a round removes nothing.
Region ReferenceThinning(const Region& r) {
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  cv::Mat m = r.ToMask(r2 - r1 + 3, c2 - c1 + 3, r1 - 1, c1 - 1) / 255;
  for (bool changed = true; changed;) {
    changed = false;
    for (int pass = 0; pass < 2; ++pass) {
      std::vector<cv::Point> del;
      for (int y = 1; y < m.rows - 1; ++y)
        for (int x = 1; x < m.cols - 1; ++x) {
          if (!m.at<uint8_t>(y, x)) continue;
          auto p = [&](int dy, int dx) { return int(m.at<uint8_t>(y + dy, x + dx)); };
          // p2..p9 clockwise from the pixel above.
          const int n[8] = {p(-1, 0), p(-1, 1), p(0, 1),  p(1, 1),
                            p(1, 0),  p(1, -1), p(0, -1), p(-1, -1)};
          int b = 0, a = 0;
          for (int i = 0; i < 8; ++i) b += n[i], a += !n[i] && n[(i + 1) % 8];
          const int p2 = n[0], p4 = n[2], p6 = n[4], p8 = n[6];
          const bool side = pass == 0 ? p2 * p4 * p6 == 0 && p4 * p6 * p8 == 0
                                      : p2 * p4 * p8 == 0 && p2 * p6 * p8 == 0;
          if (b >= 2 && b <= 6 && a == 1 && side) del.emplace_back(x, y);
        }
      for (const auto& q : del) m.at<uint8_t>(q) = 0;
      changed = changed || !del.empty();
    }
  }
  return Region::FromMask(m, r1 - 1, c1 - 1);
}

// Shapes the skeleton meets in print: thick strokes, blobs with holes, noise.
TEST(Morphology, SkeletonMatchesPlainThinning) {
  const Region bar = Region::Rectangle(10, 10, 16, 60);  // 7 rows high
  std::vector<Region> shapes = {bar, bar.Union(Region::Rectangle(10, 10, 50, 16)),
                                Region::Rectangle(3, 4, 3, 4), Region::Rectangle(0, 0, 1, 1),
                                test::RandomBlobs(99, 31, 67, 0.85)};
  std::mt19937 rng(5);
  for (int k = 0; k < 24; ++k) {
    const int h = 5 + int(rng() % 60), w = 3 + int(rng() % 130);
    cv::Mat m = cv::Mat::zeros(h, w, CV_8U);
    for (int s = 0; s < 4; ++s) {
      cv::Point a(int(rng() % unsigned(w)), int(rng() % unsigned(h)));
      cv::Point b(int(rng() % unsigned(w)), int(rng() % unsigned(h)));
      cv::line(m, a, b, 255, 1 + int(rng() % 9));
    }
    if (k % 3 == 0) cv::circle(m, {w / 2, h / 2}, int(rng() % 5), 0, cv::FILLED);
    Region r = Region::FromMask(m, int(rng() % 50) - 25, int(rng() % 50) - 25);
    if (k % 4 == 1) r = r.Union(test::RandomBlobs(unsigned(k), h, w, 0.5));
    shapes.push_back(r);
  }
  // Blobs several words wide and dozens of rounds thick, with holes and
  // edges on the word boundaries: a pass looks only around what changed.
  for (int k = 0; k < 3; ++k) {
    cv::Mat m = cv::Mat::zeros(150, 64 * (k + 2) + k, CV_8U);
    cv::circle(m, {m.cols / 2, 75}, 60 + 5 * k, 255, cv::FILLED);
    cv::rectangle(m, cv::Rect(63, 10, 66, 40 + k), 255, cv::FILLED);
    cv::circle(m, {m.cols / 2 + 7, 70}, 9 + k, 0, cv::FILLED);
    shapes.push_back(Region::FromMask(m, k, 3 * k - 2).Union(test::RandomBlobs(unsigned(40 + k), 150, m.cols, 0.3)));
  }
  HObject all, sk;
  for (const Region& r : shapes) concat_obj(all, HObject(r), &all);
  skeleton(all, &sk);
  ASSERT_EQ(sk.Count(), long(shapes.size()));
  for (size_t i = 0; i < shapes.size(); ++i)
    EXPECT_EQ(R(sk, long(i)), ReferenceThinning(shapes[i])) << "shape " << i;
  skeleton(HObject(Region()), &sk);
  EXPECT_TRUE(R(sk).Empty());
}

TEST(Morphology, SparseHugeRegionsAreRefusedNotRasterised) {
  Region far = Region::Rectangle(0, 0, 0, 0)
                   .Union(Region::Rectangle(100000000, 100000000, 100000000, 100000000));
  HObject out;
  try {
    skeleton(HObject(far), &out);
    ADD_FAILURE() << "no exception";
  } catch (const HException& e) {
    EXPECT_EQ(e.ProcName(), "skeleton");
    EXPECT_EQ(e.ErrorCode(), kErrNoMemory);
  }
  HTuple v;
  EXPECT_THROW(region_features(HObject(far), HTuple("inner_radius"), &v), HException);
  // Run-based operators handle it.
  dilation_rectangle1(HObject(far), &out, HTuple(3), HTuple(3));
  EXPECT_EQ(R(out).Area(), 18);
}

}  // namespace
}  // namespace vision
