#include "vision/window/font.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <set>

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H

#include "vision/core/exception.h"

namespace vision {
namespace {

std::vector<std::string> SplitDash(const std::string& s) {
  std::vector<std::string> out(1);
  for (char c : s) {
    if (c == '-')
      out.emplace_back();
    else
      out.back() += c;
  }
  return out;
}

std::string Lower(std::string s) {
  for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string Squeeze(const std::string& s) {  // lower case without blanks
  std::string out;
  for (char c : s)
    if (c != ' ') out += char(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool AllDigits(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int SizeField(const std::string& s, int fallback) {
  return AllDigits(s) && s.size() < 6 ? std::max(1, std::stoi(s)) : fallback;
}

void EnsureFontconfig() {
  static std::once_flag once;
  std::call_once(once, [] { FcInit(); });
}

struct PatternDeleter {
  void operator()(FcPattern* p) const { FcPatternDestroy(p); }
};
using PatternPtr = std::unique_ptr<FcPattern, PatternDeleter>;

// Families that name a style rather than a font; fontconfig always has one.
std::string GenericFamily(const std::string& family) {
  std::string f = Squeeze(family);
  if (f == "mono" || f == "monospace" || f == "fixed") return "monospace";
  if (f == "sans" || f == "sans-serif" || f == "sansserif") return "sans-serif";
  if (f == "serif") return "serif";
  // Menlo is a derivative of DejaVu Sans Mono; fontconfig knows no alias.
  if (f == "menlo") return "DejaVu Sans Mono";
  return {};
}

PatternPtr Match(const std::string& family, const std::string& postscript, const FontRequest& rq) {
  PatternPtr pat(FcPatternCreate());
  if (!postscript.empty())
    FcPatternAddString(pat.get(), FC_POSTSCRIPT_NAME, reinterpret_cast<const FcChar8*>(postscript.c_str()));
  FcPatternAddString(pat.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
  FcPatternAddInteger(pat.get(), FC_WEIGHT, rq.bold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
  FcPatternAddInteger(pat.get(), FC_SLANT, rq.italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
  FcPatternAddDouble(pat.get(), FC_PIXEL_SIZE, rq.pixel_size);
  FcPatternAddBool(pat.get(), FC_SCALABLE, FcTrue);
  FcConfigSubstitute(nullptr, pat.get(), FcMatchPattern);
  FcDefaultSubstitute(pat.get());
  FcResult res;
  return PatternPtr(FcFontMatch(nullptr, pat.get(), &res));
}

std::string StringOf(FcPattern* p, const char* object, int n = 0) {
  FcChar8* s = nullptr;
  if (FcPatternGetString(p, object, n, &s) != FcResultMatch || !s) return {};
  return reinterpret_cast<const char*>(s);
}

bool HasFamily(FcPattern* p, const std::string& family) {
  std::string want = Squeeze(family);
  for (int i = 0;; ++i) {
    std::string f = StringOf(p, FC_FAMILY, i);
    if (f.empty()) return false;
    if (Squeeze(f) == want) return true;
  }
}

// The font file for a request; empty when nothing installed answers to the
// family. fontconfig always returns some font, so a match that is just its
// fallback for an unknown family counts as unresolved.
std::pair<std::string, int> Resolve(const FontRequest& rq, const std::string& face) {
  EnsureFontconfig();
  if (!face.empty()) {
    PatternPtr m = Match(rq.family, face, rq);
    if (m && StringOf(m.get(), FC_POSTSCRIPT_NAME) == face) {
      int index = 0;
      FcPatternGetInteger(m.get(), FC_INDEX, 0, &index);
      return {StringOf(m.get(), FC_FILE), index};
    }
  }
  std::string generic = GenericFamily(rq.family);
  std::string family = generic.empty() ? rq.family : generic;
  PatternPtr m = Match(family, {}, rq);
  if (!m) return {};
  std::string file = StringOf(m.get(), FC_FILE);
  bool ok = !generic.empty() || HasFamily(m.get(), family);
  if (!ok) {
    PatternPtr fallback = Match("velmora-no-such-font-family", {}, rq);
    ok = fallback && StringOf(fallback.get(), FC_FILE) != file;
  }
  if (!ok) return {};
  int index = 0;
  FcPatternGetInteger(m.get(), FC_INDEX, 0, &index);
  return {file, index};
}

}  // namespace

std::optional<FontRequest> ParseFontName(const std::string& name) {
  FontRequest rq;
  if (name.empty()) return std::nullopt;
  if (name[0] == '-') {
    auto f = SplitDash(name);
    if (f.size() >= 15) {  // X logical font description: 14 fields
      rq.family = f[2] == "*" ? "monospace" : f[2];
      std::string w = Lower(f[3]);
      rq.bold = w.find("bold") != std::string::npos || w == "black" || w == "heavy";
      std::string s = Lower(f[4]);
      rq.italic = s == "i" || s == "o";
      if (AllDigits(f[7]))
        rq.pixel_size = SizeField(f[7], 16);
      else if (AllDigits(f[8]))
        rq.pixel_size = std::max(1, SizeField(f[8], 160) / 10);
    } else {  // -Family-Size-Width-Italic-Underline-Strikeout-Bold-
      if (f.size() < 3 || f[1].empty()) return std::nullopt;
      rq.family = f[1];
      rq.pixel_size = SizeField(f[2], 16);
      rq.italic = f.size() > 4 && f[4] == "1";
      rq.bold = f.size() > 7 && f[7] == "1";
    }
    return rq;
  }
  // Face-Size, where the face may itself be Family-Style.
  std::string face = name;
  size_t dash = name.rfind('-');
  if (dash != std::string::npos && AllDigits(name.substr(dash + 1))) {
    rq.pixel_size = SizeField(name.substr(dash + 1), 16);
    face = name.substr(0, dash);
  }
  if (face.empty()) return std::nullopt;
  size_t sep = face.find('-');
  std::string family = face.substr(0, sep);
  std::string style = sep == std::string::npos ? "" : Lower(face.substr(sep + 1));
  // PostScript names carry vendor suffixes: "ArialMT", "TimesNewRomanPSMT".
  for (const char* suffix : {"MT", "PS"})
    if (family.size() > 2 && family.ends_with(suffix)) family.resize(family.size() - 2);
  rq.family = family;
  rq.bold = style.find("bold") != std::string::npos;
  rq.italic = style.find("italic") != std::string::npos || style.find("oblique") != std::string::npos;
  return rq;
}

std::vector<std::string> ListFonts() {
  EnsureFontconfig();
  PatternPtr pat(FcPatternCreate());
  FcObjectSet* os = FcObjectSetBuild(FC_FAMILY, FC_FOUNDRY, FC_WEIGHT, FC_SLANT, FC_POSTSCRIPT_NAME,
                                     nullptr);
  FcFontSet* fs = FcFontList(nullptr, pat.get(), os);
  FcObjectSetDestroy(os);
  std::set<std::string> xlfd, ps;
  for (int i = 0; fs && i < fs->nfont; ++i) {
    FcPattern* p = fs->fonts[i];
    std::string family = Lower(StringOf(p, FC_FAMILY));
    if (!family.empty() && family.find('-') == std::string::npos) {
      std::string foundry = Lower(StringOf(p, FC_FOUNDRY));
      if (foundry.empty() || foundry.find('-') != std::string::npos) foundry = "*";
      int weight = FC_WEIGHT_REGULAR, slant = FC_SLANT_ROMAN;
      FcPatternGetInteger(p, FC_WEIGHT, 0, &weight);
      FcPatternGetInteger(p, FC_SLANT, 0, &slant);
      std::string w = weight >= FC_WEIGHT_BOLD ? "bold" : "medium";
      std::string s = slant == FC_SLANT_ITALIC ? "i" : slant == FC_SLANT_OBLIQUE ? "o" : "r";
      xlfd.insert("-" + foundry + "-" + family + "-" + w + "-" + s);
    }
    std::string psname = StringOf(p, FC_POSTSCRIPT_NAME);
    if (!psname.empty()) ps.insert(psname);
  }
  if (fs) FcFontSetDestroy(fs);
  std::vector<std::string> out(xlfd.begin(), xlfd.end());
  out.insert(out.end(), ps.begin(), ps.end());
  return out;
}

struct Font::Impl {
  FT_Library lib = nullptr;
  FT_Face face = nullptr;
  ~Impl() {
    if (face) FT_Done_Face(face);
    if (lib) FT_Done_FreeType(lib);
  }
};

Font::Font(Font&&) noexcept = default;
Font& Font::operator=(Font&&) noexcept = default;
Font::~Font() = default;

Font Font::Load(const std::string& name, const char* op) {
  auto rq = ParseFontName(name);
  if (!rq) throw HException(op, "Wrong font name: " + name, kErrWrongParamValue);
  std::string face;
  if (name[0] != '-') {
    size_t dash = name.rfind('-');
    face = dash != std::string::npos && AllDigits(name.substr(dash + 1)) ? name.substr(0, dash) : name;
  }
  auto [file, index] = Resolve(*rq, face);
  if (file.empty()) throw HException(op, "Font not found: " + name, kErrWrongParamValue);
  Font f;
  f.impl_ = std::make_unique<Impl>();
  if (FT_Init_FreeType(&f.impl_->lib) != 0)
    throw HException(op, "Cannot initialise the font renderer", kErrNoMemory);
  if (FT_New_Face(f.impl_->lib, file.c_str(), index, &f.impl_->face) != 0)
    throw HException(op, "Cannot open font file " + file, kErrFile);
  if (FT_Set_Pixel_Sizes(f.impl_->face, 0, FT_UInt(rq->pixel_size)) != 0)
    throw HException(op, "Font size not available: " + name, kErrWrongParamValue);
  const FT_Size_Metrics& m = f.impl_->face->size->metrics;
  f.file_ = file;
  f.ascent_ = int((m.ascender + 63) >> 6);
  f.descent_ = int((-m.descender + 63) >> 6);
  f.max_width_ = int((m.max_advance + 63) >> 6);
  return f;
}

bool Font::Glyph(char32_t cp, cv::Mat* coverage, int* dx, int* dy, int* advance) const {
  FT_Face face = impl_->face;
  if (FT_Load_Char(face, cp, FT_LOAD_RENDER) != 0) return false;
  const FT_Bitmap& bm = face->glyph->bitmap;
  *dx = face->glyph->bitmap_left;
  *dy = face->glyph->bitmap_top;
  *advance = int((face->glyph->advance.x + 32) >> 6);
  coverage->create(int(bm.rows), int(bm.width), CV_8UC1);
  for (int y = 0; y < int(bm.rows); ++y) {
    const uint8_t* src = bm.buffer + y * bm.pitch;
    uint8_t* dst = coverage->ptr<uint8_t>(y);
    if (bm.pixel_mode == FT_PIXEL_MODE_MONO) {
      for (int x = 0; x < int(bm.width); ++x) dst[x] = (src[x >> 3] & (0x80 >> (x & 7))) ? 255 : 0;
    } else {
      std::copy(src, src + bm.width, dst);
    }
  }
  return true;
}

int Font::TextWidth(const std::string& utf8) const {
  int w = 0;
  for (char32_t cp : DecodeUtf8(utf8)) {
    if (FT_Load_Char(impl_->face, cp, FT_LOAD_DEFAULT) == 0)
      w += int((impl_->face->glyph->advance.x + 32) >> 6);
  }
  return w;
}

std::u32string DecodeUtf8(const std::string& s) {
  std::u32string out;
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    int n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
    if (n < 0 || i + size_t(n) >= s.size()) {
      // Invalid or truncated sequences show as the Latin-1 byte they are.
      out += char32_t(c);
      ++i;
      continue;
    }
    char32_t cp = n == 0 ? c : c & (0x3F >> n);
    bool ok = true;
    for (int k = 1; k <= n; ++k) {
      unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    if (!ok) {
      out += char32_t(c);
      ++i;
      continue;
    }
    out += cp;
    i += size_t(n) + 1;
  }
  return out;
}

}  // namespace vision
