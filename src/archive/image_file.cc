// Image files (PNG, JPEG, BMP, TIFF) into 8-bit RGB or RGBA bitmaps, for
// sending files from the command line.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "archive/archive.h"
#include "archive/raw_bitmap.h"

namespace velmora::archive {

namespace {

RawBitmap FromMat(const cv::Mat& rgb_or_rgba) {
  RawBitmap b;
  b.width = rgb_or_rgba.cols;
  b.height = rgb_or_rgba.rows;
  b.samples_per_pixel = rgb_or_rgba.channels();
  b.bits_per_sample = 8;
  b.has_alpha = b.samples_per_pixel == 4;
  b.bytes_per_row = static_cast<std::size_t>(b.width) * b.samples_per_pixel;
  b.color_space = kCalibratedRGBColorSpace;
  b.data.resize(b.bytes_per_row * static_cast<std::size_t>(b.height));
  for (int y = 0; y < b.height; ++y)
    std::memcpy(b.data.data() + y * b.bytes_per_row, rgb_or_rgba.ptr(y), b.bytes_per_row);
  return b;
}

bool IsRgb8(const RawBitmap& b) {
  return b.bits_per_sample == 8 && !b.planar && b.color_space == kCalibratedRGBColorSpace &&
         (b.samples_per_pixel == 3 || (b.samples_per_pixel == 4 && b.has_alpha));
}

}  // namespace

RawBitmap DecodeImageFile(const std::vector<uint8_t>& bytes) { return DecodeImageFile(bytes.data(), bytes.size()); }

RawBitmap DecodeImageFile(const uint8_t* bytes, std::size_t size) {
  if (bytes == nullptr || size == 0) throw ArchiveError("image file is empty");
  if (IsTiff(bytes, size)) {
    RawBitmap b = DecodeTiff(bytes, size);
    if (IsRgb8(b)) return b;
  }
  const cv::Mat encoded(1, static_cast<int>(std::min<std::size_t>(size, INT32_MAX)), CV_8U,
                        const_cast<uint8_t*>(bytes));
  cv::Mat image;
  try {
    image = cv::imdecode(encoded, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception& e) {
    throw ArchiveError(std::string("image file cannot be decoded: ") + e.what());
  }
  if (image.empty()) throw ArchiveError("image file cannot be decoded (not PNG, JPEG, BMP or TIFF?)");
  if (image.depth() != CV_8U) {
    cv::Mat eight;
    const double scale = image.depth() == CV_16U ? 1.0 / 257.0 : 1.0;
    image.convertTo(eight, CV_8U, scale);
    image = eight;
  }
  cv::Mat out;
  switch (image.channels()) {
    case 1: cv::cvtColor(image, out, cv::COLOR_GRAY2RGB); break;
    case 3: cv::cvtColor(image, out, cv::COLOR_BGR2RGB); break;
    case 4: cv::cvtColor(image, out, cv::COLOR_BGRA2RGBA); break;
    default: throw ArchiveError("image file has " + std::to_string(image.channels()) + " channels");
  }
  return FromMat(out);
}

std::vector<uint8_t> ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ArchiveError("cannot open " + path.string());
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw ArchiveError("cannot read " + path.string());
  return bytes;
}

RawBitmap ReadImageFile(const std::filesystem::path& path) { return DecodeImageFile(ReadFileBytes(path)); }

}  // namespace velmora::archive
