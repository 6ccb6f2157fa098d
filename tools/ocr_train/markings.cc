#include "markings.h"

#include "dot_tables.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>

#include <ft2build.h>
#include FT_FREETYPE_H
#include <opencv2/imgproc.hpp>

namespace velmora::ocrgen {

namespace {

constexpr const char* kDejaVu = "/usr/share/fonts/truetype/dejavu/";
constexpr const char* kLiberation = "/usr/share/fonts/truetype/liberation2/";
constexpr const char* kFree = "/usr/share/fonts/truetype/freefont/";
constexpr const char* kUrw = "/usr/share/fonts/opentype/urw-base35/";
constexpr const char* kNoto = "/usr/share/fonts/truetype/noto/";
constexpr const char* kCros = "/usr/share/fonts/truetype/croscore/";
constexpr const char* kCrosX = "/usr/share/fonts/truetype/crosextra/";
constexpr const char* kRoboto = "/usr/share/fonts/truetype/roboto/unhinted/";
constexpr const char* kOpen = "/usr/share/fonts/truetype/open-sans/";
constexpr const char* kGo = "/usr/share/fonts/fonts-go/";
constexpr const char* kHack = "/usr/share/fonts/truetype/hack/";
constexpr const char* kTT = "/usr/share/fonts/truetype/";
constexpr const char* kOT = "/usr/share/fonts/opentype/";

std::string P(const char* dir, const char* file) { return std::string(dir) + file; }

// The specials of industrial and document markings (dates, lot codes,
// percentages, references), in every family's full and letters classifiers.
const std::string kSpecials = "-+:./#%()*=";

std::vector<Family> MakeFamilies() {
  const std::string digits = "0123456789";
  const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  const std::string lower = "abcdefghijklmnopqrstuvwxyz";
  std::vector<Family> f;
  f.push_back({"Industrial", digits, upper, kSpecials,
               {{P(kDejaVu, "DejaVuSans.ttf")}, {P(kDejaVu, "DejaVuSans-Bold.ttf")},
                {P(kLiberation, "LiberationSans-Regular.ttf")},
                {P(kLiberation, "LiberationSans-Bold.ttf")}, {P(kFree, "FreeSans.ttf")},
                {P(kUrw, "NimbusSans-Regular.otf")}, {P(kDejaVu, "DejaVuSansMono.ttf")},
                {P(kLiberation, "LiberationMono-Regular.ttf")},
                {P(kUrw, "NimbusSansNarrow-Regular.otf")}, {P(kUrw, "URWGothic-Book.otf")},
                {P(kDejaVu, "DejaVuSansCondensed.ttf")}, {P(kNoto, "NotoSansMono-Regular.ttf")},
                {P(kNoto, "NotoSansMono-Bold.ttf")}, {P(kLiberation, "LiberationMono-Bold.ttf")},
                {P(kUrw, "NimbusMonoPS-Bold.otf")}, {P(kDejaVu, "DejaVuSansMono-Oblique.ttf")},
                {P(kDejaVu, "DejaVuSansCondensed-Bold.ttf")},
                {P(kUrw, "NimbusSansNarrow-Bold.otf")}, {P(kFree, "FreeMonoBold.ttf")},
                {P(kNoto, "NotoMono-Regular.ttf")}, {P(kCros, "Arimo-Regular.ttf")},
                {P(kCros, "Arimo-Bold.ttf")}, {P(kCros, "Cousine-Regular.ttf")},
                {P(kCros, "Cousine-Bold.ttf")}, {P(kRoboto, "RobotoTTF/Roboto-Regular.ttf")},
                {P(kRoboto, "RobotoTTF/Roboto-Bold.ttf")},
                {P(kRoboto, "RobotoCondensed-Regular.ttf")}, {P(kRoboto, "RobotoCondensed-Bold.ttf")},
                {P(kOpen, "OpenSans-Regular.ttf")}, {P(kOpen, "OpenSans-Bold.ttf")},
                {P(kOpen, "OpenSans-CondBold.ttf")}, {P(kGo, "Go-Regular.ttf")},
                {P(kGo, "Go-Bold.ttf")}, {P(kGo, "Go-Mono.ttf")}, {P(kHack, "Hack-Regular.ttf")},
                {P(kHack, "Hack-Bold.ttf")}, {P(kCrosX, "Carlito-Regular.ttf")},
                {P(kCrosX, "Carlito-Bold.ttf")}, {P(kOT, "inter/Inter-Regular.otf")},
                {P(kOT, "inter/Inter-Bold.otf")}, {P(kTT, "mononoki/mononoki-Regular.ttf")},
                {P(kTT, "mononoki/mononoki-Bold.ttf")}, {P(kTT, "anonymous-pro/Anonymous Pro.ttf")},
                {P(kTT, "anonymous-pro/Anonymous Pro B.ttf")},
                {P(kTT, "clear-sans/ClearSans-Regular.ttf")}, {P(kTT, "clear-sans/ClearSans-Bold.ttf")},
                {P(kTT, "andika/Andika-Regular.ttf")}, {P(kTT, "andika/Andika-Bold.ttf")},
                {P(kOT, "jura/Jura-Regular.otf")}, {P(kOT, "jura/Jura-Bold.otf")},
                {P(kOT, "league-spartan/LeagueSpartan-Regular.otf")},
                {P(kOT, "league-spartan/LeagueSpartan-Bold.otf")}},
               {{P(kUrw, "NimbusSans-Bold.otf")}, {P(kFree, "FreeSansBold.ttf")},
                {P(kDejaVu, "DejaVuSansMono-Bold.ttf")}}});
  f.push_back({"Document", digits, upper + lower, kSpecials,
               {{P(kDejaVu, "DejaVuSerif.ttf")}, {P(kLiberation, "LiberationSerif-Regular.ttf")},
                {P(kUrw, "NimbusRoman-Regular.otf")}, {P(kUrw, "C059-Roman.otf")},
                {P(kDejaVu, "DejaVuSans.ttf")}, {P(kLiberation, "LiberationSans-Regular.ttf")},
                {P(kFree, "FreeSans.ttf")}, {P(kLiberation, "LiberationSerif-Bold.ttf")},
                {P(kDejaVu, "DejaVuSerif-Bold.ttf")}, {P(kUrw, "NimbusSans-Regular.otf")},
                {P(kCros, "Tinos-Regular.ttf")}, {P(kCros, "Tinos-Bold.ttf")},
                {P(kCrosX, "Caladea-Regular.ttf")}, {P(kCrosX, "Caladea-Bold.ttf")},
                {P(kCrosX, "Carlito-Regular.ttf")}, {P(kCros, "Arimo-Regular.ttf")},
                {P(kRoboto, "RobotoTTF/Roboto-Regular.ttf")}, {P(kOpen, "OpenSans-Regular.ttf")},
                {P(kGo, "Go-Regular.ttf")}, {P(kOT, "roboto/slab/RobotoSlab-Regular.otf")},
                {P(kOT, "roboto/slab/RobotoSlab-Bold.otf")}, {P(kTT, "gentium/Gentium-R.ttf")},
                {P(kTT, "andika/Andika-Regular.ttf")}, {P(kOT, "inter/Inter-Regular.otf")},
                {P(kTT, "clear-sans/ClearSans-Regular.ttf")}},
               {{P(kFree, "FreeSerif.ttf")}, {P(kUrw, "P052-Roman.otf")},
                {P(kLiberation, "LiberationSans-Bold.ttf")}}});
  // Dot-matrix print: designed tables; held out is the dot geometry (square
  // dots of another size range).
  auto dots = [](const char* table, bool square, double lo, double hi) {
    Face f;
    f.table = table;
    f.square_dots = square;
    f.dot_lo = lo;
    f.dot_hi = hi;
    f.dotted_zero = square ? 0.0 : 0.3;
    return f;
  };
  // Printers also make their dots from small screen faces, one dot a pixel,
  // with strokes of one or two dots and no blank column of their own.
  auto bitmap_dots = [](std::string file) {
    Face f;
    f.file = std::move(file);
    f.bitmap = true;
    f.dot_lo = 0.9;
    f.dot_hi = 1.3;
    f.dotted_zero = 0.3;
    f.vary_hinting = true;
    return f;
  };
  f.push_back({"DotPrint", digits, upper, kSpecials,
               {dots("5x7a", false, 1.05, 1.35), dots("5x7b", false, 1.05, 1.35),
                dots("7x9", false, 1.05, 1.35), bitmap_dots(P(kGo, "Go-Mono.ttf")),
                bitmap_dots(P(kGo, "Go-Mono-Bold.ttf")),
                bitmap_dots(P(kTT, "mononoki/mononoki-Regular.ttf")),
                bitmap_dots(P(kTT, "anonymous-pro/Anonymous Pro.ttf")),
                bitmap_dots(P(kUrw, "NimbusMonoPS-Regular.otf")),
                bitmap_dots(P(kUrw, "NimbusMonoPS-Bold.otf")),
                bitmap_dots(P(kTT, "mononoki/mononoki-Bold.ttf")),
                bitmap_dots(P(kTT, "anonymous-pro/Anonymous Pro B.ttf"))},
               {dots("5x7b", true, 1.05, 1.25), dots("7x9", true, 1.05, 1.25),
                dots("5x7a", true, 1.05, 1.25)}});
  f.push_back({"OCRA", digits, upper, kSpecials,
               {{"/usr/share/fonts/truetype/ocr-a/OCRA.ttf"},
                {"/usr/share/fonts/truetype/ocr-a/OCRABold.ttf"},
                {"/usr/share/fonts/truetype/ocr-a/OCRACondensed.ttf"}},
               {{"/usr/share/fonts/truetype/ocr-a/OCRA.ttf"}}});
  f.push_back({"OCRB", digits, upper, kSpecials,
               {{"/usr/share/fonts/opentype/ocr-b/OCRB.otf"},
                {"/usr/share/fonts/opentype/ocr-b/OCRBL.otf"},
                {"/usr/share/fonts/opentype/ocr-b/OCRBS.otf"}},
               {{"/usr/share/fonts/opentype/ocr-b/OCRB.otf"}}});
  return f;
}

double U(std::mt19937& rng, double a, double b) {
  return std::uniform_real_distribution<double>(a, b)(rng);
}

// Degradation ranges of one grade.
struct GradeParams {
  double contrast_lo, contrast_hi, blur_lo, blur_hi, noise_lo, noise_hi, light, tilt_deg,
      inverted_p;
  int stroke;  // +/- steps of one half pixel
  double width_scale;  // print condensed or expanded by up to this factor
  double texture;      // amplitude of the ground's texture, gray levels
};

GradeParams ParamsOf(Grade g) {
  switch (g) {
    case Grade::Clean: return {150, 210, 0.3, 0.7, 0.3, 1.0, 5, 0.0, 0.0, 0, 0.1, 0.0};
    case Grade::Moderate: return {90, 170, 0.6, 1.3, 1.0, 4.0, 20, 1.5, 0.3, 1, 0.15, 4.0};
    case Grade::Hard: return {55, 110, 1.0, 2.0, 4.0, 8.0, 35, 3.0, 0.4, 2, 0.2, 8.0};
  }
  return {};
}

}  // namespace

const char* GradeName(Grade g) {
  switch (g) {
    case Grade::Clean: return "clean";
    case Grade::Moderate: return "moderate";
    case Grade::Hard: return "hard";
  }
  return "?";
}

std::string Face::Name() const {
  if (bitmap) return "dots bitmap " + file.substr(file.find_last_of('/') + 1);
  if (IsDotMatrix()) {
    char n[64];
    std::snprintf(n, sizeof n, "dots %s %s %.2f-%.2f", table.c_str(),
                  square_dots ? "square" : "round", dot_lo, dot_hi);
    return n;
  }
  return file.substr(file.find_last_of('/') + 1);
}

const std::vector<Family>& Families() {
  static const std::vector<Family> f = MakeFamilies();
  return f;
}

const Family& FamilyByName(const std::string& name) {
  for (const auto& f : Families())
    if (f.name == name) return f;
  throw std::runtime_error("unknown family " + name);
}

std::string RandomText(const std::string& alphabet, const std::string& specials, int len,
                       std::mt19937& rng, double special_rate) {
  std::string plain;
  for (char c : alphabet)
    if (specials.find(c) == std::string::npos) plain += c;
  std::string s;
  for (int i = 0; i < len; ++i) {
    const bool edge = i == 0 || i == len - 1;
    const bool special = !edge && !specials.empty() && U(rng, 0, 1) < special_rate;
    const std::string& from = special ? specials : plain;
    s += from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng)];
  }
  return s;
}

std::string MarkingText(const Family& fam, int len, std::mt19937& rng) {
  // Specials three times as often as in printed codes, so that each of them
  // is seen about as often as a letter: at 8 % a dot table's '.', a single
  // dot, was so rare among the bitmap faces' pieces that a square dot read '#'.
  if (U(rng, 0, 1) >= 0.35) return RandomText(fam.AllClasses(), fam.specials, len, rng, 0.24);
  auto pick = [&](const std::string& from) {
    return from[std::uniform_int_distribution<size_t>(0, from.size() - 1)(rng)];
  };
  auto digits = [&](int n) {
    std::string d;
    for (int i = 0; i < n; ++i) d += pick(fam.digits);
    return d;
  };
  auto letters = [&](int n) {
    std::string d;
    for (int i = 0; i < n; ++i) d += pick(fam.letters);
    return d;
  };
  // Dates, expiry and lot codes, times, percentages and references as they
  // are printed on parts and packs (no blanks: a blank has no box to cut).
  switch (std::uniform_int_distribution<int>(0, 7)(rng)) {
    case 0: {
      const char sep = pick("./-");
      return digits(4) + sep + digits(2) + sep + digits(2);
    }
    case 1: return digits(2) + pick("./") + digits(U(rng, 0, 1) < 0.5 ? 2 : 4);
    case 2: return letters(3) + digits(2) + "/" + digits(4);
    case 3: return letters(3) + digits(1) + letters(1) + "-" + digits(4);
    case 4: return digits(2) + ":" + digits(2) + (U(rng, 0, 1) < 0.5 ? ":" + digits(2) : "");
    case 5: return digits(2) + "." + digits(1) + "%";
    case 6: return "#" + digits(4) + pick("-/") + letters(2);
    default: return "(" + digits(2) + ")" + digits(4) + pick("*=+") + digits(2);
  }
}

// A ground texture of unit spread: plain plastic (none), paper fibres,
// brushed metal streaks along the rows, or a circuit board's weave.
cv::Mat GroundTexture(cv::Size size, std::mt19937& rng) {
  cv::Mat t = cv::Mat::zeros(size, CV_32F);
  const int kind = std::uniform_int_distribution<int>(0, 3)(rng);
  if (kind == 0) return t;
  cv::RNG r(rng());
  if (kind == 1) {
    r.fill(t, cv::RNG::NORMAL, 0.0, 1.0);
    cv::GaussianBlur(t, t, cv::Size(0, 0), U(rng, 1.0, 3.0));
  } else if (kind == 2) {
    r.fill(t, cv::RNG::NORMAL, 0.0, 1.0);
    cv::blur(t, t, cv::Size(std::uniform_int_distribution<int>(15, 41)(rng), 1));
  } else {
    const double p = U(rng, 5, 12), a = U(rng, 0, CV_PI);
    for (int y = 0; y < t.rows; ++y)
      for (int x = 0; x < t.cols; ++x)
        t.at<float>(y, x) = float(std::sin((x * std::cos(a) + y * std::sin(a)) * 2 * CV_PI / p) *
                                  std::sin((y * std::cos(a) - x * std::sin(a)) * 2 * CV_PI / p));
  }
  cv::Scalar mean, sd;
  cv::meanStdDev(t, mean, sd);
  if (sd[0] > 0) t = (t - mean[0]) / sd[0];
  return t;
}

struct MarkingRenderer::Impl {
  FT_Library lib = nullptr;
  std::map<std::string, FT_Face> faces;

  ~Impl() {
    for (auto& [k, f] : faces) FT_Done_Face(f);
    if (lib) FT_Done_FreeType(lib);
  }

  FT_Face Get(const std::string& file) {
    auto it = faces.find(file);
    if (it != faces.end()) return it->second;
    FT_Face f = nullptr;
    if (FT_New_Face(lib, file.c_str(), 0, &f)) throw std::runtime_error("cannot load font " + file);
    faces[file] = f;
    return f;
  }

  // Ink bounding box of one glyph at the face's current size, relative to the
  // pen position on the baseline (x right, y up).
  bool GlyphBitmap(FT_Face f, char c, cv::Mat* ink, int* left, int* top, int* advance) {
    if (FT_Load_Char(f, FT_ULong(uint8_t(c)), FT_LOAD_RENDER)) return false;
    const FT_Bitmap& b = f->glyph->bitmap;
    *ink = cv::Mat(int(b.rows), int(b.width), CV_8U);
    for (unsigned r = 0; r < b.rows; ++r)
      std::copy(b.buffer + r * b.pitch, b.buffer + r * b.pitch + b.width, ink->ptr<uint8_t>(int(r)));
    *left = f->glyph->bitmap_left;
    *top = f->glyph->bitmap_top;
    *advance = int(f->glyph->advance.x >> 6);
    return true;
  }

  // The glyph's monochrome bitmap at the face's current size, 1 where a
  // pixel is set; left/top/advance in pixels as GlyphBitmap.
  // `hinting`: extra load flags (FreeType's auto-hinter, or none), so that
  // one face gives the pixel shapes of differently hinted faces.
  bool MonoBitmap(FT_Face f, char c, cv::Mat* pat, int* left, int* top, int* advance,
                  FT_Int32 hinting = 0) {
    if (FT_Load_Char(f, FT_ULong(uint8_t(c)), FT_LOAD_RENDER | FT_LOAD_TARGET_MONO | hinting))
      return false;
    const FT_Bitmap& b = f->glyph->bitmap;
    *pat = cv::Mat::zeros(int(b.rows), int(b.width), CV_8U);
    for (unsigned r = 0; r < b.rows; ++r)
      for (unsigned x = 0; x < b.width; ++x) {
        const uint8_t byte = b.buffer[int(r) * b.pitch + int(x / 8)];
        const bool on = b.pixel_mode == FT_PIXEL_MODE_MONO ? (byte & (0x80 >> (x % 8))) != 0
                                                           : b.buffer[int(r) * b.pitch + int(x)] > 127;
        pat->at<uint8_t>(int(r), int(x)) = on;
      }
    *left = f->glyph->bitmap_left;
    *top = f->glyph->bitmap_top;
    *advance = int(f->glyph->advance.x >> 6);
    return true;
  }

  // Pattern rows x cols, 1 where the table prints a dot.
  static cv::Mat DotPattern(const DotTable& t, char c) {
    cv::Mat pattern = cv::Mat::zeros(t.rows, t.cols, CV_8U);
    const auto rows = t.Glyph(c);
    for (int r = 0; r < int(rows.size()); ++r)
      for (int x = 0; x < t.cols; ++x) pattern.at<uint8_t>(r, x) = rows[size_t(r)][size_t(x)] == '#';
    return pattern;
  }
};

MarkingRenderer::MarkingRenderer() : impl_(std::make_unique<Impl>()) {
  if (FT_Init_FreeType(&impl_->lib)) throw std::runtime_error("FreeType init failed");
}
MarkingRenderer::~MarkingRenderer() = default;

Marking MarkingRenderer::Render(const std::string& text, const Face& face, int char_height,
                                Grade grade, std::mt19937& rng) {
  const GradeParams gp = ParamsOf(grade);
  const int ss = 2;  // supersampling, so stroke changes can be half a pixel
  const int h2 = char_height * ss;
  // Glyphs are laid out first, then framed with margins of a fraction of the
  // character height (the host sends crops around the marking); the frame
  // grows with the tilt so that turned text stays inside.
  const double tilt = gp.tilt_deg > 0 ? U(rng, -gp.tilt_deg, gp.tilt_deg) : 0.0;
  // Extra space between characters, from none (the face's own spacing, where
  // serif pairs touch and the cut merges them) to a fifth of the cap height.
  const double tracking = U(rng, 0.0, 0.22) * h2;
  std::vector<cv::Rect> boxes;
  std::vector<std::pair<cv::Mat, cv::Point>> blits;
  int pen = 0;
  const int baseline = 2 * h2;
  auto draw_dots = [&](const cv::Mat& pat, double pitch, double dot_d) {
    const int cw = int(std::ceil((pat.cols - 1) * pitch + dot_d)) + 2;
    const int ch = int(std::ceil((pat.rows - 1) * pitch + dot_d)) + 2;
    cv::Mat glyph = cv::Mat::zeros(ch, cw, CV_8U);
    for (int r = 0; r < pat.rows; ++r)
      for (int x = 0; x < pat.cols; ++x)
        if (pat.at<uint8_t>(r, x)) {
          const cv::Point centre(int((x * pitch + dot_d / 2 + 1) * 16),
                                 int((r * pitch + dot_d / 2 + 1) * 16));
          const int rad = int(dot_d / 2 * 16);
          if (face.square_dots)
            cv::rectangle(glyph, centre - cv::Point(rad, rad), centre + cv::Point(rad, rad),
                          cv::Scalar(255), cv::FILLED, cv::LINE_AA, 4);
          else
            cv::circle(glyph, centre, rad, cv::Scalar(255), cv::FILLED, cv::LINE_AA, 4);
        }
    return glyph;
  };
  // Inkjet nozzles miss dots now and then.
  const double drop = grade == Grade::Clean ? 0.0 : grade == Grade::Moderate ? 0.02 : 0.05;
  auto drop_dots = [&](cv::Mat& pat) {
    if (drop > 0 && cv::countNonZero(pat) > 2)
      for (int r = 0; r < pat.rows; ++r)
        for (int x = 0; x < pat.cols; ++x)
          if (pat.at<uint8_t>(r, x) && U(rng, 0, 1) < drop) pat.at<uint8_t>(r, x) = 0;
  };
  // A dotted zero: the O's pattern with its middle dot set.
  const bool dotted_zero = face.dotted_zero > 0 && U(rng, 0, 1) < face.dotted_zero;
  auto dot_middle = [](cv::Mat& pat) {
    if (!pat.empty()) pat.at<uint8_t>(pat.rows / 2, pat.cols / 2) = 1;
  };
  if (face.bitmap) {
    // One dot per pixel of the face's small bitmap, the cap height spanning
    // char_height; the face's own advance spaces the cells.
    FT_Face f = impl_->Get(face.file);
    FT_Set_Pixel_Sizes(f, 0, FT_UInt(std::uniform_int_distribution<int>(10, 13)(rng)));
    cv::Mat pat;
    int l, t, a;
    const FT_Int32 hint_modes[] = {0, FT_LOAD_FORCE_AUTOHINT, FT_LOAD_NO_HINTING};
    const FT_Int32 hinting = face.vary_hinting ? hint_modes[std::uniform_int_distribution<int>(0, 2)(rng)] : 0;
    impl_->MonoBitmap(f, 'H', &pat, &l, &t, &a, hinting);
    const int cap = std::max(3, t);
    const double pitch = double(h2) / (cap - 1);
    const double dot_d = pitch * U(rng, face.dot_lo, face.dot_hi);
    for (char c : text) {
      const char g = c == '0' && dotted_zero ? 'O' : c;
      if (!impl_->MonoBitmap(f, g, &pat, &l, &t, &a, hinting)) continue;
      if (g != c) dot_middle(pat);
      drop_dots(pat);
      const cv::Mat glyph = draw_dots(pat, pitch, dot_d);
      const cv::Point at(pen + int(l * pitch), baseline + int((1 - t) * pitch - dot_d / 2) - 1);
      if (cv::countNonZero(glyph)) {
        boxes.push_back(cv::boundingRect(glyph) + at);
        blits.push_back({glyph, at});
      }
      pen += int(std::lround(a * pitch));
    }
  } else if (face.IsDotMatrix()) {
    const DotTable& table = DotTableByName(face.table);
    const double pitch = double(h2) / (table.rows - 1);
    const double dot_d = pitch * U(rng, face.dot_lo, face.dot_hi);
    // Character generators leave at least one blank dot column between cells.
    const double gap = pitch * U(rng, 1.0, 1.5);
    for (char c : text) {
      cv::Mat pat = Impl::DotPattern(table, c == '0' && dotted_zero ? 'O' : c);
      if (c == '0' && dotted_zero) dot_middle(pat);
      drop_dots(pat);
      const cv::Mat glyph = draw_dots(pat, pitch, dot_d);
      const cv::Point at(pen, baseline - h2 - int(dot_d / 2) - 1);
      if (cv::countNonZero(glyph)) {
        cv::Rect bb = cv::boundingRect(glyph);
        boxes.push_back(bb + at);
        blits.push_back({glyph, at});
      }
      pen += int((table.cols - 1) * pitch + dot_d + gap);
    }
  } else {
    FT_Face f = impl_->Get(face.file);
    FT_Set_Pixel_Sizes(f, 0, 100);
    cv::Mat m;
    int l, t, a;
    impl_->GlyphBitmap(f, 'H', &m, &l, &t, &a);
    FT_Set_Pixel_Sizes(f, 0, FT_UInt(std::max(4.0, 100.0 * h2 / std::max(1, t))));
    for (char c : text) {
      if (!impl_->GlyphBitmap(f, c, &m, &l, &t, &a)) continue;
      const cv::Point at(pen + l, baseline - t);
      if (!m.empty() && cv::countNonZero(m)) {
        boxes.push_back(cv::boundingRect(m) + at);
        blits.push_back({m.clone(), at});
      }
      pen += a + int(tracking);
    }
  }
  cv::Rect all;
  for (const auto& b : boxes) all = all.area() ? (all | b) : b;
  const int margin_h = int(h2 * U(rng, margin_lo_, margin_hi_));
  const int margin_v = int(h2 * U(rng, margin_lo_, margin_hi_) +
                           std::abs(std::sin(tilt * CV_PI / 180)) * all.width / 2);
  const cv::Point shift(margin_h - all.x, margin_v - all.y);
  for (auto& b : boxes) b += shift;
  for (auto& bl : blits) bl.second += shift;
  const int height = all.height + 2 * margin_v;
  cv::Mat ink = cv::Mat::zeros(height, all.width + 2 * margin_h, CV_8U);
  for (auto& [g, at] : blits) {
    cv::Rect r(at, g.size());
    cv::Rect clip = r & cv::Rect(0, 0, ink.cols, height);
    cv::Mat dst = ink(clip);
    cv::max(dst, g(cv::Rect(clip.tl() - at, clip.size())), dst);
  }
  // Condensed or expanded print (printers and stamps differ in pitch).
  const double sx = 1.0 + U(rng, -gp.width_scale, gp.width_scale);
  cv::resize(ink, ink, cv::Size(std::max(1, int(ink.cols * sx)), ink.rows), 0, 0, cv::INTER_AREA);
  for (auto& b : boxes) {
    const int x0 = int(b.x * sx), x1 = int(std::ceil(b.br().x * sx));
    b.x = x0;
    b.width = std::max(1, x1 - x0);
  }
  const int width = ink.cols;
  // Thicker or thinner strokes (touching or broken print at the extremes).
  const int spread = gp.stroke + int(std::lround(weight_spread_ * h2));
  if (spread > 0) {
    const int steps = std::uniform_int_distribution<int>(-spread, spread)(rng);
    const cv::Mat k = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(3, 3));
    if (steps > 0) cv::dilate(ink, ink, k, cv::Point(-1, -1), steps);
    if (steps < 0) cv::erode(ink, ink, k, cv::Point(-1, -1), -steps);
  }
  // Slight tilt around the centre; the boxes follow their corners.
  cv::Mat rot = cv::getRotationMatrix2D(cv::Point2f(width / 2.f, height / 2.f), tilt, 1.0);
  if (tilt != 0.0) cv::warpAffine(ink, ink, rot, ink.size(), cv::INTER_LINEAR);
  cv::Mat small;
  cv::resize(ink, small, cv::Size(width / ss, height / ss), 0, 0, cv::INTER_AREA);
  cv::Mat fink;
  small.convertTo(fink, CV_32F, 1.0 / 255.0);

  Marking out;
  out.text = text;
  for (const auto& b : boxes) {
    std::vector<cv::Point2f> c = {cv::Point2f(b.x, b.y), cv::Point2f(b.br().x, b.y),
                                  cv::Point2f(b.x, b.br().y), cv::Point2f(b.br().x, b.br().y)};
    cv::transform(c, c, rot);
    cv::Rect rb = cv::boundingRect(c);
    out.boxes.push_back(cv::Rect(rb.x / ss, rb.y / ss, std::max(1, rb.width / ss),
                                 std::max(1, rb.height / ss)));
  }

  // Gray values: ground and print levels, uneven light, blur, noise.
  const double contrast = U(rng, gp.contrast_lo, gp.contrast_hi);
  const double mid = U(rng, 110, 150);
  double bg = std::clamp(mid + contrast / 2, 0.0, 250.0), fg = std::clamp(bg - contrast, 5.0, 255.0);
  if (U(rng, 0, 1) < gp.inverted_p) std::swap(bg, fg);
  cv::Mat img(fink.size(), CV_32F);
  const double gx = U(rng, -1, 1) * gp.light, gy = U(rng, -1, 1) * gp.light * 0.5;
  const cv::Mat texture = gp.texture > 0 ? GroundTexture(img.size(), rng) : cv::Mat();
  const double texture_amp = gp.texture > 0 ? U(rng, 0.25, 1.0) * gp.texture : 0.0;
  for (int r = 0; r < img.rows; ++r) {
    float* p = img.ptr<float>(r);
    const float* k = fink.ptr<float>(r);
    const float* tx = texture.empty() ? nullptr : texture.ptr<float>(r);
    for (int x = 0; x < img.cols; ++x) {
      const double shade = gx * (double(x) / img.cols - 0.5) + gy * (double(r) / img.rows - 0.5) +
                           (tx ? texture_amp * tx[x] * (1.0 - k[x]) : 0.0);
      p[x] = float(bg + (fg - bg) * k[x] + shade);
    }
  }
  const double sigma = U(rng, gp.blur_lo, gp.blur_hi);
  cv::GaussianBlur(img, img, cv::Size(0, 0), sigma);
  cv::Mat noise(img.size(), CV_32F);
  // The noise comes from the marking's own generator, not OpenCV's
  // per-thread one, so a marking does not depend on what was drawn before it.
  const double noise_sigma = U(rng, gp.noise_lo, gp.noise_hi + 1e-3);
  cv::RNG noise_rng(rng());
  noise_rng.fill(noise, cv::RNG::NORMAL, 0.0, noise_sigma);
  img += noise;
  cv::Mat gray;
  img.convertTo(gray, CV_8U);
  // A faint colour cast: the planes differ slightly, as camera images do.
  std::vector<cv::Mat> planes(3);
  for (int ch = 0; ch < 3; ++ch) gray.convertTo(planes[size_t(ch)], CV_8U, U(rng, 0.94, 1.0));
  cv::merge(planes, out.rgb);
  return out;
}

std::string MarkingRenderer::MissingGlyphs(const Face& face, const std::string& chars) {
  std::string missing;
  if (face.IsDotMatrix() && !face.bitmap) {
    const DotTable& table = DotTableByName(face.table);
    for (char c : chars)
      if (table.Glyph(c).empty()) missing += c;
    return missing;
  }
  FT_Face f = impl_->Get(face.file);
  for (char c : chars)
    if (FT_Get_Char_Index(f, FT_ULong(uint8_t(c))) == 0) missing += c;
  return missing;
}

Marking MarkingRenderer::OnCanvas(const Marking& m, int width, int height, int x, int y) {
  Marking out = m;
  const cv::Vec3b ground = m.rgb.at<cv::Vec3b>(0, 0);
  out.rgb = cv::Mat(height, width, CV_8UC3, cv::Scalar(ground[0], ground[1], ground[2]));
  const cv::Rect dst = cv::Rect(x, y, m.rgb.cols, m.rgb.rows) & cv::Rect(0, 0, width, height);
  m.rgb(cv::Rect(dst.x - x, dst.y - y, dst.width, dst.height)).copyTo(out.rgb(dst));
  for (auto& b : out.boxes) b += cv::Point(x, y);
  return out;
}

}  // namespace velmora::ocrgen
