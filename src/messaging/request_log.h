#pragma once
// What the opt-in request log says about one request (see RequestLogEnabled),
// and the image size limit that the dispatcher applies before any service
// decodes an image.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "archive/archive.h"

namespace velmora {

// Filled by the dispatcher for the request in hand (main thread only).
struct RequestNote {
  std::string request;  // "'data' 101 (OCR)"
  std::string refusal;  // why the request was refused, or empty
};
RequestNote& CurrentRequestNote();

// The outcome of a request from its reply: what was read, "nothing read",
// "refused: ...", "no reply", ...
std::string DescribeOutcome(int32_t msgid, const RequestNote& note,
                            const std::optional<std::vector<uint8_t>>& reply);

// The most pixels an image may have: VELMORA_MAX_IMAGE_MEGAPIXELS (millions of
// pixels, default 64).
int64_t MaxImagePixels();
// Empty when the image may be decoded; otherwise why not, naming its size
// ("image of 9000 x 9000 pixels (81.0 megapixels) is above the limit of 64
// megapixels"). Reads the encoded image's header only.
std::string ImageRefusal(const archive::ObjectPtr& image);

}  // namespace velmora
