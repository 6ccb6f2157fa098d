// TIFF and image-file codecs, and images inside archives.
#include <gtest/gtest.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <tuple>
#include <opencv2/imgcodecs.hpp>

#include "archive/archive.h"
#include "archive/test_support.h"

namespace velmora::archive {
namespace {

using testing::Pattern;

// Sample `index` of pixel (x, y), where index counts colours first and alpha
// last whatever the stored order, so bitmaps of different layouts compare.
unsigned Sample(const RawBitmap& b, int x, int y, int index) {
  int stored = index;
  if (b.has_alpha && b.alpha_first) stored = index == b.samples_per_pixel - 1 ? 0 : index + 1;
  const std::size_t bytes = static_cast<std::size_t>(b.bits_per_sample / 8);
  std::size_t offset;
  if (b.planar) {
    offset = (static_cast<std::size_t>(stored) * b.height + y) * b.bytes_per_row + x * bytes;
  } else {
    offset = y * b.bytes_per_row + (static_cast<std::size_t>(x) * b.samples_per_pixel + stored) * bytes;
  }
  if (bytes == 2) {
    uint16_t v;
    std::memcpy(&v, b.data.data() + offset, 2);
    return v;
  }
  return b.data[offset];
}

void ExpectSamePixels(const RawBitmap& a, const RawBitmap& b, const std::string& name) {
  const auto shape = [](const RawBitmap& m) {
    return std::tuple(m.width, m.height, m.samples_per_pixel, m.bits_per_sample, m.has_alpha);
  };
  ASSERT_EQ(shape(a), shape(b)) << name;
  ASSERT_GE(b.data.size(), b.ExpectedDataSize()) << name;
  int mismatches = 0;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x)
      for (int s = 0; s < a.samples_per_pixel; ++s)
        if (Sample(a, x, y, s) != Sample(b, x, y, s) && ++mismatches < 5)
          ADD_FAILURE() << name << ": pixel " << x << "," << y << " sample " << s;
}

TEST(Tiff, EncodeDecodeKeepsEveryLayout) {
  struct Case {
    const char* name;
    RawBitmap bitmap;
    bool planar_out;
    bool alpha_first_out;
  };
  const Case cases[] = {
      // Alpha first, interleaved, every sample equal: the system's bitmap comes back byte for byte.
      {"ARGB as the system writes it, padded rows", Pattern(5, 3, 4, 8, true, true, false, 12), false, true},
      {"RGBA, alpha last", Pattern(4, 2, 4, 8, true, false, false), false, true},
      {"RGB, odd width, padded", Pattern(7, 5, 3, 8, false, false, false, 3), false, false},
      {"grey", Pattern(9, 4, 1, 8, false, false, false), false, false},
      {"grey 16-bit", Pattern(3, 3, 1, 16, false, false, false), false, false},
      {"RGB 16-bit planar", Pattern(4, 3, 3, 16, false, false, true), true, false},
      {"grey and alpha", Pattern(5, 2, 2, 8, true, false, false), false, false},
      {"ARGB planar", Pattern(3, 2, 4, 8, true, true, true, 1), true, false},
      {"RGB over several strips", Pattern(300, 1000, 3, 8, false, false, false), false, false},
  };
  for (const Case& c : cases) {
    const RawBitmap back = DecodeTiff(EncodeTiff(c.bitmap));
    EXPECT_EQ(back.planar, c.planar_out) << c.name;
    EXPECT_EQ(back.alpha_first, c.alpha_first_out) << c.name;
    EXPECT_EQ(back.bytes_per_row, back.PackedRowBytes()) << c.name;  // TIFF rows are packed
    EXPECT_EQ(back.color_space, c.bitmap.color_space) << c.name;
    ExpectSamePixels(c.bitmap, back, c.name);
  }
}

// A file written directly with libtiff, in layouts our encoder does not make.
class TiffFile {
 public:
  TiffFile(int width, int height, int samples, int bits, int photometric, const char* mode = "w")
      : path_(std::filesystem::temp_directory_path() /
              ("archive_test_" + std::to_string(getpid()) + ".tif")),
        tiff_(TIFFOpen(path_.c_str(), mode)) {
    TIFFSetField(tiff_, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff_, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff_, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tiff_, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tiff_, TIFFTAG_PHOTOMETRIC, photometric);
  }
  ~TiffFile() { std::filesystem::remove(path_); }
  TIFF* get() const { return tiff_; }
  // Closes the file and gives its bytes.
  std::vector<uint8_t> Close() {
    TIFFClose(tiff_);
    return ReadFileBytes(path_);
  }

 private:
  std::filesystem::path path_;
  TIFF* tiff_;
};

TEST(Tiff, DecodesTiledCompressedPaletteAndBigEndianFiles) {
  const RawBitmap rgb = Pattern(40, 30, 3, 8, false, false, false);
  {
    SCOPED_TRACE("tiled, LZW");
    TiffFile file(40, 30, 3, 8, PHOTOMETRIC_RGB);
    TIFFSetField(file.get(), TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(file.get(), TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    TIFFSetField(file.get(), TIFFTAG_TILEWIDTH, 16);
    TIFFSetField(file.get(), TIFFTAG_TILELENGTH, 16);
    std::vector<uint8_t> tile(16 * 16 * 3);
    for (int ty = 0; ty < 30; ty += 16)
      for (int tx = 0; tx < 40; tx += 16) {
        std::fill(tile.begin(), tile.end(), 0);
        for (int y = 0; y < 16 && ty + y < 30; ++y)
          for (int x = 0; x < 16 && tx + x < 40; ++x)
            for (int s = 0; s < 3; ++s) tile[(y * 16 + x) * 3 + s] = rgb.data[((ty + y) * 40 + tx + x) * 3 + s];
        TIFFWriteTile(file.get(), tile.data(), tx, ty, 0, 0);
      }
    ExpectSamePixels(rgb, DecodeTiff(file.Close()), "tiled");
  }
  for (const int bits : {4, 8}) {
    SCOPED_TRACE("palette, " + std::to_string(bits) + " bits");
    TiffFile file(3, 2, 1, bits, PHOTOMETRIC_PALETTE);
    std::vector<uint16_t> r(1 << bits, 0), g(1 << bits, 0), b(1 << bits, 0);
    r[1] = 0xFF00;
    g[2] = 0x8000;
    b[15] = 0x1000;
    TIFFSetField(file.get(), TIFFTAG_COLORMAP, r.data(), g.data(), b.data());
    const uint8_t index[2][3] = {{1, 2, 15}, {15, 2, 1}};
    for (int y = 0; y < 2; ++y) {
      uint8_t row[3] = {};
      for (int x = 0; x < 3; ++x) row[x * bits / 8] |= uint8_t(index[y][x] << (8 - bits - x * bits % 8));
      TIFFWriteScanline(file.get(), row, y, 0);
    }
    const RawBitmap decoded = DecodeTiff(file.Close());
    EXPECT_EQ(decoded.samples_per_pixel, 3);
    EXPECT_EQ(decoded.data, (std::vector<uint8_t>{0xFF, 0, 0, 0, 0x80, 0, 0, 0, 0x10,  //
                                                  0, 0, 0x10, 0, 0x80, 0, 0xFF, 0, 0}));
  }
  {
    SCOPED_TRACE("big-endian 16-bit grey");
    TiffFile file(2, 1, 1, 16, PHOTOMETRIC_MINISBLACK, "wb");
    uint16_t row[2] = {0x1234, 0xFEDC};
    TIFFWriteScanline(file.get(), row, 0, 0);
    const std::vector<uint8_t> bytes = file.Close();
    ASSERT_EQ(bytes[0], 'M');
    const RawBitmap decoded = DecodeTiff(bytes);
    EXPECT_EQ(Sample(decoded, 0, 0, 0), 0x1234u);
    EXPECT_EQ(Sample(decoded, 1, 0, 0), 0xFEDCu);
  }
}

TEST(Tiff, MalformedFilesAreQuietErrors) {
  const std::vector<uint8_t> good = EncodeTiff(Pattern(20, 10, 4, 8, true, true, false));
  std::vector<std::vector<uint8_t>> bad;
  for (std::size_t n : {0, 3, 4, 8, 16, 100, 500}) bad.emplace_back(good.begin(), good.begin() + n);
  bad.emplace_back(good.begin(), good.end() - 1);  // directory cut short
  // Image data cut short: the directory comes last, so drop bytes in the middle.
  std::vector<uint8_t> short_data(good.begin(), good.begin() + 8);
  short_data.insert(short_data.end(), good.begin() + 400, good.end());
  bad.push_back(short_data);
  // A directory claiming a 60000 x 60000 RGB image in a file of 200 bytes.
  auto huge = EncodeTiff(Pattern(1, 1, 3, 8, false, false, false));
  const uint32_t ifd = huge[4] | huge[5] << 8 | huge[6] << 16 | static_cast<uint32_t>(huge[7]) << 24;
  const unsigned entries = huge[ifd] | huge[ifd + 1] << 8;
  for (unsigned e = 0; e < entries; ++e) {
    uint8_t* entry = huge.data() + ifd + 2 + 12 * e;
    const unsigned tag = entry[0] | entry[1] << 8;
    if (tag == TIFFTAG_IMAGEWIDTH || tag == TIFFTAG_IMAGELENGTH) entry[8] = 0x60, entry[9] = 0xEA;
  }
  bad.push_back(huge);

  ::testing::internal::CaptureStderr();
  int k = 0;
  for (const auto& bytes : bad) EXPECT_THROW(DecodeTiff(bytes), ArchiveError) << "case " << k++;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// An image in the host's archived layout, which is not public, decodes to the pixels it was made
// of: the reader takes the first image file in the contents, at any depth, and a size struct for
// the nominal size. (Our own layout round-trips in ArchiveRoundTrip.EveryKindOfObjectSurvives.)
TEST(ImageObject, HostLayoutImagesKeepTheirPixels) {
  using T = Field::Type;
  const RawBitmap rgb = Pattern(8, 6, 3, 8, false, false, false);
  const std::vector<uint8_t> tiff_bytes = EncodeTiff(rgb);
  const std::string block = "[" + std::to_string(tiff_bytes.size()) + "c]";
  const Field tiff{.type = T::Bytes, .encoding = block, .bytes = tiff_bytes};
  const Field junk{.type = T::Bytes,
                   .encoding = block,
                   .bytes = std::vector<uint8_t>(tiff_bytes.size(), 7)};  // same size, not an image
  auto rep = std::make_shared<Unknown>(std::vector<ClassInfo>{{"VMFancyRep", 4}, {"NSObject", 0}},
                                       std::vector<Group>{{block, {junk}}, {block, {tiff}}});
  const Field size{.type = T::Compound,
                   .encoding = "{_NSSize=ff}",
                   .elements = {{.type = T::Real, .encoding = "f", .d = 4},
                                {.type = T::Real, .encoding = "f", .d = 3}}};
  const Field rep_field{.type = T::Object, .encoding = "@", .object = rep};
  auto host_image = std::make_shared<Unknown>(std::vector<ClassInfo>{{"NSImage", 7}, {"NSObject", 0}},
                                              std::vector<Group>{{"{_NSSize=ff}", {size}}, {"@", {rep_field}}});

  const auto image = AsImage(Unarchive(Archive(host_image)));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->bytes(), tiff_bytes);
  EXPECT_EQ(image->size().width, 4);  // nominal size in points, not pixels
  EXPECT_EQ(image->size().height, 3);
  ExpectSamePixels(rgb, image->Bitmap(), "host image");
}

TEST(ImageFile, DecodesToRgbOrder) {
  cv::Mat bgra(2, 3, CV_8UC4);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) bgra.at<cv::Vec4b>(y, x) = cv::Vec4b(10 * x, 20 * y, 200, 128 + x);
  std::vector<uint8_t> png;
  ASSERT_TRUE(cv::imencode(".png", bgra, png));
  const RawBitmap rgba = DecodeImageFile(png);
  ASSERT_EQ(rgba.samples_per_pixel, 4);
  EXPECT_FALSE(rgba.alpha_first);
  const uint8_t* p = rgba.data.data() + 1 * rgba.bytes_per_row + 2 * 4;  // pixel (2, 1)
  EXPECT_EQ((std::vector<uint8_t>{p[0], p[1], p[2], p[3]}), (std::vector<uint8_t>{200, 20, 20, 130}));

  cv::Mat grey(4, 5, CV_8UC1, cv::Scalar(77));
  std::vector<uint8_t> bmp;
  ASSERT_TRUE(cv::imencode(".bmp", grey, bmp));
  const RawBitmap rgb = DecodeImageFile(bmp);
  EXPECT_EQ(rgb.samples_per_pixel, 3);
  EXPECT_EQ(rgb.data, std::vector<uint8_t>(4 * 5 * 3, 77));

  // An image object carrying PNG bytes decodes the same way.
  const auto image = MakeImageFromTiff(png);
  EXPECT_EQ(image->size().width, 3);
  EXPECT_EQ(image->Bitmap().data, rgba.data);

  EXPECT_THROW(DecodeImageFile(std::vector<uint8_t>{1, 2, 3, 4, 5}), ArchiveError);
  EXPECT_THROW(MakeImageFromTiff({'I', 'I', 42, 0, 1}), ArchiveError);
}

}  // namespace
}  // namespace velmora::archive
