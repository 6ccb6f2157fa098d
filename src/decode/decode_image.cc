#include "decode/decode_image.h"

#include <array>
#include <cstring>

#include "imaging/halcon_utility.h"
#include "vision/code/bar_code.h"
#include "vision/code/data_code_2d.h"

namespace velmora {

vision::HTuple ReadCodeStrings(const vision::HObject& ho_Image, int64_t decode) {
  using namespace vision;
  const bool data_code = decode >= 1 && decode <= 3;
  HTuple hv_Handle, hv_Strings, hv_ResultHandles;
  HObject ho_Symbols;
  if (data_code) {
    static const char* const kTypes[] = {"Data Matrix ECC 200", "QR Code", "Micro QR Code"};
    create_data_code_2d_model(kTypes[decode - 1], "default_parameters", "standard_recognition", &hv_Handle);
    // Training pass on the very image that is read afterwards, then reading.
    find_data_code_2d(ho_Image, &ho_Symbols, hv_Handle, "train", "all", &hv_ResultHandles, &hv_Strings);
    hv_Strings.Clear();
    find_data_code_2d(ho_Image, &ho_Symbols, hv_Handle, HTuple(), HTuple(), &hv_ResultHandles, &hv_Strings);
    clear_data_code_2d_model(hv_Handle);
  } else {
    HTuple hv_Names, hv_Values;
    create_bar_code_model("train", "all", &hv_Handle);
    set_bar_code_param(hv_Handle, "quiet_zone", 1);
    find_bar_code(ho_Image, &ho_Symbols, hv_Handle, "Code 39", &hv_Strings);
    query_bar_code_params(hv_Handle, "trained_general", &hv_Names);
    get_bar_code_param(hv_Handle, hv_Names, &hv_Values);
    set_bar_code_param(hv_Handle, "train", "~all");
    hv_Strings.Clear();
    find_bar_code(ho_Image, &ho_Symbols, hv_Handle, "auto", &hv_Strings);
    clear_bar_code_model(hv_Handle);
  }
  return hv_Strings;
}

archive::ObjectPtr decodeImage(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute,
                               bool visionPresent) {
  if (!visionPresent) return nullptr;

  vision::HObject ho_Image;
  NSImage2HImage(image, &ho_Image);
  const int64_t decode = archive::ReadInt(attribute, "decode", 0);

  // The text travels through a fixed buffer: at most 511 bytes and a terminator.
  std::array<char, 512> text{};
  const vision::HTuple hv_Strings = ReadCodeStrings(ho_Image, decode);
  if (hv_Strings.Length() > 0) {
    // Copied as a C string: an embedded NUL ends it, as does the buffer.
    const std::string& s = hv_Strings.S(0);
    std::strncpy(text.data(), s.c_str(), text.size() - 1);
  }

  if (text[0] == '\0') return nullptr;
  const std::string decoded(text.data());
  for (unsigned char c : decoded)
    if (c > 0x7f) return archive::MakeDictionary();  // not convertible as ASCII
  auto result = archive::MakeDictionary();
  result->Set("decode_text", archive::MakeString(decoded));
  return result;
}

}  // namespace velmora
