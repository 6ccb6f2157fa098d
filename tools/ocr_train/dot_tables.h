#pragma once
// Designed dot-matrix character tables, as printer and inkjet character
// generators define them (rather than outline glyphs sampled onto a grid):
// a narrow or slashed zero, a round wide O, a Q with a tail.
#include <string>
#include <vector>

namespace velmora::ocrgen {

struct DotTable {
  std::string name;  // "5x7a", ...
  int cols = 0, rows = 0;
  // Pattern rows of one character ('#' = dot); empty when the table lacks it.
  std::vector<std::string> Glyph(char c) const;
  std::vector<std::pair<char, std::vector<std::string>>> glyphs;
};

// The tables by name; throws std::runtime_error for an unknown name.
const DotTable& DotTableByName(const std::string& name);
const std::vector<DotTable>& DotTables();

}  // namespace velmora::ocrgen
