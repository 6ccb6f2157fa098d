#pragma once
// Image interchange: platform images and raw pixel buffers to vision-library
// images and back, regions to images and rectangles, and the data folder.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "archive/archive.h"
#include "vision/core/object.h"

namespace velmora {

// A character box: inclusive pixel coordinates, as the library reports them.
struct Rect {
  int16_t top = 0, left = 0, bottom = 0, right = 0;
  friend bool operator==(const Rect&, const Rect&) = default;
};

// The platform's bitmap format flags of a bitmap: 1 alpha first,
// 2 non-premultiplied alpha, 4 floating-point samples.
uint32_t BitmapFormatFlags(const archive::RawBitmap& bitmap);

// Three-channel byte image of a platform image. Only 4 samples with format
// flags exactly 1 are read as alpha-red-green-blue; other 4-sample bitmaps as
// red-green-blue-alpha, everything else as packed red-green-blue, reading the
// pixel bytes as one continuous run (row padding is not skipped). `out` is
// left untouched when the image does not decode. The decoded bitmap is not
// kept; an image marked SetConvertedOnce() (a request's image) also lets go
// of its encoded bytes, so that converting it again gives nothing.
void NSImage2HImage(const archive::ObjectPtr& image, vision::HObject* out);
// The same conversion for a bitmap already at hand.
void RawBitmap2HImage(const archive::RawBitmap& bitmap, vision::HObject* out);

// Three-channel byte image of interleaved 8-bit pixels; `alphaFirst` counts
// only with 4 samples per pixel. A block shorter than width x height x 4
// (4 samples) or x 3 bytes raises vision::HException.
void HImageWithData(vision::HObject* out, const uint8_t* data, size_t size, int32_t width,
                    int32_t height, int32_t samplesPerPixel, uint8_t alphaFirst);

// The bitmap HImage2NSImage encodes: 8-bit, 4 samples, alpha first, opaque,
// bytes per row (4 * width + 16) rounded down to a multiple of 16. nullopt for
// images that are not of pixel type byte.
std::optional<archive::RawBitmap> HImage2Bitmap(const vision::HObject& image);
// A platform image (TIFF-encoded) of a byte image, or nullptr.
archive::ObjectPtr HImage2NSImage(const vision::HObject& image);
// Writes the image as TIFF ("~" expands to the home folder), atomically.
bool HImageToFile(const vision::HObject& image, const std::string& path);

// The region drawn in a new invisible window's default colours (white on
// black) with the image part one pixel larger than the window, as an image of
// width x height.
void HRegion2HImage(const vision::HObject& region, vision::HObject* out, int32_t width,
                    int32_t height);
void HRegion2Rect(const vision::HObject& region, Rect* rect);

// $XDG_DATA_HOME/velmora_AOI (an absolute XDG_DATA_HOME only), by default
// ~/.local/share/velmora_AOI; empty when no home folder is known. Not created.
std::string pathOfVelmora_AOI();

}  // namespace velmora
