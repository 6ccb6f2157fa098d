// JSON rendering of replies: rectangles, booleans, escapes, base64.
#include "reply_json.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace archive;

TEST(ReplyJsonTest, OcrRecordRendersRectsFromLittleEndianInt16) {
  auto record = MakeDictionary();
  record->Set("ocr_text", MakeString("A\"\n"));
  // top 3, left -2, bottom 258, right 0x7fff
  record->Set("ocr_rect", MakeArray({MakeData({3, 0, 0xfe, 0xff, 2, 1, 0xff, 0x7f})}));
  record->Set("ocr_angle", MakeInt32(180));
  record->Set("blob", MakeData({3, 0, 0xfe, 0xff, 2, 1, 0xff, 0x7f}));  // not a rect outside "ocr_rect"
  record->Set("ok", MakeBool(true));
  record->Set("score", MakeDouble(0.25));
  EXPECT_EQ(ToJson(MakeArray({record})),
            "[\n  {\n    \"ocr_text\": \"A\\\"\\n\",\n"
            "    \"ocr_rect\": [\n      {\"top\": 3, \"left\": -2, \"bottom\": 258, \"right\": 32767}\n    ],\n"
            "    \"ocr_angle\": 180,\n    \"blob\": \"AwD+/wIB/38=\",\n    \"ok\": true,\n    \"score\": 0.25\n  }\n]");
  // Compact: the same on one line.
  EXPECT_EQ(ToJson(MakeArray({record}), true),
            "[{\"ocr_text\":\"A\\\"\\n\",\"ocr_rect\":[{\"top\":3,\"left\":-2,\"bottom\":258,\"right\":32767}],"
            "\"ocr_angle\":180,\"blob\":\"AwD+/wIB/38=\",\"ok\":true,\"score\":0.25}]");
}

// Reals rounded to four decimals, and the empty values.
TEST(ReplyJsonTest, ScalarsAndEmpties) {
  const std::pair<ObjectPtr, const char*> cases[] = {
      {MakeDouble(0.987654321), "0.9877"}, {MakeDouble(1.0), "1.0"},         {MakeDouble(-0.00001), "0.0"},
      {MakeDouble(0.5), "0.5"},            {MakeDouble(123.45678), "123.4568"}, {nullptr, "null"},
      {MakeArray(), "[]"},                 {MakeDictionary(), "{}"},
  };
  for (const auto& [object, text] : cases) EXPECT_EQ(ToJson(object), text) << text;
}

TEST(ReplyJsonTest, Base64Padding) {
  const uint8_t bytes[] = {'f', 'o', 'o', 'b', 'a', 'r'};
  const char* expected[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (size_t n = 0; n <= 6; ++n) EXPECT_EQ(Base64(bytes, n), expected[n]) << n;
}

}  // namespace
}  // namespace velmora
