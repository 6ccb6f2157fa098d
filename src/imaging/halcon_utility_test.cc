#include "imaging/halcon_utility.h"

#include <cstdlib>
#include <filesystem>
#include <numeric>

#include <gtest/gtest.h>

namespace velmora {
namespace {

using vision::HObject;

std::vector<uint8_t> Plane(const HObject& img, int k) {
  const cv::Mat& p = img.ImageAt(0).planes.at(size_t(k));
  return std::vector<uint8_t>(p.begin<uint8_t>(), p.end<uint8_t>());
}

archive::RawBitmap Bitmap(int w, int h, int spp, size_t bpr, bool alpha_first, bool has_alpha) {
  archive::RawBitmap bm;
  bm.width = w;
  bm.height = h;
  bm.samples_per_pixel = spp;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = bpr;
  bm.alpha_first = alpha_first;
  bm.has_alpha = has_alpha;
  bm.data.resize(bpr * size_t(h));
  std::iota(bm.data.begin(), bm.data.end(), uint8_t(0));  // byte i holds i
  return bm;
}

std::vector<uint8_t> Every(int first, int step, int count) {
  std::vector<uint8_t> v;
  for (int i = 0; i < count; ++i) v.push_back(uint8_t(first + i * step));
  return v;
}

TEST(Conversion, BitmapLayoutsPickTheRightBytes) {
  struct Case {
    const char* name;
    archive::RawBitmap bm;
    int first, step;  // red of pixel i is byte first + i * step
  };
  const Case cases[] = {
      {"10x1 ARGB, flags 1", Bitmap(10, 1, 4, 40, true, true), 1, 4},
      {"10x1 RGBA", Bitmap(10, 1, 4, 40, false, true), 0, 4},
      // Padded rows are not skipped: a width-5 RGB bitmap is read with stride
      // 15 whatever its bytes per row.
      {"5x2 RGB padded to 16", Bitmap(5, 2, 3, 16, false, false), 0, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HObject img;
    RawBitmap2HImage(c.bm, &img);
    const int n = c.bm.width * c.bm.height;
    ASSERT_EQ(img.ImageAt(0).planes.size(), 3u);
    EXPECT_EQ(Plane(img, 0), Every(c.first, c.step, n));
    EXPECT_EQ(Plane(img, 1), Every(c.first + 1, c.step, n));
    EXPECT_EQ(Plane(img, 2), Every(c.first + 2, c.step, n));
  }
  // Flags other than exactly 1 mean red first, even with alpha first set.
  archive::RawBitmap flt = Bitmap(2, 1, 4, 8, true, true);
  flt.bits_per_sample = 32;
  HObject img;
  RawBitmap2HImage(flt, &img);
  EXPECT_EQ(Plane(img, 0), Every(0, 4, 2));
}

TEST(Conversion, ShortBitmapsReadAsZeroInsteadOfOverreading) {
  // A grey bitmap is read as packed RGB; its bytes run out after a third.
  archive::RawBitmap grey = Bitmap(3, 1, 1, 3, false, false);
  HObject img;
  RawBitmap2HImage(grey, &img);
  EXPECT_EQ(Plane(img, 0), (std::vector<uint8_t>{0, 0, 0}));
  EXPECT_EQ(Plane(img, 1), (std::vector<uint8_t>{1, 0, 0}));
}

TEST(Conversion, RawBuffersHonourTheAlphaFlagOnlyWithFourSamples) {
  std::vector<uint8_t> data(24);
  std::iota(data.begin(), data.end(), uint8_t(0));
  struct Case {
    int spp;
    uint8_t alpha_first;
    int first, step;
  } cases[] = {{4, 1, 1, 4}, {4, 0, 0, 4}, {3, 1, 0, 3}, {3, 0, 0, 3}, {2, 1, 0, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.spp * 10 + c.alpha_first);
    HObject img;
    HImageWithData(&img, data.data(), data.size(), 2, 3, c.spp, c.alpha_first);
    EXPECT_EQ(img.ImageAt(0).width, 2);
    EXPECT_EQ(img.ImageAt(0).height, 3);
    EXPECT_EQ(Plane(img, 2), Every(c.first + 2, c.step, 6));
  }
  HObject untouched;
  HImageWithData(&untouched, data.data(), data.size(), 0, 3, 3, 0);
  HImageWithData(&untouched, data.data(), data.size(), 1 << 20, 1 << 20, 3, 0);
  EXPECT_TRUE(untouched.Empty());
  // A block one byte short of its layout is refused, never over-read.
  for (int spp : {4, 3}) {
    std::vector<uint8_t> shortBlock(size_t(2 * 3 * (spp == 4 ? 4 : 3) - 1));
    EXPECT_THROW(HImageWithData(&untouched, shortBlock.data(), shortBlock.size(), 2, 3, spp, 1), vision::HException);
  }
}

TEST(Conversion, ImagesBecomeOpaqueArgbWithPaddedRows) {
  struct Case {
    int width;
    size_t bytes_per_row;
  } cases[] = {{4, 32}, {5, 32}, {3, 16}, {1, 16}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.width);
    cv::Mat r(2, c.width, CV_8U, cv::Scalar(10)), g(2, c.width, CV_8U, cv::Scalar(20)),
        b(2, c.width, CV_8U, cv::Scalar(30));
    r.at<uint8_t>(1, c.width - 1) = 99;
    auto bm = HImage2Bitmap(HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {r, g, b})));
    ASSERT_TRUE(bm);
    EXPECT_EQ(bm->bytes_per_row, c.bytes_per_row);
    EXPECT_TRUE(bm->alpha_first);
    EXPECT_EQ(BitmapFormatFlags(*bm), 1u);
    const uint8_t* last = bm->data.data() + bm->bytes_per_row + 4 * size_t(c.width - 1);
    EXPECT_EQ(std::vector<uint8_t>(last, last + 4), (std::vector<uint8_t>{255, 99, 20, 30}));
  }
}

TEST(Conversion, ChannelCountAndPixelTypeDecideGreyOrNothing) {
  cv::Mat a(1, 2, CV_8U, cv::Scalar(7)), b(1, 2, CV_8U, cv::Scalar(8));
  for (int channels : {1, 2, 4}) {
    SCOPED_TRACE(channels);
    std::vector<cv::Mat> planes(size_t(channels), b);
    planes[0] = a;
    auto bm = HImage2Bitmap(HObject(vision::Image::FromPlanes(vision::PixelType::Byte, planes)));
    ASSERT_TRUE(bm);
    EXPECT_EQ(std::vector<uint8_t>(bm->data.begin(), bm->data.begin() + 4),
              (std::vector<uint8_t>{255, 7, 7, 7}));
  }
  cv::Mat real(1, 2, CV_32F, cv::Scalar(1.5));
  HObject real_image(vision::Image::FromPlanes(vision::PixelType::Real, {real}));
  EXPECT_FALSE(HImage2Bitmap(real_image));
  EXPECT_EQ(HImage2NSImage(real_image), nullptr);
}

TEST(Conversion, PlatformImagesRoundTripThroughTiff) {
  archive::RawBitmap bm = Bitmap(5, 3, 4, 20, true, true);
  HObject img;
  NSImage2HImage(archive::MakeImage(bm), &img);
  ASSERT_FALSE(img.Empty());
  auto back = archive::AsImage(HImage2NSImage(img));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->size().width, 5);
  HObject again;
  NSImage2HImage(back, &again);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(Plane(again, k), Plane(img, k));

  auto dir = std::filesystem::temp_directory_path() / ("imaging_test_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  EXPECT_TRUE(HImageToFile(img, (dir / "out.tif").string()));
  EXPECT_TRUE(archive::IsTiff(archive::ReadFileBytes(dir / "out.tif").data(), 4));
  EXPECT_FALSE(HImageToFile(img, (dir / "missing" / "out.tif").string()));
  std::filesystem::remove_all(dir);
}

// A request's image (marked converted-once) gives its pixel data up after the
// conversion and still answers its size; any other image converts again.
TEST(Conversion, RequestImagesLetTheirPixelsGo) {
  const archive::RawBitmap bm = Bitmap(6, 2, 3, 18, false, false);
  for (const bool once : {false, true}) {
    auto image = archive::MakeImage(bm);
    if (once) image->SetConvertedOnce();
    HObject first, second;
    NSImage2HImage(image, &first);
    ASSERT_FALSE(first.Empty());
    EXPECT_EQ(image->bytes().empty(), once);
    EXPECT_EQ(image->size().width, 6);
    NSImage2HImage(image, &second);
    EXPECT_EQ(second.Empty(), once);
  }
}

TEST(Conversion, DataFolderFollowsXdgDataHome) {
  const char* old_data = std::getenv("XDG_DATA_HOME");
  const char* old_home = std::getenv("HOME");
  const std::string saved_data = old_data ? old_data : "", saved_home = old_home ? old_home : "";
  struct Case {
    const char* data;  // nullptr: unset
    const char* home;
    std::string want;
  };
  // A relative XDG_DATA_HOME is invalid by the XDG rules and falls back to HOME.
  const Case cases[] = {
      {"/tmp/xdg", "/home/u", "/tmp/xdg/velmora_AOI"},
      {nullptr, "/home/u", "/home/u/.local/share/velmora_AOI"},
      {"", "/home/u", "/home/u/.local/share/velmora_AOI"},
      {"relative/data", "/home/u", "/home/u/.local/share/velmora_AOI"},
  };
  for (const Case& c : cases) {
    if (c.data) setenv("XDG_DATA_HOME", c.data, 1);
    else unsetenv("XDG_DATA_HOME");
    setenv("HOME", c.home, 1);
    EXPECT_EQ(pathOfVelmora_AOI(), c.want) << (c.data ? c.data : "(unset)");
  }
  // Without HOME the user database names the home folder: never a relative path.
  unsetenv("XDG_DATA_HOME");
  unsetenv("HOME");
  const std::string fallback = pathOfVelmora_AOI();
  EXPECT_TRUE(fallback.empty() || fallback[0] == '/') << fallback;
  if (old_data) setenv("XDG_DATA_HOME", saved_data.c_str(), 1);
  else unsetenv("XDG_DATA_HOME");
  if (old_home) setenv("HOME", saved_home.c_str(), 1);
}

}  // namespace
}  // namespace velmora
