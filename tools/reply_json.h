#pragma once
// Generic JSON rendering of archived replies for the command-line client.
#include <string>

#include "archive/archive.h"

namespace velmora {

// Dictionaries become objects, arrays arrays, strings strings, numbers numbers
// (booleans for the 'c' type's 0 and 1), data base64 strings; a data block in
// an "ocr_rect" array becomes {top, left, bottom, right} from its four
// little-endian int16. Boxed geometry becomes a list of numbers, images a
// short description. `indent` is the starting depth.
std::string ToJson(const archive::ObjectPtr& object, int indent = 0);

std::string Base64(const uint8_t* bytes, size_t size);

}  // namespace velmora
