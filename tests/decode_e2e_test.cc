// Request 111 through the real add-in and its request port.
#include <gtest/gtest.h>

#include "addin_process.h"
#include "platform_image.h"
#include "decode/symbol_gen.h"

namespace velmora {
namespace {

TEST(DecodeRequest, AnswersOverThePort) {
  testing::AddinProcess addin;
  auto attr = [](int64_t decode) {
    auto d = archive::MakeDictionary();
    d->Set("decode", archive::MakeInt64(decode));
    return d;
  };
  const cv::Mat qr = symgen::MakeSample(symgen::Kind::QR, symgen::Grade::Moderate, 3).gray;
  const std::string qr_text = symgen::MakeSample(symgen::Kind::QR, symgen::Grade::Moderate, 3).text;
  const auto c39 = symgen::MakeSample(symgen::Kind::Code39, symgen::Grade::Clean, 5);
  const cv::Mat blank(480, 640, CV_8U, cv::Scalar(128));
  struct Case { const char* what; cv::Mat image; archive::ObjectPtr attribute; std::optional<std::string> text; };
  const Case cases[] = {
      {"QR", qr, attr(2), qr_text},
      {"Code 39 without attribute", c39.gray, nullptr, c39.text},
      {"nothing to read", blank, attr(1), std::nullopt},
      {"QR asked as Data Matrix", qr, attr(1), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::pair<std::string, archive::ObjectPtr>> fields = {{"image", testing::PlatformImageFromGray(c.image)}};
    if (c.attribute) fields.push_back({"attribute", c.attribute});
    auto reply = addin.Request(RequestDecodeImage, fields);
    ASSERT_TRUE(reply.has_value());
    auto dict = archive::AsDictionary(*reply);
    ASSERT_NE(dict, nullptr);
    if (c.text) {
      EXPECT_EQ(archive::ReadString(*reply, "decode_text"), *c.text);
    } else {
      EXPECT_TRUE(dict->entries().empty());  // null result: an empty dictionary
    }
  }
}

}  // namespace
}  // namespace velmora
