#include "imaging/halcon_utility.h"

#include <pwd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <unistd.h>

#include "vision/filter/image_ops.h"
#include "vision/region/region_ops.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

enum class Layout { Argb, Rgba, Rgb };

// Splits interleaved pixels into red, green and blue planes and builds the
// byte image of them, as gen_image3 would from three plane pointers, but
// writing straight into the image's own planes: a large bitmap's pixels are
// not held a third time in between. `data` is read as one continuous run;
// bytes beyond `size` read as 0 (a bitmap smaller than its layout suggests
// must not be over-read). A failed allocation leaves `out` as it was.
void BuildImage(vision::HObject* out, const uint8_t* data, size_t size, int32_t width,
                int32_t height, Layout layout) {
  if (width <= 0 || height <= 0) return;
  // Plane sizes in 32-bit arithmetic; a product that does not fit is treated
  // as a failed allocation.
  const uint64_t plane64 = uint64_t(uint32_t(width)) * uint32_t(height);
  if (plane64 * 3 > std::numeric_limits<uint32_t>::max()) return;
  const uint32_t plane = uint32_t(plane64);
  if (width > 32768 || height > 32768)
    throw vision::HException("gen_image3", "Wrong value of control parameter Width or Height",
                             vision::kErrWrongParamValue);
  cv::Mat planes[3];
  try {
    for (cv::Mat& p : planes) p.create(height, width, CV_8U);
  } catch (const cv::Exception&) {
    return;
  }
  uint8_t* red = planes[0].data;
  uint8_t* green = planes[1].data;
  uint8_t* blue = planes[2].data;
  const size_t step = layout == Layout::Rgb ? 3 : 4;
  const size_t skip = layout == Layout::Argb ? 1 : 0;
  const size_t needed = size_t(plane) * step;
  size_t src = skip;
  if (needed <= size) {
    for (uint32_t i = 0; i < plane; ++i, src += step) {
      red[i] = data[src];
      green[i] = data[src + 1];
      blue[i] = data[src + 2];
    }
  } else {
    auto at = [&](size_t k) { return k < size ? data[k] : uint8_t(0); };
    for (uint32_t i = 0; i < plane; ++i, src += step) {
      red[i] = at(src);
      green[i] = at(src + 1);
      blue[i] = at(src + 2);
    }
  }
  *out = vision::HObject(
      vision::Image::FromPlanes(vision::PixelType::Byte, {planes[0], planes[1], planes[2]}));
}

std::string ExpandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  const char* home = std::getenv("HOME");
  if (!home) return path;
  return std::string(home) + path.substr(1);
}

}  // namespace

uint32_t BitmapFormatFlags(const archive::RawBitmap& bitmap) {
  // TIFF alpha is associated (premultiplied), so flag 2 never arises from it;
  // 32-bit samples are the only floating-point ones the codecs produce.
  uint32_t flags = 0;
  if (bitmap.has_alpha && bitmap.alpha_first) flags |= 1;
  if (bitmap.bits_per_sample == 32) flags |= 4;
  return flags;
}

void RawBitmap2HImage(const archive::RawBitmap& bitmap, vision::HObject* out) {
  Layout layout = Layout::Rgb;
  if (bitmap.samples_per_pixel == 4)
    layout = BitmapFormatFlags(bitmap) == 1 ? Layout::Argb : Layout::Rgba;
  BuildImage(out, bitmap.data.data(), bitmap.data.size(), bitmap.width, bitmap.height, layout);
}

void NSImage2HImage(const archive::ObjectPtr& image, vision::HObject* out) {
  auto img = archive::AsImage(image);
  if (!img) return;
  const archive::RawBitmap* bitmap = nullptr;
  try {
    bitmap = &img->Bitmap();
  } catch (const archive::ArchiveError&) {
    return;  // undecodable bytes leave the out image as it was
  }
  // A request's image is decoded once: its encoded bytes go before the
  // planes are made, so that bytes, bitmap and planes are never all held.
  if (img->converted_once()) img->ReleaseEncoded();
  RawBitmap2HImage(*bitmap, out);
  // The vision image holds its own planes now; the decoded bitmap (and, for
  // a request's image, the encoded bytes) would only add to the memory of a
  // large request for the rest of the service.
  if (img->converted_once()) img->ReleasePixels();
  else img->ReleaseBitmap();
}

void HImageWithData(vision::HObject* out, const uint8_t* data, size_t size, int32_t width,
                    int32_t height, int32_t samplesPerPixel, uint8_t alphaFirst) {
  if (!data) return;
  Layout layout = Layout::Rgb;
  if (samplesPerPixel == 4) layout = alphaFirst ? Layout::Argb : Layout::Rgba;
  // A caller's block shorter than its stated layout is refused rather than
  // read past its end (sizes that overflow are a failed allocation below).
  const uint64_t plane = uint64_t(uint32_t(std::max(width, 0))) * uint32_t(std::max(height, 0));
  if (plane > 0 && plane * 3 <= std::numeric_limits<uint32_t>::max() &&
      size < plane * (layout == Layout::Rgb ? 3 : 4))
    throw vision::HException("HImageWithData", "Image data shorter than width x height x samples per pixel",
                             vision::kErrWrongParamValue);
  BuildImage(out, data, size, width, height, layout);
}

std::optional<archive::RawBitmap> HImage2Bitmap(const vision::HObject& image) {
  vision::HTuple channels, type, width, height;
  vision::HTuple p[3];
  vision::count_channels(image, &channels);
  if (channels.L() == 3) {
    vision::get_image_pointer3(image, &p[0], &p[1], &p[2], &type, &width, &height);
  } else {
    vision::get_image_pointer1(image, &p[0], &type, &width, &height);
    p[1] = p[2] = p[0];  // one plane shows as grey
  }
  if (type.S() != "byte") return std::nullopt;
  archive::RawBitmap bm;
  bm.width = width.I();
  bm.height = height.I();
  bm.samples_per_pixel = 4;
  bm.bits_per_sample = 8;
  // Always some padding, 16 bytes when 4 * width is a multiple of 16 already.
  bm.bytes_per_row = (size_t(4) * size_t(bm.width) + 16) & ~size_t(15);
  bm.planar = false;
  bm.alpha_first = true;
  bm.has_alpha = true;
  bm.color_space = archive::kCalibratedRGBColorSpace;
  bm.data.assign(bm.bytes_per_row * size_t(bm.height), 0);
  const uint8_t* src[3];
  for (int k = 0; k < 3; ++k) src[k] = reinterpret_cast<const uint8_t*>(intptr_t(p[k].L()));
  for (int y = 0; y < bm.height; ++y) {
    uint8_t* row = bm.data.data() + size_t(y) * bm.bytes_per_row;
    const size_t base = size_t(y) * size_t(bm.width);
    for (int x = 0; x < bm.width; ++x) {
      row[4 * x] = 255;
      row[4 * x + 1] = src[0][base + x];
      row[4 * x + 2] = src[1][base + x];
      row[4 * x + 3] = src[2][base + x];
    }
  }
  return bm;
}

archive::ObjectPtr HImage2NSImage(const vision::HObject& image) {
  auto bm = HImage2Bitmap(image);
  if (!bm) return nullptr;
  try {
    return archive::MakeImage(*bm);
  } catch (const archive::ArchiveError&) {
    return nullptr;
  }
}

bool HImageToFile(const vision::HObject& image, const std::string& path) {
  auto img = archive::AsImage(HImage2NSImage(image));
  if (!img) return false;
  namespace fs = std::filesystem;
  const fs::path target = ExpandTilde(path);
  fs::path tmp = target;
  tmp += ".tmp" + std::to_string(::getpid());
  {
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    if (!f) return false;
    const auto& bytes = img->bytes();
    f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    if (!f.flush()) {
      std::error_code ec;
      fs::remove(tmp, ec);
      return false;
    }
  }
  std::error_code ec;
  fs::rename(tmp, target, ec);
  if (ec) fs::remove(tmp, ec);
  return !ec;
}

void HRegion2HImage(const vision::HObject& region, vision::HObject* out, int32_t width,
                    int32_t height) {
  vision::HTuple window;
  vision::open_window(0, 0, width, height, 0, "invisible", "", &window);
  // The part is deliberately one pixel larger than the window in each
  // direction, so the region comes out very slightly scaled down.
  vision::set_part(window, 0, 0, height, width);
  vision::disp_region(region, window);
  vision::dump_window_image(out, window);
  vision::close_window(window);
}

void HRegion2Rect(const vision::HObject& region, Rect* rect) {
  vision::HTuple v;
  vision::region_features(region, vision::HTuple({"row1", "column1", "row2", "column2"}), &v);
  rect->top = int16_t(v.L(0));
  rect->left = int16_t(v.L(1));
  rect->bottom = int16_t(v.L(2));
  rect->right = int16_t(v.L(3));
}

std::string pathOfVelmora_AOI() {
  // XDG: a relative XDG_DATA_HOME is invalid and ignored; without HOME the
  // user database names the home folder; with neither there is no data folder.
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data && data[0] == '/') return (std::filesystem::path(data) / "velmora_AOI").string();
  std::string home;
  if (const char* h = std::getenv("HOME"); h && h[0] == '/') {
    home = h;
  } else {
    passwd pw{};
    passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(geteuid(), &pw, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir &&
        found->pw_dir[0] == '/')
      home = found->pw_dir;
  }
  if (home.empty()) return {};
  return (std::filesystem::path(home) / ".local" / "share" / "velmora_AOI").string();
}

}  // namespace velmora
