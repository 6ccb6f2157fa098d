#include "ocr/ocr_fonts.h"

#include <fstream>
#include <iterator>

#include "ocr/ocr_image.h"
#include "vision/ocr/ocr_mlp.h"

namespace velmora {

namespace {

struct FontRow {
  const char* family;
  const char* files[3];
};

// The "Industrial" and "Document" families use the classifiers trained
// without a rejection class.
constexpr FontRow kFontTable[] = {
    {"Industrial", {"Industrial_NoRej.omc", "Industrial_0-9_NoRej.omc", "Industrial_A-Z+_NoRej.omc"}},
    {"Document", {"Document_NoRej.omc", "Document_0-9_NoRej.omc", "Document_A-Z+_NoRej.omc"}},
    {"DotPrint", {"DotPrint.omc", "DotPrint_0-9.omc", "DotPrint_A-Z+.omc"}},
    {"OCRA", {"OCRA.omc", "OCRA_0-9.omc", "OCRA_A-Z+.omc"}},
    {"OCRB", {"OCRB.omc", "OCRB_0-9.omc", "OCRB_A-Z+.omc"}},
};

}  // namespace

archive::ObjectPtr installedFonts() {
  auto list = archive::MakeArray();
  list->is_mutable = true;
  for (const char* name : {"Industrial", "Document", "DotPrint", "OCRA"}) {
    auto d = archive::MakeDictionary();
    d->is_mutable = true;
    d->Set("fontName", archive::MakeString(name));
    d->Set("has0-9", archive::MakeBool(true));
    d->Set("hasA-Z", archive::MakeBool(true));
    list->items.push_back(d);
  }
  return list;
}

void readOCRFont(const std::optional<std::string>& name, vision::HTuple classifiers[3]) {
  if (!name) return;
  for (const auto& row : kFontTable) {
    if (*name != row.family) continue;
    for (int slot = 0; slot < 3; ++slot)
      vision::read_ocr_class_mlp(vision::HTuple(row.files[slot]), &classifiers[slot]);
  }
}

void ocrAtPath(const std::string& path, const bool& run, bool visionPresent) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return;
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), {});
  archive::ObjectPtr image;
  try {
    image = archive::MakeImageFromTiff(std::move(bytes));
  } catch (const archive::ArchiveError&) {
    return;  // as an image object that could not be made: nothing to read
  }
  while (run) ocrImage(image, nullptr, visionPresent);
}

}  // namespace velmora
