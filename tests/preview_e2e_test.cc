// The recognition preview (request 103) through the real add-in and its port.
#include <gtest/gtest.h>

#include "preview_addin.h"

namespace velmora::preview_test {
namespace {

struct Rgb {
  uint8_t r, g, b;
  bool operator==(const Rgb&) const = default;
};

Rgb At(const archive::RawBitmap& bm, int y, int x) {  // alpha-first RGBA
  const uint8_t* p = bm.data.data() + size_t(y) * bm.bytes_per_row + size_t(4 * x);
  return {p[1], p[2], p[3]};
}

class PreviewEndToEnd : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { addin_ = new testing::AddinProcess(); }
  static void TearDownTestSuite() {
    delete addin_;
    addin_ = nullptr;
  }
  static archive::RawBitmap Request(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute) {
    auto reply = Send(*addin_, PreviewRequest(image, attribute));
    EXPECT_TRUE(reply && reply->present);
    if (!reply || !reply->present) return {};
    // Envelope: magic, then the total length, then the TIFF as it is.
    EXPECT_EQ(wire::GetU32(reply->data.data() + 4), reply->data.size());
    auto body = EnvelopeBody(reply->data);
    EXPECT_TRUE(body && archive::IsTiff(body->data(), body->size()));
    return archive::DecodeTiff(*body);
  }
  static testing::AddinProcess* addin_;
};
testing::AddinProcess* PreviewEndToEnd::addin_ = nullptr;

TEST_F(PreviewEndToEnd, PrintComesBackWhiteOnBlackAtTheImageSize) {
  const archive::RawBitmap marking = Marking(640, 480);
  const archive::RawBitmap bm = Request(archive::MakeImage(marking), nullptr);
  ASSERT_EQ(bm.width, 640);
  ASSERT_EQ(bm.height, 480);
  ASSERT_EQ(bm.samples_per_pixel, 4);
  const Rgb white{255, 255, 255}, black{0, 0, 0};
  size_t ink_white = 0, ink = 0, ground_black = 0, ground = 0;
  // Compare away from the strokes' edges: the preview is scaled very slightly.
  for (int y = 8; y < 480 - 8; y += 2)
    for (int x = 8; x < 640 - 8; x += 2) {
      auto dark = [&](int yy, int xx) { return marking.data[size_t(yy) * marking.bytes_per_row + size_t(3 * xx)] < 100; };
      const bool all_ink = dark(y - 3, x - 3) && dark(y + 3, x + 3) && dark(y - 3, x + 3) && dark(y + 3, x - 3);
      const bool all_ground = !dark(y - 3, x - 3) && !dark(y + 3, x + 3) && !dark(y - 3, x + 3) && !dark(y + 3, x - 3) && !dark(y, x);
      if (all_ink) {
        ++ink;
        ink_white += At(bm, y, x) == white;
      } else if (all_ground) {
        ++ground;
        ground_black += At(bm, y, x) == black;
      }
    }
  ASSERT_GT(ink, 1000u);
  EXPECT_GT(double(ink_white) / double(ink), 0.95);
  EXPECT_GT(double(ground_black) / double(ground), 0.98);
}

TEST_F(PreviewEndToEnd, OptionsTravelWithTheRequest) {
  auto attribute = archive::MakeDictionary();
  attribute->Set("stretch_height_level", archive::MakeFloat(2.0f));
  attribute->Set("check_reverse", archive::MakeBool(true));
  const archive::RawBitmap bm = Request(archive::MakeImage(Marking(160, 120)), attribute);
  EXPECT_EQ(bm.width, 160);
  EXPECT_EQ(bm.height, 240);
}

TEST_F(PreviewEndToEnd, NoImageNoReply) {
  auto reply = Send(*addin_, PreviewRequest(nullptr, nullptr));
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->present);
  EXPECT_TRUE(reply->data.empty());
}

}  // namespace
}  // namespace velmora::preview_test
