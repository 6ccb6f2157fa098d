#include "vision/code/bar_code.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <ZXing/BarcodeFormat.h>

#include "vision/code/code_image.h"
#include "vision/code/code_reader.h"
#include "vision/core/param_table.h"

namespace vision {
namespace {

using ZXing::BarcodeFormat;

class BarCodeModel : public HandleBase {
 public:
  const char* TypeName() const override { return "barcode"; }

  bool training = false;
  Hlong quiet_zone = 0;
  Hlong stop_after_result_num = 0;
  double timeout = -1;
  double element_size_min = 1.5, element_size_max = 32;
  std::string check_char = "absent";
  std::string polarity = "any";
  // Set by a training pass that read a symbol.
  bool trained = false;
  int trained_variant = -1;
  std::string trained_polarity;  // "dark_on_light" or "light_on_dark"
  double orientation = 0, contrast = 0;
  // The image of the last training pass and its bar-like regions: the
  // reading pass on the same image (what the reading service does) does not
  // look for them again, and answers at once when there are none. Shares
  // the image's planes, which are immutable.
  std::vector<cv::Mat> trained_planes;
  std::vector<code::BarRegion> trained_regions;
  // What that pass read in the preparations it tried, and what it accepted
  // with: a reading pass of the same image that accepts no more does not
  // decode them again (it would read there what training read).
  std::vector<code::PreparationRead> trained_reads;
  struct Acceptance {
    std::string polarity;
    Hlong quiet_zone = 0, stop_after_result_num = 0;
    double element_size_min = 0, element_size_max = 0;
  } trained_acceptance;

  Acceptance CurrentAcceptance() const {
    return {polarity, quiet_zone, stop_after_result_num, element_size_min, element_size_max};
  }
  bool AcceptsNoMoreThanTraining() const {
    const Acceptance& t = trained_acceptance;
    return polarity == t.polarity && quiet_zone >= t.quiet_zone && stop_after_result_num == t.stop_after_result_num &&
           element_size_min >= t.element_size_min && element_size_max <= t.element_size_max;
  }

  bool IsTrainedImage(const Image& img) const {
    if (trained_planes.empty() || trained_planes.size() != img.planes.size()) return false;
    for (size_t k = 0; k < img.planes.size(); ++k)
      if (trained_planes[k].data != img.planes[k].data || trained_planes[k].size() != img.planes[k].size() ||
          trained_planes[k].step != img.planes[k].step)
        return false;
    return true;
  }
};

struct CodeTypeName {
  const char* name;
  BarcodeFormat format;
};
const CodeTypeName kCodeTypes[] = {
    {"Code 39", BarcodeFormat::Code39},   {"Code 93", BarcodeFormat::Code93},
    {"Code 128", BarcodeFormat::Code128}, {"Codabar", BarcodeFormat::Codabar},
    {"2/5 Interleaved", BarcodeFormat::ITF}, {"EAN-8", BarcodeFormat::EAN8},
    {"EAN-13", BarcodeFormat::EAN13},     {"UPC-A", BarcodeFormat::UPCA},
    {"UPC-E", BarcodeFormat::UPCE},       {"GS1 DataBar Omnidir", BarcodeFormat::DataBar},
    {"GS1 DataBar Expanded", BarcodeFormat::DataBarExpanded},
};

// Approximate module count of a symbol, to turn its length in pixels into an
// element size (narrow bar width).
double Modules(BarcodeFormat f, size_t n) {
  switch (f) {
    case BarcodeFormat::Code39: return 13.0 * (n + 2) - 1;
    case BarcodeFormat::Code93: return 9.0 * (n + 4) + 1;
    case BarcodeFormat::Code128: return 11.0 * (n + 3) + 2;
    case BarcodeFormat::Codabar: return 10.0 * (n + 2);
    case BarcodeFormat::ITF: return 9.0 * n + 9;
    case BarcodeFormat::EAN8: return 67;
    case BarcodeFormat::EAN13:
    case BarcodeFormat::UPCA: return 95;
    case BarcodeFormat::UPCE: return 51;
    default: return 96;
  }
}

double ElementSize(const code::Found& f) {
  double len = cv::norm(f.corners[1] - f.corners[0]);
  if (len < 1) len = cv::norm(f.corners[2] - f.corners[3]);
  return len / Modules(BarcodeFormat(f.format), f.text.size());
}

// Codes whose text no check character protects: a misread there is a valid
// read of another text, so they need a wider quiet zone to be sure the
// symbol does not go on.
bool WithoutCheckCharacter(BarcodeFormat f) {
  return f == BarcodeFormat::Code39 || f == BarcodeFormat::Codabar || f == BarcodeFormat::ITF;
}

// Both quiet zones seen: `modules` element widths beyond each end of each of
// the symbol's scan lines lie inside the image and hold no bar of the
// symbol's polarity. A zone cut by the image border is not seen, so a symbol
// that may go on beyond the border is no symbol.
bool QuietZonesSeen(const cv::Mat& gray, const code::Found& f, double modules) {
  const double elem = std::max(1.0, ElementSize(f));
  for (int line = 0; line < 2; ++line) {
    const cv::Point2d a = line == 0 ? f.corners[0] : f.corners[3], b = line == 0 ? f.corners[1] : f.corners[2];
    if (line == 1 && cv::norm(a - f.corners[0]) < 1 && cv::norm(b - f.corners[1]) < 1) break;
    if (cv::norm(b - a) < 1) return false;
    const cv::Point2d dir = (b - a) / cv::norm(b - a), across(-dir.y, dir.x);
    // Dark and light levels of the symbol along its scan line (10th and
    // 90th percentile, so that noise does not set them).
    std::vector<int> levels;
    for (int i = 0; i <= 128; ++i) {
      const cv::Point2d p = a + (b - a) * (i / 128.0);
      const int x = int(std::lround(p.x)), y = int(std::lround(p.y));
      if (x >= 0 && y >= 0 && x < gray.cols && y < gray.rows) levels.push_back(gray.at<uint8_t>(y, x));
    }
    if (levels.size() < 10) return false;
    std::sort(levels.begin(), levels.end());
    const double lo = levels[levels.size() / 10], hi = levels[levels.size() * 9 / 10];
    // A bar is a pixel on the bars' side of the mid-level, on three
    // neighbouring pixels across the scan line; the search starts beyond the
    // blurred edge of the outermost bar.
    auto is_bar = [&](int v) { return f.inverted ? v > hi - 0.4 * (hi - lo) : v < lo + 0.4 * (hi - lo); };
    const double reach = std::max(modules, 1.0) * elem + 1.5;
    for (int side = 0; side < 2; ++side) {
      const cv::Point2d end = side == 0 ? a - dir * reach : b + dir * reach;
      if (end.x < 0 || end.y < 0 || end.x > gray.cols - 1 || end.y > gray.rows - 1) return false;
    }
    for (double t = 1.5 * elem + 1.5; t <= reach; t += 0.5) {
      for (int side = 0; side < 2; ++side) {
        const cv::Point2d c = side == 0 ? a - dir * t : b + dir * t;
        int bar = 0, seen = 0;
        for (int k = -1; k <= 1; ++k) {
          const cv::Point2d p = c + across * double(2 * k);
          const int x = int(std::lround(p.x)), y = int(std::lround(p.y));
          if (x < 0 || y < 0 || x >= gray.cols || y >= gray.rows) continue;
          ++seen;
          bar += is_bar(gray.at<uint8_t>(y, x));
        }
        if (seen > 0 && bar == seen) return false;
      }
    }
  }
  return true;
}

// A second, independent scan line reads the same text in full: a line
// parallel to the one that was read, along the symbol's own direction,
// sharing none of its pixels (the decoder's lines lie within the corners'
// band; ours averages one pixel either side of its centre).
bool SecondLineAgrees(const cv::Mat& gray, const code::Found& f, double margin) {
  const double band = 0.5 * std::max(cv::norm(f.corners[3] - f.corners[0]), cv::norm(f.corners[2] - f.corners[1]));
  for (double gap : {4.0, 8.0, 13.0})
    for (double side : {1.0, -1.0})
      if (code::ReadAlongLine(gray, f, side * (band + gap), margin, ElementSize(f)) == f.text) return true;
  return false;
}

// No bar or space inside the symbol is wider than its symbology allows
// (three modules for the two-width codes, four for the others, with room
// for perspective): a bar covered or lost leaves a long space, and the
// decoder may still find valid characters on either side of it.
bool ElementsFit(const cv::Mat& gray, const code::Found& f) {
  const BarcodeFormat format = BarcodeFormat(f.format);
  const bool two_widths = format == BarcodeFormat::Code39 || format == BarcodeFormat::Codabar || format == BarcodeFormat::ITF;
  const double limit = (two_widths ? 3.6 : 4.6) * ElementSize(f);
  const cv::Point2d a = (f.corners[0] + f.corners[3]) * 0.5, b = (f.corners[1] + f.corners[2]) * 0.5;
  const double len = cv::norm(b - a);
  if (len < 8) return false;
  const cv::Point2d dir = (b - a) / len, across(-dir.y, dir.x);
  auto at = [&](cv::Point2d p) {
    const int x = std::clamp(int(std::lround(p.x)), 0, gray.cols - 1), y = std::clamp(int(std::lround(p.y)), 0, gray.rows - 1);
    return double(gray.at<uint8_t>(y, x));
  };
  std::vector<double> profile;
  for (double t = 0; t <= len; t += 0.5)
    profile.push_back((at(a + dir * t - across) + at(a + dir * t) + at(a + dir * t + across)) / 3);
  std::vector<double> sorted = profile;
  std::sort(sorted.begin(), sorted.end());
  const double mid = 0.5 * (sorted[sorted.size() / 10] + sorted[sorted.size() * 9 / 10]);
  // Runs between the first and the last change: the elements themselves.
  std::vector<size_t> changes;
  for (size_t i = 1; i < profile.size(); ++i)
    if ((profile[i] < mid) != (profile[i - 1] < mid)) changes.push_back(i);
  for (size_t k = 1; k < changes.size(); ++k)
    if (0.5 * double(changes[k] - changes[k - 1]) > limit) return false;
  return true;
}

// The quiet zone every symbol needs, in modules, whatever the model asks:
// enough to see that no bar of the same symbol follows the stop pattern.
double MinimumQuietZone(BarcodeFormat f) { return WithoutCheckCharacter(f) ? 4 : 3; }

using Table = ParamTable<BarCodeModel>;
constexpr unsigned kTrained = Table::kGroup1;  // set by a training pass

// Every generic parameter of a bar-code model, in the order the query
// operator lists them.
const Table kParams({
    {"train",
     [](BarCodeModel& m, const ParamValue& v) { m.training = v.StringIn({"all", "~all"}) == "all"; },
     [](const BarCodeModel& m) { return HTuple(m.training ? "all" : "~all"); }},
    {"quiet_zone",
     [](BarCodeModel& m, const ParamValue& v) {
       // "true" asks for the standard's ten modules, "false" for none.
       m.quiet_zone = v.IsString() ? (v.StringIn({"true", "false"}) == "true" ? 10 : 0) : v.IntIn(0, 100);
     },
     [](const BarCodeModel& m) { return HTuple(m.quiet_zone); }},
    {"stop_after_result_num", [](BarCodeModel& m, const ParamValue& v) { m.stop_after_result_num = v.IntIn(0, 1 << 20); },
     [](const BarCodeModel& m) { return HTuple(m.stop_after_result_num); }},
    {"timeout", [](BarCodeModel& m, const ParamValue& v) { m.timeout = v.RealIn(-1, 1e9); },
     [](const BarCodeModel& m) { return HTuple(m.timeout); }},
    {"element_size_min", [](BarCodeModel& m, const ParamValue& v) { m.element_size_min = v.RealIn(0.5, 64); },
     [](const BarCodeModel& m) { return HTuple(m.element_size_min); }, kTrained},
    {"element_size_max", [](BarCodeModel& m, const ParamValue& v) { m.element_size_max = v.RealIn(1, 256); },
     [](const BarCodeModel& m) { return HTuple(m.element_size_max); }, kTrained},
    {"check_char", [](BarCodeModel& m, const ParamValue& v) { m.check_char = v.StringIn({"absent", "present"}); },
     [](const BarCodeModel& m) { return HTuple(m.check_char); }},
    {"polarity",
     [](BarCodeModel& m, const ParamValue& v) { m.polarity = v.StringIn({"any", "dark_on_light", "light_on_dark"}); },
     [](const BarCodeModel& m) { return HTuple(m.polarity); }},
    {"trained_polarity", nullptr, [](const BarCodeModel& m) { return HTuple(m.trained_polarity); }, kTrained},
    {"orientation", nullptr, [](const BarCodeModel& m) { return HTuple(m.orientation); }, kTrained},
    {"meas_thresh_abs", nullptr, [](const BarCodeModel& m) { return HTuple(m.contrast); }, kTrained},
    {"trained_preprocessing", nullptr,
     [](const BarCodeModel& m) {
       return HTuple(m.trained_variant >= 0
                         ? code::Variants(code::Symbology::Linear)[size_t(m.trained_variant)].Name()
                         : std::string());
     },
     kTrained},
});

void SetParams(BarCodeModel* m, const HTuple& names, const HTuple& values, const char* op) {
  kParams.Set(*m, names, values, op);
  if (m->element_size_min > m->element_size_max)
    ThrowParamValue(op, "'element_size_min'", "larger than 'element_size_max'");
}

}  // namespace

void create_bar_code_model(const HTuple& gen_param_names, const HTuple& gen_param_values, HTuple* bar_code_handle) {
  auto m = std::make_shared<BarCodeModel>();
  SetParams(m.get(), gen_param_names, gen_param_values, "create_bar_code_model");
  *bar_code_handle = HTuple(HHandle(m));
}

void set_bar_code_param(const HTuple& bar_code_handle, const HTuple& gen_param_names, const HTuple& gen_param_values) {
  const char* op = "set_bar_code_param";
  SetParams(HandleCast<BarCodeModel>(bar_code_handle, op), gen_param_names, gen_param_values, op);
}

void get_bar_code_param(const HTuple& bar_code_handle, const HTuple& gen_param_names, HTuple* gen_param_values) {
  const char* op = "get_bar_code_param";
  *gen_param_values = kParams.Get(*HandleCast<BarCodeModel>(bar_code_handle, op), gen_param_names, op);
}

void query_bar_code_params(const HTuple& bar_code_handle, const HTuple& query_name, HTuple* gen_param_names) {
  const char* op = "query_bar_code_params";
  auto* m = HandleCast<BarCodeModel>(bar_code_handle, op);
  const std::string& q = ParamStringIn(query_name, op, "QueryName", {"trained_general", "get_general", "set_general"});
  if (q == "trained_general")
    *gen_param_names = m->trained ? kParams.Names(kTrained) : HTuple();
  else
    *gen_param_names = kParams.Names(q == "get_general" ? Table::kGettable : Table::kSettable);
}

void find_bar_code(const HObject& image, HObject* symbol_regions, const HTuple& bar_code_handle,
                   const HTuple& code_type, HTuple* decoded_data_strings) {
  const char* op = "find_bar_code";
  auto* m = HandleCast<BarCodeModel>(bar_code_handle, op);
  ParamCount(code_type, op, "CodeType", 1, -1);
  int formats = 0;
  for (Hlong i = 0; i < code_type.Length(); ++i) {
    const std::string& t = ParamString(code_type, op, "CodeType", i);
    if (t == "auto") {
      formats |= int(BarcodeFormat::LinearCodes);
      continue;
    }
    auto it = std::find_if(std::begin(kCodeTypes), std::end(kCodeTypes), [&](const CodeTypeName& c) { return t == c.name; });
    if (it == std::end(kCodeTypes)) ThrowParamValue(op, "CodeType", "'" + t + "'");
    formats |= int(it->format);
  }
  cv::Point offset;
  cv::Mat gray = code::GrayView(image, op, &offset);
  const Image& img = image.ImageAt(0, op);

  code::ReadRequest req;
  req.symbology = code::Symbology::Linear;
  req.formats = formats;
  req.max_results = int(m->stop_after_result_num);
  req.timeout_ms = m->timeout > 0 ? m->timeout : 2000;
  req.strict_quiet_zone = false;
  req.polarity = m->polarity == "dark_on_light"   ? code::Polarity::DarkOnLight
                 : m->polarity == "light_on_dark" ? code::Polarity::LightOnDark
                                                  : code::Polarity::Any;
  if (!m->training) {
    req.first_variant = m->trained_variant;
    req.prefer = m->trained_polarity == "light_on_dark"   ? code::Polarity::LightOnDark
                 : m->trained_polarity == "dark_on_light" ? code::Polarity::DarkOnLight
                                                          : code::Polarity::Any;
  }
  // Only whole symbols count: the element size the model allows, both quiet
  // zones seen (wider for codes without a check character), no element
  // wider than the code allows, and a second, independent scan line that
  // reads the same text. A refused read does not end the search.
  req.accept = [&](const code::Found& f) {
    const double e = ElementSize(f);
    if (e < m->element_size_min * 0.5 || e > m->element_size_max * 1.5) return false;
    const BarcodeFormat format = BarcodeFormat(f.format);
    const double quiet = std::max(double(m->quiet_zone), MinimumQuietZone(format));
    // The second line for every code: a check character catches most
    // misreads, not all (two digits misread can keep the sum).
    return QuietZonesSeen(gray, f, quiet) && ElementsFit(gray, f) &&
           SecondLineAgrees(gray, f, (quiet + 1) * std::max(1.0, e));
  };
  // An image without anything bar-like answers before any decoder runs; the
  // reading pass on the image training looked at does not look again.
  std::vector<code::BarRegion> looked_at;
  std::vector<code::PreparationRead> reads;
  const bool trained_image = !m->training && m->IsTrainedImage(img);
  req.stop_without_candidates = true;
  req.known_regions = trained_image ? &m->trained_regions : nullptr;
  req.regions_seen = &looked_at;
  req.known_reads = trained_image && m->AcceptsNoMoreThanTraining() ? &m->trained_reads : nullptr;
  req.reads_seen = &reads;
  const BarCodeModel::Acceptance acceptance = m->CurrentAcceptance();
  std::vector<code::Found> found = code::ReadCodes(gray, req);
  if (m->training) {
    m->trained_planes = img.planes;
    m->trained_regions = std::move(looked_at);
    m->trained_reads = std::move(reads);
    m->trained_acceptance = acceptance;
  }
  if (m->training && !found.empty()) {
    const code::Found& f = found.front();
    double e = ElementSize(f);
    m->trained = true;
    m->trained_variant = f.variant;
    m->trained_polarity = f.inverted ? "light_on_dark" : "dark_on_light";
    m->element_size_min = std::max(0.5, std::floor(e * 0.7 * 10) / 10);
    m->element_size_max = std::max(m->element_size_min, std::ceil(e * 1.5 * 10) / 10);
    m->orientation = std::atan2(-(f.corners[1].y - f.corners[0].y), f.corners[1].x - f.corners[0].x) * 180 / CV_PI;
    m->contrast = f.contrast;
  }

  HObject regions;
  HTuple strings;
  for (const auto& f : found) {
    regions.Push(code::QuadRegion(f.corners, offset, img.width, img.height));
    strings.Append(HValue(f.text));
  }
  if (symbol_regions) *symbol_regions = regions;
  if (decoded_data_strings) *decoded_data_strings = strings;
}

void clear_bar_code_model(const HTuple& bar_code_handle) {
  HandleCast<BarCodeModel>(bar_code_handle, "clear_bar_code_model")->Clear();
}

}  // namespace vision
