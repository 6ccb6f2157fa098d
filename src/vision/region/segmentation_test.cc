#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "vision/region/region_ops.h"
#include "vision/region/region_test_util.h"
#include "vision/region/region_util.h"

namespace vision {
namespace {

using test::Art;
using test::R;

class Segmentation : public ::testing::Test {
 protected:
  void SetUp() override { ResetSystem(); }
  void TearDown() override { ResetSystem(); }
};

Image ByteImage(const cv::Mat& m) { return Image::FromPlanes(PixelType::Byte, {m}); }

// Cases the random single-channel images compared pixel by pixel below do not meet.
TEST_F(Segmentation, ThresholdVectorFieldsIntervalsAndInexactRealLimits) {
  // Vector fields use their lengths.
  HObject reg;
  Image vf = Image::FromPlanes(PixelType::VectorField, {cv::Mat(2, 2, CV_32F, cv::Scalar(3)),
                                                        cv::Mat(2, 2, CV_32F, cv::Scalar(4))});
  vf.planes[0].at<float>(1, 1) = 0;
  threshold(HObject(vf), &reg, HTuple(4.5), HTuple(5.0));
  EXPECT_EQ(R(reg), Art({"##", "#."}));
  // Several intervals give one region each; an inverted interval is empty.
  cv::Mat m(3, 4, CV_8UC1);
  for (int i = 0; i < 12; ++i) m.data[i] = uint8_t(i * 10);  // 0..110 row-major
  threshold(HObject(ByteImage(m)), &reg, HTuple{0, 100, 50}, HTuple{0, 255, 40});
  ASSERT_EQ(reg.Count(), 3);
  EXPECT_EQ(R(reg, 0).Area(), 1);
  EXPECT_EQ(R(reg, 1).Area(), 2);
  EXPECT_TRUE(R(reg, 2).Empty());
  // Limits such as 0.1 have no exact float; pixels at the neighbouring floats
  // must fall on the same side as an exact comparison in double puts them.
  const double lo = -2.7, hi = 0.1;
  std::vector<float> values;
  for (float f : {float(lo), 0.f, float(hi)})
    values.insert(values.end(), {std::nextafter(f, -10.f), f, std::nextafter(f, 10.f)});
  const cv::Mat real(1, int(values.size()), CV_32F, values.data());
  threshold(HObject(Image::FromPlanes(PixelType::Real, {real})), &reg, HTuple(lo), HTuple(hi));
  for (int c = 0; c < real.cols; ++c) {
    double v = values[size_t(c)];
    EXPECT_EQ(R(reg).Contains(0, c), v >= lo && v <= hi) << "column " << c << " value " << v;
  }
}

// A domain of random rectangles, some reaching past the image, and random
// single pixels: rows with several runs, runs that start and end anywhere.
Region RandomDomain(std::mt19937& rng, int h, int w) {
  std::uniform_int_distribution<int> row(-3, h + 2), col(-5, w + 4), len(0, w);
  std::vector<Run> runs;
  for (int k = 0; k < 4; ++k) {
    int r1 = row(rng), r2 = row(rng), c1 = col(rng);
    for (int r = std::min(r1, r2); r <= std::max(r1, r2); ++r)
      runs.push_back({r, c1, c1 + len(rng)});
  }
  for (int k = 0; k < 2 * h; ++k) {
    int c = col(rng);
    runs.push_back({row(rng), c, c});
  }
  return Region::FromRuns(std::move(runs));
}

// Widths around the word sizes of the scanning code.
const int kOddWidths[] = {1, 2, 7, 15, 16, 17, 63, 64, 65, 100, 127, 128, 129, 301};

TEST_F(Segmentation, SingleChannelThresholdMatchesPixelByPixelComparison) {
  std::mt19937 rng(11);
  struct Case { int depth; PixelType type; double lo, hi; };
  const Case cases[] = {{CV_8U, PixelType::Byte, 0, 255},      {CV_16U, PixelType::UInt2, 0, 700},
                        {CV_16S, PixelType::Int2, -300, 300},  {CV_32S, PixelType::Int4, -9, 9},
                        {CV_32F, PixelType::Real, -3, 3}};
  for (const Case& c : cases) {
    const bool integral = c.depth != CV_32F;
    std::uniform_real_distribution<double> value(c.lo, c.hi);
    std::bernoulli_distribution flat(0.3), special(0.02);
    for (int w : kOddWidths) {
      const int h = 1 + int(rng() % 9);
      // Flat stretches make long runs; a few non-finite reals never pass.
      cv::Mat md(h, w, CV_64F), m;
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          double& v = md.at<double>(y, x);
          v = flat(rng) && x > 0 ? md.at<double>(y, x - 1) : value(rng);
          if (integral) v = std::round(v);
          else if (special(rng)) v = (rng() % 2) ? NAN : INFINITY;
        }
      md.convertTo(m, c.depth);
      m.convertTo(md, CV_64F);  // the values as stored, exact for every depth here
      Image img = Image::FromPlanes(c.type, {m});
      const bool reduced = rng() % 4 != 0;
      if (reduced) img.domain = RandomDomain(rng, h, w);
      const Region valid = img.domain.Clipped(h, w);
      for (int k = 0; k < 6; ++k) {
        double a = value(rng), b = value(rng);
        if (k == 0) a = c.lo - 1, b = c.hi + 1;                     // everything
        if (k == 1) a = b = std::round(a);                           // one level, tied exactly
        if (k == 2 && integral) a = std::round(a) + 0.5, b = a + 1.7;  // truncated
        if (k == 5) std::swap(a, b);                                 // possibly inverted: empty
        HObject reg;
        threshold(HObject(img), &reg, HTuple(a), HTuple(b));
        const double lo = integral ? std::trunc(a) : a, hi = integral ? std::trunc(b) : b;
        cv::Mat expect = cv::Mat::zeros(h, w, CV_8U);
        for (const vision::Run& x : valid.Runs())
          for (int col = x.cb; col <= x.ce; ++col) {
            const double v = md.at<double>(x.row, col);
            expect.at<uint8_t>(x.row, col) = v >= lo && v <= hi ? 255 : 0;
          }
        ASSERT_EQ(R(reg), Region::FromMask(expect))
            << PixelTypeName(c.type) << " " << h << "x" << w << " [" << a << ", " << b << "]"
            << (reduced ? " reduced" : "");
      }
    }
  }
}

// The compare widths of the vectorised helpers that this CPU runs.
std::vector<bool> Widths() {
  return detail::CpuHasAvx2() ? std::vector{false, true} : std::vector{false};
}

TEST_F(Segmentation, RealRowRunsAgreeForBothCompareWidths) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> level(-4, 4);
  for (int n = 0; n <= 200; ++n) {
    // Few distinct levels: long runs, and values exactly at the limits.
    std::vector<float> row(size_t(n) + 3);
    for (float& v : row) v = level(rng) * 0.5f;
    for (int k = 0; k < n / 16; ++k) row[rng() % row.size()] = (rng() % 2) ? NAN : -INFINITY;
    const float lo = level(rng) * 0.5f, hi = lo + float(rng() % 4) * 0.5f;
    const int col0 = int(rng() % 100) - 50;
    std::vector<vision::Run> expect;
    for (int i = 0; i < n; ++i) {
      if (!(row[size_t(i) + 1] >= lo && row[size_t(i) + 1] <= hi)) continue;
      if (!expect.empty() && expect.back().ce == col0 + i - 1) ++expect.back().ce;
      else expect.push_back({7, col0 + i, col0 + i});
    }
    for (bool wide : Widths()) {
      std::vector<vision::Run> got;
      detail::RealRangeRuns(row.data() + 1, n, lo, hi, 7, col0, wide, &got);
      ASSERT_EQ(got, expect) << "n " << n << " wide " << wide;
    }
  }
}

// The areas of several ranges counted at once are those of thresholding each:
// limits that are not floats, values on the limits, NaN, a reduced domain.
TEST_F(Segmentation, RealRangeAreasAreThoseOfEachThreshold) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> level(-6, 6);
  cv::Mat m(23, 77, CV_32F);
  for (int r = 0; r < m.rows; ++r)
    for (int c = 0; c < m.cols; ++c) m.at<float>(r, c) = level(rng) * 0.1f;
  m.at<float>(3, 5) = NAN;
  m.at<float>(4, 70) = -INFINITY;
  Image img = Image::FromPlanes(PixelType::Real, {m});
  HObject rect;
  gen_rectangle1(&rect, HTuple(2), HTuple(3), HTuple(19), HTuple(71));
  HObject full(img), reduced;
  reduce_domain(full, rect, &reduced);
  const std::vector<double> lo = {-0.3, -0.30000000000000004, -0.25, 0.0, -1.0, 0.5, -1e30, 0.2};
  const std::vector<double> hi = {0.3, 0.29999999999999993, 0.25, 0.0, 1.0, 0.4, 0.1, 1e30};
  for (const HObject* obj : {&full, &reduced}) {
    std::vector<int64_t> areas;
    ASSERT_TRUE(detail::RealRangeAreas(obj->ImageAt(0), lo, hi, &areas));
    ASSERT_EQ(areas.size(), lo.size());
    for (size_t i = 0; i < lo.size(); ++i) {
      HObject reg;
      HTuple a, row, col;
      threshold(*obj, &reg, HTuple(lo[i]), HTuple(hi[i]));
      area_center(reg, &a, &row, &col);
      EXPECT_EQ(areas[i], a.L()) << "range " << i << (obj == &full ? " full" : " reduced");
    }
  }
  std::vector<int64_t> areas;
  EXPECT_FALSE(detail::RealRangeAreas(ByteImage(cv::Mat(3, 3, CV_8U, cv::Scalar(1))), {0}, {2}, &areas));
}

// A 256-bin histogram smoothed with a Gaussian the plain way, mass outside the gray range ignored.
std::vector<double> PlainSmooth(const std::vector<double>& hist, double sigma) {
  const int r = int(std::ceil(3 * sigma));
  std::vector<double> out(256);
  for (int i = 0; i < 256; ++i) {
    double sum = 0, weight = 0;
    for (int d = std::max(-r, -i); d <= std::min(r, 255 - i); ++d) {
      const double k = std::exp(-0.5 * d * d / (sigma * sigma));
      sum += k * hist[size_t(i + d)];
      weight += k;
    }
    out[size_t(i)] = sum / weight;
  }
  return out;
}

TEST_F(Segmentation, HistogramSmoothingIsThePlainSumForBothWidths) {
  std::mt19937 rng(8);
  for (int trial = 0; trial < 3; ++trial) {
    // Sparse and dense histograms, with empty stretches at both ends.
    std::vector<double> h(256, 0.0);
    for (int i = 10 * trial + 1; i < 250; ++i)
      if (rng() % (trial + 1) == 0) h[size_t(i)] = double(rng() % 1000) / 997.0;
    detail::HistogramSmoother smoother(h);
    for (double sigma = 1; sigma <= 64; sigma += 1) {
      const std::vector<double> expect = PlainSmooth(h, sigma);
      for (bool wide : Widths()) {
        std::vector<double> got;
        smoother.Smooth(sigma, wide, &got);
        ASSERT_EQ(got, expect) << "sigma " << sigma << " wide " << wide;  // bit for bit
      }
    }
  }
}

TEST_F(Segmentation, BinThresholdCutsAtTheValleyOrByOtsu) {
  // Two clear modes: exactly the dark part.
  cv::Mat two(40, 60, CV_8UC1);
  cv::RNG gauss(7);
  for (int y = 0; y < two.rows; ++y)
    for (int x = 0; x < two.cols; ++x)
      two.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>((x < 20 ? 60 : 190) + gauss.gaussian(8));
  HObject reg;
  bin_threshold(HObject(ByteImage(two)), &reg);
  EXPECT_EQ(R(reg), Region::Rectangle(0, 0, 39, 19));
  // A constant image and an empty domain: no valley at all.
  Image flat = ByteImage(cv::Mat(5, 9, CV_8U, cv::Scalar(77)));
  bin_threshold(HObject(flat), &reg);
  EXPECT_EQ(R(reg).Area(), 45);
  flat.domain = Region();
  bin_threshold(HObject(flat), &reg);
  EXPECT_TRUE(R(reg).Empty());
  HObject real(Image::FromPlanes(PixelType::Real, {cv::Mat(2, 2, CV_32F, cv::Scalar(1))}));
  EXPECT_THROW(bin_threshold(real, &reg), HException);
  // A valley with an exactly flat floor: ten pixels of each gray 60-79 and
  // 161-180, one of each between. The floor runs from 83 to 157 once
  // smoothed, and the cut lies at its middle, 120, not at either end.
  std::vector<uint8_t> grays;
  for (int v = 60; v <= 180; ++v)
    for (int k = 0; k < (v < 80 || v > 160 ? 10 : 1); ++k) grays.push_back(uint8_t(v));
  const cv::Mat valley(1, int(grays.size()), CV_8U, grays.data());
  bin_threshold(HObject(ByteImage(valley)), &reg);
  EXPECT_EQ(R(reg).Area(), 200 + (120 - 80 + 1));
  // Ten pixels of gray 10, ten of 11 and eighty of 12 leave no valley: Otsu's
  // between-class variance is 0.32 for a cut after 10 and 0.36 after 11.
  cv::Mat three(1, 100, CV_8U, cv::Scalar(12));
  three.colRange(0, 10).setTo(10);
  three.colRange(10, 20).setTo(11);
  bin_threshold(HObject(ByteImage(three)), &reg);
  EXPECT_EQ(R(reg), Region::Rectangle(0, 0, 0, 19));
}

// The cut depends on the domain's histogram alone: the same gray values sorted
// into one row are cut after the same value as the image, whatever its width
// and domain.
TEST_F(Segmentation, BinThresholdDependsOnTheDomainHistogramAlone) {
  std::mt19937 rng(23);
  std::normal_distribution<double> noise(0, 1);
  for (int modes = 0; modes <= 4; ++modes) {
    for (int w : kOddWidths) {
      const int h = 1 + int(rng() % 40);
      // Gray levels drawn around `modes` random centres (none: uniform noise).
      std::vector<double> centre, spread;
      for (int k = 0; k < modes; ++k) {
        centre.push_back(double(rng() % 256));
        spread.push_back(1 + double(rng() % 30));
      }
      cv::Mat m(h, w, CV_8U);
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const size_t k = modes == 0 ? 0 : rng() % size_t(modes);
          const double v = modes == 0 ? double(rng() % 256) : centre[k] + spread[k] * noise(rng);
          m.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>(v);
        }
      Image img = ByteImage(m);
      if (rng() % 3 == 0) img.domain = RandomDomain(rng, h, w);
      std::vector<uint8_t> grays;
      const Region dom = img.domain.Clipped(h, w);
      for (const vision::Run& x : dom.Runs())
        for (int c = x.cb; c <= x.ce; ++c) grays.push_back(m.at<uint8_t>(x.row, c));
      if (grays.empty()) continue;
      std::sort(grays.begin(), grays.end());
      const cv::Mat row(1, int(grays.size()), CV_8U, grays.data());
      HObject sorted, reg, expect;
      bin_threshold(HObject(ByteImage(row)), &sorted);
      const int n = int(R(sorted).Area());
      ASSERT_EQ(R(sorted), n > 0 ? Region::Rectangle(0, 0, 0, n - 1) : Region());
      const int t = n > 0 ? grays[size_t(n - 1)] : -1;
      bin_threshold(HObject(img), &reg);
      threshold(HObject(img), &expect, HTuple(0), HTuple(t));
      ASSERT_EQ(R(reg), R(expect)) << modes << " modes, " << h << "x" << w << ", threshold " << t;
    }
  }
}

TEST_F(Segmentation, ConnectionMatchesRasterLabellingInFirstRunOrder) {
  for (unsigned seed : {1u, 2u, 3u}) {
    Region r = test::RandomBlobs(seed, 50, 70, 0.45);
    for (int nb : {4, 8}) {
      set_system(HTuple("neighborhood"), HTuple(nb));
      HObject parts;
      connection(HObject(r), &parts);
      cv::Mat labels;
      int n = cv::connectedComponents(r.ToMask(50, 70), labels, nb, CV_32S);
      ASSERT_EQ(parts.Count(), n - 1) << "seed " << seed << " nb " << nb;
      // Same partition: every component is one raster label. Components
      // come in the order of their first runs.
      Hlong total = 0;
      for (long i = 0; i < parts.Count(); ++i) {
        const vision::Run& first = R(parts, i).Runs().front();
        int label = labels.at<int>(first.row, first.cb);
        EXPECT_EQ(R(parts, i), Region::FromMask(labels == label));
        total += R(parts, i).Area();
        if (i > 0) {
          const vision::Run& prev = R(parts, i - 1).Runs().front();
          EXPECT_LT(std::pair(prev.row, prev.cb), std::pair(first.row, first.cb)) << i;
        }
      }
      EXPECT_EQ(total, r.Area());
    }
  }
  HObject parts;
  connection(HObject(Region()), &parts);
  EXPECT_EQ(parts.Count(), 0);
}

TEST_F(Segmentation, SetOperations) {
  HObject a, b, res;
  gen_rectangle1(&a, HTuple{0, 10}, HTuple{0, 0}, HTuple{4, 14}, HTuple{4, 4});
  gen_rectangle1(&b, HTuple{2, 12}, HTuple{2, 2}, HTuple{3, 13}, HTuple{10, 10});
  union1(a, &res);
  ASSERT_EQ(res.Count(), 1);
  EXPECT_EQ(R(res).Area(), 50);
  union1(HObject(), &res);
  ASSERT_EQ(res.Count(), 1);
  EXPECT_TRUE(R(res).Empty());
  difference(a, b, &res);
  EXPECT_EQ(R(res, 0).Area(), 25 - 6);

  set_system(HTuple("width"), HTuple(8));
  set_system(HTuple("height"), HTuple(6));
  complement(HObject(Region::Rectangle(-3, -3, 2, 2)), &res);
  EXPECT_EQ(R(res).Area(), 48 - 9);
  set_system(HTuple("clip_region"), HTuple("false"));
  complement(HObject(Region::Rectangle(-3, -3, 2, 2)), &res);
  EXPECT_EQ(R(res).Area(), 9 * 11 - 36);
}

TEST_F(Segmentation, IntersectionMatchesPixelwiseAndOfEveryRegion) {
  std::mt19937 rng(13);
  auto random_list = [&](int count, unsigned seed) {
    HObject list;
    for (int k = 0; k < count; ++k) {
      const int h = 1 + int(rng() % 30), w = 1 + int(rng() % 90);
      Region r = test::RandomBlobs(seed + unsigned(k), h, w, 0.2 + 0.1 * (k % 7))
                     .Translated(int(rng() % 60) - 30, int(rng() % 60) - 30);
      if (k % 5 == 4) r = Region();
      concat_obj(list, HObject(r), &list);
    }
    return list;
  };
  const int h = 160, w = 260, row0 = -80, col0 = -80;  // holds every region
  for (int trial = 0; trial < 10; ++trial) {
    HObject a = random_list(1 + trial % 4, 1000u + unsigned(trial) * 50u);
    HObject b = random_list(trial % 3 == 0 ? 1 : trial % 5, 5000u + unsigned(trial) * 50u);
    if (trial == 7) concat_obj(b, HObject(Region::Rectangle(-70, -70, 70, 170)), &b);
    // Many runs in a row; rows far apart (no table of rows).
    if (trial == 8) b = HObject(test::RandomBlobs(77, 40, 250, 0.5).Translated(-20, -70));
    if (trial == 9) {
      a = HObject(test::RandomBlobs(78, 40, 250, 0.4).Translated(-20, -70));
      b = HObject(test::RandomBlobs(79, 40, 250, 0.4).Translated(-20, -70)
                      .Union(Region::Rectangle(900000, 0, 900000, 3)));
    }
    cv::Mat ub = cv::Mat::zeros(h, w, CV_8U);
    for (long j = 0; j < b.Count(); ++j) ub |= R(b, j).ToMask(h, w, row0, col0);
    HObject res;
    intersection(a, b, &res);
    ASSERT_EQ(res.Count(), a.Count());
    for (long i = 0; i < a.Count(); ++i)
      EXPECT_EQ(R(res, i), Region::FromMask(R(a, i).ToMask(h, w, row0, col0) & ub, row0, col0))
          << "trial " << trial << " region " << i;
  }
}

TEST_F(Segmentation, Boundaries) {
  Region block = Region::Rectangle(0, 0, 4, 4);
  Region ring = block.Difference(Region::Rectangle(2, 2, 2, 2));
  struct Case { const char* type; Region in; Hlong area; };
  const Case cases[] = {
      {"inner", block, 16},
      {"inner", ring, 16 + 4},  // and the hole's 4-neighbours
      {"inner_filled", ring, 16},
      {"outer", block, 7 * 7 - 25},
  };
  for (const auto& c : cases) {
    HObject res;
    boundary(HObject(c.in), &res, HTuple(c.type));
    EXPECT_EQ(R(res).Area(), c.area) << c.type;
  }
  HObject res;
  EXPECT_THROW(boundary(HObject(block), &res, HTuple("middle")), HException);
}

// Holes found on a raster: background components (4-connected for the
// 8-neighbourhood, 8-connected for the 4-neighbourhood) that do not touch the
// frame around the region.
std::vector<Region> RasterHoles(const Region& r, int nb) {
  if (r.Empty()) return {};
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  cv::Mat bg = r.ToMask(r2 - r1 + 3, c2 - c1 + 3, r1 - 1, c1 - 1) == 0, labels;
  const int n = cv::connectedComponents(bg, labels, nb == 8 ? 4 : 8, CV_32S);
  const int outside = labels.at<int>(0, 0);
  std::vector<Region> holes;
  for (int l = 1; l < n; ++l)
    if (l != outside) holes.push_back(Region::FromMask(labels == l, r1 - 1, c1 - 1));
  return holes;
}

TEST_F(Segmentation, FillUpShapeMatchesRasterHoles) {
  std::mt19937 rng(19);
  for (int k = 0; k < 12; ++k) {
    const int h = 2 + int(rng() % 40), w = 2 + int(rng() % 80);
    const Region r = test::RandomBlobs(unsigned(700 + k), h, w, 0.45 + 0.04 * (k % 8))
                         .Translated(int(rng() % 20) - 10, int(rng() % 20) - 10);
    for (int nb : {8, 4}) {
      set_system(HTuple("neighborhood"), HTuple(nb));
      const std::vector<Region> holes = RasterHoles(r, nb);
      // The blobs have holes of every small area: the limits 1, 3 and 5 are met exactly.
      struct Case { const char* feature; double lo, hi; };
      for (const Case c : {Case{"area", 1, 5}, Case{"area", 3, 1e9}, Case{"ra", 0, 1.2},
                           Case{"compactness", 1, 2}}) {
        Region expect = r;
        for (const Region& hole : holes) {
          HTuple v;
          region_features(HObject(hole), HTuple(c.feature), &v);
          if (v.D(0) >= c.lo && v.D(0) <= c.hi) expect = expect.Union(hole);
        }
        HObject res;
        fill_up_shape(HObject(r), &res, HTuple(c.feature), HTuple(c.lo), HTuple(c.hi));
        EXPECT_EQ(R(res), expect) << "shape " << k << " nb " << nb << " " << c.feature;
      }
      Region all = r;
      for (const Region& hole : holes) all = all.Union(hole);
      HObject res;
      fill_up(HObject(r), &res);
      EXPECT_EQ(R(res), all) << "shape " << k << " nb " << nb;
    }
  }
  HObject res;
  EXPECT_THROW(fill_up_shape(HObject(Region::Rectangle(0, 0, 2, 2)), &res, HTuple("colour"),
                             HTuple(0), HTuple(1)),
               HException);
}

TEST_F(Segmentation, PartitionDynamicCutsAtTheNarrowestColumn) {
  // A tall block (columns 0..11) touching a low block (12..19): the cut near
  // column 10 moves to 12, where the vertical extent drops.
  Region r = Region::Rectangle(0, 0, 9, 11).Union(Region::Rectangle(3, 12, 6, 19));
  HObject parts;
  partition_dynamic(HObject(r), &parts, HTuple(10), HTuple(25));
  ASSERT_EQ(parts.Count(), 2);
  EXPECT_EQ(R(parts, 0), Region::Rectangle(0, 0, 9, 11));
  EXPECT_EQ(R(parts, 1), Region::Rectangle(3, 12, 6, 19));
  // With no search range the cut stays at the equal split.
  partition_dynamic(HObject(r), &parts, HTuple(10), HTuple(0));
  ASSERT_EQ(parts.Count(), 2);
  EXPECT_EQ(R(parts, 0), Region::Rectangle(0, 0, 9, 9));
  // Narrower than 1.5 distances: unchanged. Five equal parts of a bar.
  partition_dynamic(HObject(r), &parts, HTuple(14), HTuple(25));
  EXPECT_EQ(parts.Count(), 1);
  partition_dynamic(HObject(Region::Rectangle(0, 0, 2, 49)), &parts, HTuple(10), HTuple(25));
  ASSERT_EQ(parts.Count(), 5);
  for (long i = 0; i < 5; ++i) EXPECT_EQ(R(parts, i).Area(), 30);
}

TEST_F(Segmentation, OctagonalDistanceOnABar) {
  // A bar five rows high inside a larger image: 1 2 3 2 1 across it. (The other
  // metrics are checked pixel by pixel below.)
  const Region bar = Region::Rectangle(2, 1, 6, 12);
  const std::vector<int> column6{0, 0, 1, 2, 3, 2, 1, 0, 0};
  HObject img;
  distance_transform(HObject(bar), &img, HTuple("octagonal"), HTuple("true"), HTuple(16),
                     HTuple(9));
  const Image& d = img.ImageAt(0);
  ASSERT_EQ(d.type, PixelType::Int4);
  ASSERT_EQ(d.width, 16);
  ASSERT_EQ(d.height, 9);
  for (int y = 0; y < 9; ++y) EXPECT_EQ(d.planes[0].at<int32_t>(y, 6), column6[size_t(y)]) << y;
  EXPECT_THROW(distance_transform(HObject(bar), &img, HTuple("manhattan"), HTuple("true"),
                                  HTuple(4), HTuple(4)),
               HException);
}

// The raster metrics and the Euclidean distance (rounded) against the nearest
// source found by search, on degenerate shapes and random blobs reaching past
// every side.
TEST_F(Segmentation, DistanceTransformMatchesBruteForce) {
  std::mt19937 rng(41);
  struct Shape { int h, w; Region r; };
  std::vector<Shape> shapes = {{1, 1, Region::Rectangle(0, 0, 0, 0)},
                               {1, 1, Region()},
                               {1, 9, Region::Rectangle(0, 2, 0, 5)},
                               {9, 1, Region::Rectangle(-3, 0, 4, 0)},
                               {6, 7, Region::Rectangle(-5, -5, 20, 20)},  // covers the image
                               {5, 70, Region()},
                               {18, 23, test::RandomBlobs(5, 18, 23, 0.8)}};
  for (int k = 0; k < 8; ++k) {
    const int h = 1 + int(rng() % 30), w = 1 + int(rng() % 45);
    shapes.push_back({h, w, test::RandomBlobs(unsigned(300 + k), h + 4, w + 4, 0.3 + 0.09 * k)
                                .Translated(-2, -2)});
  }
  for (const std::string metric : {"city-block", "chessboard", "euclidean"})
    for (const Shape& s : shapes)
      for (const bool inside : {true, false}) {
        SCOPED_TRACE(testing::Message() << metric << " " << s.h << "x" << s.w << " " << inside);
        HObject img;
        distance_transform(HObject(s.r), &img, HTuple(metric), HTuple(inside ? "true" : "false"),
                           HTuple(s.w), HTuple(s.h));
        ASSERT_EQ(img.ImageAt(0).type, PixelType::Int4);
        const cv::Mat& d = img.ImageAt(0).planes[0];
        ASSERT_EQ(d.size(), cv::Size(s.w, s.h));
        for (int y = 0; y < s.h; ++y)
          for (int x = 0; x < s.w; ++x) {
            // Nearest pixel of the other kind, or just outside the image for
            // the foreground; none at all gives 0.
            int best = 0;
            if (s.r.Contains(y, x) == inside) {
              best = 1 << 30;
              for (int v = -1; v <= s.h; ++v)
                for (int u = -1; u <= s.w; ++u) {
                  const bool outside = v < 0 || u < 0 || v >= s.h || u >= s.w;
                  if (!(outside ? inside : s.r.Contains(v, u) != inside)) continue;
                  const int dy = std::abs(v - y), dx = std::abs(u - x);
                  best = std::min(best, metric == "city-block"   ? dx + dy
                                        : metric == "chessboard" ? std::max(dx, dy)
                                                                 : dx * dx + dy * dy);
                }
              if (best == 1 << 30) best = 0;
              else if (metric == "euclidean") best = int(std::lround(std::sqrt(best)));
            }
            ASSERT_EQ(d.at<int32_t>(y, x), best) << "at " << y << "," << x;
          }
      }
}

TEST_F(Segmentation, IntensityMeanAndDeviation) {
  cv::Mat m = (cv::Mat_<uint8_t>(2, 3) << 10, 20, 30, 40, 50, 60);
  HObject regions;
  concat_obj(HObject(Region::Rectangle(0, 0, 0, 2)), HObject(Region()), &regions);
  concat_obj(regions, HObject(Region::Rectangle(1, 2, 5, 9)), &regions);  // partly outside
  HTuple mean, dev;
  intensity(regions, HObject(ByteImage(m)), &mean, &dev);
  ASSERT_EQ(mean.Length(), 3);
  EXPECT_DOUBLE_EQ(mean.D(0), 20.0);
  EXPECT_NEAR(dev.D(0), std::sqrt(200.0 / 3.0), 1e-9);
  EXPECT_EQ(mean.D(1), 0.0);
  EXPECT_EQ(dev.D(1), 0.0);
  EXPECT_DOUBLE_EQ(mean.D(2), 60.0);
  EXPECT_EQ(dev.D(2), 0.0);
}

TEST(SystemParameters, DefaultsAndValidation) {
  ResetSystem();
  HTuple v;
  get_system(HTuple("neighborhood"), &v);
  EXPECT_EQ(v.L(0), 8);
  get_system(HTuple("clip_region"), &v);
  EXPECT_EQ(v.S(0), "true");
  get_system(HTuple("width"), &v);
  EXPECT_EQ(v.L(0), 512);
  get_system(HTuple("operating_system"), &v);
  EXPECT_EQ(v.S(0), "Linux");
  EXPECT_THROW(set_system(HTuple("neighborhood"), HTuple(6)), HException);
  EXPECT_THROW(set_system(HTuple("clip_region"), HTuple(1)), HException);
  EXPECT_THROW(set_system(HTuple("no_such"), HTuple(1)), HException);
  EXPECT_THROW(get_system(HTuple("no_such"), &v), HException);
  NoteImageSize(640, 480);
  get_system(HTuple("height"), &v);
  EXPECT_EQ(v.L(0), 480);
  ResetSystem();
}

}  // namespace
}  // namespace vision
