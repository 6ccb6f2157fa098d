// The client's conversion of every readable layout to 8-bit RGBA: each table
// row stores the same 3 x 2 picture in another layout, writes it as a TIFF
// file, reads it back the way `velmora ocr` does and must give the same pixels.
#include "image_input.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace velmora {
namespace {

using archive::RawBitmap;

// The picture: RGB values per pixel, and an alpha per pixel.
constexpr uint8_t kRgb[6][3] = {{0, 0, 0}, {255, 255, 255}, {200, 10, 40}, {12, 130, 250}, {90, 90, 90}, {255, 0, 255}};
constexpr uint8_t kAlpha[6] = {255, 255, 128, 0, 255, 7};

bool IsGrey(int i) { return kRgb[i][0] == kRgb[i][1] && kRgb[i][1] == kRgb[i][2]; }

struct Layout {
  const char* name;
  int samples;
  int bits;
  bool planar;
  bool alpha;
  bool alpha_first;
  const char* space;
  size_t padding;  // bytes added to each row
};

RawBitmap Make(const Layout& l, const std::vector<int>& pixels) {
  RawBitmap b;
  b.width = 3;
  b.height = 2;
  b.samples_per_pixel = l.samples;
  b.bits_per_sample = l.bits;
  b.planar = l.planar;
  b.has_alpha = l.alpha;
  b.alpha_first = l.alpha_first;
  b.color_space = l.space;
  b.bytes_per_row = b.PackedRowBytes() + l.padding;
  b.data.assign(b.ExpectedDataSize(), 0);
  const int colours = l.samples - (l.alpha ? 1 : 0);
  for (int i = 0; i < 6; ++i) {
    const int p = pixels[i], x = i % 3, y = i / 3;
    for (int s = 0; s < l.samples; ++s) {
      const bool is_alpha = l.alpha && s == (l.alpha_first ? 0 : l.samples - 1);
      const int c = s - (l.alpha && l.alpha_first ? 1 : 0);
      uint8_t v8 = is_alpha ? kAlpha[p] : colours == 1 ? kRgb[p][0] : kRgb[p][c];
      if (!is_alpha && std::strcmp(l.space, archive::kCalibratedBlackColorSpace) == 0) v8 = uint8_t(255 - v8);
      uint8_t* row = b.data.data() + (l.planar ? (size_t(s) * 2 + y) : size_t(y)) * b.bytes_per_row;
      const size_t index = l.planar ? size_t(x) : size_t(x) * l.samples + s;
      if (l.bits == 16) {
        const uint16_t v = uint16_t(v8 * 257);
        std::memcpy(row + 2 * index, &v, 2);
      } else if (l.bits == 8) {
        row[index] = v8;
      } else {  // 1 bit: black or white only
        if (v8) row[index / 8] |= uint8_t(0x80 >> (index % 8));
      }
    }
  }
  return b;
}

std::string WriteTemp(const std::vector<uint8_t>& bytes, const char* suffix) {
  const std::string path = std::filesystem::temp_directory_path() / ("velmora-input-" + std::to_string(getpid()) + suffix);
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  return path;
}

void ExpectPixels(const RawBitmap& rgba, const std::vector<int>& pixels, bool alpha, const char* what) {
  ASSERT_EQ(rgba.samples_per_pixel, 4) << what;
  ASSERT_EQ(rgba.bits_per_sample, 8) << what;
  ASSERT_FALSE(rgba.planar) << what;
  ASSERT_EQ(rgba.bytes_per_row, 12u) << what;
  for (int i = 0; i < 6; ++i) {
    const uint8_t* px = rgba.data.data() + 4 * i;
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(px[c], kRgb[pixels[i]][c], 1) << what << " pixel " << i << " sample " << c;
    EXPECT_EQ(px[3], alpha ? kAlpha[pixels[i]] : 255) << what << " pixel " << i;
  }
}

TEST(ImageInputTest, EveryTiffLayoutBecomesTheSameRgba) {
  const std::vector<int> colour = {0, 1, 2, 3, 4, 5};
  const std::vector<int> grey = {0, 1, 4, 1, 0, 4};
  const std::vector<int> bilevel = {0, 1, 1, 0, 0, 1};
  struct Case {
    Layout layout;
    const std::vector<int>& pixels;
  } cases[] = {
      {{"grey 8", 1, 8, false, false, false, archive::kCalibratedWhiteColorSpace, 0}, grey},
      {{"grey 8, 0 is white", 1, 8, false, false, false, archive::kCalibratedBlackColorSpace, 0}, grey},
      {{"grey 16, padded rows", 1, 16, false, false, false, archive::kCalibratedWhiteColorSpace, 6}, grey},
      {{"grey + alpha", 2, 8, false, true, false, archive::kCalibratedWhiteColorSpace, 0}, grey},
      {{"bilevel", 1, 1, false, false, false, archive::kCalibratedWhiteColorSpace, 0}, bilevel},
      {{"rgb 8, padded rows", 3, 8, false, false, false, archive::kCalibratedRGBColorSpace, 3}, colour},
      {{"rgb 16", 3, 16, false, false, false, archive::kCalibratedRGBColorSpace, 0}, colour},
      {{"rgb 8 planar", 3, 8, true, false, false, archive::kCalibratedRGBColorSpace, 0}, colour},
      {{"rgba 16 planar", 4, 16, true, true, false, archive::kCalibratedRGBColorSpace, 0}, colour},
      {{"argb 8", 4, 8, false, true, true, archive::kCalibratedRGBColorSpace, 0}, colour},
      {{"rgba 8", 4, 8, false, true, false, archive::kCalibratedRGBColorSpace, 0}, colour},
  };
  for (const Case& c : cases) {
    const RawBitmap source = Make(c.layout, c.pixels);
    // The conversion alone, on the layout as built (no codec in between).
    ExpectPixels(ToRgba8(source), c.pixels, c.layout.alpha, c.layout.name);
    if (c.layout.bits == 1) continue;  // the TIFF encoder writes 8 and 16 bits only
    const std::string path = WriteTemp(archive::EncodeTiff(source), ".tif");
    ExpectPixels(LoadRgbaBitmap(path), c.pixels, c.layout.alpha, c.layout.name);
    std::filesystem::remove(path);
  }
}

TEST(ImageInputTest, ErrorsNameTheFileAndTheProblem) {
  const std::string text = WriteTemp({'h', 'e', 'l', 'l', 'o'}, ".txt");
  const std::string empty = WriteTemp({}, ".png");
  struct Case {
    std::string path;
    const char* says;
  } cases[] = {
      {"/nonexistent/part.png", "cannot read /nonexistent/part.png: No such file"},
      {"/tmp", "it is a folder"},
      {text, "is not an image file"},
      {empty, "is empty"},
  };
  for (const Case& c : cases) {
    try {
      LoadRgbaBitmap(c.path);
      ADD_FAILURE() << c.path << " was read";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(c.says), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(c.path), std::string::npos) << e.what();
    }
  }
  std::filesystem::remove(text);
  std::filesystem::remove(empty);
}

}  // namespace
}  // namespace velmora
