#include "stereo/disp_message.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "vision/core/exception.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HException;
using vision::HTuple;

constexpr const char* kProc = "disp_message";

std::string ElementText(const HTuple& t, vision::Hlong i) {
  if (t.IsString(i)) return t.S(i);
  if (t.IsInt(i)) return std::to_string(t.L(i));
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", t.D(i));
  return buf;
}

std::vector<std::string> SplitLines(const HTuple& strings) {
  std::vector<std::string> lines;
  for (vision::Hlong i = 0; i < strings.Length(); ++i) {
    std::string s = ElementText(strings, i);
    size_t start = 0;
    for (;;) {
      size_t nl = s.find('\n', start);
      lines.push_back(s.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
      if (nl == std::string::npos) break;
      start = nl + 1;
    }
  }
  return lines;
}

bool Is(const HTuple& t, vision::Hlong i, const char* s) {
  return t.Length() > i && t.IsString(i) && t.S(i) == s;
}

// Validates a colour the way the procedure does: by setting it.
bool TrySetColor(const HTuple& window, const HTuple& color) {
  try {
    vision::set_color(window, color);
    return true;
  } catch (const HException&) {
    return false;
  }
}

}  // namespace

void disp_message(HTuple hv_WindowHandle, HTuple hv_String, HTuple hv_CoordSystem, HTuple hv_Row,
                  HTuple hv_Column, HTuple hv_Color, HTuple hv_Box) {
  HTuple hv_Red, hv_Green, hv_Blue, hv_Row1Part, hv_Column1Part, hv_Row2Part, hv_Column2Part;
  HTuple hv_RowWin, hv_ColumnWin, hv_WidthWin, hv_HeightWin;
  vision::get_rgb(hv_WindowHandle, &hv_Red, &hv_Green, &hv_Blue);
  vision::get_part(hv_WindowHandle, &hv_Row1Part, &hv_Column1Part, &hv_Row2Part, &hv_Column2Part);
  vision::get_window_extents(hv_WindowHandle, &hv_RowWin, &hv_ColumnWin, &hv_WidthWin, &hv_HeightWin);
  vision::set_part(hv_WindowHandle, 0, 0, hv_HeightWin - 1, hv_WidthWin - 1);

  double row = hv_Row.Empty() ? 12 : hv_Row.D(0);
  double column = hv_Column.Empty() ? 12 : hv_Column.D(0);
  if (row == -1) row = 12;
  if (column == -1) column = 12;
  if (hv_Color.Empty()) hv_Color = "";
  std::vector<std::string> lines = SplitLines(hv_String);

  HTuple hv_MaxAscent, hv_MaxDescent, hv_MaxWidth, hv_MaxHeight;
  vision::get_font_extents(hv_WindowHandle, &hv_MaxAscent, &hv_MaxDescent, &hv_MaxWidth, &hv_MaxHeight);
  const double line_height = hv_MaxHeight.D();

  double r1 = row, c1 = column;
  if (!Is(hv_CoordSystem, 0, "window")) {
    const double pr1 = hv_Row1Part.D(), pc1 = hv_Column1Part.D();
    const double pr2 = hv_Row2Part.D(), pc2 = hv_Column2Part.D();
    r1 = (row - pr1 + 0.5) * hv_HeightWin.D() / (pr2 - pr1 + 1);
    c1 = (column - pc1 + 0.5) * hv_WidthWin.D() / (pc2 - pc1 + 1);
  }

  // No box unless asked for.
  std::string box = hv_Box.Empty() ? "false" : ElementText(hv_Box, 0);
  bool use_shadow = true;
  std::string shadow_color = "gray";
  if (box == "true") {
    box = "#fce9d4";
    shadow_color = "#f28d26";
  }
  if (hv_Box.Length() > 1) {
    if (Is(hv_Box, 1, "false")) {
      use_shadow = false;
    } else if (!Is(hv_Box, 1, "true")) {
      shadow_color = ElementText(hv_Box, 1);
      if (!TrySetColor(hv_WindowHandle, shadow_color.c_str()))
        throw HException(kProc, "Wrong value of control parameter Box[1] (must be a 'true', 'false', "
                                "or a valid color string)");
    }
  }
  if (box != "false") {
    if (!TrySetColor(hv_WindowHandle, box.c_str()))
      throw HException(kProc, "Wrong value of control parameter Box[0] (must be a 'true', 'false', "
                              "or a valid color string)");
    for (auto& line : lines) line = " " + line + " ";
    HTuple text = HTuple::Strings(lines), ascent, descent, widths, heights;
    vision::get_string_extents(hv_WindowHandle, text, &ascent, &descent, &widths, &heights);
    double box_width = 0;
    for (double w : widths.ToDVec()) box_width = std::max(box_width, w);
    const double r2 = r1 + line_height * double(lines.size());
    const double c2 = c1 + box_width;
    HTuple hv_DrawMode;
    vision::get_draw(hv_WindowHandle, &hv_DrawMode);
    vision::set_draw(hv_WindowHandle, "fill");
    if (use_shadow) {
      vision::set_color(hv_WindowHandle, shadow_color.c_str());
      vision::disp_rectangle1(hv_WindowHandle, r1 + 1, c1 + 1, r2 + 1, c2 + 1);
    }
    vision::set_color(hv_WindowHandle, box.c_str());
    vision::disp_rectangle1(hv_WindowHandle, r1, c1, r2, c2);
    vision::set_draw(hv_WindowHandle, hv_DrawMode);
  }

  for (size_t i = 0; i < lines.size(); ++i) {
    const HTuple color = HTuple(hv_Color[vision::Hlong(i % size_t(hv_Color.Length()))]);
    if (Is(color, 0, "") || Is(color, 0, "auto"))
      vision::set_rgb(hv_WindowHandle, hv_Red, hv_Green, hv_Blue);
    else
      vision::set_color(hv_WindowHandle, color);
    vision::set_tposition(hv_WindowHandle, r1 + line_height * double(i), c1);
    vision::write_string(hv_WindowHandle, lines[i].c_str());
  }
  vision::set_rgb(hv_WindowHandle, hv_Red, hv_Green, hv_Blue);
  vision::set_part(hv_WindowHandle, hv_Row1Part, hv_Column1Part, hv_Row2Part, hv_Column2Part);
}

}  // namespace velmora
