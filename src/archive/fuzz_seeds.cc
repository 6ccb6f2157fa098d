// Writes a small seed corpus for fuzz_archive_reader into the folder given as
// the only argument: archives of every kind of object and TIFF files of the
// common layouts, so fuzzing starts from valid structure.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "archive/archive.h"

using namespace velmora::archive;

namespace {

RawBitmap Bitmap(int width, int height, int spp, bool alpha, bool alpha_first) {
  RawBitmap b;
  b.width = width;
  b.height = height;
  b.samples_per_pixel = spp;
  b.bits_per_sample = 8;
  b.has_alpha = alpha;
  b.alpha_first = alpha_first;
  b.color_space = spp - (alpha ? 1 : 0) == 1 ? kCalibratedWhiteColorSpace : kCalibratedRGBColorSpace;
  b.bytes_per_row = b.PackedRowBytes();
  b.data.resize(b.ExpectedDataSize());
  for (std::size_t k = 0; k < b.data.size(); ++k) b.data[k] = static_cast<uint8_t>(k * 29);
  return b;
}

void Write(const std::filesystem::path& dir, const std::string& name, const std::vector<uint8_t>& bytes) {
  std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                    static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <seed folder>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);

  auto fonts = MakeDictionary();
  fonts->Set("messageId", MakeInt32(102));
  Write(dir, "font_request.archive", Archive(fonts));

  auto attribute = std::make_shared<Dictionary>(true);
  attribute->Set("font", MakeString("OCR-B"));
  attribute->Set("rotate", MakeBool(true));
  attribute->Set("scale", MakeDouble(0.5));
  attribute->Set("level", MakeFloat(2.25f));
  attribute->Set("count", MakeInt64(-70000));
  attribute->Set("digits", MakeString("123"));
  auto ocr = MakeDictionary();
  ocr->Set("messageId", MakeInt32(101));
  ocr->Set("image", MakeImage(Bitmap(3, 2, 4, true, true)));
  ocr->Set("attribute", attribute);
  Write(dir, "ocr_request.archive", Archive(ocr));

  auto stereo = MakeDictionary();
  stereo->Set("Stereo_Reconstruct_WindowFrame", MakeRect(10, 20, 640.5, 480));
  stereo->Set("Stereo_Reconstruct_WindowOffset", MakePoint(1, 2));
  stereo->Set("old", MakeRect32(1, 2, 3, 4));
  Write(dir, "stereo_request.archive", Archive(stereo));

  auto shared = MakeString("shared");
  auto list = std::make_shared<Array>(true);
  list->items = {shared, shared, MakeData({1, 2, 3}), std::make_shared<String>("m", true), nullptr,
                 MakeArray({MakeSize(1, 2)}), Number::Unsigned('Q', 4000000000u), Number::Signed('s', -5)};
  Write(dir, "array.archive", Archive(list));

  Write(dir, "argb.tiff", EncodeTiff(Bitmap(4, 3, 4, true, true)));
  Write(dir, "rgb.tiff", EncodeTiff(Bitmap(5, 2, 3, false, false)));
  Write(dir, "grey.tiff", EncodeTiff(Bitmap(7, 3, 1, false, false)));
  return 0;
}
