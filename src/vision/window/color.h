#pragma once
// Colour names as the window operators accept them.
#include <cstdint>
#include <optional>
#include <string>

namespace vision {

struct Rgba {
  uint8_t r = 0, g = 0, b = 0, a = 255;
  friend bool operator==(const Rgba&, const Rgba&) = default;
};

// A named colour of the reference library ("white", "medium slate blue", ...),
// "#rrggbb" or "#rrggbbaa"; nullopt for anything else.
std::optional<Rgba> ParseColor(const std::string& name);

}  // namespace vision
