#pragma once
// The reading engine behind the data-code and bar-code operators: a fixed
// chain of image preparations (contrast stretch, quiet border, upscaling,
// smoothing, local thresholding, inversion, mirroring, rectified candidate
// crops) in front of zxing-cpp, with libdmtx as a second Data Matrix engine.
// The chain stops at the first preparation that yields a symbol; a trained
// model names the preparation to try first.
#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

namespace vision::code {

enum class Symbology { DataMatrix, QR, MicroQR, Linear };

enum class Polarity { Any, DarkOnLight, LightOnDark };
enum class Mirror { Any, Yes, No };

// One way of preparing the image before a decoder sees it.
struct Variant {
  enum class Prep { Plain, Stretch, Smooth, Threshold, Candidates, Dmtx, Ground, Region };
  Prep prep = Prep::Plain;
  int scale = 1;           // upscaling factor (1, 2, 3)
  bool invert = false;     // light symbol on dark ground
  bool mirror = false;     // decode the mirrored image
  bool global_binarizer = false;  // zxing's histogram binarizer instead of the local one
  bool quick = false;      // zxing without tryHarder: the fast first look
  bool fixed_binarizer = false;   // zxing's fixed mid-grey threshold
  std::string Name() const;
};

struct Found {
  std::string text;       // bytes as decoded (UTF-8 for text content)
  int format = 0;         // ZXing::BarcodeFormat value
  std::array<cv::Point2d, 4> corners;  // (x, y) in the input image
  bool inverted = false, mirrored = false;
  int variant = -1;       // index into Variants(symbology)
  double contrast = 0;    // grey-level spread inside the symbol
};

// A region that looks like bars: many parallel edges of alternating sign,
// side by side. In input pixels; `normal` runs across the bars.
struct BarRegion {
  cv::Point2d center, normal;
  double half_length = 0, half_height = 0;  // across and along the bars
};

// What a search read in one preparation (an index into Variants): the
// symbols `accept` let through, in the decoder's order; for preparations
// that decode several cut-outs (candidates, regions) only ever nothing.
struct PreparationRead {
  int variant = -1;
  std::vector<Found> accepted;
};

struct ReadRequest {
  Symbology symbology = Symbology::QR;
  int formats = 0;              // ZXing::BarcodeFormats mask; 0 = every format of the symbology
  int first_variant = -1;       // tried before the rest (trained)
  Polarity polarity = Polarity::Any;
  Mirror mirror = Mirror::Any;
  int max_results = 1;          // stop once this many symbols are read; 0 = all of one preparation
  double timeout_ms = 2000;     // no new preparation starts after this; <= 0 means none
  bool strict_quiet_zone = false;  // linear codes: no artificial quiet border
  bool allow_upscale = true;       // false when modules are known to be large
  // Linear codes: preparations of this polarity first (what training read).
  Polarity prefer = Polarity::Any;
  // Linear codes: a symbol is only counted when this accepts it (whole
  // symbol checks); a refused one does not end the search.
  std::function<bool(const Found&)> accept;
  // Linear codes: when no bar-like region exists in the image, stop before
  // any decoder runs.
  bool stop_without_candidates = false;
  // The bar-like regions when an earlier look at the same image found them
  // (nullptr: look here), and where to leave those this call used.
  const std::vector<BarRegion>* known_regions = nullptr;
  std::vector<BarRegion>* regions_seen = nullptr;
  bool* no_candidates = nullptr;  // set when the search stopped for that reason
  // Linear codes: what an earlier search of the same image read in the
  // preparations it read in full, taken instead of reading them again (the
  // decoder sees every linear kind whenever the image has a bar-like
  // region, so what it reads does not depend on the kinds asked); valid
  // only when this search's polarity and result count are those of that
  // search and its `accept` lets through no more. And where to leave what
  // this search read.
  const std::vector<PreparationRead>* known_reads = nullptr;
  std::vector<PreparationRead>* reads_seen = nullptr;
};

// The preparations for a symbology, in the order they are tried.
const std::vector<Variant>& Variants(Symbology s);

// Reads the symbols of an 8-bit grey image. Never returns a symbol whose
// checksum or error correction failed.
std::vector<Found> ReadCodes(const cv::Mat& gray, const ReadRequest& req);

// The bar-like regions of the image. Cheap (about a millisecond on a
// camera frame); meant to end the search on images without any bar code
// and once every region holds a symbol.
std::vector<BarRegion> BarCandidateRegions(const cv::Mat& gray);
bool HasBarCandidate(const cv::Mat& gray);

// Where the label a linear symbol is printed on ends, in an upright crop
// (bars vertical, dark on light) whose rectangle `inside` holds the bars and
// which reaches beyond them: a dark run from either end of the crop, far
// wider (six narrow elements) than any element a symbol has, after a light
// margin of at least four narrow elements, i.e. a part as dark as the bars
// beyond a narrow quiet zone. Columns [first, second) lie on the label; 0
// and the crop's width where no such run is seen.
std::pair<int, int> LabelEdges(const cv::Mat& upright, const cv::Rect& inside);

// Whether the linear symbol read as `f` lies across the region's bars.
bool Explains(const Found& f, const BarRegion& r);

// The text zxing-cpp reads on a thin strip of the image along the scan line
// of a linear symbol `f`, shifted by `offset` pixels across its bars and
// extended by `margin` pixels beyond both ends; empty when nothing of the
// same format reads there. `element`: the narrow element's width in pixels.
std::string ReadAlongLine(const cv::Mat& gray, const Found& f, double offset, double margin, double element);

// Second Data Matrix engine (libdmtx). Empty when the library is absent or
// nothing was decoded within the budget.
std::vector<Found> ReadDataMatrixDmtx(const cv::Mat& gray, double budget_ms);

}  // namespace vision::code
