// The code reading service on platform images, as the dispatcher calls it.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "decode/decode_image.h"
#include "decode/symbol_gen.h"
#include "vision/core/exception.h"

namespace velmora {
namespace {

using symgen::Kind;

cv::Mat Symbol(Kind kind, const std::string& text, double module_px = 4, int canvas_w = 640) {
  symgen::RenderParams p;
  p.module_px = module_px;
  p.canvas_w = canvas_w;
  cv::Mat modules = symgen::SymbolModules(kind, text);
  EXPECT_FALSE(modules.empty());
  return symgen::Render(modules, symgen::IsLinear(kind), p);
}

cv::Mat SideBySide(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat out;
  cv::hconcat(a, b, out);
  return out;
}

// A platform image of the grey picture with the given samples per pixel
// (3: RGB, 4: RGBA, 1: grey).
archive::ObjectPtr PlatformImage(const cv::Mat& g, int samples = 3) {
  archive::RawBitmap bm;
  bm.width = g.cols;
  bm.height = g.rows;
  bm.samples_per_pixel = samples;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = size_t(samples * g.cols);
  bm.data.resize(bm.bytes_per_row * size_t(g.rows));
  for (int y = 0; y < g.rows; ++y)
    for (int x = 0; x < g.cols; ++x)
      for (int k = 0; k < samples; ++k)
        bm.data[size_t(y) * bm.bytes_per_row + size_t(samples * x + k)] = k == 3 ? 255 : g.at<uint8_t>(y, x);
  return archive::MakeImage(bm);
}

archive::ObjectPtr Attr(archive::ObjectPtr decode) {
  auto d = archive::MakeDictionary();
  if (decode) d->Set("decode", decode);
  return d;
}

std::optional<std::string> Text(const archive::ObjectPtr& result) {
  return archive::ReadString(result, "decode_text");
}

TEST(DecodeImage, DecodeValueSelectsTheReader) {
  // Code 39 on the left, QR on the right, Data Matrix and Micro QR alone.
  const cv::Mat mixed = SideBySide(Symbol(Kind::Code39, "C39-42", 2.5, 480), Symbol(Kind::QR, "qr text", 4, 320));
  const cv::Mat dm_qr = SideBySide(Symbol(Kind::DataMatrix, "dm text", 4, 320), Symbol(Kind::QR, "qr text", 4, 320));
  struct Case { const char* what; archive::ObjectPtr attribute; const cv::Mat* image; const char* expect; };
  const cv::Mat mqr = Symbol(Kind::MicroQR, "MQR7");
  const Case cases[] = {
      {"absent attribute", nullptr, &mixed, "C39-42"},
      {"absent key", Attr(nullptr), &mixed, "C39-42"},
      {"0", Attr(archive::MakeInt32(0)), &mixed, "C39-42"},
      {"4", Attr(archive::MakeInt32(4)), &mixed, "C39-42"},
      {"-1", Attr(archive::MakeInt64(-1)), &mixed, "C39-42"},
      {"2", Attr(archive::MakeInt32(2)), &mixed, "qr text"},
      {"\"2\" as a string", Attr(archive::MakeString("2")), &mixed, "qr text"},
      {"2 with a Data Matrix beside", Attr(archive::MakeInt32(2)), &dm_qr, "qr text"},
      {"1 with a QR beside", Attr(archive::MakeDouble(1.0)), &dm_qr, "dm text"},
      {"3", Attr(archive::MakeInt32(3)), &mqr, "MQR7"},
      {"3 on a QR: wrong type", Attr(archive::MakeInt32(3)), &dm_qr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto result = decodeImage(PlatformImage(*c.image), c.attribute, true);
    if (!c.expect) {
      EXPECT_EQ(result, nullptr);
      continue;
    }
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(Text(result), c.expect);
  }
}

TEST(DecodeImage, TextRules) {
  const std::string s511(511, 'A'), s600(600, 'B');
  std::string nul_first("\0abc", 4);
  struct Case { const char* what; std::string encode; bool null_result; std::optional<std::string> expect; };
  const Case cases[] = {
      {"511 characters whole", s511, false, s511},
      {"600 characters cut to 511", s600, false, s600.substr(0, 511)},
      {"non-ASCII: dictionary without the entry", "Gr\xC3\xBC\xC3\x9F" "e", false, std::nullopt},
      {"empty C string: null", nul_first, true, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto result = decodeImage(PlatformImage(Symbol(Kind::QR, c.encode, 3)), Attr(archive::MakeInt32(2)), true);
    if (c.null_result) {
      EXPECT_EQ(result, nullptr);
      continue;
    }
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(Text(result), c.expect);
    if (!c.expect) EXPECT_TRUE(archive::AsDictionary(result)->entries().empty());
  }
}

TEST(DecodeImage, ImagesOfEveryShape) {
  const cv::Mat qr = Symbol(Kind::QR, "four channels");
  auto rgba = decodeImage(PlatformImage(qr, 4), Attr(archive::MakeInt32(2)), true);
  ASSERT_NE(rgba, nullptr);
  EXPECT_EQ(Text(rgba), "four channels");
  // Grey bitmaps are read as if they were packed RGB: garbled, never a wrong text.
  auto grey = decodeImage(PlatformImage(qr, 1), Attr(archive::MakeInt32(2)), true);
  if (grey) EXPECT_EQ(Text(grey), "four channels");
  for (const cv::Mat& m : {cv::Mat(1, 1, CV_8U, cv::Scalar(0)), cv::Mat(2500, 3000, CV_8U, cv::Scalar(180)),
                           cv::Mat(480, 640, CV_8U, cv::Scalar(255))}) {
    for (int decode : {0, 1, 2, 3}) {
      SCOPED_TRACE(std::to_string(m.cols) + " decode " + std::to_string(decode));
      EXPECT_EQ(decodeImage(PlatformImage(m), Attr(archive::MakeInt32(decode)), true), nullptr);
    }
  }
}

TEST(DecodeImage, LibraryAbsentAndErrorsPassThrough) {
  const cv::Mat qr = Symbol(Kind::QR, "present");
  EXPECT_EQ(decodeImage(PlatformImage(qr), Attr(archive::MakeInt32(2)), false), nullptr);
  // An image that does not convert leaves the reader without input: the
  // operator's error is not caught here.
  EXPECT_THROW(decodeImage(nullptr, Attr(archive::MakeInt32(2)), true), vision::HException);
  EXPECT_THROW(decodeImage(nullptr, nullptr, true), vision::HException);
}

}  // namespace
}  // namespace velmora
