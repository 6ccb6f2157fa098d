// Helpers shared by the archive tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "archive/archive.h"

namespace velmora::archive::testing {

// Bytes from readable text: hex byte pairs, and 'text' in single quotes for
// its ASCII bytes, separated by spaces: "84 01 '@' 92".
inline std::vector<uint8_t> Hex(const std::string& text) {
  std::vector<uint8_t> out;
  std::istringstream in(text);
  std::string token;
  while (in >> token) {
    if (token.size() >= 2 && token.front() == '\'' && token.back() == '\'') {
      out.insert(out.end(), token.begin() + 1, token.end() - 1);
    } else {
      out.push_back(static_cast<uint8_t>(std::stoul(token, nullptr, 16)));
    }
  }
  return out;
}

inline std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline std::string ToHex(const std::vector<uint8_t>& bytes) {
  static const char* digits = "0123456789ABCDEF";
  std::string s;
  for (uint8_t b : bytes) {
    if (!s.empty()) s += ' ';
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

// Header of a little-endian archive followed by the root type string "@".
inline std::vector<uint8_t> LittleHeader() { return Hex("04 0B 'streamtyped' 81 E8 03 84 01 '@'"); }

// A bitmap with distinct, position-dependent sample values.
inline RawBitmap Pattern(int width, int height, int spp, int bits, bool alpha, bool alpha_first, bool planar,
                         std::size_t row_padding = 0) {
  RawBitmap b;
  b.width = width;
  b.height = height;
  b.samples_per_pixel = spp;
  b.bits_per_sample = bits;
  b.has_alpha = alpha;
  b.alpha_first = alpha_first;
  b.planar = planar;
  b.color_space = spp - (alpha ? 1 : 0) == 1 ? kCalibratedWhiteColorSpace : kCalibratedRGBColorSpace;
  b.bytes_per_row = b.PackedRowBytes() + row_padding;
  b.data.resize(b.ExpectedDataSize());
  for (std::size_t k = 0; k < b.data.size(); ++k) b.data[k] = static_cast<uint8_t>((k * 37 + k / 251) & 0xFF);
  return b;
}

}  // namespace velmora::archive::testing
