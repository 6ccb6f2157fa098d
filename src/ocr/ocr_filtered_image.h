#pragma once
// The recognition preview (request 103): the first half of the whole-image
// recognition with the same options, returning the binarized text region as
// a TIFF image so that the operator can tune the black level and stretch.
#include <cstdint>
#include <optional>
#include <vector>

#include "archive/archive.h"

namespace velmora {

// TIFF bytes of the preview, or nullopt when the vision library is absent or
// one of its operators failed (the failure is logged).
std::optional<std::vector<uint8_t>> ocrFilteredImage(const archive::ObjectPtr& image,
                                                     const archive::ObjectPtr& attribute,
                                                     bool visionPresent);

}  // namespace velmora
