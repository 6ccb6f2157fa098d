// Writes seed inputs for fuzz_envelope: one enveloped request per request
// number, with and without image and attribute, into the folder given.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "archive/archive.h"
#include "messaging/protocol.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
    return 1;
  }
  using namespace velmora;
  archive::RawBitmap bitmap;
  bitmap.width = 4;
  bitmap.height = 2;
  bitmap.samples_per_pixel = 3;
  bitmap.bits_per_sample = 8;
  bitmap.bytes_per_row = 12;
  bitmap.data.assign(24, 200);
  const archive::ObjectPtr image = archive::MakeImage(bitmap);
  auto attribute = archive::MakeDictionary();
  attribute->Set("fontName", archive::MakeString("Industrial"));
  attribute->Set("decode", archive::MakeInt32(2));

  int n = 0;
  auto write = [&](const std::vector<uint8_t>& bytes) {
    std::ofstream out(std::string(argv[1]) + "/seed" + std::to_string(n++), std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  };
  for (const int64_t number : {0, 1, 101, 102, 103, 111, 9999}) {
    for (const bool with_image : {false, true}) {
      auto request = archive::MakeDictionary();
      request->Set("messageId", archive::MakeInt64(number));
      if (with_image) {
        request->Set("image", image);
        request->Set("attribute", attribute);
      }
      write(Envelope(archive::Archive(request)));
    }
  }
  return 0;
}
