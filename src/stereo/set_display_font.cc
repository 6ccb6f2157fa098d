#include "stereo/set_display_font.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <regex>
#include <string>

#include "vision/core/exception.h"
#include "vision/core/system.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HException;
using vision::HTuple;

constexpr const char* kProc = "set_display_font";

[[noreturn]] void Raise(const std::string& text) {
  throw HException(kProc, text, vision::kErrUserDefined);
}

// A tuple value as the procedures concatenate it into a font name.
std::string Text(const HTuple& t) {
  if (t.Length() < 1) return {};
  if (t.IsString(0)) return t.S(0);
  if (t.IsInt(0)) return std::to_string(t.L(0));
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", t.D(0));
  return buf;
}

bool Is(const HTuple& t, const char* s) { return t.Length() == 1 && t.IsString(0) && t.S(0) == s; }

void WindowsFont(const HTuple& window, double size, std::string font, const HTuple& bold,
                 const HTuple& slant) {
  // Scale the size so that a reference text gets the same width as on the
  // systems the sizes were chosen on.
  HTuple buffer, ascent, descent, width, height;
  vision::open_window(0, 0, 256, 256, 0, "buffer", "", &buffer);
  vision::set_font(buffer, "-Consolas-16-*-0-*-*-1-");
  vision::get_string_extents(buffer, "test_string", &ascent, &descent, &width, &height);
  const vision::Hlong scaled = vision::Hlong(size * (110.0 / width.D()));
  vision::close_window(buffer);
  if (font == "Courier" || font == "courier") font = "Courier New";
  else if (font == "mono") font = "Consolas";
  else if (font == "sans") font = "Arial";
  else if (font == "serif") font = "Times New Roman";
  std::string b, s;
  if (Is(bold, "true")) b = "1";
  else if (Is(bold, "false")) b = "0";
  else Raise("Wrong value of control parameter Bold");
  if (Is(slant, "true")) s = "1";
  else if (Is(slant, "false")) s = "0";
  else Raise("Wrong value of control parameter Slant");
  vision::set_font(window, "-" + font + "-" + std::to_string(scaled) + "-*-" + s + "-*-*-" + b + "-");
}

void DarwinFont(const HTuple& window, const std::string& size, const std::string& font,
                const HTuple& bold, const HTuple& slant) {
  int style = 0;
  if (Is(slant, "true")) style += 1;
  else if (!Is(slant, "false")) Raise("Wrong value of control parameter Slant");
  if (Is(bold, "true")) style += 2;
  else if (!Is(bold, "false")) Raise("Wrong value of control parameter Bold");
  // Faces for regular, italic, bold, bold italic.
  std::array<std::string, 4> faces;
  if (font == "mono") {
    faces = {"Menlo-Regular", "Menlo-Italic", "Menlo-Bold", "Menlo-BoldItalic"};
  } else if (font == "Courier" || font == "courier") {
    faces = {"CourierNewPSMT", "CourierNewPS-ItalicMT", "CourierNewPS-BoldMT",
             "CourierNewPS-BoldItalicMT"};
  } else if (font == "sans") {
    faces = {"ArialMT", "Arial-ItalicMT", "Arial-BoldMT", "Arial-BoldItalicMT"};
  } else if (font == "serif") {
    faces = {"TimesNewRomanPSMT", "TimesNewRomanPS-ItalicMT", "TimesNewRomanPS-BoldMT",
             "TimesNewRomanPS-BoldItalicMT"};
  } else {
    HTuple fonts;
    vision::query_font(window, &fonts);
    const std::vector<std::string> available = fonts.ToSVec();
    const std::array<std::vector<std::string>, 4> candidates = {{
        {font, font + "-Regular", font + "MT"},
        {font + "-Italic", font + "-ItalicMT", font + "-Oblique"},
        {font + "-Bold", font + "-BoldMT"},
        {font + "-BoldItalic", font + "-BoldItalicMT", font + "-BoldOblique"},
    }};
    for (size_t k = 0; k < 4; ++k) {
      faces[k] = font;
      for (const auto& c : candidates[k]) {
        if (std::find(available.begin(), available.end(), c) != available.end()) {
          faces[k] = c;
          break;
        }
      }
    }
  }
  vision::set_font(window, faces[size_t(style)] + "-" + size);
}

void UnixFont(const HTuple& window, const std::string& os, double size, std::string font,
              const HTuple& bold, const HTuple& slant) {
  // Only these pixel sizes exist for the X core fonts; take the nearest.
  constexpr std::array<int, 6> kSizes = {11, 14, 17, 20, 25, 34};
  const double wanted = size * 1.25;
  int pixels = kSizes[0];
  for (int s : kSizes)
    if (std::abs(s - wanted) < std::abs(pixels - wanted)) pixels = s;
  if (font == "mono" || font == "Courier") font = "courier";
  else if (font == "sans") font = "helvetica";
  else if (font == "serif") font = "times";
  std::string b, s;
  if (Is(bold, "true")) b = "bold";
  else if (Is(bold, "false")) b = "medium";
  else Raise("Wrong value of control parameter Bold");
  if (Is(slant, "true")) s = font == "times" ? "i" : "o";
  else if (Is(slant, "false")) s = "r";
  else Raise("Wrong value of control parameter Slant");
  const std::string tail = "-normal-*-" + std::to_string(pixels) + "-*-*-*-*-*-*-*";
  try {
    vision::set_font(window, "-adobe-" + font + "-" + b + "-" + s + tail);
  } catch (const HException&) {
    if (os.rfind("Linux", 0) != 0 || font != "courier") throw;
    HTuple fonts;
    vision::query_font(window, &fonts);
    const std::regex pattern("^-[^-]*-[^-]*[Cc]ourier[^-]*-" + b + "-" + s);
    for (const auto& f : fonts.ToSVec()) {
      if (std::regex_search(f, pattern)) {
        vision::set_font(window, f + tail);
        return;
      }
    }
    Raise("Wrong font name");
  }
}

}  // namespace

void set_display_font(HTuple hv_WindowHandle, HTuple hv_Size, HTuple hv_Font, HTuple hv_Bold,
                      HTuple hv_Slant) {
  HTuple hv_OS;
  vision::get_system("operating_system", &hv_OS);
  if (hv_Size.Empty() || (hv_Size.IsNumber(0) && hv_Size.D(0) == -1)) hv_Size = 16;
  if (!hv_Size.IsNumber(0)) Raise("Wrong value of control parameter Size");
  if (hv_Font.Length() != 1 || !hv_Font.IsString(0)) Raise("Wrong value of control parameter Font");
  const std::string os = hv_OS.S(0);
  const std::string font = hv_Font.S(0);
  if (os.rfind("Win", 0) == 0)
    WindowsFont(hv_WindowHandle, hv_Size.D(0), font, hv_Bold, hv_Slant);
  else if (os.rfind("Dar", 0) == 0)
    DarwinFont(hv_WindowHandle, Text(hv_Size), font, hv_Bold, hv_Slant);
  else
    UnixFont(hv_WindowHandle, os, hv_Size.D(0), font, hv_Bold, hv_Slant);
}

}  // namespace velmora
