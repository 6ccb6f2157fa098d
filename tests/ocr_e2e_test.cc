// The recognition service end to end: request 101 over the real request port
// of the real add-in, on generated markings of every family. The font list
// (102) and the reply without a font are checked by spine_e2e_test and
// ocr_image_test.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <opencv2/core.hpp>

#include "addin_process.h"
#include "platform_image.h"
#include "markings.h"

namespace velmora {
namespace {

using ocrgen::Grade;
using testing::AddinProcess;

using testing::PlatformImage;

archive::ObjectPtr Attributes(const std::string& font, bool reverse = false) {
  auto d = archive::MakeDictionary();
  d->Set("fontName", archive::MakeString(font));
  d->Set("ocr_proc", archive::MakeInt32(0));
  d->Set("check_reverse", archive::MakeBool(reverse));
  return d;
}

TEST(OcrEndToEnd, MarkingsOfEveryFamily) {
  AddinProcess addin;
  // Typical lot and date codes, with the specials of dates, expiry codes,
  // percentages and references; the accuracy on random strings is the
  // benchmark's business (bench_ocr_accuracy, bench_ocr_independent).
  const std::map<std::string, std::vector<std::string>> texts = {
      {"Industrial", {"LOT-4711", "W2619K", "EXP12/2027"}},
      {"Document", {"Rate:27Ah", "Bead28FR", "Rev.B(2024)"}},
      {"DotPrint", {"B24+7153", "KW-2281", "2026.11.23"}},
      {"OCRA", {"AC-2319", "Z7749", "REF#4711"}},
      {"OCRB", {"DE:4582", "M1150T", "98.5%*2=X"}},
  };
  ocrgen::MarkingRenderer renderer;
  for (const auto& fam : ocrgen::Families()) {
    std::mt19937 rng(4242);
    for (const std::string& text : texts.at(fam.name)) {
      const ocrgen::Marking m = renderer.Render(text, fam.eval_faces[0], 32, Grade::Clean, rng);
      auto reply = addin.Request(101, {{"image", PlatformImage(m.rgb)}, {"attribute", Attributes(fam.name)}});
      ASSERT_TRUE(reply && *reply) << fam.name << " " << text;
      auto records = archive::AsArray(*reply);
      ASSERT_TRUE(records);
      ASSERT_EQ(records->items.size(), 1u);
      const auto& rec = records->items[0];
      EXPECT_EQ(archive::ReadString(rec, "ocr_text"), text) << fam.name;
      EXPECT_EQ(archive::ReadInt(rec, "ocr_angle"), 0);
      auto rects = archive::AsArray(archive::ReadObject(rec, "ocr_rect"));
      ASSERT_TRUE(rects);
      ASSERT_EQ(rects->items.size(), m.boxes.size());
      // Each box lies on its rendered character (blur and faint anti-aliased
      // edges move the borders by a few pixels).
      for (size_t k = 0; k < rects->items.size(); ++k) {
        auto data = archive::AsData(rects->items[k]);
        ASSERT_EQ(data->bytes.size(), 8u);
        int16_t v[4];
        std::memcpy(v, data->bytes.data(), 8);
        const cv::Rect& b = m.boxes[k];
        EXPECT_NEAR(v[1], b.x, 4) << fam.name << " char " << k;
        EXPECT_NEAR(v[3], b.br().x - 1, 4) << fam.name << " char " << k;
        EXPECT_NEAR(v[0], b.y, 4);
        EXPECT_NEAR(v[2], b.br().y - 1, 4);
      }
    }
  }
}

TEST(OcrEndToEnd, UpsideDownMarkingReadsInTheTurnedPass) {
  AddinProcess addin;
  ocrgen::MarkingRenderer renderer;
  std::mt19937 rng(99);
  const auto& fam = ocrgen::FamilyByName("Industrial");
  const std::string text = "LOT4711AB";
  ocrgen::Marking m = renderer.Render(text, fam.eval_faces[0], 34, Grade::Clean, rng);
  cv::rotate(m.rgb, m.rgb, cv::ROTATE_180);
  auto reply = addin.Request(101, {{"image", PlatformImage(m.rgb)}, {"attribute", Attributes("Industrial", true)}});
  ASSERT_TRUE(reply && *reply);
  auto records = archive::AsArray(*reply);
  ASSERT_TRUE(records);
  // The upright pass may read something (turned print still has strokes); the
  // turned pass reads the text.
  ASSERT_GE(records->items.size(), 1u);
  const auto& last = records->items.back();
  EXPECT_EQ(archive::ReadInt(last, "ocr_angle"), 180);
  EXPECT_EQ(archive::ReadString(last, "ocr_text"), text);
}

}  // namespace
}  // namespace velmora
