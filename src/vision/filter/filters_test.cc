#include "vision/filter/filters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include <opencv2/imgproc.hpp>

#include "vision/filter/filter_util.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::At;
using test::MakeImage;
using test::RandomImage;
using test::RandomRegion;

constexpr int kMirror = cv::BORDER_REFLECT_101;

PixelType AnyType(std::mt19937& rng) {
  return std::array{PixelType::Byte, PixelType::UInt2, PixelType::Int2, PixelType::Int4,
                    PixelType::Real}[rng() % 5];
}

// Random image of one type with `channels` channels, or one or three when 0,
// and a random domain inside it.
Image RandomMulti(std::mt19937& rng, PixelType t, int w, int h, int channels, double spread) {
  if (channels == 0) channels = 1 + 2 * int(rng() % 2);
  Image img = RandomImage(rng, t, w, h, spread);
  for (int k = 1; k < channels; ++k)
    img.planes.push_back(RandomImage(rng, t, w, h, spread).planes[0]);
  if (rng() % 2) img.domain = RandomRegion(rng, h, w).Clipped(h, w);
  return img;
}

int RoundedGray(int r, int g, int b) { return (299 * r + 587 * g + 114 * b + 500) / 1000; }

// Every colour once (a 4096 x 4096 image holds all 2^24), then odd widths
// that end in the middle of a vector, with domains; one channel passes as is.
TEST(Filters, Rgb1ToGrayByteMatchesIntegerFormulaForEveryColour) {
  cv::Mat r(4096, 4096, CV_8U), g(4096, 4096, CV_8U), b(4096, 4096, CV_8U);
  for (int i = 0; i < 1 << 24; ++i) {
    r.data[i] = uint8_t(i >> 16);
    g.data[i] = uint8_t(i >> 8);
    b.data[i] = uint8_t(i);
  }
  HObject gray;
  rgb1_to_gray(HObject(Image::FromPlanes(PixelType::Byte, {r, g, b})), &gray);
  ASSERT_EQ(gray.ImageAt(0).Channels(), 1);
  const cv::Mat& y = gray.ImageAt(0).planes[0];
  int wrong = 0;
  for (int i = 0; i < 1 << 24; ++i)
    wrong += y.data[i] != RoundedGray(r.data[i], g.data[i], b.data[i]);
  EXPECT_EQ(wrong, 0);

  std::mt19937 rng(7);
  for (int trial = 0; trial < 40; ++trial) {
    const int w = 1 + int(rng() % 37), h = 1 + int(rng() % 5);
    const Image img = RandomMulti(rng, PixelType::Byte, w, h, 3, 128);
    rgb1_to_gray(HObject(img), &gray);
    ASSERT_EQ(gray.ImageAt(0).domain, img.domain);
    for (int row = 0; row < h; ++row)
      for (int c = 0; c < w; ++c)
        ASSERT_EQ(At(gray, row, c),
                  RoundedGray(img.planes[0].at<uint8_t>(row, c), img.planes[1].at<uint8_t>(row, c),
                              img.planes[2].at<uint8_t>(row, c)))
            << w << "x" << h;
  }
  rgb1_to_gray(HObject(MakeImage(PixelType::Byte, 2, 1, {7, 9})), &gray);
  EXPECT_EQ(At(gray, 0, 1), 9);
}

TEST(Filters, InvertAndScalePerType) {
  struct Case { PixelType t; double in, inverted; } inv[] = {
      {PixelType::Byte, 10, 245}, {PixelType::Int2, 5, -5}, {PixelType::Int2, -32768, 32767},
      {PixelType::UInt2, 10, 65525}, {PixelType::Int4, -9, 9}, {PixelType::Real, 2.5, -2.5},
  };
  for (const Case& c : inv) {
    HObject out;
    invert_image(HObject(MakeImage(c.t, 1, 1, {c.in})), &out);
    EXPECT_EQ(out.ImageAt(0).type, c.t);
    EXPECT_DOUBLE_EQ(At(out, 0, 0), c.inverted) << PixelTypeName(c.t);
  }
  HObject img(MakeImage(PixelType::Byte, 3, 1, {200, 3, 2})), out;
  scale_image(img, &out, 2, -10);
  EXPECT_EQ(At(out, 0, 0), 255);  // 390 clipped
  EXPECT_EQ(At(out, 0, 2), 0);    // -6 clipped
  scale_image(img, &out, 0.5, 0);
  EXPECT_EQ(At(out, 0, 1), 2);  // 1.5 rounds up
  HObject real(MakeImage(PixelType::Real, 1, 1, {200})), rout;
  scale_image(real, &rout, 2, -10);
  EXPECT_DOUBLE_EQ(At(rout, 0, 0), 390);  // no clipping for real
}

// Quarter turns (counter-clockwise) against the pixel mapping of each turn,
// domains included, for every pixel type, one and three channels, odd sizes;
// exact turns permute pixels whatever the interpolation.
TEST(Filters, RotateQuarterTurnsMatchPixelMapping) {
  std::mt19937 rng(55);
  const double angles[] = {0, 90, 180, 270, 360, -180, 540, -90};
  const char* interps[] = {"constant", "bilinear", "nearest_neighbor", "weighted"};
  for (int trial = 0; trial < 120; ++trial) {
    const int w = 1 + int(rng() % 19), h = 1 + int(rng() % 13);
    const PixelType t = AnyType(rng);
    Image img = RandomMulti(rng, t, w, h, 0, 1000);
    if (rng() % 4 == 0) img.domain = RandomRegion(rng, h, w);  // reaching outside the image
    const double phi = angles[rng() % 8];
    HObject out;
    rotate_image(HObject(img), &out, phi, interps[trial % 4]);
    const Image& o = out.ImageAt(0);
    const int turns = ((int(phi) / 90) % 4 + 4) % 4;
    const int ow = turns % 2 ? h : w, oh = turns % 2 ? w : h;
    ASSERT_EQ(o.width, ow);
    ASSERT_EQ(o.height, oh);
    ASSERT_EQ(o.type, t);
    // Source pixel of output pixel (r, c): a quarter turn takes the right
    // column to the top row.
    auto source = [&](int r, int c) {
      switch (turns) {
        case 1: return cv::Point(w - 1 - r, c);
        case 2: return cv::Point(w - 1 - c, h - 1 - r);
        case 3: return cv::Point(r, h - 1 - c);
        default: return cv::Point(c, r);
      }
    };
    SCOPED_TRACE(testing::Message() << "phi " << phi << " " << w << "x" << h);
    std::vector<vision::Run> runs;
    for (int r = 0; r < oh; ++r)
      for (int c = 0; c < ow; ++c) {
        const cv::Point s = source(r, c);
        if (img.domain.Contains(s.y, s.x)) runs.push_back({r, c, c});
        for (int k = 0; k < int(img.planes.size()); ++k)
          ASSERT_EQ(At(out, r, c, k), At(HObject(img), s.y, s.x, k)) << " at " << r << "," << c;
      }
    ASSERT_EQ(o.domain, Region::FromRuns(runs));
  }
  HObject out, one(MakeImage(PixelType::Byte, 1, 1, {0}));
  EXPECT_THROW(rotate_image(one, &out, 45, "cubic_spline"), HException);
}

TEST(Filters, RotateGeneralAngleKeepsSizeAndCentre) {
  std::vector<double> v(9 * 9, 0.0);
  v[4 * 9 + 4] = 200;  // centre pixel
  v[4 * 9 + 8] = 100;  // right of centre
  HObject out;
  rotate_image(HObject(MakeImage(PixelType::Byte, 9, 9, v)), &out, 45, "constant");
  EXPECT_EQ(out.ImageAt(0).width, 9);
  EXPECT_EQ(At(out, 4, 4), 200);
  // 4 px to the right turned 45 degrees counter-clockwise lands up-right.
  EXPECT_EQ(At(out, 4 - 3, 4 + 3), 100);
  EXPECT_LT(out.ImageAt(0).domain.Area(), 81);  // corners rotated out
}

TEST(Filters, ZoomSizesRound) {
  struct Case { int w, h; double sw, sh; int ow, oh; } cases[] = {
      {5, 3, 1.5, 1.0, 8, 3}, {640, 480, 0.5, 0.5, 320, 240}, {7, 7, 0.3, 2.0, 2, 14},
      {3, 1, 1.0, 1.0, 3, 1},
  };
  for (const Case& c : cases) {
    const std::vector<double> flat(size_t(c.w * c.h), 9);
    const HObject img(MakeImage(PixelType::Byte, c.w, c.h, flat));
    for (const char* interp : {"nearest_neighbor", "bilinear", "constant", "weighted"}) {
      HObject out;
      zoom_image_factor(img, &out, c.sw, c.sh, interp);
      HTuple w, h;
      get_image_size(out, &w, &h);
      EXPECT_EQ(w.L(0), c.ow) << interp;
      EXPECT_EQ(h.L(0), c.oh) << interp;
      EXPECT_EQ(At(out, c.oh - 1, c.ow - 1), 9) << interp;  // flat stays flat to the border
      EXPECT_TRUE(out.ImageAt(0).FullDomain());
    }
  }
  HObject out;  // width 2 * 0.1 rounds to 0
  EXPECT_THROW(zoom_image_factor(HObject(MakeImage(PixelType::Byte, 2, 2, {0, 0, 0, 0})), &out, 0.1,
                                 1, "bilinear"),
               HException);
}

// Byte emphasis against the rounding of each scaled difference on its own,
// for integral factors (exact integer arithmetic) and fractional ones.
TEST(Filters, EmphasizeByteMatchesRoundedDifferences) {
  std::mt19937 rng(321);
  const double factors[] = {0, 1, 1, 2, 7, 0.5, 1.7, 65536, 70000.5};
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 1 + int(rng() % 41), h = 1 + int(rng() % 23);
    // Half of the cases use the 3 x 3 mask the recognition uses.
    const bool square3 = trial % 2 == 0;
    const int mw = square3 ? 3 : 1 + int(rng() % 5), mh = square3 ? 3 : 1 + int(rng() % 5);
    const double f = factors[rng() % 9];
    const Image img = RandomMulti(rng, PixelType::Byte, w, h, 0, rng() % 2 ? 128 : 6);
    HObject out;
    emphasize(HObject(img), &out, mw, mh, f);
    const Image& e = out.ImageAt(0);
    ASSERT_EQ(e.domain, img.domain);
    ASSERT_EQ(e.planes.size(), img.planes.size());
    for (size_t k = 0; k < img.planes.size(); ++k) {
      // The mean in single precision, rounded to nearest (halves up).
      cv::Mat fl, mean;
      img.planes[k].convertTo(fl, CV_32F);
      cv::blur(fl, mean, cv::Size(mw, mh), cv::Point(-1, -1), kMirror);
      for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
          const int o = img.planes[k].at<uint8_t>(r, c), m = int(std::round(mean.at<float>(r, c)));
          const double v = std::round(float(o - m) * float(f)) + o;
          ASSERT_EQ(e.planes[k].at<uint8_t>(r, c), std::clamp(v, 0.0, 255.0))
              << "factor " << f << " mask " << mw << "x" << mh << " at " << r << "," << c;
        }
    }
  }
  HObject out;
  EXPECT_THROW(emphasize(HObject(MakeImage(PixelType::Real, 1, 1, {0})), &out, 3, 3, 1),
               HException);
}

// The byte path of the mean filter must round like the exact mean of the
// real path, halves up, for odd and even masks, also at the mirrored border.
TEST(Filters, MeanImageByteRoundsLikeTheExactMean) {
  // Every sum a 3 x 3 neighbourhood of bytes can have, at the centre of a
  // 3 x 3 image.
  for (int sum = 0; sum <= 9 * 255; ++sum) {
    std::vector<double> nine(9, double(sum / 9));
    for (int i = 0; i < sum % 9; ++i) nine[size_t(i)] += 1;
    HObject m;
    mean_image(HObject(MakeImage(PixelType::Byte, 3, 3, nine)), &m, 3, 3);
    ASSERT_EQ(At(m, 1, 1), (2 * sum + 9) / 18) << "sum " << sum;
  }

  std::vector<double> v;
  for (int i = 0; i < 13 * 11; ++i) v.push_back((i * 97 + i / 7 * 31) % 256);
  HObject bytes(MakeImage(PixelType::Byte, 13, 11, v)), real(MakeImage(PixelType::Real, 13, 11, v));
  for (auto [mw, mh] : {std::pair{3, 3}, {5, 3}, {4, 4}, {1, 7}, {2, 1}}) {
    HObject mb, mr;
    mean_image(bytes, &mb, mw, mh);
    mean_image(real, &mr, mw, mh);
    for (int r = 0; r < 11; ++r)
      for (int c = 0; c < 13; ++c)
        ASSERT_EQ(At(mb, r, c), std::floor(At(mr, r, c) + 0.5))
            << mw << "x" << mh << " at " << r << "," << c;
  }
}

TEST(Filters, DerivateGaussSignOnRamps) {
  std::vector<double> colramp, rowramp;  // 2 * column and 3 * row
  for (int i = 0; i < 20 * 30; ++i) {
    colramp.push_back(2.0 * (i % 30));
    rowramp.push_back(3.0 * (i / 30));
  }
  const HObject cols(MakeImage(PixelType::Byte, 30, 20, colramp)),
      rows(MakeImage(PixelType::Real, 30, 20, rowramp));
  struct Case { const HObject* img; HTuple sigma; const char* component; double want, tol; };
  const Case cases[] = {
      {&cols, 1.0, "x", 2.0, 1e-4}, {&rows, {2.0, 1.5}, "y", 3.0, 1e-4},
      {&rows, 1.0, "gradient", 3.0, 1e-4}, {&rows, 1.0, "none", 30.0, 1e-3},
  };
  HObject d;
  for (const Case& c : cases) {
    derivate_gauss(*c.img, &d, c.sigma, c.component);
    EXPECT_EQ(d.ImageAt(0).type, PixelType::Real);
    EXPECT_NEAR(At(d, 10, 15), c.want, c.tol) << c.component;
  }
  EXPECT_THROW(derivate_gauss(cols, &d, 0.0, "x"), HException);
  EXPECT_THROW(derivate_gauss(cols, &d, 1.0, "xz"), HException);
  EXPECT_THROW(derivate_gauss(cols, &d, "1", "x"), HException);
}

// Derivative of the smoothed plane one pixel at a time: the terms
// k(i) * (f(x+i) - f(x-i)) summed from 0 for i = 1..r, mirrored borders.
cv::Mat ReferenceAntisymmetric(const cv::Mat& f, const cv::Mat& kernel, bool along_columns) {
  const int r = kernel.rows / 2;
  cv::Mat out(f.size(), CV_32F);
  for (int y = 0; y < f.rows; ++y)
    for (int x = 0; x < f.cols; ++x) {
      auto px = [&](int d) {
        return along_columns ? f.at<float>(y, cv::borderInterpolate(x + d, f.cols, kMirror))
                             : f.at<float>(cv::borderInterpolate(y + d, f.rows, kMirror), x);
      };
      float acc = 0;
      for (int i = 1; i <= r; ++i) acc += kernel.at<float>(r + i) * (px(i) - px(-i));
      out.at<float>(y, x) = acc;
    }
  return out;
}

// derivate_gauss bit for bit against the plain per-pixel sums, for every
// input type, tiny and odd sizes (borders mirrored more than once), one and
// two sigmas.
TEST(Filters, DerivateGaussMatchesPerPixelSums) {
  std::mt19937 rng(2024);
  const double sigmas[][2] = {{1.0, 1.0}, {0.5, 0.5}, {1.5, 0.7}, {2.0, 3.0}};
  for (int trial = 0; trial < 60; ++trial) {
    const int w = 1 + int(rng() % 23), h = 1 + int(rng() % 17);
    const PixelType t = AnyType(rng);
    const Image img = RandomImage(rng, t, w, h, 120);
    const auto& sg = sigmas[rng() % 4];
    cv::Mat gc, dc, gr, dr, f, one = cv::Mat::ones(1, 1, CV_32F);
    filter_detail::GaussKernels(sg[0], &gc, &dc);
    filter_detail::GaussKernels(sg[1], &gr, &dr);
    // The smoothing is OpenCV's, fed as the operator feeds it (its rounding
    // depends on the input depth); only 32-bit integers go through floats.
    if (t == PixelType::Int4) img.planes[0].convertTo(f, CV_32F);
    else f = img.planes[0];
    cv::Mat vert, horiz;
    cv::sepFilter2D(f, vert, CV_32F, one, gr, cv::Point(-1, -1), 0, kMirror);
    cv::sepFilter2D(f, horiz, CV_32F, gc, one, cv::Point(-1, -1), 0, kMirror);
    const HTuple sigma = sg[0] == sg[1] ? HTuple(sg[0]) : HTuple{sg[0], sg[1]};
    SCOPED_TRACE(testing::Message() << PixelTypeName(t) << " " << w << "x" << h);
    for (bool x : {true, false}) {
      HObject d;
      derivate_gauss(HObject(img), &d, sigma, x ? "x" : "y");
      const cv::Mat& got = d.ImageAt(0).planes[0];
      const cv::Mat want = x ? ReferenceAntisymmetric(vert, dc, true)
                             : ReferenceAntisymmetric(horiz, dr, false);
      ASSERT_EQ(got.type(), CV_32F);
      ASSERT_EQ(0, std::memcmp(got.data, want.data, size_t(w * h) * 4)) << (x ? "x" : "y");
    }
  }
}

TEST(Filters, PaintRegionMarginChannelsAndErrors) {
  HObject img(MakeImage(PixelType::Byte, 6, 6, std::vector<double>(36, 1))), out;
  const HObject square(Region::Rectangle(1, 1, 4, 4));
  paint_region(square, img, &out, 9, "margin");
  EXPECT_EQ(At(out, 1, 1), 9);
  EXPECT_EQ(At(img, 1, 1), 1) << "input must stay untouched";
  EXPECT_EQ(At(out, 4, 3), 9);
  EXPECT_EQ(At(out, 2, 2), 1);  // interior untouched
  EXPECT_EQ(At(out, 3, 3), 1);

  const cv::Mat ones(1, 2, CV_8U, cv::Scalar(1));
  const HObject rgb(Image::FromPlanes(PixelType::Byte, {ones, ones.clone(), ones.clone()}));
  paint_region(HObject(Region::Rectangle(0, 0, 0, 0)), rgb, &out, HTuple{7, 8, 9}, "fill");
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(At(out, 0, 0, k), 7 + k);
    EXPECT_EQ(At(out, 0, 1, k), 1);
  }
  EXPECT_THROW(paint_region(square, rgb, &out, HTuple{7, 8}, "fill"), HException);
  EXPECT_THROW(paint_region(square, img, &out, 1, "outline"), HException);
}

// Fill against per-pixel membership of the union of the regions, with
// regions reaching outside the image and values beyond the type's range.
TEST(Filters, PaintRegionFillMatchesMembership) {
  std::mt19937 rng(808);
  const double values[] = {0, 7, 300, -5, 1e10, -2.5, 2.5, 65535.5};
  for (int trial = 0; trial < 100; ++trial) {
    const int w = 1 + int(rng() % 29), h = 1 + int(rng() % 17);
    const PixelType t = AnyType(rng);
    const Image img = RandomMulti(rng, t, w, h, 0, 1000);
    HObject regions;
    const int nreg = int(rng() % 3);
    for (int i = 0; i < nreg; ++i) regions.Push(RandomRegion(rng, h, w));
    const double value = values[rng() % 8];
    HObject out;
    paint_region(regions, HObject(img), &out, value, "fill");
    ASSERT_EQ(out.ImageAt(0).domain, img.domain);
    // The value as the type holds it: saturated and rounded to nearest.
    cv::Mat filled;
    cv::Mat(1, 1, CV_64F, cv::Scalar(value)).convertTo(filled, PixelTypeCvDepth(t));
    const double fill = At(HObject(Image::FromPlanes(t, {filled})), 0, 0);
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) {
        bool inside = false;
        for (long i = 0; i < nreg; ++i) inside |= regions.RegionAt(i).Contains(r, c);
        for (int k = 0; k < int(img.planes.size()); ++k)
          ASSERT_EQ(At(out, r, c, k), inside ? fill : At(HObject(img), r, c, k))
              << PixelTypeName(t) << " " << value << " at " << r << "," << c;
      }
  }
}

TEST(Filters, VectorFieldRoundTrip) {
  HObject r(MakeImage(PixelType::Real, 2, 1, {1, 2})), c(MakeImage(PixelType::Real, 2, 1, {3, 4}));
  HObject vf, r2, c2;
  real_to_vector_field(r, c, &vf, "vector_field_relative");
  HTuple t;
  get_image_type(vf, &t);
  EXPECT_EQ(t.S(0), "vector_field");
  vector_field_to_real(vf, &r2, &c2);
  EXPECT_EQ(At(r2, 0, 1), 2);
  EXPECT_EQ(At(c2, 0, 0), 3);
  HObject wide(MakeImage(PixelType::Real, 3, 1, {0, 0, 0}));
  HObject bytes(MakeImage(PixelType::Byte, 2, 1, {0, 0}));
  EXPECT_THROW(real_to_vector_field(r, wide, &vf, "vector_field_relative"), HException);
  EXPECT_THROW(real_to_vector_field(r, bytes, &vf, "vector_field_relative"), HException);
  EXPECT_THROW(real_to_vector_field(r, c, &vf, "vector_field"), HException);
}

// A quadratic surface: central differences are its exact derivatives, so the
// least-squares integration must return it up to a constant.
TEST(Filters, PoissonRecoversQuadraticSurface) {
  auto f = [](double r, double c) {
    return 0.02 * r * r - 0.015 * c * c + 0.01 * r * c + 0.3 * r - 0.7 * c;
  };
  for (auto [w, h] : {std::pair{32, 24}, {31, 17}, {1, 9}, {40, 33}, {226, 47}, {223, 8}}) {
    std::vector<double> height, gr, gc;
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) {
        height.push_back(f(r, c));
        gr.push_back((f(r + 1, c) - f(r - 1, c)) / 2);
        gc.push_back((f(r, c + 1) - f(r, c - 1)) / 2);
      }
    HObject vf, hf;
    real_to_vector_field(HObject(MakeImage(PixelType::Real, w, h, gr)),
                         HObject(MakeImage(PixelType::Real, w, h, gc)), &vf,
                         "vector_field_relative");
    reconstruct_height_field_from_gradient(vf, &hf, "poisson", HTuple(), HTuple());
    const cv::Mat& got = hf.ImageAt(0).planes[0];
    const double mean = std::accumulate(height.begin(), height.end(), 0.0) / (w * h);
    double got_mean = 0, worst = 0;
    for (int i = 0; i < w * h; ++i) {
      got_mean += got.at<float>(i / w, i % w);
      worst = std::max(worst, std::fabs(got.at<float>(i / w, i % w) - (height[size_t(i)] - mean)));
    }
    EXPECT_NEAR(got_mean / (w * h), 0.0, 1e-4) << w << "x" << h;
    EXPECT_LT(worst, 2e-3) << w << "x" << h;
  }
  HObject img(MakeImage(PixelType::Real, 2, 2, {0, 0, 0, 0})), hf;
  EXPECT_THROW(reconstruct_height_field_from_gradient(img, &hf, "poisson", HTuple(), HTuple()),
               HException);
}

bool SameBits(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() &&
         std::memcmp(a.data, b.data, a.total() * a.elemSize()) == 0;
}

// The column sweeps keep all pivots of a small grid and checkpoint rows of a
// large one: both must give the same bits, for heights that fill the last
// strip of checkpoints or leave it short, and a single row.
TEST(Filters, PoissonSweepsAgreeWithWholeAndCheckpointedPivots) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> u(-3, 3);
  for (auto [w, h] : {std::pair{37, 53}, {64, 49}, {5, 1}, {1, 7}, {120, 101}}) {
    cv::Mat f(h, w, CV_32F);
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) f.at<float>(r, c) = u(rng);
    cv::Mat whole = f.clone(), strips = f.clone();
    filter_detail::SolveNeumannPoisson(whole);
    filter_detail::SolveNeumannPoisson(strips, 0);
    EXPECT_TRUE(SameBits(whole, strips)) << w << "x" << h;
  }
}

// The solve with the transform down the columns answers the same equation
// as the one along the rows (a right-hand side with zero sum, which the
// Neumann problem needs), to rounding.
TEST(Filters, PoissonByColumnsAgreesWithTheSolveAlongRows) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> u(-3, 3);
  for (auto [w, h] : {std::pair{37, 53}, {64, 49}, {5, 1}, {1, 7}, {364, 122}, {120, 101}}) {
    cv::Mat f(h, w, CV_32F);
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) f.at<float>(r, c) = u(rng);
    f -= cv::mean(f)[0];
    cv::Mat rows = f.clone(), cols = f.clone();
    filter_detail::SolveNeumannPoisson(rows);
    filter_detail::SolveNeumannPoissonByColumns(cols);
    double mn, mx;
    cv::minMaxLoc(rows, &mn, &mx);
    EXPECT_LT(cv::norm(rows, cols, cv::NORM_INF), 1e-4 * std::max(1.0, mx - mn)) << w << "x" << h;
  }
}

// Operators handed their input (an rvalue) reuse planes no one else holds:
// the result must be the copying form's bit for bit, and an image still
// shared with another object must come out of it untouched. Sizes that go
// through the row and the column transform, and lengths for the chirp path.
TEST(Filters, HandedOverImagesGiveTheSameResultAndSharedOnesStayUntouched) {
  std::mt19937 rng(77);
  for (auto [w, h] : {std::pair{31, 17}, {226, 47}, {223, 8}, {8, 223}, {1, 5}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const Image gr = RandomImage(rng, PixelType::Real, w, h, 50);
    const Image gc = RandomImage(rng, PixelType::Real, w, h, 50);
    const cv::Mat gr0 = gr.planes[0].clone(), gc0 = gc.planes[0].clone();
    HObject vf, want;
    real_to_vector_field(HObject(gr), HObject(gc), &vf, "vector_field_relative");
    reconstruct_height_field_from_gradient(vf, &want, "poisson", HTuple(), HTuple());
    HObject shared = vf, got;
    reconstruct_height_field_from_gradient(std::move(shared), &got, "poisson", HTuple(), HTuple());
    EXPECT_TRUE(SameBits(got.ImageAt(0).planes[0], want.ImageAt(0).planes[0]));
    EXPECT_TRUE(SameBits(vf.ImageAt(0).planes[0], gr0) && SameBits(vf.ImageAt(0).planes[1], gc0));
    HObject own;
    real_to_vector_field(HObject(Image::FromPlanes(PixelType::Real, {gr0.clone()})),
                         HObject(Image::FromPlanes(PixelType::Real, {gc0.clone()})), &own,
                         "vector_field_relative");
    reconstruct_height_field_from_gradient(std::move(own), &got, "poisson", HTuple(), HTuple());
    EXPECT_TRUE(SameBits(got.ImageAt(0).planes[0], want.ImageAt(0).planes[0]));

    const HObject region(RandomRegion(rng, h, w));
    HObject painted, scaled;
    paint_region(region, HObject(gr), &painted, 3.5, "fill");
    scale_image(HObject(gc), &scaled, 0.7, -3);
    for (bool exclusive : {false, true}) {
      HObject img(exclusive ? Image::FromPlanes(PixelType::Real, {gr0.clone()}) : gr), out;
      paint_region(region, std::move(img), &out, 3.5, "fill");
      EXPECT_TRUE(SameBits(out.ImageAt(0).planes[0], painted.ImageAt(0).planes[0]));
      HObject img2(exclusive ? Image::FromPlanes(PixelType::Real, {gc0.clone()}) : gc);
      scale_image(std::move(img2), &out, 0.7, -3);
      EXPECT_TRUE(SameBits(out.ImageAt(0).planes[0], scaled.ImageAt(0).planes[0]));
    }
    EXPECT_TRUE(SameBits(gr.planes[0], gr0) && SameBits(gc.planes[0], gc0));
  }
}

}  // namespace
}  // namespace vision
