#include "vision/ocr/ocr_mlp.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>

#include <opencv2/imgproc.hpp>

#include "vision/core/param.h"
#include "vision/ocr/mlp.h"

#ifndef VELMORA_VISION_INSTALL_DIR
#define VELMORA_VISION_INSTALL_DIR "/usr/local/share/velmora/vision"
#endif

namespace vision {

using ocr_detail::MatF;
using ocr_detail::Mlp;
using ocr_detail::VecF;

namespace {

constexpr char kOmcMagic[4] = {'V', 'O', 'M', 'C'};
// Version 2 adds the feature `line_band`, version 3 the feature `band_pixels`
// and the lane checksum, version 4 the feature `line_pitch`; older files stay
// readable.
constexpr uint32_t kOmcVersion = 4;
constexpr char kTrfMagic[4] = {'V', 'O', 'T', 'F'};
// Version 3 stores each character's text line band, version 4 its line pitch.
constexpr uint32_t kTrfVersion = 4;

enum class Feature : uint8_t {
  Ratio, Width, Height, Pixel, PixelInvar, PixelBinary, ZoomFactor, LineBand, BandPixels,
  LinePitch
};

// Values `line_band` and `line_pitch` contribute.
constexpr int kLineBandValues = 4;
constexpr int kLinePitchValues = 2;

struct FeatureName {
  const char* name;
  Feature f;
};
constexpr FeatureName kFeatureNames[] = {
    {"ratio", Feature::Ratio},          {"width", Feature::Width},
    {"height", Feature::Height},        {"pixel", Feature::Pixel},
    {"pixel_invar", Feature::PixelInvar}, {"pixel_binary", Feature::PixelBinary},
    {"zoom_factor", Feature::ZoomFactor}, {"line_band", Feature::LineBand},
    {"band_pixels", Feature::BandPixels}, {"line_pitch", Feature::LinePitch},
};

// The classifier behind a handle.
class OcrMlp : public HandleBase {
 public:
  const char* TypeName() const override { return "ocr_mlp"; }
  void Clear() override {
    net = Mlp();
    HandleBase::Clear();
  }

  int grid_w = 8, grid_h = 10;
  std::string interpolation = "constant";
  std::vector<std::string> feature_names;  // as given, e.g. "default"
  std::vector<Feature> features;            // expanded
  std::vector<std::string> classes;
  std::string preprocessing = "none";
  int num_components = 10;
  uint32_t seed = 42;
  Mlp net;

  int NumInputs() const {
    int n = 0;
    for (Feature f : features)
      n += (f == Feature::Pixel || f == Feature::PixelInvar || f == Feature::PixelBinary ||
            f == Feature::BandPixels)
               ? grid_w * grid_h
           : f == Feature::LineBand  ? kLineBandValues
           : f == Feature::LinePitch ? kLinePitchValues
                                     : 1;
    return n;
  }
};

std::vector<Feature> ExpandFeatures(const std::vector<std::string>& names, const char* op) {
  std::vector<Feature> out;
  for (const auto& n : names) {
    if (n == "default") {
      out.push_back(Feature::Ratio);
      out.push_back(Feature::PixelInvar);
      continue;
    }
    bool found = false;
    for (const auto& fn : kFeatureNames)
      if (n == fn.name) {
        out.push_back(fn.f);
        found = true;
      }
    if (!found) throw HException(op, "Unknown feature: " + n, kErrWrongParamValue);
  }
  if (out.empty()) throw HException(op, "No features given", kErrWrongParamValue);
  return out;
}

int CvInterpolation(const std::string& s, const char* op) {
  if (s == "nearest_neighbor") return cv::INTER_NEAREST;
  if (s == "bilinear") return cv::INTER_LINEAR;
  if (s == "constant" || s == "weighted") return cv::INTER_AREA;
  throw HException(op, "Unknown interpolation: " + s, kErrWrongParamValue);
}

// Resamples a float patch into the grid, aspect ratio preserved, centred.
cv::Mat ToGrid(const cv::Mat& patch, int gw, int gh, int interp) {
  cv::Mat grid = cv::Mat::zeros(gh, gw, CV_32F);
  const double s = std::min(double(gw) / patch.cols, double(gh) / patch.rows);
  const int w = std::clamp(int(std::lround(patch.cols * s)), 1, gw);
  const int h = std::clamp(int(std::lround(patch.rows * s)), 1, gh);
  cv::Mat small;
  // Area averaging cannot enlarge; enlarge small characters bilinearly.
  const int mode = (interp == cv::INTER_AREA && (w > patch.cols || h > patch.rows))
                       ? cv::INTER_LINEAR
                       : interp;
  cv::resize(patch, small, cv::Size(w, h), 0, 0, mode);
  small.copyTo(grid(cv::Rect((gw - w) / 2, (gh - h) / 2, w, h)));
  return grid;
}

// Gray values of the character only (neighbours' parts in the box are
// background), stretched between the darkest print and the ground around the
// box: dark print -> 1.
cv::Mat OwnDarkness(const OcrSample& s) {
  const int w = s.gray.cols, h = s.gray.rows;
  cv::Mat patch(h, w, CV_32F);
  double lo = 255, hi = s.ground;
  cv::minMaxLoc(s.gray, &lo, nullptr, nullptr, nullptr, s.mask);
  hi = std::max(hi, lo);
  const float range = float(hi - lo);
  // One pixel around the region still belongs to the character: faint thin
  // strokes (a serif, the bar of an "e") lie there.
  cv::Mat own;
  cv::dilate(s.mask, own, cv::Mat::ones(3, 3, CV_8U));
  for (int r = 0; r < h; ++r) {
    const uint8_t* g = s.gray.ptr<uint8_t>(r);
    const uint8_t* m = own.ptr<uint8_t>(r);
    float* p = patch.ptr<float>(r);
    for (int x = 0; x < w; ++x)
      p[x] = !m[x] ? 0.f : range > 0.f ? std::max(0.f, float(hi) - g[x]) / range : 1.f;
  }
  return patch;
}

// The rows of the character's text line relative to its box's top row:
// top <= 0, bottom >= box height - 1; the box itself when the band is unknown.
void BandRows(const OcrSample& s, int* top, int* bottom) {
  const int h = s.gray.rows;
  const bool known = s.band_bottom >= s.band_top;
  *top = known ? std::min(s.band_top, 0) : 0;
  *bottom = known ? std::max(s.band_bottom, h - 1) : h - 1;
}

void ComputeFeatures(const OcrMlp& c, const OcrSample& s, float* out) {
  const int w = s.gray.cols, h = s.gray.rows;
  const int interp = CvInterpolation(c.interpolation, "get_features_ocr_class_mlp");
  cv::Mat own;
  for (Feature f : c.features) {
    switch (f) {
      case Feature::Ratio: *out++ = float(h) / float(w); break;
      case Feature::Width: *out++ = float(w); break;
      case Feature::Height: *out++ = float(h); break;
      case Feature::ZoomFactor:
        *out++ = 0.5f * (float(w) / c.grid_w + float(h) / c.grid_h) - 1.f;
        break;
      case Feature::LineBand: {
        // Where the box sits in its text line: a lower-case c or a hyphen
        // looks like C or an underscore alone, not beside its neighbours.
        int top, bottom;
        BandRows(s, &top, &bottom);
        const float band = float(bottom - top + 1);
        *out++ = float(-top) / band;
        *out++ = float(bottom - (h - 1)) / band;
        *out++ = float(h) / band;
        *out++ = float(w) / band;
        break;
      }
      case Feature::LinePitch: {
        // The box width against the line's pitch, and the pitch against the
        // band height; without a pitch, as if the box were the only run.
        int top, bottom;
        BandRows(s, &top, &bottom);
        const float band = float(bottom - top + 1);
        const float pitch = s.pitch > 0 ? float(s.pitch) : float(w);
        *out++ = float(w) / pitch;
        *out++ = pitch / band;
        break;
      }
      case Feature::Pixel:
      case Feature::PixelInvar:
      case Feature::PixelBinary:
      case Feature::BandPixels: {
        cv::Mat patch;
        if (f == Feature::PixelBinary) {
          s.mask.convertTo(patch, CV_32F, 1.0 / 255.0);
        } else if (f == Feature::Pixel) {
          // Darkness of the raw gray values, whatever lies in the box.
          s.gray.convertTo(patch, CV_32F, -1.0 / 255.0, 1.0);
        } else {
          if (own.empty()) own = OwnDarkness(s);  // shared by pixel_invar and band_pixels
          patch = own;
        }
        if (f == Feature::BandPixels) {
          // The same values in the rows of the whole text line: a small p
          // hangs low and a capital P stands high, whatever their shapes.
          int top, bottom;
          BandRows(s, &top, &bottom);
          cv::Mat band = cv::Mat::zeros(bottom - top + 1, w, CV_32F);
          patch.copyTo(band(cv::Rect(0, -top, w, h)));
          patch = band;
        }
        cv::Mat grid = ToGrid(patch, c.grid_w, c.grid_h, interp);
        for (int r = 0; r < c.grid_h; ++r) {
          const float* p = grid.ptr<float>(r);
          out = std::copy(p, p + c.grid_w, out);
        }
        break;
      }
    }
  }
}

// ---- binary helpers (little-endian on disk; the targets are little-endian) --

class Writer {
 public:
  void U8(uint8_t v) { buf_.push_back(char(v)); }
  void U16(uint16_t v) { Raw(&v, 2); }
  void U32(uint32_t v) { Raw(&v, 4); }
  void F32(float v) { Raw(&v, 4); }
  void Str(const std::string& s) {
    U16(uint16_t(s.size()));
    buf_.append(s);
  }
  void Floats(const float* p, size_t n) { Raw(p, n * 4); }
  void Raw(const void* p, size_t n) { buf_.append(static_cast<const char*>(p), n); }
  std::string& Buf() { return buf_; }

 private:
  std::string buf_;
};

class Reader {
 public:
  Reader(const std::string& data, size_t end, const char* op)
      : d_(data), end_(end), op_(op) {}
  uint8_t U8() { uint8_t v; Raw(&v, 1); return v; }
  uint16_t U16() { uint16_t v; Raw(&v, 2); return v; }
  uint32_t U32() { uint32_t v; Raw(&v, 4); return v; }
  std::string Str() {
    const uint16_t n = U16();
    Need(n);
    std::string s = d_.substr(pos_, n);
    pos_ += n;
    return s;
  }
  void Floats(float* p, size_t n) { Raw(p, n * 4); }
  void Raw(void* p, size_t n) {
    Need(n);
    std::memcpy(p, d_.data() + pos_, n);
    pos_ += n;
  }
  size_t Pos() const { return pos_; }
  bool AtEnd() const { return pos_ == end_; }

 private:
  void Need(size_t n) {
    if (end_ - pos_ < n) throw HException(op_, "Truncated file", kErrFileFormat);
  }
  const std::string& d_;
  size_t pos_ = 0, end_;
  const char* op_;
};

// The checksum of files up to version 2.
uint32_t Fnv1a(const char* p, size_t n) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < n; ++i) h = (h ^ uint8_t(p[i])) * 16777619u;
  return h;
}

// The checksum from version 3 on: FNV-1a steps on 64-bit words in four
// independent lanes, folded at the end. A byte-wise hash spent most of a
// load on its multiply chain; this one runs at memory speed.
uint32_t LaneHash(const char* p, size_t n) {
  constexpr uint64_t kPrime = 1099511628211ull;
  uint64_t lane[4] = {14695981039346656037ull, 14695981039346656037ull ^ 1,
                      14695981039346656037ull ^ 2, 14695981039346656037ull ^ 3};
  size_t i = 0;
  for (; i + 32 <= n; i += 32)
    for (int j = 0; j < 4; ++j) {
      uint64_t w;
      std::memcpy(&w, p + i + 8 * size_t(j), 8);
      lane[j] = (lane[j] ^ w) * kPrime;
    }
  for (; i < n; ++i) lane[0] = (lane[0] ^ uint8_t(p[i])) * kPrime;
  uint64_t h = lane[0];
  for (int j = 1; j < 4; ++j) h = (h ^ lane[j]) * kPrime;
  h ^= uint64_t(n);
  return uint32_t(h ^ (h >> 32));
}

std::string ReadWholeFile(const std::string& path, const char* op) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  if (!f) throw HException(op, "Cannot open file: " + path, kErrFile);
  const std::streamoff size = f.tellg();
  if (size < 0) throw HException(op, "Cannot read file: " + path, kErrFile);
  std::string d(size_t(size), '\0');
  f.seekg(0);
  if (!f.read(d.data(), size)) throw HException(op, "Cannot read file: " + path, kErrFile);
  return d;
}

std::string ResolveOcrPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  return OcrFontFolder() + "/" + name;
}

OcrMlp* Classifier(const HTuple& h, const char* op) {
  ParamCount(h, op, "OCRHandle", 1);
  return HandleCast<OcrMlp>(h, op);
}

// Reads a training file's samples, appending to `out`.
void ReadTrainFile(const std::string& path, std::vector<OcrSample>* out, const char* op) {
  const std::string d = ReadWholeFile(path, op);
  Reader r(d, d.size(), op);
  char magic[4];
  r.Raw(magic, 4);
  if (std::memcmp(magic, kTrfMagic, 4) != 0)
    throw HException(op, "Not a training file: " + path, kErrFileFormat);
  const uint32_t version = r.U32();
  if (version < 2 || version > kTrfVersion)
    throw HException(op, "Unsupported training file version: " + path, kErrFileFormat);
  while (!r.AtEnd()) {
    OcrSample s;
    s.klass = r.Str();
    const int w = r.U16(), h = r.U16();
    s.ground = r.U8();
    if (version >= 3) {
      s.band_top = -int(r.U16());
      s.band_bottom = int(r.U16());
    }
    if (version >= 4) s.pitch = r.U16();
    if (w == 0 || h == 0) throw HException(op, "Damaged training file", kErrFileFormat);
    s.gray.create(h, w, CV_8U);
    s.mask.create(h, w, CV_8U);
    r.Raw(s.gray.data, size_t(w) * h);
    r.Raw(s.mask.data, size_t(w) * h);
    out->push_back(std::move(s));
  }
}

void WriteSamples(std::ofstream& f, const std::vector<OcrSample>& samples) {
  Writer w;
  for (const auto& s : samples) {
    w.Str(s.klass);
    w.U16(uint16_t(s.gray.cols));
    w.U16(uint16_t(s.gray.rows));
    w.U8(s.ground);
    const bool known = s.band_bottom >= s.band_top;
    w.U16(uint16_t(known ? std::clamp(-s.band_top, 0, 65535) : 0));
    w.U16(uint16_t(known ? std::clamp(s.band_bottom, 0, 65535) : s.gray.rows - 1));
    w.U16(uint16_t(std::clamp(s.pitch, 0, 65535)));
    w.Raw(s.gray.data, s.gray.total());
    w.Raw(s.mask.data, s.mask.total());
  }
  f.write(w.Buf().data(), std::streamsize(w.Buf().size()));
}

void AddTrainf(const HObject& character, const HObject& image, const HTuple& klass,
               const HTuple& train_file, bool replace, const char* op) {
  if (klass.Length() != character.Count())
    throw HException(op, "Number of classes and characters differ", kErrWrongParamCount);
  if (image.Count() != 1) throw HException(op, "Exactly one image expected", kErrWrongObject);
  const Image& img = image.ImageAt(0, op);
  std::vector<OcrSample> samples;
  for (long i = 0; i < character.Count(); ++i) {
    samples.push_back(OcrCutSample(character.RegionAt(i, op), img, op));
    samples.back().klass = ParamString(klass, op, "Class", i);
  }
  ParamCount(train_file, op, "TrainingFile", 1);
  if (train_file.IsHandle(0)) {
    auto* set = HandleCast<OcrTrainSamples>(train_file, op);
    if (replace) set->samples.clear();
    for (auto& s : samples) set->samples.push_back(std::move(s));
    return;
  }
  const std::string path = ParamString(train_file, op, "TrainingFile");
  bool fresh = replace;
  if (!fresh) {
    std::ifstream probe(path, std::ios::binary);
    fresh = !probe || probe.peek() == std::ifstream::traits_type::eof();
  }
  std::ofstream f(path, std::ios::binary | (fresh ? std::ios::trunc : std::ios::app));
  if (!f) throw HException(op, "Cannot write file: " + path, kErrFile);
  if (fresh) {
    Writer w;
    w.Raw(kTrfMagic, 4);
    w.U32(kTrfVersion);
    f.write(w.Buf().data(), std::streamsize(w.Buf().size()));
  }
  WriteSamples(f, samples);
  if (!f) throw HException(op, "Cannot write file: " + path, kErrFile);
}

std::vector<std::pair<float, int>> Ranked(const OcrMlp& c, const OcrSample& s) {
  std::vector<float> x(size_t(c.NumInputs()));
  ComputeFeatures(c, s, x.data());
  const VecF p = c.net.Forward(x.data());
  std::vector<std::pair<float, int>> r;
  for (int k = 0; k < p.size(); ++k) r.push_back({p[k], k});
  // Stable so that equal probabilities keep the class order.
  std::stable_sort(r.begin(), r.end(), [](auto& a, auto& b) { return a.first > b.first; });
  return r;
}

}  // namespace

std::string OcrFontFolder() {
  if (const char* env = std::getenv("VELMORA_VISION_DIR"); env && *env)
    return std::string(env) + "/ocr";
  return std::string(VELMORA_VISION_INSTALL_DIR) + "/ocr";
}

OcrSample OcrCutSample(const Region& region, const Image& image, const char* op) {
  if (image.planes.empty()) throw HException(op, "Image without channels", kErrWrongObject);
  const Region reg = region.Clipped(image.height, image.width);
  if (reg.Empty()) throw HException(op, "Empty character region", kErrEmptyInput);
  int r1, c1, r2, c2;
  reg.BoundingBox(&r1, &c1, &r2, &c2);
  OcrSample s;
  cv::Mat plane = image.planes[0];
  if (plane.depth() != CV_8U) {
    cv::Mat b;
    plane.convertTo(b, CV_8U);
    plane = b;
  }
  s.gray = plane(cv::Rect(c1, r1, c2 - c1 + 1, r2 - r1 + 1)).clone();
  // The ground level: the lightest value around the box, two pixels out, so
  // that a box filled by a bold stroke still knows how light the paper is.
  const cv::Rect around = cv::Rect(c1 - 2, r1 - 2, c2 - c1 + 5, r2 - r1 + 5) &
                          cv::Rect(0, 0, plane.cols, plane.rows);
  double ground = 0;
  cv::minMaxLoc(plane(around), nullptr, &ground);
  s.ground = uint8_t(ground);
  s.mask = reg.ToMask(r2 - r1 + 1, c2 - c1 + 1, r1, c1);
  // Print is what is darker than halfway between the character's darkest
  // pixel and the ground; without contrast the band is the box itself.
  double lo = 255;
  cv::minMaxLoc(s.gray, &lo, nullptr, nullptr, nullptr, s.mask);
  s.band_top = 0;
  s.band_bottom = r2 - r1;
  if (ground - lo >= 8) {
    const int print = int((lo + ground) / 2);
    int top = r1, bottom = r2;
    OcrLineBand(plane, r1, c1, r2, c2, print, &top, &bottom);
    s.band_top = top - r1;
    s.band_bottom = bottom - r1;
    s.pitch = OcrLinePitch(plane, top, bottom, c1, c2, print);
  }
  return s;
}

int OcrLinePitch(const cv::Mat& gray, int top, int bottom, int c1, int c2, int threshold) {
  if (gray.empty() || gray.type() != CV_8U) return 0;
  top = std::max(top, 0);
  bottom = std::min(bottom, gray.rows - 1);
  const int band = bottom - top + 1;
  if (band < 1) return 0;
  const int x0 = std::max(0, c1 - 4 * band), x1 = std::min(gray.cols - 1, c2 + 4 * band);
  // Dark pixels per column, counted row by row (along the memory).
  std::vector<int> dark(size_t(std::max(0, x1 - x0 + 1)), 0);
  for (int y = top; y <= bottom; ++y) {
    const uint8_t* p = gray.ptr<uint8_t>(y) + x0;
    for (size_t i = 0; i < dark.size(); ++i) dark[i] += p[i] <= threshold;
  }
  std::vector<int> runs;
  int run = 0;
  for (int x = x0; x <= x1 + 1; ++x) {
    const int n = x <= x1 ? dark[size_t(x - x0)] : 0;
    if (n >= 2) {
      ++run;
      continue;
    }
    if (run > 0 && x - run > x0 && x <= x1) runs.push_back(run);
    run = 0;
  }
  if (runs.empty()) return 0;
  std::nth_element(runs.begin(), runs.begin() + ptrdiff_t(runs.size() / 2), runs.end());
  return runs[runs.size() / 2];
}

void OcrLineBand(const cv::Mat& gray, int r1, int c1, int r2, int c2, int threshold, int* top,
                 int* bottom) {
  // How many character sizes left and right count as the character's line:
  // far enough to meet a capital or an ascender beside a run of small
  // letters, near enough that a tilted line does not widen the band much
  // (six read no better than three).
  constexpr int kBandReach = 3;
  *top = r1;
  *bottom = r2;
  if (gray.empty() || gray.type() != CV_8U) return;
  // A character size: the larger box side, so that a flat hyphen still looks
  // as far as its neighbours' full height.
  const int size = std::max(r2 - r1 + 1, c2 - c1 + 1);
  const int x0 = std::max(0, c1 - kBandReach * size);
  const int x1 = std::min(gray.cols - 1, c2 + kBandReach * size);
  const int y0 = std::max(0, r1 - 2 * size), y1 = std::min(gray.rows - 1, r2 + 2 * size);
  auto has_print = [&](int row) {
    const uint8_t* p = gray.ptr<uint8_t>(row);
    int n = 0;
    for (int x = x0; x <= x1; ++x) n += p[x] <= threshold;
    return n >= 2;
  };
  while (*top > y0 && has_print(*top - 1)) --*top;
  while (*bottom < y1 && has_print(*bottom + 1)) ++*bottom;
}

void create_ocr_train_samples(HTuple* handle) {
  *handle = HTuple(HHandle(std::make_shared<OcrTrainSamples>()));
}

void create_ocr_class_mlp(const HTuple& width_character, const HTuple& height_character,
                          const HTuple& interpolation, const HTuple& features,
                          const HTuple& characters, const HTuple& num_hidden,
                          const HTuple& preprocessing, const HTuple& num_components,
                          const HTuple& rand_seed, HTuple* ocr_handle) {
  const char* op = "create_ocr_class_mlp";
  auto c = std::make_shared<OcrMlp>();
  c->grid_w = int(ParamIntIn(width_character, op, "WidthCharacter", 4, 40));
  c->grid_h = int(ParamIntIn(height_character, op, "HeightCharacter", 4, 40));
  c->interpolation = ParamString(interpolation, op, "Interpolation");
  CvInterpolation(c->interpolation, op);
  for (Hlong i = 0; i < features.Length(); ++i) c->feature_names.push_back(ParamString(features, op, "Features", i));
  c->features = ExpandFeatures(c->feature_names, op);
  for (Hlong i = 0; i < characters.Length(); ++i) c->classes.push_back(ParamString(characters, op, "Characters", i));
  if (c->classes.size() < 2) throw HException(op, "At least two classes needed", kErrWrongParamValue);
  for (size_t i = 0; i < c->classes.size(); ++i)
    for (size_t j = i + 1; j < c->classes.size(); ++j)
      if (c->classes[i] == c->classes[j])
        throw HException(op, "Duplicate class: " + c->classes[i], kErrWrongParamValue);
  const int hidden = int(ParamIntIn(num_hidden, op, "NumHidden", 1, 4096));
  c->preprocessing = ParamStringIn(preprocessing, op, "Preprocessing", {"none", "normalization"});
  c->num_components = num_components.Empty() ? 10 : int(ParamInt(num_components, op, "NumComponents"));
  c->seed = rand_seed.Empty() ? 42u : uint32_t(ParamInt(rand_seed, op, "RandSeed"));
  c->net.Init(c->NumInputs(), hidden, int(c->classes.size()), c->seed);
  *ocr_handle = HTuple(HHandle(c));
}

void append_ocr_trainf(const HObject& character, const HObject& image, const HTuple& klass,
                       const HTuple& train_file) {
  AddTrainf(character, image, klass, train_file, false, "append_ocr_trainf");
}

void write_ocr_trainf(const HObject& character, const HObject& image, const HTuple& klass,
                      const HTuple& train_file) {
  AddTrainf(character, image, klass, train_file, true, "write_ocr_trainf");
}

void read_ocr_trainf_samples(const HTuple& train_file, HTuple* samples_handle) {
  const char* op = "read_ocr_trainf";
  auto set = std::make_shared<OcrTrainSamples>();
  for (Hlong i = 0; i < train_file.Length(); ++i) ReadTrainFile(ParamString(train_file, op, "TrainingFile", i), &set->samples, op);
  *samples_handle = HTuple(HHandle(set));
}

std::vector<float> OcrSampleFeatures(const HTuple& ocr_handle, const OcrSample& s) {
  const OcrMlp* c = Classifier(ocr_handle, "get_features_ocr_class_mlp");
  std::vector<float> x(size_t(c->NumInputs()));
  ComputeFeatures(*c, s, x.data());
  return x;
}

void trainf_ocr_class_mlp(const HTuple& ocr_handle, const HTuple& train_file,
                          const HTuple& max_iterations, const HTuple& weight_tolerance,
                          const HTuple& error_tolerance, HTuple* error, HTuple* error_log) {
  const char* op = "trainf_ocr_class_mlp";
  OcrMlp* c = Classifier(ocr_handle, op);
  std::vector<OcrSample> from_files;
  const std::vector<OcrSample>* samples = &from_files;
  if (train_file.Length() == 1 && train_file.IsHandle(0))
    samples = &HandleCast<OcrTrainSamples>(train_file, op)->samples;
  else
    for (Hlong i = 0; i < train_file.Length(); ++i) ReadTrainFile(ParamString(train_file, op, "TrainingFile", i), &from_files, op);

  std::vector<int> labels;
  std::vector<const OcrSample*> used;
  for (const auto& s : *samples) {
    auto it = std::find(c->classes.begin(), c->classes.end(), s.klass);
    if (it != c->classes.end()) {
      labels.push_back(int(it - c->classes.begin()));
    } else if (s.klass == kOcrRejectClass) {
      labels.push_back(-1);  // a classifier without the class learns to doubt such pieces
    } else {
      continue;  // classes the classifier does not know
    }
    used.push_back(&s);
  }
  if (used.empty()) throw HException(op, "No training samples of the classifier's classes", kErrEmptyInput);
  const int n_in = c->NumInputs();
  MatF x(long(used.size()), n_in);
  for (size_t i = 0; i < used.size(); ++i) ComputeFeatures(*c, *used[i], x.row(long(i)).data());

  ocr_detail::TrainParams p;
  p.epochs = int(std::max<Hlong>(1, ParamInt(max_iterations, op, "MaxIterations")));
  p.seed = c->seed;
  p.normalise = c->preprocessing == "normalization";
  p.error_tolerance = error_tolerance.Empty() ? 0.f : float(ParamReal(error_tolerance, op, "ErrorTolerance"));
  (void)weight_tolerance;  // Adam with a fixed schedule has no weight-change criterion
  c->net.Init(n_in, c->net.n_hidden, int(c->classes.size()), c->seed);
  const std::vector<double> log = ocr_detail::Train(&c->net, x, labels, p);
  *error = HTuple(log.empty() ? 0.0 : log.back());
  *error_log = HTuple::Reals(log);
}

void do_ocr_single_class_mlp(const HObject& character, const HObject& image,
                             const HTuple& ocr_handle, const HTuple& num, HTuple* klass,
                             HTuple* confidence) {
  const char* op = "do_ocr_single_class_mlp";
  const OcrMlp* c = Classifier(ocr_handle, op);
  if (character.Count() != 1) throw HException(op, "Exactly one character region expected", kErrWrongObject);
  if (image.Count() != 1) throw HException(op, "Exactly one image expected", kErrWrongObject);
  const long n = long(ParamIntIn(num, op, "Num", 1, 1 << 20));
  const OcrSample s = OcrCutSample(character.RegionAt(0, op), image.ImageAt(0, op), op);
  const auto r = Ranked(*c, s);
  klass->Clear();
  confidence->Clear();
  for (long i = 0; i < std::min<long>(n, long(r.size())); ++i) {
    klass->Append(HValue(c->classes[size_t(r[size_t(i)].second)]));
    confidence->Append(HValue(double(r[size_t(i)].first)));
  }
}

void do_ocr_multi_class_mlp(const HObject& character, const HObject& image,
                            const HTuple& ocr_handle, HTuple* klass, HTuple* confidence) {
  const char* op = "do_ocr_multi_class_mlp";
  const OcrMlp* c = Classifier(ocr_handle, op);
  if (image.Count() != 1) throw HException(op, "Exactly one image expected", kErrWrongObject);
  klass->Clear();
  confidence->Clear();
  for (long i = 0; i < character.Count(); ++i) {
    const auto r = Ranked(*c, OcrCutSample(character.RegionAt(i, op), image.ImageAt(0, op), op));
    klass->Append(HValue(c->classes[size_t(r[0].second)]));
    confidence->Append(HValue(double(r[0].first)));
  }
}

void get_features_ocr_class_mlp(const HObject& character, const HTuple& ocr_handle,
                                const HTuple& transform, HTuple* features) {
  const char* op = "get_features_ocr_class_mlp";
  (void)transform;  // features are always those of the classifier's own layout
  if (character.Count() != 1) throw HException(op, "Exactly one character image expected", kErrWrongObject);
  const Image& img = character.ImageAt(0, op);
  const auto x = OcrSampleFeatures(ocr_handle, OcrCutSample(img.domain, img, op));
  features->Clear();
  for (float v : x) features->Append(HValue(double(v)));
}

void get_params_ocr_class_mlp(const HTuple& ocr_handle, HTuple* width_character,
                              HTuple* height_character, HTuple* interpolation,
                              HTuple* features, HTuple* characters, HTuple* num_hidden,
                              HTuple* preprocessing, HTuple* num_components) {
  const OcrMlp* c = Classifier(ocr_handle, "get_params_ocr_class_mlp");
  *width_character = HTuple(c->grid_w);
  *height_character = HTuple(c->grid_h);
  *interpolation = HTuple(c->interpolation);
  *features = HTuple::Strings(c->feature_names);
  *characters = HTuple::Strings(c->classes);
  *num_hidden = HTuple(c->net.n_hidden);
  *preprocessing = HTuple(c->preprocessing);
  *num_components = HTuple(c->num_components);
}

void write_ocr_class_mlp(const HTuple& ocr_handle, const HTuple& file_name) {
  const char* op = "write_ocr_class_mlp";
  const OcrMlp* c = Classifier(ocr_handle, op);
  const std::string path = ParamString(file_name, op, "FileName");
  Writer w;
  w.Raw(kOmcMagic, 4);
  w.U32(kOmcVersion);
  w.U16(uint16_t(c->grid_w));
  w.U16(uint16_t(c->grid_h));
  w.Str(c->interpolation);
  w.Str(c->preprocessing);
  w.U32(uint32_t(c->num_components));
  w.U32(c->seed);
  w.U16(uint16_t(c->feature_names.size()));
  for (const auto& f : c->feature_names) w.Str(f);
  w.U16(uint16_t(c->classes.size()));
  for (const auto& k : c->classes) w.Str(k);
  const Mlp& n = c->net;
  w.U32(uint32_t(n.n_in));
  w.U32(uint32_t(n.n_hidden));
  w.U32(uint32_t(n.n_out));
  w.Floats(n.mean.data(), size_t(n.n_in));
  w.Floats(n.inv_std.data(), size_t(n.n_in));
  w.Floats(n.w1.data(), size_t(n.w1.size()));
  w.Floats(n.b1.data(), size_t(n.n_hidden));
  w.Floats(n.w2.data(), size_t(n.w2.size()));
  w.Floats(n.b2.data(), size_t(n.n_out));
  w.U32(LaneHash(w.Buf().data(), w.Buf().size()));
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(w.Buf().data(), std::streamsize(w.Buf().size()));
  if (!f) throw HException(op, "Cannot write file: " + path, kErrFile);
}

void read_ocr_class_mlp(const HTuple& file_name, HTuple* ocr_handle) {
  const char* op = "read_ocr_class_mlp";
  const std::string path = ResolveOcrPath(ParamString(file_name, op, "FileName"));
  const std::string d = ReadWholeFile(path, op);
  if (d.size() < 12 || std::memcmp(d.data(), kOmcMagic, 4) != 0)
    throw HException(op, "Not an OCR classifier file: " + path, kErrFileFormat);
  uint32_t stored, version;
  std::memcpy(&stored, d.data() + d.size() - 4, 4);
  std::memcpy(&version, d.data() + 4, 4);
  if (version < 1 || version > kOmcVersion)
    throw HException(op, "Unsupported OCR classifier version: " + path, kErrFileFormat);
  const size_t body = d.size() - 4;
  if (stored != (version >= 3 ? LaneHash(d.data(), body) : Fnv1a(d.data(), body)))
    throw HException(op, "Damaged OCR classifier file: " + path, kErrFileFormat);
  Reader r(d, body, op);
  char head[8];
  r.Raw(head, sizeof head);  // magic and version, checked above
  auto c = std::make_shared<OcrMlp>();
  c->grid_w = r.U16();
  c->grid_h = r.U16();
  c->interpolation = r.Str();
  c->preprocessing = r.Str();
  c->num_components = int(r.U32());
  c->seed = r.U32();
  for (int i = r.U16(); i > 0; --i) c->feature_names.push_back(r.Str());
  for (int i = r.U16(); i > 0; --i) c->classes.push_back(r.Str());
  c->features = ExpandFeatures(c->feature_names, op);
  auto uses = [&](Feature f) {
    return std::find(c->features.begin(), c->features.end(), f) != c->features.end();
  };
  if (version < 2 && uses(Feature::LineBand))
    throw HException(op, "Feature line_band in a version 1 file: " + path, kErrFileFormat);
  if (version < 3 && uses(Feature::BandPixels))
    throw HException(op, "Feature band_pixels in a version " + std::to_string(version) +
                         " file: " + path, kErrFileFormat);
  if (version < 4 && uses(Feature::LinePitch))
    throw HException(op, "Feature line_pitch in a version " + std::to_string(version) +
                         " file: " + path, kErrFileFormat);
  CvInterpolation(c->interpolation, op);
  Mlp& n = c->net;
  n.n_in = int(r.U32());
  n.n_hidden = int(r.U32());
  n.n_out = int(r.U32());
  if (n.n_in != c->NumInputs() || n.n_out != int(c->classes.size()) || n.n_hidden < 1 ||
      n.n_hidden > 4096 || c->grid_w < 4 || c->grid_h < 4 || c->grid_w > 40 || c->grid_h > 40)
    throw HException(op, "Inconsistent OCR classifier file: " + path, kErrFileFormat);
  n.mean.resize(n.n_in);
  n.inv_std.resize(n.n_in);
  n.w1.resize(n.n_hidden, n.n_in);
  n.b1.resize(n.n_hidden);
  n.w2.resize(n.n_out, n.n_hidden);
  n.b2.resize(n.n_out);
  r.Floats(n.mean.data(), size_t(n.n_in));
  r.Floats(n.inv_std.data(), size_t(n.n_in));
  r.Floats(n.w1.data(), size_t(n.w1.size()));
  r.Floats(n.b1.data(), size_t(n.n_hidden));
  r.Floats(n.w2.data(), size_t(n.w2.size()));
  r.Floats(n.b2.data(), size_t(n.n_out));
  if (!r.AtEnd()) throw HException(op, "Trailing data in OCR classifier file: " + path, kErrFileFormat);
  *ocr_handle = HTuple(HHandle(c));
}

void clear_ocr_class_mlp(const HTuple& ocr_handle) {
  const char* op = "clear_ocr_class_mlp";
  for (Hlong i = 0; i < ocr_handle.Length(); ++i) HandleCast<OcrMlp>(ocr_handle, op, i)->Clear();
}

}  // namespace vision
