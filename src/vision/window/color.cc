#include "vision/window/color.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace vision {
namespace {

struct NamedColor {
  std::string_view name;
  uint8_t r, g, b;
};

// The reference library names its colours after the X11 colour database.
constexpr std::array<NamedColor, 44> kNamed{{
    {"black", 0, 0, 0},           {"white", 255, 255, 255},
    {"red", 255, 0, 0},           {"green", 0, 255, 0},
    {"blue", 0, 0, 255},          {"dim gray", 105, 105, 105},
    {"gray", 190, 190, 190},      {"light gray", 211, 211, 211},
    {"cyan", 0, 255, 255},        {"magenta", 255, 0, 255},
    {"yellow", 255, 255, 0},      {"medium slate blue", 123, 104, 238},
    {"coral", 255, 127, 80},      {"slate blue", 106, 90, 205},
    {"spring green", 0, 255, 127}, {"orange red", 255, 69, 0},
    {"orange", 255, 165, 0},      {"dark olive green", 85, 107, 47},
    {"pink", 255, 192, 203},      {"cadet blue", 95, 158, 160},
    {"goldenrod", 218, 165, 32},  {"forest green", 34, 139, 34},
    {"firebrick", 178, 34, 34},   {"khaki", 240, 230, 140},
    {"navy", 0, 0, 128},          {"olive drab", 107, 142, 35},
    {"violet", 238, 130, 238},    {"turquoise", 64, 224, 208},
    {"sienna", 160, 82, 45},      {"maroon", 176, 48, 96},
    {"lime green", 50, 205, 50},  {"indian red", 205, 92, 92},
    {"medium sea green", 60, 179, 113}, {"salmon", 250, 128, 114},
    {"sky blue", 135, 206, 235},  {"steel blue", 70, 130, 180},
    {"wheat", 245, 222, 179},     {"plum", 221, 160, 221},
    {"orchid", 218, 112, 214},    {"yellow green", 154, 205, 50},
    {"dark green", 0, 100, 0},    {"light blue", 173, 216, 230},
    {"dark orange", 255, 140, 0}, {"slate gray", 112, 128, 144},
}};

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = char(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::optional<Rgba> ParseColor(const std::string& name) {
  if (!name.empty() && name[0] == '#') {
    if (name.size() != 7 && name.size() != 9) return std::nullopt;
    uint8_t v[4] = {0, 0, 0, 255};
    for (size_t k = 0; 2 * k + 2 < name.size(); ++k) {
      int hi = HexDigit(name[2 * k + 1]), lo = HexDigit(name[2 * k + 2]);
      if (hi < 0 || lo < 0) return std::nullopt;
      v[k] = uint8_t(hi * 16 + lo);
    }
    return Rgba{v[0], v[1], v[2], v[3]};
  }
  for (const auto& c : kNamed)
    if (c.name == name) return Rgba{c.r, c.g, c.b, 255};
  return std::nullopt;
}

}  // namespace vision
