#pragma once
// The code reading service: one 2D data code or bar code from the request's
// image, answered as {"decode_text": text}.
#include <cstdint>

#include "archive/archive.h"
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace velmora {

// "decode" in `attribute` (number or numeric string; absent = 0) selects the
// reader: 1 Data Matrix ECC 200, 2 QR Code, 3 Micro QR Code, anything else a
// bar code (trained on Code 39, read with every linear type). Every call
// creates, trains on the image, reads with and clears its own model.
// Returns null when the vision library is absent, nothing was read or the
// text is empty; a dictionary without entries when the text is not 7-bit
// ASCII. Texts longer than 511 bytes are cut to 511. Vision-library errors
// are not caught: they propagate to the caller.
// The operators behind it, on a vision-library image: creates the model that
// "decode" selects, trains it on the image, reads the image with it and clears
// it; returns the decoded strings of the reading pass.
vision::HTuple ReadCodeStrings(const vision::HObject& image, int64_t decode);

archive::ObjectPtr decodeImage(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute,
                               bool visionPresent);

}  // namespace velmora
