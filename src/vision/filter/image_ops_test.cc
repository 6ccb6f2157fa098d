#include "vision/filter/image_ops.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::At;
using test::MakeImage;
using test::RandomImage;
using test::RandomRegion;

// Integer and byte sources, and a real NaN (it becomes 0); other real sources
// follow below.
TEST(ImageOps, ConvertImageTypeClipsAndTruncates) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case { PixelType from; double in; const char* to; double out; } cases[] = {
      {PixelType::Int4, -5, "byte", 0},    {PixelType::Int4, 100000, "int2", 32767},
      {PixelType::Byte, 200, "real", 200}, {PixelType::UInt2, 65535, "int2", 32767},
      {PixelType::Int2, -7, "int4", -7},   {PixelType::Real, nan, "byte", 0},
  };
  for (const Case& c : cases) {
    HObject out;
    convert_image_type(HObject(MakeImage(c.from, 1, 1, {c.in})), &out, c.to);
    HTuple type;
    get_image_type(out, &type);
    EXPECT_EQ(type.S(0), c.to);
    EXPECT_EQ(At(out, 0, 0), c.out) << PixelTypeName(c.from) << " " << c.in << " -> " << c.to;
  }
}

// Real to every integer type against truncation toward zero and clipping in
// double precision, on values around the type limits, halves and negative
// fractions, at odd widths.
TEST(ImageOps, ConvertRealMatchesTruncateAndClip) {
  std::mt19937 rng(17);
  const double specials[] = {-0.5, 0.5, -0.999, 255.999, 256.0, -1.0, 65535.9, 65536.0, -32768.9,
                             32767.99, 2147483520.0, -2147483648.0, 3e9, -3e38, 3e38, 0.0};
  struct Target { const char* name; double lo, hi; } targets[] = {
      {"byte", 0, 255}, {"uint2", 0, 65535}, {"int2", -32768, 32767},
      {"int4", -2147483648.0, 2147483647.0},
  };
  for (const Target& to : targets) {
    for (int trial = 0; trial < 20; ++trial) {
      const int w = 1 + int(rng() % 33), h = 1 + int(rng() % 7);
      Image img = RandomImage(rng, PixelType::Real, w, h, trial % 2 ? 300.0 : 70000.0);
      for (int i = 0; i < w * h; i += 3)
        img.planes[0].at<float>(i / w, i % w) = float(specials[rng() % 16]);
      HObject out;
      convert_image_type(HObject(img), &out, to.name);
      HTuple type;
      get_image_type(out, &type);
      ASSERT_EQ(type.S(0), to.name);
      for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
          const double v = std::trunc(double(img.planes[0].at<float>(r, c)));
          ASSERT_EQ(At(out, r, c), std::clamp(v, to.lo, to.hi)) << to.name << " from " << v;
        }
    }
  }
}

// crop_domain against copying the domain's bounding box pixel by pixel; the
// cropped domain moves to the origin and full_domain then covers the crop.
TEST(ImageOps, CropDomainMatchesBoundingBoxCopy) {
  std::mt19937 rng(23);
  for (int trial = 0; trial < 80; ++trial) {
    const int w = 1 + int(rng() % 31), h = 1 + int(rng() % 19);
    Image img = RandomImage(rng, trial % 2 ? PixelType::Byte : PixelType::Real, w, h, 100);
    img.planes.push_back(RandomImage(rng, img.type, w, h, 100).planes[0]);
    img.domain = RandomRegion(rng, h, w);
    const Region dom = img.domain.Clipped(h, w);
    HObject out;
    if (dom.Empty()) {
      EXPECT_THROW(crop_domain(HObject(img), &out), HException);
      continue;
    }
    crop_domain(HObject(img), &out);
    int r1, c1, r2, c2;
    dom.BoundingBox(&r1, &c1, &r2, &c2);
    const Image& o = out.ImageAt(0);
    ASSERT_EQ(o.width, c2 - c1 + 1);
    ASSERT_EQ(o.height, r2 - r1 + 1);
    ASSERT_EQ(o.domain, dom.Translated(-r1, -c1));
    for (int k = 0; k < 2; ++k)
      for (int r = 0; r < o.height; ++r)
        for (int c = 0; c < o.width; ++c)
          ASSERT_EQ(At(out, r, c, k), At(HObject(img), r + r1, c + c1, k)) << trial;
    ASSERT_TRUE(o.planes[0].isContinuous());
    HObject full;
    full_domain(out, &full);
    ASSERT_TRUE(full.ImageAt(0).FullDomain());
  }
}

TEST(ImageOps, PointerRoundTripKeepsRowMajorLayout) {
  // 3 wide, 2 high: pixel (r, c) lives at r * 3 + c.
  const uint16_t px[6] = {1, 2, 3, 40, 50, 60};
  HObject img;
  gen_image1(&img, "uint2", 3, 2, Hlong(reinterpret_cast<intptr_t>(px)));
  HTuple g;
  get_grayval(img, HTuple::Ints({0, 1, 1}), HTuple::Ints({2, 0, 2}), &g);
  EXPECT_EQ(g, HTuple::Ints({3, 40, 60}));

  HTuple ptr, type, w, h;
  get_image_pointer1(img, &ptr, &type, &w, &h);
  EXPECT_EQ(HTuple({type, w, h}), HTuple({"uint2", 3, 2}));
  const auto* back = reinterpret_cast<const uint16_t*>(ptr.L(0));
  EXPECT_NE(back, px) << "gen_image1 must copy the pixels";
  for (int i = 0; i < 6; ++i) EXPECT_EQ(back[i], px[i]);
}

TEST(ImageOps, ChannelsComposeDecomposeAccess) {
  const uint8_t r[2] = {1, 2}, g[2] = {3, 4}, b[2] = {5, 6};
  auto P = [](const uint8_t* p) { return HTuple(Hlong(reinterpret_cast<intptr_t>(p))); };
  HObject rgb;
  gen_image3(&rgb, "byte", 2, 1, P(r), P(g), P(b));
  HTuple n;
  count_channels(rgb, &n);
  EXPECT_EQ(n.L(0), 3);

  HObject c2;
  access_channel(rgb, &c2, 2);  // 1-based
  EXPECT_EQ(At(c2, 0, 1), 4);

  HObject a, bb, c, back;
  decompose3(rgb, &a, &bb, &c);
  compose3(c, bb, a, &back);  // swapped order
  EXPECT_EQ(At(back, 0, 0, 0), 5);
  EXPECT_EQ(At(back, 0, 0, 2), 1);

  HObject ext;
  append_channel(rgb, a, &ext);
  count_channels(ext, &n);
  EXPECT_EQ(n.L(0), 4);
  EXPECT_EQ(At(ext, 0, 1, 3), 2);

  EXPECT_THROW(access_channel(rgb, &c2, 0), HException);
  EXPECT_THROW(access_channel(rgb, &c2, 4), HException);
  HObject wide(MakeImage(PixelType::Byte, 3, 1, {0, 0, 0}));
  EXPECT_THROW(append_channel(rgb, wide, &ext), HException);
  EXPECT_THROW(compose3(a, bb, wide, &back), HException);
}

// The same points given as packed integers, as whole reals and as a mixed
// tuple read the same values, channel by channel for each point.
TEST(ImageOps, GetGrayvalCoordinateForms) {
  const uint8_t r[4] = {1, 2, 3, 4}, g[4] = {10, 20, 30, 40}, b[4] = {100, 110, 120, 130};
  auto P = [](const uint8_t* p) { return HTuple(Hlong(reinterpret_cast<intptr_t>(p))); };
  HObject rgb, real;
  gen_image3(&rgb, "byte", 2, 2, P(r), P(g), P(b));
  convert_image_type(rgb, &real, "real");
  HTuple mixed_rows = HTuple::Ints({1, 0});
  mixed_rows[1] = HValue(0.0);
  struct Case {
    const char* what;
    HTuple rows, cols;
  } cases[] = {
      {"packed integers", HTuple::Ints({1, 0}), HTuple::Ints({0, 1})},
      {"whole reals", HTuple::Reals({1.0, 0.0}), HTuple::Reals({0.0, 1.0})},
      {"mixed", mixed_rows, HTuple::Ints({0, 1})},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    HTuple v;
    get_grayval(rgb, k.rows, k.cols, &v);
    EXPECT_EQ(v, HTuple::Ints({3, 30, 120, 2, 20, 110}));
    EXPECT_TRUE(v.AllInt());
    get_grayval(real, k.rows, k.cols, &v);
    EXPECT_EQ(v, HTuple::Reals({3, 30, 120, 2, 20, 110}));
    EXPECT_TRUE(v.AllReal());
  }
  HTuple v;
  get_grayval(rgb, HTuple::Ints({}), HTuple::Ints({}), &v);
  EXPECT_TRUE(v.Empty());
  EXPECT_THROW(get_grayval(rgb, HTuple::Reals({0.5}), HTuple::Ints({0}), &v), HException);
  EXPECT_THROW(get_grayval(rgb, HTuple::Ints({0, 2}), HTuple::Ints({0, 0}), &v), HException);
  EXPECT_THROW(get_grayval(rgb, HTuple::Ints({0, 1}), HTuple::Ints({0}), &v), HException);
}

TEST(ImageOps, BadParametersRaise) {
  HObject img;
  EXPECT_THROW(gen_image_const(&img, "complex", 4, 4), HException);
  EXPECT_THROW(gen_image_const(&img, "byte", 0, 4), HException);
  EXPECT_THROW(gen_image_const(&img, "byte", 4.5, 4), HException);
  EXPECT_THROW(gen_image1(&img, "byte", 4, 4, 0), HException);
  gen_image_const(&img, "real", 4, 3);
  HTuple g;
  EXPECT_THROW(get_grayval(img, 3, 0, &g), HException);
  EXPECT_THROW(get_grayval(img, 0, -1, &g), HException);
  get_grayval(img, 2, 3, &g);
  EXPECT_TRUE(g.IsReal(0));
  EXPECT_THROW(convert_image_type(img, &img, "bogus"), HException);
  EXPECT_THROW(get_image_size(HObject(Region::Rectangle(0, 0, 1, 1)), &g, &g), HException);
}

}  // namespace
}  // namespace vision
