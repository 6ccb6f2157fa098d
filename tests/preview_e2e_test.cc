// The recognition preview (request 103) through the real add-in and its port.
// The preview's pixels are the service's (ocr_filtered_image_test); a request
// without an image goes unanswered (spine_e2e_test).
#include <gtest/gtest.h>

#include "preview_addin.h"

namespace velmora::preview_test {
namespace {

// The attribute reaches the service: the doubled height comes back.
TEST(PreviewEndToEnd, OptionsTravelWithTheRequest) {
  testing::AddinProcess addin;
  auto attribute = archive::MakeDictionary();
  attribute->Set("stretch_height_level", archive::MakeFloat(2.0f));
  auto reply = Send(addin, PreviewRequest(archive::MakeImage(Marking(160, 120)), attribute));
  ASSERT_TRUE(reply && reply->present);
  // Envelope: magic, then the total length, then the TIFF as it is.
  EXPECT_EQ(wire::GetU32(reply->data.data() + 4), reply->data.size());
  const auto body = EnvelopeBody(reply->data);
  ASSERT_TRUE(body && archive::IsTiff(body->data(), body->size()));
  const archive::RawBitmap bm = archive::DecodeTiff(*body);
  EXPECT_EQ(bm.width, 160);
  EXPECT_EQ(bm.height, 240);
  EXPECT_EQ(bm.samples_per_pixel, 4);
}

}  // namespace
}  // namespace velmora::preview_test
