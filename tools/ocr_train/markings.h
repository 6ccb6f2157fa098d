#pragma once
// Synthetic printed markings for training and evaluating the OCR classifiers:
// text rendered with FreeType (or as dot-matrix dots), then degraded the way
// inspection images are (blur, noise, uneven light, low contrast, inverted
// polarity, tilt, thicker or thinner strokes).
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace velmora::ocrgen {

enum class Grade { Clean, Moderate, Hard };
const char* GradeName(Grade g);

// One face of a family: an outline font file, or a dot-matrix face printed
// from a designed dot table (dot_tables.h) or from an outline face's small
// monochrome bitmap, with round or square dots whose diameter is
// dot_lo..dot_hi times the dot pitch.
struct Face {
  std::string file;
  std::string table;  // dot table name; empty: outline rendering
  bool square_dots = false;
  double dot_lo = 1.0, dot_hi = 1.2;
  // Dots from the outline file's own monochrome bitmap at 10 to 13 pixels
  // (a printer's character generator made from a screen face), not a table.
  bool bitmap = false;
  // Share of markings printed with a dotted zero (the face's or table's O
  // with a dot in its middle), as coders offer beside the face's own zero.
  double dotted_zero = 0.0;
  // Bitmap faces: each marking hinted as the face says, by FreeType's
  // auto-hinter or not at all (a third each), for more pixel shapes.
  bool vary_hinting = false;
  bool IsDotMatrix() const { return !table.empty() || bitmap; }
  std::string Name() const;
};

struct Family {
  std::string name;                 // "Industrial", ...
  std::string digits, letters, specials;
  std::vector<Face> train_faces;    // used by the training program
  std::vector<Face> eval_faces;     // held out where the family has several
  std::string AllClasses() const { return digits + letters + specials; }
};

// The five families with their class sets and faces.
const std::vector<Family>& Families();
const Family& FamilyByName(const std::string& name);

struct Marking {
  cv::Mat rgb;                  // CV_8UC3, print on a plain ground
  std::string text;
  std::vector<cv::Rect> boxes;  // one per character (blanks have none)
};

// Renders text with one face; deterministic for a given generator state.
// `char_height` is the cap height in pixels before degradation.
class MarkingRenderer {
 public:
  MarkingRenderer();
  ~MarkingRenderer();
  MarkingRenderer(const MarkingRenderer&) = delete;
  MarkingRenderer& operator=(const MarkingRenderer&) = delete;

  Marking Render(const std::string& text, const Face& face, int char_height, Grade grade,
                 std::mt19937& rng);
  // Lets strokes also grow or shrink by up to this fraction of the cap height
  // (0 by default: the grades alone). Training uses it so that a lighter
  // face printed heavy, or a bold one printed light, is seen as well.
  void SetWeightSpread(double fraction) { weight_spread_ = fraction; }
  // Ground around the text, in cap heights, drawn from lo..hi on each side
  // (0.35..0.8 by default: a crop around the marking).
  void SetMarginRange(double lo, double hi) {
    margin_lo_ = lo;
    margin_hi_ = hi;
  }
  // The characters of `chars` the face cannot print: no glyph in the font
  // file (FreeType would draw the font's missing-glyph box instead) or no
  // pattern in the dot table.
  std::string MissingGlyphs(const Face& face, const std::string& chars);
  // Places the marking, as rendered, at (x, y) of a plain canvas of the given
  // size (the ground is the marking's own corner colour); boxes are moved.
  static Marking OnCanvas(const Marking& m, int width, int height, int x, int y);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  double weight_spread_ = 0.0;
  double margin_lo_ = 0.35, margin_hi_ = 0.8;
};

// A random string of `len` characters from `alphabet`, never starting or
// ending with a special character (as printed codes rarely do); inside, a
// character is a special with probability `special_rate` (0.08: about the
// rate of lot and date codes).
std::string RandomText(const std::string& alphabet, const std::string& specials, int len,
                       std::mt19937& rng, double special_rate = 0.08);

// The text of one generated marking of the family: a random string of `len`
// characters (as RandomText) or, about a third of the time, a code as
// printed on parts (dates, expiry and lot codes, times, percentages).
std::string MarkingText(const Family& fam, int len, std::mt19937& rng);

}  // namespace velmora::ocrgen
