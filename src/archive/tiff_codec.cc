// TIFF in and out of RawBitmap, on libtiff, entirely in memory.
#include <tiffio.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>

#include "archive/archive.h"
#include "archive/raw_bitmap.h"

namespace velmora::archive {

namespace {

// ---- in-memory I/O for TIFFClientOpen ------------------------------------------

struct MemoryFile {
  const uint8_t* input = nullptr;  // reading
  std::vector<uint8_t>* output = nullptr;  // writing
  uint64_t size = 0;
  uint64_t pos = 0;
};

tmsize_t MemRead(thandle_t h, void* buf, tmsize_t n) {
  auto* f = static_cast<MemoryFile*>(h);
  if (n < 0 || f->pos >= f->size) return 0;
  const uint64_t avail = f->size - f->pos;
  const uint64_t count = std::min<uint64_t>(avail, static_cast<uint64_t>(n));
  const uint8_t* src = f->input ? f->input : f->output->data();
  std::memcpy(buf, src + f->pos, count);
  f->pos += count;
  return static_cast<tmsize_t>(count);
}

tmsize_t MemWrite(thandle_t h, void* buf, tmsize_t n) {
  auto* f = static_cast<MemoryFile*>(h);
  if (!f->output || n < 0) return -1;
  std::vector<uint8_t>& out = *f->output;
  const auto* src = static_cast<const uint8_t*>(buf);
  std::size_t count = static_cast<std::size_t>(n);
  if (f->pos > out.size()) out.resize(f->pos);  // a gap left by a seek
  // Overwrite what exists, append the rest (appending does not zero-fill first).
  const std::size_t overlap = std::min<std::size_t>(count, out.size() - f->pos);
  std::memcpy(out.data() + f->pos, src, overlap);
  if (count > overlap) {
    if (out.size() + (count - overlap) > out.capacity())
      out.reserve(std::max(out.size() + (count - overlap), 2 * out.capacity()));
    out.insert(out.end(), src + overlap, src + count);
  }
  f->pos += count;
  f->size = out.size();
  return n;
}

toff_t MemSeek(thandle_t h, toff_t off, int whence) {
  auto* f = static_cast<MemoryFile*>(h);
  uint64_t base = 0;
  if (whence == SEEK_CUR) base = f->pos;
  if (whence == SEEK_END) base = f->size;
  if (off > std::numeric_limits<uint64_t>::max() - base) return static_cast<toff_t>(-1);
  f->pos = base + off;
  return f->pos;
}

int MemClose(thandle_t) { return 0; }
toff_t MemSize(thandle_t h) { return static_cast<MemoryFile*>(h)->size; }
int MemMap(thandle_t, void**, toff_t*) { return 0; }
void MemUnmap(thandle_t, void*, toff_t) {}

// libtiff's messages are collected here instead of going to stderr; the first
// error becomes the exception text.
struct Messages {
  std::string error;
};

int OnError(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
  auto* m = static_cast<Messages*>(user);
  if (m->error.empty()) {
    char text[512];
    std::vsnprintf(text, sizeof text, fmt, ap);
    m->error = std::string(module ? module : "libtiff") + ": " + text;
  }
  return 1;  // handled: the process-wide handler is not called
}

int OnWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct TiffCloser {
  void operator()(TIFF* t) const { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

struct OptionsFreer {
  void operator()(TIFFOpenOptions* o) const { TIFFOpenOptionsFree(o); }
};

TiffPtr Open(MemoryFile* file, const char* mode, Messages* messages, tmsize_t max_alloc) {
  std::unique_ptr<TIFFOpenOptions, OptionsFreer> options(TIFFOpenOptionsAlloc());
  if (!options) throw ArchiveError("TIFF: out of memory");
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), OnError, messages);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), OnWarning, messages);
  if (max_alloc > 0) TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), max_alloc);
  return TiffPtr(TIFFClientOpenExt("memory", mode, file, MemRead, MemWrite, MemSeek, MemClose, MemSize, MemMap,
                                   MemUnmap, options.get()));
}

[[noreturn]] void Fail(const Messages& m, const std::string& what) {
  throw ArchiveError("TIFF: " + what + (m.error.empty() ? std::string() : " (" + m.error + ")"));
}

// ---- decoding ------------------------------------------------------------------

constexpr uint64_t kMaxDecodedBytes = uint64_t{1} << 30;

// Compressed data may expand a lot, but not without bound: refusing absurd
// claims keeps a small malformed file from asking for gigabytes.
uint64_t DecodedLimit(uint64_t input_size, uint16_t compression) {
  if (compression == COMPRESSION_NONE) return input_size;
  return std::min<uint64_t>(kMaxDecodedBytes, input_size * 4096 + (uint64_t{16} << 20));
}

const char* ColorSpaceOf(uint16_t photometric) {
  switch (photometric) {
    case PHOTOMETRIC_MINISBLACK: return kCalibratedWhiteColorSpace;
    case PHOTOMETRIC_MINISWHITE: return kCalibratedBlackColorSpace;
    case PHOTOMETRIC_SEPARATED: return kDeviceCMYKColorSpace;
    default: return kCalibratedRGBColorSpace;
  }
}

// Reads strips or tiles of the stored layout into bitmap.data.
void ReadStored(TIFF* tif, const Messages& m, RawBitmap* b) {
  const std::size_t bpr = b->bytes_per_row;
  const uint32_t h = static_cast<uint32_t>(b->height);
  const int planes = b->planar ? b->samples_per_pixel : 1;
  uint8_t* out = b->data.data();
  if (!TIFFIsTiled(tif)) {
    uint32_t rows_per_strip = 0;
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    if (rows_per_strip == 0 || rows_per_strip > h) rows_per_strip = h;
    const uint32_t strips_per_plane = (h + rows_per_strip - 1) / rows_per_strip;
    if (static_cast<uint64_t>(strips_per_plane) * planes > TIFFNumberOfStrips(tif)) Fail(m, "too few strips");
    for (int p = 0; p < planes; ++p) {
      for (uint32_t s = 0; s < strips_per_plane; ++s) {
        const uint32_t row = s * rows_per_strip;
        const uint32_t rows = std::min(rows_per_strip, h - row);
        const tmsize_t want = static_cast<tmsize_t>(rows * bpr);
        uint8_t* dst = out + (static_cast<std::size_t>(p) * h + row) * bpr;
        const tmsize_t got = TIFFReadEncodedStrip(tif, p * strips_per_plane + s, dst, want);
        if (got < want) Fail(m, "truncated or corrupt strip " + std::to_string(s));
      }
    }
    return;
  }
  uint32_t tw = 0, th = 0;
  if (!TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tw) || !TIFFGetField(tif, TIFFTAG_TILELENGTH, &th) || tw == 0 || th == 0)
    Fail(m, "tile size missing");
  const tmsize_t tile_size = TIFFTileSize(tif);
  const tmsize_t tile_row = TIFFTileRowSize(tif);
  if (tile_size <= 0 || tile_row <= 0) Fail(m, "bad tile size");
  std::vector<uint8_t> tile(static_cast<std::size_t>(tile_size));
  const uint32_t w = static_cast<uint32_t>(b->width);
  const uint64_t bits_per_pixel =
      static_cast<uint64_t>(b->bits_per_sample) * (b->planar ? 1 : b->samples_per_pixel);
  for (int p = 0; p < planes; ++p) {
    for (uint32_t y = 0; y < h; y += th) {
      for (uint32_t x = 0; x < w; x += tw) {
        const uint32_t index = TIFFComputeTile(tif, x, y, 0, static_cast<uint16_t>(p));
        if (TIFFReadEncodedTile(tif, index, tile.data(), tile_size) < tile_size)
          Fail(m, "truncated or corrupt tile " + std::to_string(index));
        const std::size_t col = static_cast<std::size_t>(x * bits_per_pixel / 8);
        const std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(tile_row), bpr - col);
        for (uint32_t r = 0; r < th && y + r < h; ++r)
          std::memcpy(out + (static_cast<std::size_t>(p) * h + y + r) * bpr + col, tile.data() + r * tile_row, n);
      }
    }
  }
}

// Palette images become 8-bit RGB.
void ExpandPalette(TIFF* tif, const Messages& m, RawBitmap* b) {
  uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
  if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue)) Fail(m, "palette image without a colour map");
  const int bits = b->bits_per_sample;
  if (b->samples_per_pixel != 1 || (bits != 1 && bits != 2 && bits != 4 && bits != 8))
    Fail(m, "unsupported palette layout");
  RawBitmap rgb;
  rgb.width = b->width;
  rgb.height = b->height;
  rgb.samples_per_pixel = 3;
  rgb.bits_per_sample = 8;
  rgb.bytes_per_row = static_cast<std::size_t>(b->width) * 3;
  rgb.color_space = kCalibratedRGBColorSpace;
  rgb.data.resize(rgb.bytes_per_row * static_cast<std::size_t>(b->height));
  // Colour maps hold 16-bit values; some writers store 8-bit ones instead.
  const std::size_t entries = std::size_t{1} << bits;
  bool eight_bit = true;
  for (std::size_t k = 0; k < entries; ++k)
    if (red[k] > 255 || green[k] > 255 || blue[k] > 255) eight_bit = false;
  const auto level = [&](uint16_t v) { return static_cast<uint8_t>(eight_bit ? v : v >> 8); };
  for (int y = 0; y < b->height; ++y) {
    const uint8_t* src = b->data.data() + static_cast<std::size_t>(y) * b->bytes_per_row;
    uint8_t* dst = rgb.data.data() + static_cast<std::size_t>(y) * rgb.bytes_per_row;
    for (int x = 0; x < b->width; ++x) {
      const std::size_t bit = static_cast<std::size_t>(x) * bits;
      const unsigned index = (src[bit / 8] >> (8 - bits - bit % 8)) & ((1u << bits) - 1);
      dst[3 * x] = level(red[index]);
      dst[3 * x + 1] = level(green[index]);
      dst[3 * x + 2] = level(blue[index]);
    }
  }
  *b = std::move(rgb);
}

// Encodings without a sample-by-sample reading (YCbCr, CIE Lab, ...) go through
// libtiff's RGBA reader.
void ReadAsRgba(TIFF* tif, const Messages& m, bool has_alpha, RawBitmap* b) {
  char why[1024] = {0};
  if (!TIFFRGBAImageOK(tif, why)) Fail(m, std::string("unsupported image: ") + why);
  const std::size_t pixels = static_cast<std::size_t>(b->width) * static_cast<std::size_t>(b->height);
  std::vector<uint32_t> raster(pixels);
  if (!TIFFReadRGBAImageOriented(tif, static_cast<uint32_t>(b->width), static_cast<uint32_t>(b->height),
                                 raster.data(), ORIENTATION_TOPLEFT, 0))
    Fail(m, "cannot read image");
  b->samples_per_pixel = has_alpha ? 4 : 3;
  b->bits_per_sample = 8;
  b->planar = false;
  b->has_alpha = has_alpha;
  b->alpha_first = has_alpha;
  b->color_space = kCalibratedRGBColorSpace;
  b->bytes_per_row = static_cast<std::size_t>(b->width) * b->samples_per_pixel;
  b->data.resize(pixels * b->samples_per_pixel);
  uint8_t* d = b->data.data();
  for (std::size_t k = 0; k < pixels; ++k) {
    const uint32_t px = raster[k];
    if (has_alpha) *d++ = static_cast<uint8_t>(TIFFGetA(px));
    *d++ = static_cast<uint8_t>(TIFFGetR(px));
    *d++ = static_cast<uint8_t>(TIFFGetG(px));
    *d++ = static_cast<uint8_t>(TIFFGetB(px));
  }
}

// Moves the last byte of each 4-byte pixel to the front (RGBA to ARGB), or
// the first to the back; written on whole words so that it vectorises.
void RotatePixels(const uint8_t* src, uint8_t* dst, std::size_t pixels, bool alpha_to_front) {
  for (std::size_t k = 0; k < pixels; ++k) {
    uint32_t v;
    std::memcpy(&v, src + 4 * k, 4);
    if constexpr (std::endian::native == std::endian::little) {
      v = alpha_to_front ? (v << 8) | (v >> 24) : (v >> 8) | (v << 24);
    } else {
      v = alpha_to_front ? (v >> 8) | (v << 24) : (v << 8) | (v >> 24);
    }
    std::memcpy(dst + 4 * k, &v, 4);
  }
}

// RGBA as stored becomes ARGB, the platform bitmap's order.
void MoveAlphaFirst(RawBitmap* b) {
  for (int y = 0; y < b->height; ++y) {
    uint8_t* p = b->data.data() + static_cast<std::size_t>(y) * b->bytes_per_row;
    RotatePixels(p, p, static_cast<std::size_t>(b->width), true);
  }
  b->alpha_first = true;
}

}  // namespace

std::size_t RawBitmap::PackedRowBytes() const {
  if (width <= 0 || samples_per_pixel <= 0 || bits_per_sample <= 0) return 0;
  const uint64_t bits = static_cast<uint64_t>(width) * (planar ? 1 : samples_per_pixel) * bits_per_sample;
  return static_cast<std::size_t>((bits + 7) / 8);
}

std::size_t RawBitmap::ExpectedDataSize() const {
  if (height <= 0) return 0;
  return bytes_per_row * static_cast<std::size_t>(height) * (planar ? samples_per_pixel : 1);
}

bool IsTiff(const uint8_t* b, std::size_t n) {
  return n >= 4 && ((b[0] == 'I' && b[1] == 'I' && b[2] == 42 && b[3] == 0) ||
                    (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && b[3] == 42));
}

bool IsImageFile(const uint8_t* b, std::size_t n) {
  static constexpr uint8_t kPng[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (IsTiff(b, n)) return true;
  if (n >= sizeof kPng && std::memcmp(b, kPng, sizeof kPng) == 0) return true;
  return n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF;  // JPEG
}

std::optional<PixelSize> ProbePixelSize(const uint8_t* b, std::size_t n) {
  if (!b) return std::nullopt;
  auto be16 = [&](size_t i) { return uint32_t(b[i]) << 8 | b[i + 1]; };
  auto be32 = [&](size_t i) { return be16(i) << 16 | be16(i + 2); };
  if (IsTiff(b, n)) {
    // Opening reads the first directory only; no strip is touched.
    MemoryFile file{b, nullptr, n, 0};
    Messages messages;
    TiffPtr tif = Open(&file, "rm", &messages, 0);
    uint32_t w = 0, h = 0;
    if (!tif || !TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &h))
      return std::nullopt;
    return PixelSize{w, h};
  }
  static constexpr uint8_t kPng[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (n >= 24 && std::memcmp(b, kPng, sizeof kPng) == 0 && std::memcmp(b + 12, "IHDR", 4) == 0)
    return PixelSize{be32(16), be32(20)};
  if (n >= 26 && b[0] == 'B' && b[1] == 'M') {
    auto le32 = [&](size_t i) { return int32_t(uint32_t(b[i]) | uint32_t(b[i + 1]) << 8 | uint32_t(b[i + 2]) << 16 | uint32_t(b[i + 3]) << 24); };
    const int64_t h = le32(22);
    return PixelSize{le32(18), h < 0 ? -h : h};
  }
  if (n >= 4 && b[0] == 0xFF && b[1] == 0xD8) {
    // Walk the markers up to the first start-of-frame.
    size_t i = 2;
    while (i + 9 < n) {
      if (b[i] != 0xFF) return std::nullopt;
      const uint8_t marker = b[i + 1];
      if (marker == 0xFF) { ++i; continue; }
      if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC)
        return PixelSize{be16(i + 7), be16(i + 5)};
      i += 2 + be16(i + 2);
    }
  }
  return std::nullopt;
}

RawBitmap DecodeTiff(const std::vector<uint8_t>& bytes) { return DecodeTiff(bytes.data(), bytes.size()); }

RawBitmap DecodeTiff(const uint8_t* bytes, std::size_t size) {
  if (bytes == nullptr || !IsTiff(bytes, size)) throw ArchiveError("TIFF: not a TIFF file");
  MemoryFile file{bytes, nullptr, size, 0};
  Messages m;
  const uint64_t hard_limit = std::min<uint64_t>(kMaxDecodedBytes, size * 4096 + (uint64_t{16} << 20));
  TiffPtr tif = Open(&file, "rm", &m, static_cast<tmsize_t>(hard_limit));
  if (!tif) Fail(m, "cannot open");
  TIFF* t = tif.get();

  uint32_t width = 0, height = 0;
  uint16_t spp = 1, bps = 1, planar = PLANARCONFIG_CONTIG, photometric = 0, compression = COMPRESSION_NONE,
           sample_format = SAMPLEFORMAT_UINT;
  if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height) || width == 0 ||
      height == 0)
    Fail(m, "image size missing");
  if (width > static_cast<uint32_t>(std::numeric_limits<int>::max()) ||
      height > static_cast<uint32_t>(std::numeric_limits<int>::max()))
    Fail(m, "image too large");
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
  TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bps);
  TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &sample_format);
  if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric))
    photometric = spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
  uint16_t extra_count = 0;
  uint16_t* extra_types = nullptr;
  TIFFGetFieldDefaulted(t, TIFFTAG_EXTRASAMPLES, &extra_count, &extra_types);
  if (spp == 0 || spp > 16) Fail(m, "unsupported samples per pixel " + std::to_string(spp));
  if (bps != 1 && bps != 2 && bps != 4 && bps != 8 && bps != 16 && bps != 32)
    Fail(m, "unsupported bits per sample " + std::to_string(bps));
  if (!TIFFIsCODECConfigured(compression)) Fail(m, "unsupported compression " + std::to_string(compression));

  const int colour_samples = photometric == PHOTOMETRIC_RGB || photometric == PHOTOMETRIC_YCBCR ? 3
                             : photometric == PHOTOMETRIC_SEPARATED                             ? 4
                                                                                                : 1;
  bool has_alpha = false;
  if (extra_count > 0 && extra_types != nullptr && spp > colour_samples) {
    has_alpha = extra_types[0] == EXTRASAMPLE_ASSOCALPHA || extra_types[0] == EXTRASAMPLE_UNASSALPHA ||
                (extra_types[0] == EXTRASAMPLE_UNSPECIFIED && spp == colour_samples + 1);
  }

  RawBitmap b;
  b.width = static_cast<int>(width);
  b.height = static_cast<int>(height);
  b.samples_per_pixel = spp;
  b.bits_per_sample = bps;
  b.planar = planar == PLANARCONFIG_SEPARATE && spp > 1;
  b.has_alpha = has_alpha;
  b.color_space = ColorSpaceOf(photometric);

  const uint64_t limit = DecodedLimit(size, compression);

  const bool direct = photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE ||
                      photometric == PHOTOMETRIC_RGB || photometric == PHOTOMETRIC_SEPARATED ||
                      photometric == PHOTOMETRIC_PALETTE ||
                      (photometric == PHOTOMETRIC_YCBCR && compression == COMPRESSION_JPEG);
  if (!direct || (photometric == PHOTOMETRIC_PALETTE && b.planar)) {
    const uint64_t pixels = static_cast<uint64_t>(width) * height;  // < 2^62
    if (pixels > kMaxDecodedBytes / 8 || pixels * 8 > limit + (uint64_t{64} << 20))
      Fail(m, "image too large for its file");
    ReadAsRgba(t, m, has_alpha, &b);
    return b;
  }
  if (photometric == PHOTOMETRIC_YCBCR) {
    // libjpeg converts to RGB for us.
    TIFFSetField(t, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    b.color_space = kCalibratedRGBColorSpace;
  }
  // For separate planes this is the row of one plane.
  const tmsize_t row = TIFFScanlineSize(t);
  if (row <= 0) Fail(m, "bad row size");
  b.bytes_per_row = static_cast<std::size_t>(row);
  const uint64_t planes = b.planar ? spp : 1;
  if (static_cast<uint64_t>(row) > limit / height / planes)
    Fail(m, "image data larger than its file allows (truncated or corrupt)");
  const uint64_t total = static_cast<uint64_t>(row) * height * planes;
  b.data.resize(static_cast<std::size_t>(total));
  ReadStored(t, m, &b);

  if (photometric == PHOTOMETRIC_PALETTE) {
    ExpandPalette(t, m, &b);
  } else if (has_alpha && !b.planar && bps == 8 && spp == 4 && colour_samples == 3) {
    MoveAlphaFirst(&b);
  }
  return b;
}

// ---- encoding ------------------------------------------------------------------

std::vector<uint8_t> EncodeTiff(const RawBitmap& b) {
  const int spp = b.samples_per_pixel;
  const int bps = b.bits_per_sample;
  if (b.width <= 0 || b.height <= 0) throw ArchiveError("TIFF: cannot encode an empty bitmap");
  if (bps != 8 && bps != 16) throw ArchiveError("TIFF: can encode 8 or 16 bits per sample, not " + std::to_string(bps));
  const int colours = spp - (b.has_alpha ? 1 : 0);
  uint16_t photometric;
  if (colours == 1) {
    photometric = b.color_space == kCalibratedBlackColorSpace ? PHOTOMETRIC_MINISWHITE : PHOTOMETRIC_MINISBLACK;
  } else if (colours == 3) {
    photometric = PHOTOMETRIC_RGB;
  } else if (colours == 4 && !b.has_alpha) {
    photometric = PHOTOMETRIC_SEPARATED;
  } else {
    throw ArchiveError("TIFF: cannot encode " + std::to_string(spp) + " samples per pixel" +
                       (b.has_alpha ? " with alpha" : ""));
  }
  const std::size_t packed = b.PackedRowBytes();
  if (b.bytes_per_row < packed) throw ArchiveError("TIFF: bytes per row smaller than a row of pixels");
  if (b.data.size() < b.ExpectedDataSize()) throw ArchiveError("TIFF: bitmap data shorter than its layout");

  std::vector<uint8_t> out;
  const std::size_t planes = b.planar ? static_cast<std::size_t>(spp) : 1;
  out.reserve(packed * static_cast<std::size_t>(b.height) * planes + 4096);
  MemoryFile file{nullptr, &out, 0, 0};
  Messages m;
  TiffPtr tif = Open(&file, "w", &m, 0);
  if (!tif) Fail(m, "cannot create");
  TIFF* t = tif.get();
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(b.width));
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(b.height));
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(spp));
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(bps));
  TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photometric);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, b.planar ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  // 72 pixels per inch: one pixel per point, the nominal size of the image.
  TIFFSetField(t, TIFFTAG_XRESOLUTION, 72.0f);
  TIFFSetField(t, TIFFTAG_YRESOLUTION, 72.0f);
  TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  if (b.has_alpha) {
    // The platform's bitmaps hold premultiplied alpha.
    const uint16_t kinds[] = {EXTRASAMPLE_ASSOCALPHA};
    TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, kinds);
  }
  const uint32_t rows_per_strip =
      static_cast<uint32_t>(std::clamp<std::size_t>((256 * 1024) / std::max<std::size_t>(packed, 1), 1, b.height));
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rows_per_strip);

  // Strips are packed rows with alpha after the colours, as TIFF orders them.
  const std::size_t sample_bytes = static_cast<std::size_t>(bps / 8);
  const bool move_alpha = b.has_alpha && b.alpha_first && spp > 1;
  std::vector<uint8_t> strip(packed * rows_per_strip);
  const uint32_t strips_per_plane = (static_cast<uint32_t>(b.height) + rows_per_strip - 1) / rows_per_strip;
  for (std::size_t p = 0; p < planes; ++p) {
    // Planar alpha-first: the alpha plane comes first in memory, last in the file.
    const std::size_t source_plane = move_alpha && b.planar ? (p + 1) % planes : p;
    for (uint32_t s = 0; s < strips_per_plane; ++s) {
      const uint32_t row0 = s * rows_per_strip;
      const uint32_t rows = std::min<uint32_t>(rows_per_strip, static_cast<uint32_t>(b.height) - row0);
      for (uint32_t r = 0; r < rows; ++r) {
        const uint8_t* src =
            b.data.data() + (source_plane * static_cast<std::size_t>(b.height) + row0 + r) * b.bytes_per_row;
        uint8_t* dst = strip.data() + r * packed;
        if (move_alpha && !b.planar && spp == 4 && sample_bytes == 1) {
          RotatePixels(src, dst, static_cast<std::size_t>(b.width), false);
        } else if (move_alpha && !b.planar) {
          const std::size_t px = static_cast<std::size_t>(spp) * sample_bytes;
          const std::size_t alpha = sample_bytes;
          for (int x = 0; x < b.width; ++x, src += px, dst += px) {
            std::memcpy(dst, src + alpha, px - alpha);
            std::memcpy(dst + px - alpha, src, alpha);
          }
        } else {
          std::memcpy(dst, src, packed);
        }
      }
      const uint32_t strip_index = static_cast<uint32_t>(p) * strips_per_plane + s;
      if (TIFFWriteRawStrip(t, strip_index, strip.data(), static_cast<tmsize_t>(rows * packed)) < 0)
        Fail(m, "cannot write strip");
    }
  }
  if (!TIFFWriteDirectory(t)) Fail(m, "cannot write directory");
  tif.reset();
  if (!m.error.empty()) Fail(m, "write failed");
  return out;
}

}  // namespace velmora::archive
