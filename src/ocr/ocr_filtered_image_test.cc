#include "ocr/ocr_filtered_image.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

// A marking: dark bars ("characters") on a light, slightly uneven ground.
archive::ObjectPtr Marking(int width, int height) {
  archive::RawBitmap bm{.width = width, .height = height, .samples_per_pixel = 3, .bits_per_sample = 8,
                        .bytes_per_row = size_t(3 * width)};
  bm.data.resize(bm.bytes_per_row * size_t(height));
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const bool ink = y >= height / 4 && y < 3 * height / 4 && (x / 6) % 3 == 1 && x > 10 &&
                       x < width - 10;
      const uint8_t v = ink ? 20 : uint8_t(200 + (x * 30) / width);
      for (int k = 0; k < 3; ++k) bm.data[size_t(y) * bm.bytes_per_row + size_t(3 * x + k)] = v;
    }
  return archive::MakeImage(bm);
}

archive::ObjectPtr Options(std::initializer_list<std::pair<const char*, archive::ObjectPtr>> kv) {
  auto d = archive::MakeDictionary();
  for (const auto& [k, v] : kv) d->Set(k, v);
  return d;
}

archive::RawBitmap Preview(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute) {
  auto tiff = ocrFilteredImage(image, attribute, true);
  EXPECT_TRUE(tiff);
  if (!tiff) return {};
  return archive::DecodeTiff(*tiff);
}

TEST(OcrFilteredImage, PreviewHasTheZoomedSize) {
  const auto image = Marking(120, 80);
  struct Case {
    const char* name;
    archive::ObjectPtr attribute;
    int width, height;
  };
  const Case cases[] = {
      {"no options", nullptr, 120, 80},
      {"height 2", Options({{"stretch_height_level", archive::MakeFloat(2.0f)}}), 120, 160},
      {"width 2", Options({{"stretch_width_level", archive::MakeFloat(2.0f)}}), 240, 80},
      // Here the top tenth of the height field lies in its highest histogram
      // bin, so the bin range reaches one past the last bin.
      {"width 1.5", Options({{"stretch_width_level", archive::MakeFloat(1.5f)}}), 180, 80},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    archive::RawBitmap bm = Preview(image, c.attribute);
    EXPECT_EQ(bm.width, c.width);
    EXPECT_EQ(bm.height, c.height);
  }
}

TEST(OcrFilteredImage, PrintComesOutWhiteOnBlack) {
  const archive::RawBitmap bm = Preview(Marking(120, 80), nullptr);
  auto rgb = [&](int y, int x) {
    const uint8_t* p = bm.data.data() + size_t(y) * bm.bytes_per_row + size_t(4 * x);
    return std::array<uint8_t, 3>{p[1], p[2], p[3]};
  };
  // Inside the first whole bar (columns 24..29) and in the gap after it.
  EXPECT_EQ(rgb(40, 26), (std::array<uint8_t, 3>{255, 255, 255}));
  EXPECT_EQ(rgb(40, 33), (std::array<uint8_t, 3>{0, 0, 0}));
  EXPECT_EQ(rgb(5, 60), (std::array<uint8_t, 3>{0, 0, 0}));
  size_t white = 0;
  for (int y = 0; y < bm.height; ++y)
    for (int x = 0; x < bm.width; ++x) {
      auto p = rgb(y, x);
      EXPECT_TRUE(p[0] == p[1] && p[1] == p[2] && (p[0] == 0 || p[0] == 255));
      white += p[0] == 255;
    }
  EXPECT_GT(white, 500u);
  // The same print reads the same whichever its polarity.
  EXPECT_EQ(Preview(Marking(120, 80), Options({{"check_reverse", archive::MakeBool(true)}})).data,
            bm.data);
}

TEST(OcrFilteredImage, NothingWithoutTheLibraryOrAnImage) {
  EXPECT_FALSE(ocrFilteredImage(Marking(40, 30), nullptr, false));
  EXPECT_FALSE(ocrFilteredImage(archive::MakeData({1, 2, 3}), nullptr, true));
  EXPECT_FALSE(ocrFilteredImage(Marking(40, 30), Options({{"stretch_width_level", archive::MakeFloat(0)}}), true));
}

}  // namespace
}  // namespace velmora
