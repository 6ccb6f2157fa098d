#include "image_input.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

namespace velmora {

namespace {

// One sample scaled to 8 bits; samples of 1, 2, 4, 8 or 16 bits.
struct SampleReader {
  const archive::RawBitmap& b;

  uint8_t operator()(int x, int y, int s) const {
    const int bits = b.bits_per_sample;
    const uint8_t* row;
    size_t index;  // in samples from the row start
    if (b.planar) {
      row = b.data.data() + (size_t(s) * size_t(b.height) + size_t(y)) * b.bytes_per_row;
      index = size_t(x);
    } else {
      row = b.data.data() + size_t(y) * b.bytes_per_row;
      index = size_t(x) * size_t(b.samples_per_pixel) + size_t(s);
    }
    switch (bits) {
      case 8: return row[index];
      case 16: {
        uint16_t v;
        std::memcpy(&v, row + 2 * index, 2);  // host byte order
        return static_cast<uint8_t>((uint32_t(v) * 255 + 32767) / 65535);
      }
      default: {  // 1, 2 or 4 bits, most significant first
        const size_t bit = index * size_t(bits);
        const unsigned v = (row[bit / 8] >> (8 - bits - bit % 8)) & ((1u << bits) - 1);
        return static_cast<uint8_t>(v * 255 / ((1u << bits) - 1));
      }
    }
  }
};

}  // namespace

archive::RawBitmap ToRgba8(const archive::RawBitmap& b) {
  const int bits = b.bits_per_sample;
  if (bits != 1 && bits != 2 && bits != 4 && bits != 8 && bits != 16)
    throw std::runtime_error(std::to_string(bits) + "-bit samples are not supported (1, 2, 4, 8 or 16 bits)");
  if (b.width <= 0 || b.height <= 0 || b.samples_per_pixel <= 0 || b.data.size() < b.ExpectedDataSize())
    throw std::runtime_error("the image has no pixels or is truncated");
  const int alpha = b.has_alpha ? (b.alpha_first ? 0 : b.samples_per_pixel - 1) : -1;
  const int first = alpha == 0 ? 1 : 0;  // first colour sample
  const int colours = b.samples_per_pixel - (alpha >= 0 ? 1 : 0);
  const bool cmyk = b.color_space == archive::kDeviceCMYKColorSpace && colours >= 4;
  const bool inverted = b.color_space == archive::kCalibratedBlackColorSpace;  // 0 is white
  const bool grey = !cmyk && colours < 3;

  archive::RawBitmap out;
  out.width = b.width;
  out.height = b.height;
  out.samples_per_pixel = 4;
  out.bits_per_sample = 8;
  out.bytes_per_row = size_t(4) * size_t(b.width);
  out.planar = false;
  out.alpha_first = false;
  out.has_alpha = true;
  out.color_space = archive::kCalibratedRGBColorSpace;
  out.data.resize(out.bytes_per_row * size_t(b.height));
  const SampleReader read{b};
  uint8_t* p = out.data.data();
  for (int y = 0; y < b.height; ++y) {
    for (int x = 0; x < b.width; ++x, p += 4) {
      if (grey) {
        uint8_t v = read(x, y, first);
        if (inverted) v = static_cast<uint8_t>(255 - v);
        p[0] = p[1] = p[2] = v;
      } else if (cmyk) {
        const unsigned k = 255 - read(x, y, first + 3);
        for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>((255 - read(x, y, first + c)) * k / 255);
      } else {
        for (int c = 0; c < 3; ++c) p[c] = read(x, y, first + c);
      }
      p[3] = alpha >= 0 ? read(x, y, alpha) : 255;
    }
  }
  return out;
}

archive::RawBitmap LoadRgbaBitmap(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) throw std::runtime_error("cannot read " + path + ": it is a folder, not an image file");
  std::vector<uint8_t> bytes;
  try {
    bytes = archive::ReadFileBytes(path);
  } catch (const std::exception&) {
    throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno ? errno : EIO));
  }
  if (bytes.empty()) throw std::runtime_error(path + " is empty");
  const bool tiff = archive::IsTiff(bytes.data(), bytes.size());
  archive::RawBitmap bitmap;
  try {
    bitmap = tiff ? archive::DecodeTiff(bytes) : archive::DecodeImageFile(bytes);
  } catch (const std::exception& e) {
    if (!tiff && !archive::IsImageFile(bytes.data(), bytes.size()) &&
        !(bytes.size() >= 2 && bytes[0] == 'B' && bytes[1] == 'M'))
      throw std::runtime_error(path + " is not an image file velmora can read (PNG, JPEG, TIFF or BMP)");
    throw std::runtime_error(path + " could not be decoded: " + e.what());
  }
  try {
    return ToRgba8(bitmap);
  } catch (const std::exception& e) {
    throw std::runtime_error(path + ": " + e.what());
  }
}

}  // namespace velmora
