#include "vision/filter/image_ops.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "vision/filter/test_util.h"

namespace vision {
namespace {

using test::At;
using test::MakeImage;

TEST(ImageOps, ConvertImageTypeClipsAndTruncates) {
  struct Case {
    PixelType from;
    double in;
    const char* to;
    double out;
  } cases[] = {
      {PixelType::Real, -3.7, "byte", 0},       {PixelType::Real, 12.9, "byte", 12},
      {PixelType::Real, 300.2, "byte", 255},    {PixelType::Real, -2.9, "int2", -2},
      {PixelType::Real, -40000, "int2", -32768}, {PixelType::Real, 70000, "uint2", 65535},
      {PixelType::Int4, -5, "byte", 0},         {PixelType::Int4, 100000, "int2", 32767},
      {PixelType::Byte, 200, "real", 200},      {PixelType::UInt2, 65535, "int2", 32767},
      {PixelType::Int2, -7, "int4", -7},
  };
  for (const Case& c : cases) {
    HObject out;
    convert_image_type(HObject(MakeImage(c.from, 1, 1, {c.in})), &out, c.to);
    HTuple type;
    get_image_type(out, &type);
    EXPECT_EQ(type.S(0), c.to);
    EXPECT_DOUBLE_EQ(At(out, 0, 0), c.out) << PixelTypeName(c.from) << " " << c.in << " -> " << c.to;
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
  EXPECT_EQ(type.S(0), "uint2");
  EXPECT_EQ(w.L(0), 3);
  EXPECT_EQ(h.L(0), 2);
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

TEST(ImageOps, CropDomainMovesDomainToOrigin) {
  Image img = MakeImage(PixelType::Byte, 5, 4, {0,  1,  2,  3,  4,  10, 11, 12, 13, 14,
                                                20, 21, 22, 23, 24, 30, 31, 32, 33, 34});
  img.domain = Region::FromRuns({{1, 2, 3}, {2, 1, 2}});
  HObject part;
  crop_domain(HObject(img), &part);
  HTuple w, h;
  get_image_size(part, &w, &h);
  EXPECT_EQ(w.L(0), 3);  // columns 1..3
  EXPECT_EQ(h.L(0), 2);  // rows 1..2
  EXPECT_EQ(At(part, 0, 0), 11);
  EXPECT_EQ(At(part, 1, 2), 23);
  EXPECT_EQ(part.ImageAt(0).domain, Region::FromRuns({{0, 1, 2}, {1, 0, 1}}));

  HObject full;
  full_domain(part, &full);
  EXPECT_TRUE(full.ImageAt(0).FullDomain());

  img.domain = Region();
  EXPECT_THROW(crop_domain(HObject(img), &part), HException);
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
