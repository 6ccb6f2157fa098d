#pragma once
// Images the command-line client sends: any file it can read (PNG, JPEG, BMP,
// TIFF in grey, 16-bit, palette, planar, CMYK, with or without alpha) becomes
// the 8-bit, interleaved, tightly packed RGBA bitmap that the add-in's image
// conversion reads correctly.
#include <string>

#include "archive/archive.h"

namespace velmora {

// Throws std::runtime_error with a message that names the file and says what
// is wrong with it.
archive::RawBitmap LoadRgbaBitmap(const std::string& path);
// The same for a bitmap already decoded (any layout the codecs produce).
archive::RawBitmap ToRgba8(const archive::RawBitmap& bitmap);

}  // namespace velmora
