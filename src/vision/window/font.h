#pragma once
// Window fonts: names in the forms the window text procedures produce,
// resolved through fontconfig to font files and rasterised with FreeType.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace vision {

// What a font name asks for.
struct FontRequest {
  std::string family;
  bool bold = false;
  bool italic = false;
  int pixel_size = 16;
};

// Understands X logical font descriptions
// ("-adobe-times-bold-r-normal-*-25-*-*-*-*-*-*-*"), the "-Family-Size-Width-
// Italic-Underline-Strikeout-Bold-" form and "Face-Size" with a PostScript-like
// face name ("TimesNewRomanPS-BoldMT-24", "Menlo-Regular-16", "mono-16").
// nullopt when the name has none of these shapes.
std::optional<FontRequest> ParseFontName(const std::string& name);

// The available fonts, first as "-foundry-family-weight-slant" prefixes of X
// logical font descriptions, then as PostScript face names.
std::vector<std::string> ListFonts();

// A loaded face at one pixel size. Move-only; owns its FreeType handles.
class Font {
 public:
  // Resolves and loads; raises HException(op, ...) when the name cannot be
  // parsed or no installed font answers to its family.
  static Font Load(const std::string& name, const char* op);
  Font(Font&&) noexcept;
  Font& operator=(Font&&) noexcept;
  ~Font();

  int Ascent() const { return ascent_; }
  int Descent() const { return descent_; }
  int MaxWidth() const { return max_width_; }
  int Height() const { return ascent_ + descent_; }
  const std::string& File() const { return file_; }
  // Advance width of the UTF-8 text in pixels.
  int TextWidth(const std::string& utf8) const;
  // Calls `plot(row, col, coverage 0..255)` for every covered pixel of the
  // text drawn with the top of the text cell at `top` and the pen at `left`.
  template <class Plot>
  void Render(const std::string& utf8, int top, int left, Plot&& plot) const;

 private:
  struct Impl;
  Font() = default;
  // Returns the glyph coverage bitmap and its placement; false if missing.
  bool Glyph(char32_t cp, cv::Mat* coverage, int* dx, int* dy, int* advance) const;
  std::unique_ptr<Impl> impl_;
  std::string file_;
  int ascent_ = 0, descent_ = 0, max_width_ = 0;
};

std::u32string DecodeUtf8(const std::string& s);

template <class Plot>
void Font::Render(const std::string& utf8, int top, int left, Plot&& plot) const {
  int pen = left, baseline = top + ascent_;
  cv::Mat cov;
  int dx = 0, dy = 0, adv = 0;
  for (char32_t cp : DecodeUtf8(utf8)) {
    if (!Glyph(cp, &cov, &dx, &dy, &adv)) continue;
    for (int y = 0; y < cov.rows; ++y) {
      const uint8_t* p = cov.ptr<uint8_t>(y);
      for (int x = 0; x < cov.cols; ++x)
        if (p[x]) plot(baseline - dy + y, pen + dx + x, p[x]);
    }
    pen += adv;
  }
}

}  // namespace vision
