// libFuzzer target: archives and TIFF files of arbitrary bytes must give an
// object or an ArchiveError, never a crash, a leak or an endless loop; and
// whatever the reader accepts and the writer writes must read back.
#include <cstddef>
#include <cstdint>

#include "archive/archive.h"

using namespace velmora::archive;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ObjectPtr object;
  try {
    object = Unarchive(data, size);
  } catch (const ArchiveError&) {
  }
  if (object) {
    std::vector<uint8_t> again;
    try {
      again = Archive(object);
    } catch (const ArchiveError&) {
    }
    if (!again.empty()) {
      try {
        Unarchive(again);
      } catch (const ArchiveError&) {
        __builtin_trap();  // the writer produced something its own reader refuses
      }
    }
    if (const auto image = AsImage(object)) {
      try {
        image->Bitmap();
      } catch (const ArchiveError&) {
      }
    }
  }
  try {
    DecodeTiff(data, size);
  } catch (const ArchiveError&) {
  }
  return 0;
}
