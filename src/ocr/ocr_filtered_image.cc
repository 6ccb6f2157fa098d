#include "ocr/ocr_filtered_image.h"

#include "imaging/halcon_utility.h"
#include "messaging/log.h"
#include "ocr/ocr_engine.h"
#include "ocr/ocr_segment.h"
#include "vision/core/exception.h"
#include "vision/filter/image_ops.h"
#include "vision/region/region_ops.h"

namespace velmora {

using vision::HObject;
using vision::HTuple;

namespace {
constexpr const char* kMethodName = "-[AppDelegate ocrFilteredImage:attribute:]";
}  // namespace

std::optional<std::vector<uint8_t>> ocrFilteredImage(const archive::ObjectPtr& image,
                                                     const archive::ObjectPtr& attribute,
                                                     bool visionPresent) {
  if (!visionPresent) return std::nullopt;
  try {
    HObject ho_Image;
    NSImage2HImage(image, &ho_Image);
    double w = 0, h = 0;  // the nominal size, which may differ from the pixels
    if (auto img = archive::AsImage(image)) {
      w = img->size().width;
      h = img->size().height;
    }
    // The recognition's other options ("format_string", "check_reverse", ...)
    // do not change the preview: one pass at 0 degrees, nothing classified.
    const float stretch_w = archive::ReadFloat(attribute, "stretch_width_level", 1.0f);
    const float stretch_h = archive::ReadFloat(attribute, "stretch_height_level", 1.0f);
    const int64_t black_level = archive::ReadInt(attribute, "black_level");

    // Unlike the recognition, the preview applies the vertical stretch too.
    HObject ho_S;
    gen_image_smoothed_preview(PrepareOcrImage(std::move(ho_Image), w, h, 0, stretch_w, stretch_h), &ho_S,
                               1.0, 3.0);
    MakePrintDark(&ho_S);

    HTuple hv_Width, hv_Height;
    vision::get_image_size(ho_S, &hv_Width, &hv_Height);
    HObject ho_Text, ho_Preview;
    vision::threshold(ho_S, &ho_Text, 0, HTuple(80 + 10 * black_level));
    HRegion2HImage(ho_Text, &ho_Preview, int32_t(hv_Width.L()), int32_t(hv_Height.L()));
    auto preview = archive::AsImage(HImage2NSImage(ho_Preview));
    if (!preview) return std::nullopt;
    return preview->bytes();
  } catch (const vision::HException& e) {
    Log("%s exception:%s", kMethodName, e.ErrorMessage().c_str());
    return std::nullopt;
  }
}

}  // namespace velmora
