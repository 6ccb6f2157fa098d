// The platform-neutral in-memory bitmap and its codecs (TIFF on libtiff; PNG,
// JPEG and BMP on OpenCV's image codecs).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace velmora::archive {

// Colour space names, spelled as the platform's bitmap representation names them.
inline constexpr const char* kCalibratedRGBColorSpace = "NSCalibratedRGBColorSpace";
inline constexpr const char* kCalibratedWhiteColorSpace = "NSCalibratedWhiteColorSpace";
inline constexpr const char* kCalibratedBlackColorSpace = "NSCalibratedBlackColorSpace";
inline constexpr const char* kDeviceCMYKColorSpace = "NSDeviceCMYKColorSpace";

// A bitmap as stored: `data` holds `height` rows of `bytes_per_row` bytes each
// (interleaved), or, when `planar`, `samples_per_pixel` planes one after the
// other, each of `height` rows of `bytes_per_row` bytes. Multi-byte samples are
// in host byte order.
struct RawBitmap {
  int width = 0;
  int height = 0;
  int samples_per_pixel = 0;
  int bits_per_sample = 0;
  std::size_t bytes_per_row = 0;
  bool planar = false;
  bool alpha_first = false;  // alpha precedes the colour samples of a pixel
  bool has_alpha = false;
  std::string color_space = kCalibratedRGBColorSpace;
  std::vector<uint8_t> data;

  // Bytes of one packed row: ceil(width * samples * bits / 8), or per plane row
  // when planar.
  std::size_t PackedRowBytes() const;
  // Size `data` must have for the fields above.
  std::size_t ExpectedDataSize() const;
  bool operator==(const RawBitmap&) const = default;
};

// Decodes the first page of a TIFF held in memory, keeping the file's layout
// (samples, bits, planar or interleaved, rows as stored). One exception: an
// 8-bit interleaved RGB page with an alpha extra sample is given back alpha
// first, as the platform's own bitmaps are (what EncodeTiff wrote comes back
// byte for byte). Palette images are expanded to 8-bit RGB; encodings libtiff
// cannot give back sample by sample (YCbCr, CIE Lab, ...) are read as 8-bit RGB
// or RGBA. Throws ArchiveError on a malformed, truncated or unsupported file.
RawBitmap DecodeTiff(const uint8_t* bytes, std::size_t size);
RawBitmap DecodeTiff(const std::vector<uint8_t>& bytes);

// Encodes a bitmap (1 to 4 samples of 8 or 16 bits, grey or RGB or CMYK, with or
// without alpha, either alpha position, planar or interleaved, rows padded or
// not) as an uncompressed TIFF. Alpha is written as an associated-alpha extra
// sample after the colour samples, as TIFF requires.
std::vector<uint8_t> EncodeTiff(const RawBitmap& bitmap);

// True when the bytes start with a TIFF, PNG or JPEG signature.
bool IsTiff(const uint8_t* bytes, std::size_t size);
bool IsImageFile(const uint8_t* bytes, std::size_t size);

// Decodes an image file (PNG, JPEG, BMP, TIFF) into 8-bit interleaved RGB, or RGBA
// (alpha last) when the file has alpha; grey images become RGB. For TIFF files
// that already are 8-bit interleaved RGB or RGBA, the TIFF layout of DecodeTiff is
// kept (so alpha may come first). Throws ArchiveError.
RawBitmap DecodeImageFile(const uint8_t* bytes, std::size_t size);
RawBitmap DecodeImageFile(const std::vector<uint8_t>& bytes);
RawBitmap ReadImageFile(const std::filesystem::path& path);

// The pixel size of an encoded image (TIFF's first page, PNG, JPEG, BMP) from
// its header alone, without decoding the pixels; nullopt when the header does
// not say.
struct PixelSize {
  int64_t width = 0;
  int64_t height = 0;
};
std::optional<PixelSize> ProbePixelSize(const uint8_t* bytes, std::size_t size);

// Reads a whole file; throws ArchiveError when it cannot be read.
std::vector<uint8_t> ReadFileBytes(const std::filesystem::path& path);

}  // namespace velmora::archive
