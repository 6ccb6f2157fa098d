#include "vision/filter/filters.h"

#include <gtest/gtest.h>

#include <cmath>

#include "vision/filter/image_ops.h"
#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::At;
using test::MakeImage;

HObject Rgb(double r, double g, double b) {
  HObject a(MakeImage(PixelType::Byte, 1, 1, {r})), bb(MakeImage(PixelType::Byte, 1, 1, {g})),
      c(MakeImage(PixelType::Byte, 1, 1, {b})), out;
  compose3(a, bb, c, &out);
  return out;
}

TEST(Filters, Rgb1ToGrayUsesReferenceWeightsAndRounds) {
  struct Case { double r, g, b, gray; } cases[] = {
      {255, 0, 0, 76},   // 76.245
      {0, 255, 0, 150},  // 149.685
      {0, 0, 255, 29},   // 29.07
      {100, 150, 200, 141},  // 140.75
      {255, 255, 255, 255},
  };
  for (const Case& c : cases) {
    HObject gray;
    rgb1_to_gray(Rgb(c.r, c.g, c.b), &gray);
    EXPECT_EQ(gray.ImageAt(0).Channels(), 1);
    EXPECT_EQ(At(gray, 0, 0), c.gray) << c.r << "," << c.g << "," << c.b;
  }
  HObject one(MakeImage(PixelType::Byte, 2, 1, {7, 9})), same;
  rgb1_to_gray(one, &same);
  EXPECT_EQ(At(same, 0, 1), 9);
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

TEST(Filters, RotateByQuarterTurnsPermutesPixelsExactly) {
  // 3 wide, 2 high:  1 2 3 / 4 5 6
  HObject img(MakeImage(PixelType::Byte, 3, 2, {1, 2, 3, 4, 5, 6})), out;
  HTuple w, h;
  rotate_image(img, &out, 180, "constant");
  get_image_size(out, &w, &h);
  EXPECT_EQ(w.L(0), 3);
  EXPECT_EQ(h.L(0), 2);
  EXPECT_EQ(At(out, 0, 0), 6);
  EXPECT_EQ(At(out, 1, 2), 1);
  EXPECT_EQ(At(out, 0, 2), 4);

  // Counter-clockwise: the right column becomes the top row.
  rotate_image(img, &out, 90, "bilinear");
  get_image_size(out, &w, &h);
  EXPECT_EQ(w.L(0), 2);
  EXPECT_EQ(h.L(0), 3);
  EXPECT_EQ(At(out, 0, 0), 3);
  EXPECT_EQ(At(out, 0, 1), 6);
  EXPECT_EQ(At(out, 2, 0), 1);
  EXPECT_TRUE(out.ImageAt(0).FullDomain());

  rotate_image(img, &out, -90, "constant");  // = 270
  EXPECT_EQ(At(out, 0, 0), 4);
  EXPECT_EQ(At(out, 2, 1), 3);

  rotate_image(img, &out, 0, "constant");
  EXPECT_EQ(At(out, 1, 0), 4);
  EXPECT_THROW(rotate_image(img, &out, 45, "cubic_spline"), HException);
}

TEST(Filters, RotateGeneralAngleKeepsSizeAndCentre) {
  std::vector<double> v(9 * 9, 0.0);
  v[4 * 9 + 4] = 200;  // centre pixel
  v[4 * 9 + 8] = 100;  // right of centre
  HObject img(MakeImage(PixelType::Byte, 9, 9, v)), out;
  rotate_image(img, &out, 45, "constant");
  HTuple w, h;
  get_image_size(out, &w, &h);
  EXPECT_EQ(w.L(0), 9);
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
    for (const char* interp : {"nearest_neighbor", "bilinear", "constant", "weighted"}) {
      HObject out;
      zoom_image_factor(HObject(MakeImage(PixelType::Byte, c.w, c.h, std::vector<double>(size_t(c.w * c.h), 9))),
                        &out, c.sw, c.sh, interp);
      HTuple w, h;
      get_image_size(out, &w, &h);
      EXPECT_EQ(w.L(0), c.ow) << interp;
      EXPECT_EQ(h.L(0), c.oh) << interp;
      EXPECT_EQ(At(out, c.oh - 1, c.ow - 1), 9) << interp;  // flat stays flat to the border
      EXPECT_TRUE(out.ImageAt(0).FullDomain());
    }
  }
  HObject out;
  EXPECT_THROW(zoom_image_factor(HObject(MakeImage(PixelType::Byte, 2, 2, {0, 0, 0, 0})), &out, 0.1, 1,
                                 "bilinear"),
               HException);  // rounds to width 0
}

TEST(Filters, EmphasizeStepEdge) {
  // Columns 0..3 at 10, 4..7 at 50; 3x3 mean, factor 1.
  std::vector<double> v;
  for (int r = 0; r < 5; ++r)
    for (int c = 0; c < 8; ++c) v.push_back(c < 4 ? 10 : 50);
  HObject out;
  emphasize(HObject(MakeImage(PixelType::Byte, 8, 5, v)), &out, 3, 3, 1);
  EXPECT_EQ(At(out, 2, 0), 10);
  EXPECT_EQ(At(out, 2, 1), 10);
  EXPECT_EQ(At(out, 2, 3), 0);   // mean 23: 10 - 13 clipped
  EXPECT_EQ(At(out, 2, 4), 63);  // mean 37: 50 + 13
  EXPECT_EQ(At(out, 2, 7), 50);
  EXPECT_EQ(At(out, 0, 4), 63);  // mirrored border rows behave as inner rows
  EXPECT_THROW(emphasize(HObject(MakeImage(PixelType::Real, 1, 1, {0})), &out, 3, 3, 1), HException);
}

// The byte path of the mean filter must round like the exact mean of the
// real path, halves up, for odd and even masks, also at the mirrored border.
TEST(Filters, MeanImageByteRoundsLikeTheExactMean) {
  std::vector<double> v;
  for (int i = 0; i < 13 * 11; ++i) v.push_back((i * 97 + i / 7 * 31) % 256);
  HObject bytes(MakeImage(PixelType::Byte, 13, 11, v)), real(MakeImage(PixelType::Real, 13, 11, v));
  for (auto [mw, mh] : {std::pair{3, 3}, {5, 3}, {4, 4}, {1, 7}, {2, 1}}) {
    HObject mb, mr;
    mean_image(bytes, &mb, mw, mh);
    mean_image(real, &mr, mw, mh);
    for (int r = 0; r < 11; ++r)
      for (int c = 0; c < 13; ++c)
        ASSERT_EQ(At(mb, r, c), std::floor(At(mr, r, c) + 0.5)) << mw << "x" << mh << " at " << r << "," << c;
  }
}

TEST(Filters, DerivateGaussSignOnRamps) {
  std::vector<double> colramp, rowramp;
  for (int r = 0; r < 20; ++r)
    for (int c = 0; c < 30; ++c) {
      colramp.push_back(2.0 * c);
      rowramp.push_back(3.0 * r);
    }
  HObject gx, gy, gm, sm;
  derivate_gauss(HObject(MakeImage(PixelType::Byte, 30, 20, colramp)), &gx, 1.0, "x");
  derivate_gauss(HObject(MakeImage(PixelType::Byte, 30, 20, colramp)), &gy, 1.0, "y");
  EXPECT_EQ(gx.ImageAt(0).type, PixelType::Real);
  EXPECT_NEAR(At(gx, 10, 15), 2.0, 1e-4);
  EXPECT_NEAR(At(gy, 10, 15), 0.0, 1e-4);
  derivate_gauss(HObject(MakeImage(PixelType::Real, 30, 20, rowramp)), &gy, HTuple{2.0, 1.5}, "y");
  EXPECT_NEAR(At(gy, 10, 15), 3.0, 1e-4);
  derivate_gauss(HObject(MakeImage(PixelType::Real, 30, 20, rowramp)), &gm, 1.0, "gradient");
  EXPECT_NEAR(At(gm, 10, 15), 3.0, 1e-4);
  derivate_gauss(HObject(MakeImage(PixelType::Real, 30, 20, rowramp)), &sm, 1.0, "none");
  EXPECT_NEAR(At(sm, 10, 15), 30.0, 1e-3);

  HObject img(MakeImage(PixelType::Byte, 2, 2, {0, 0, 0, 0}));
  EXPECT_THROW(derivate_gauss(img, &gx, 0.0, "x"), HException);
  EXPECT_THROW(derivate_gauss(img, &gx, 1.0, "xz"), HException);
  EXPECT_THROW(derivate_gauss(img, &gx, "1", "x"), HException);
}

TEST(Filters, PaintRegionFillAndMargin) {
  HObject img(MakeImage(PixelType::Byte, 6, 6, std::vector<double>(36, 1))), out;
  // The square extends past the right border; painting clips.
  HObject square(Region::Rectangle(1, 2, 4, 8));
  paint_region(square, img, &out, 300, "fill");
  EXPECT_EQ(At(out, 1, 2), 255);
  EXPECT_EQ(At(out, 4, 5), 255);
  EXPECT_EQ(At(out, 0, 2), 1);
  EXPECT_EQ(At(img, 1, 2), 1) << "input must stay untouched";

  HObject inner(Region::Rectangle(1, 1, 4, 4));
  paint_region(inner, img, &out, 9, "margin");
  EXPECT_EQ(At(out, 1, 1), 9);
  EXPECT_EQ(At(out, 4, 3), 9);
  EXPECT_EQ(At(out, 2, 2), 1);  // interior untouched
  EXPECT_EQ(At(out, 3, 3), 1);

  HObject real(MakeImage(PixelType::Real, 2, 2, {1.5, 2.5, 3.5, 4.5}));
  paint_region(HObject(Region::Rectangle(0, 0, 0, 1)), real, &out, -0.25, "fill");
  EXPECT_DOUBLE_EQ(At(out, 0, 1), -0.25);
  EXPECT_DOUBLE_EQ(At(out, 1, 1), 4.5);

  HObject rgb = Rgb(1, 2, 3);
  paint_region(HObject(Region::Rectangle(0, 0, 0, 0)), rgb, &out, HTuple{7, 8, 9}, "fill");
  EXPECT_EQ(At(out, 0, 0, 2), 9);
  EXPECT_THROW(paint_region(square, rgb, &out, HTuple{7, 8}, "fill"), HException);
  EXPECT_THROW(paint_region(square, img, &out, 1, "outline"), HException);
}

TEST(Filters, VectorFieldRoundTrip) {
  HObject r(MakeImage(PixelType::Real, 2, 1, {1, 2})), c(MakeImage(PixelType::Real, 2, 1, {3, 4})), vf, r2, c2;
  real_to_vector_field(r, c, &vf, "vector_field_relative");
  HTuple t;
  get_image_type(vf, &t);
  EXPECT_EQ(t.S(0), "vector_field");
  vector_field_to_real(vf, &r2, &c2);
  EXPECT_EQ(At(r2, 0, 1), 2);
  EXPECT_EQ(At(c2, 0, 0), 3);
  HObject wide(MakeImage(PixelType::Real, 3, 1, {0, 0, 0})), bytes(MakeImage(PixelType::Byte, 2, 1, {0, 0}));
  EXPECT_THROW(real_to_vector_field(r, wide, &vf, "vector_field_relative"), HException);
  EXPECT_THROW(real_to_vector_field(r, bytes, &vf, "vector_field_relative"), HException);
  EXPECT_THROW(real_to_vector_field(r, c, &vf, "vector_field"), HException);
}

// A quadratic surface: central differences are its exact derivatives, so the
// least-squares integration must return it up to a constant.
TEST(Filters, PoissonRecoversQuadraticSurface) {
  for (auto [w, h] : {std::pair{32, 24}, std::pair{31, 17}, std::pair{1, 9}, std::pair{40, 33}, std::pair{226, 47}, std::pair{223, 8}}) {
    auto f = [](double r, double c) { return 0.02 * r * r - 0.015 * c * c + 0.01 * r * c + 0.3 * r - 0.7 * c; };
    std::vector<double> height, gr, gc;
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) {
        height.push_back(f(r, c));
        gr.push_back((f(r + 1, c) - f(r - 1, c)) / 2);
        gc.push_back((f(r, c + 1) - f(r, c - 1)) / 2);
      }
    HObject vf, hf;
    real_to_vector_field(HObject(MakeImage(PixelType::Real, w, h, gr)), HObject(MakeImage(PixelType::Real, w, h, gc)),
                         &vf, "vector_field_relative");
    reconstruct_height_field_from_gradient(vf, &hf, "poisson", HTuple(), HTuple());
    double mean = 0, got_mean = 0;
    for (int i = 0; i < w * h; ++i) {
      mean += height[size_t(i)];
      got_mean += At(hf, i / w, i % w);
    }
    mean /= w * h;
    EXPECT_NEAR(got_mean / (w * h), 0.0, 1e-4) << w << "x" << h;
    double worst = 0;
    for (int i = 0; i < w * h; ++i)
      worst = std::max(worst, std::fabs(At(hf, i / w, i % w) - (height[size_t(i)] - mean)));
    EXPECT_LT(worst, 2e-3) << w << "x" << h;
  }
  HObject img(MakeImage(PixelType::Real, 2, 2, {0, 0, 0, 0})), hf;
  EXPECT_THROW(reconstruct_height_field_from_gradient(img, &hf, "poisson", HTuple(), HTuple()), HException);
}

}  // namespace
}  // namespace vision
