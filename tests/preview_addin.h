#pragma once
// Preview requests (103) for the end-to-end test and the preview benchmark:
// a generated marking, the request block, and one exchange with the add-in
// that the shared harness runs.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "addin_process.h"
#include "archive/archive.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"

namespace velmora::preview_test {

// A marking: rows of dark "characters" (bars with a gap) on a light ground
// with a gentle left-to-right shading, as 8-bit RGB.
inline archive::RawBitmap Marking(int width, int height) {
  archive::RawBitmap bm;
  bm.width = width;
  bm.height = height;
  bm.samples_per_pixel = 3;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = size_t(3 * width);
  bm.data.resize(bm.bytes_per_row * size_t(height));
  const int cell = std::max(6, width / 40);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const bool ink = y >= height / 3 && y < 2 * height / 3 && (x / cell) % 3 == 1 &&
                       x >= width / 10 && x < width - width / 10;
      const uint8_t v = ink ? 25 : uint8_t(195 + (x * 40) / width);
      for (int k = 0; k < 3; ++k) bm.data[size_t(y) * bm.bytes_per_row + size_t(3 * x + k)] = v;
    }
  return bm;
}

// The request body of 103: envelope + archive of {"messageId", "image", "attribute"}.
inline std::vector<uint8_t> PreviewRequest(const archive::ObjectPtr& image,
                                           const archive::ObjectPtr& attribute) {
  auto d = archive::MakeDictionary();
  d->Set("messageId", archive::MakeInt32(int32_t(RequestOcrFilteredImage)));
  if (image) d->Set("image", image);
  if (attribute) d->Set("attribute", attribute);
  return Envelope(archive::Archive(d));
}

// One 'data' exchange; nullopt on a transport failure, else the reply (not
// present when the add-in gave none).
inline std::optional<PortReply> Send(testing::AddinProcess& addin, const std::vector<uint8_t>& block) {
  PortReply reply;
  if (addin.Send(MessageIdData, block, &reply) != kPortSuccess) return std::nullopt;
  return reply;
}

}  // namespace velmora::preview_test
