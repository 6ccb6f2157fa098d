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
  const symgen::RenderParams p{.canvas_w = canvas_w, .module_px = module_px};
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
  archive::RawBitmap bm{.width = g.cols, .height = g.rows, .samples_per_pixel = samples, .bits_per_sample = 8,
                        .bytes_per_row = size_t(samples * g.cols)};
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

// The decode value picks the reader; the text comes back under the reply's
// rules.
TEST(DecodeImage, ReaderChoiceAndTextRules) {
  const cv::Mat mixed = SideBySide(Symbol(Kind::Code39, "C39-42", 2.5, 480), Symbol(Kind::QR, "qr text", 4, 320));
  const cv::Mat dm_qr = SideBySide(Symbol(Kind::DataMatrix, "dm text", 4, 320), Symbol(Kind::QR, "qr text", 4, 320));
  const std::string s511(511, 'A'), s600(600, 'B');
  const auto qr = [](const std::string& text) { return Symbol(Kind::QR, text, 3); };
  const auto two = Attr(archive::MakeInt32(2));
  struct Case {
    const char* what;
    cv::Mat image;
    archive::ObjectPtr attribute;
    std::optional<std::string> text;  // nullopt: a dictionary without the entry
    bool null_result = false;
    int samples = 3;
  };
  const Case cases[] = {
      {"absent attribute", mixed, nullptr, "C39-42"},
      {"absent key", mixed, Attr(nullptr), "C39-42"},
      {"0", mixed, Attr(archive::MakeInt32(0)), "C39-42"},
      {"4", mixed, Attr(archive::MakeInt32(4)), "C39-42"},
      {"-1", mixed, Attr(archive::MakeInt64(-1)), "C39-42"},
      {"2", mixed, two, "qr text"},
      {"\"2\" as a string", mixed, Attr(archive::MakeString("2")), "qr text"},
      {"1 with a QR beside", dm_qr, Attr(archive::MakeDouble(1.0)), "dm text"},
      {"3", Symbol(Kind::MicroQR, "MQR7"), Attr(archive::MakeInt32(3)), "MQR7"},
      {"RGBA", Symbol(Kind::QR, "four channels"), two, "four channels", false, 4},
      {"511 characters whole", qr(s511), two, s511},
      {"600 characters cut to 511", qr(s600), two, s600.substr(0, 511)},
      {"non-ASCII: dictionary without the entry", qr("Gr\xC3\xBC\xC3\x9F" "e"), two, std::nullopt},
      {"empty C string: null", qr(std::string("\0abc", 4)), two, std::nullopt, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto result = decodeImage(PlatformImage(c.image, c.samples), c.attribute, true);
    if (c.null_result) {
      EXPECT_EQ(result, nullptr);
      continue;
    }
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(Text(result), c.text);
    if (!c.text) EXPECT_TRUE(archive::AsDictionary(result)->entries().empty());
  }
}

TEST(DecodeImage, GreyAndBlankImagesGiveNoWrongText) {
  // Grey bitmaps are read as if they were packed RGB: garbled, never a wrong text.
  auto grey = decodeImage(PlatformImage(Symbol(Kind::QR, "four channels"), 1), Attr(archive::MakeInt32(2)), true);
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
