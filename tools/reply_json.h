#pragma once
// Generic JSON rendering of archived replies for the command-line client.
#include <string>

#include "archive/archive.h"

namespace velmora {

// Dictionaries become objects, arrays arrays, strings strings, numbers numbers
// (booleans for the 'c' type's 0 and 1), data base64 strings; a data block in
// an "ocr_rect" array becomes {top, left, bottom, right} from its four
// little-endian int16. Boxed geometry becomes a list of numbers, images a
// short description. Real numbers are rounded to 4 decimals (confidences and
// geometry need no more). Pretty (two-space indents) by default; `compact`
// puts everything on one line without spaces.
std::string ToJson(const archive::ObjectPtr& object, bool compact = false);

std::string Base64(const uint8_t* bytes, size_t size);

}  // namespace velmora
