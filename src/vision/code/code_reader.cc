#include "vision/code/code_reader.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include <opencv2/imgproc.hpp>
#include <ZXing/ReadBarcode.h>

namespace vision::code {
namespace {

using Clock = std::chrono::steady_clock;
using ZXing::BarcodeFormat;
using ZXing::BarcodeFormats;

// Upscaled work images beyond this many pixels are skipped: they cost more
// time than any symbol on them is worth and could exhaust memory.
constexpr double kMaxWorkPixels = 12e6;

BarcodeFormats DefaultFormats(Symbology s) {
  switch (s) {
    case Symbology::DataMatrix: return BarcodeFormat::DataMatrix;
    case Symbology::QR: return BarcodeFormat::QRCode;
    case Symbology::MicroQR: return BarcodeFormat::MicroQRCode;
    case Symbology::Linear: return BarcodeFormat::LinearCodes;
  }
  return BarcodeFormat::None;
}

// A prepared image and the map from its pixel coordinates back to the input.
struct Work {
  cv::Mat img;
  cv::Matx33d to_input = cv::Matx33d::eye();
};

cv::Matx33d Scale(double s) { return {s, 0, 0, 0, s, 0, 0, 0, 1}; }
cv::Matx33d Shift(double dx, double dy) { return {1, 0, dx, 0, 1, dy, 0, 0, 1}; }

// Maps the 1st..99th percentile of grey values onto the full range, so that
// a 20 % contrast symbol reaches the binarizers with full swing.
cv::Mat Stretch(const cv::Mat& g) {
  int hist[256] = {0};
  for (int y = 0; y < g.rows; ++y) {
    const uint8_t* p = g.ptr<uint8_t>(y);
    for (int x = 0; x < g.cols; ++x) ++hist[p[x]];
  }
  long total = long(g.rows) * g.cols, lo_n = total / 100, acc = 0;
  int lo = 0, hi = 255;
  for (int v = 0; v < 256; ++v) { acc += hist[v]; if (acc > lo_n) { lo = v; break; } }
  acc = 0;
  for (int v = 255; v >= 0; --v) { acc += hist[v]; if (acc > lo_n) { hi = v; break; } }
  if (hi - lo < 8) return g.clone();
  cv::Mat out;
  g.convertTo(out, CV_8U, 255.0 / (hi - lo), -255.0 * lo / (hi - lo));
  return out;
}

// Maps the darkest percent to black and everything from the median grey up
// to white: a label on a mid-grey part then lies on white ground, which gives
// a linear code printed with a narrow quiet zone the quiet zone it lacks.
cv::Mat GroundStretch(const cv::Mat& g) {
  int hist[256] = {0};
  for (int y = 0; y < g.rows; ++y) {
    const uint8_t* p = g.ptr<uint8_t>(y);
    for (int x = 0; x < g.cols; ++x) ++hist[p[x]];
  }
  const long total = long(g.rows) * g.cols;
  long acc = 0;
  int lo = -1, median = 255;
  for (int v = 0; v < 256; ++v) {
    acc += hist[v];
    if (lo < 0 && acc > total / 100) lo = v;
    if (acc > total / 2) { median = v; break; }
  }
  if (lo < 0 || median - lo < 8) return g.clone();
  cv::Mat out;
  g.convertTo(out, CV_8U, 255.0 / (median - lo), -255.0 * lo / (median - lo));
  return out;
}

// A light border, so that symbols touching the image edge or printed with a
// narrow quiet zone still have one.
Work Pad(Work w, int border, uint8_t value) {
  cv::copyMakeBorder(w.img, w.img, border, border, border, border, cv::BORDER_CONSTANT, cv::Scalar(value));
  w.to_input = w.to_input * Shift(-border, -border);
  return w;
}

bool Upscale(Work& w, int scale) {
  if (scale <= 1) return true;
  if (double(w.img.cols) * w.img.rows * scale * scale > kMaxWorkPixels) return false;
  cv::resize(w.img, w.img, cv::Size(), scale, scale, cv::INTER_CUBIC);
  // Pixel centres: x_in = (x_out + 0.5) / s - 0.5.
  w.to_input = w.to_input * Shift(0.5 / scale - 0.5, 0.5 / scale - 0.5) * Scale(1.0 / scale);
  return true;
}

// Smoothing against sensor noise; linear codes are smoothed along the bars
// only, which keeps their edges sharp.
cv::Mat Smooth(const cv::Mat& g, bool linear) {
  cv::Mat out;
  if (linear)
    cv::blur(g, out, cv::Size(1, 7));
  else
    cv::GaussianBlur(g, out, cv::Size(0, 0), 1.0);
  return out;
}

bool Prepare(const cv::Mat& gray, const Variant& v, Symbology s, bool strict_quiet, Work* w) {
  const bool linear = s == Symbology::Linear;
  w->img = gray;
  w->to_input = cv::Matx33d::eye();
  switch (v.prep) {
    case Variant::Prep::Plain:
      if (v.invert || v.mirror) w->img = gray.clone();
      break;
    case Variant::Prep::Stretch:
      w->img = Stretch(gray);
      break;
    case Variant::Prep::Smooth:
      w->img = Stretch(Smooth(gray, linear));
      break;
    case Variant::Prep::Ground:
      w->img = GroundStretch(Smooth(gray, linear));
      break;
    case Variant::Prep::Threshold: {
      cv::Mat sm = Smooth(gray, linear), bin;
      int block = std::max(15, (std::min(gray.cols, gray.rows) / 16) | 1);
      cv::adaptiveThreshold(sm, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block, 2);
      w->img = bin;
      break;
    }
    default:
      return false;
  }
  if (!Upscale(*w, v.scale)) return false;
  if (v.invert) cv::bitwise_not(w->img, w->img);
  if (v.prep != Variant::Prep::Plain && !(linear && strict_quiet)) {
    int border = std::max(8, 6 * v.scale);
    *w = Pad(std::move(*w), border, 255);
  }
  if (v.mirror) {
    cv::flip(w->img, w->img, 1);
    w->to_input = w->to_input * cv::Matx33d(-1, 0, w->img.cols - 1, 0, 1, 0, 0, 0, 1);
  }
  return true;
}

double QuadContrast(const cv::Mat& gray, const std::array<cv::Point2d, 4>& q) {
  cv::Rect box = cv::boundingRect(std::vector<cv::Point2f>{q[0], q[1], q[2], q[3]}) & cv::Rect(0, 0, gray.cols, gray.rows);
  if (box.area() <= 0) return 0;
  cv::Mat roi = gray(box);
  int hist[256] = {0};
  for (int y = 0; y < roi.rows; ++y)
    for (int x = 0; x < roi.cols; ++x) ++hist[roi.at<uint8_t>(y, x)];
  long n = long(box.area()), cut = n / 10, acc = 0;
  int lo = 0, hi = 255;
  for (int v = 0; v < 256; ++v) { acc += hist[v]; if (acc > cut) { lo = v; break; } }
  acc = 0;
  for (int v = 255; v >= 0; --v) { acc += hist[v]; if (acc > cut) { hi = v; break; } }
  return hi - lo;
}

// A dark symbol's outermost modules (Data Matrix finder edges, QR finder
// rings) are darker than the quiet zone just outside them; a light symbol's
// are lighter. Decoders may read either polarity whatever the preparation, so
// the polarity is measured on the input. The ring outside stays within about
// one module, so a narrow quiet zone is enough. Returns -1 when the outline is
// too small to tell.
int MeasuredInversion(const cv::Mat& gray, const std::array<cv::Point2d, 4>& q) {
  cv::Point2d c = (q[0] + q[1] + q[2] + q[3]) * 0.25;
  auto scaled = [&](double f) {
    std::vector<cv::Point> pts;
    for (const auto& p : q) pts.emplace_back(cv::Point(int(std::lround(c.x + (p.x - c.x) * f)), int(std::lround(c.y + (p.y - c.y) * f))));
    return pts;
  };
  auto outer = scaled(1.1);
  cv::Rect box = cv::boundingRect(outer) & cv::Rect(0, 0, gray.cols, gray.rows);
  if (box.area() < 64 || cv::contourArea(scaled(1.0)) < 64) return -1;
  cv::Mat edge(box.size(), CV_8U, cv::Scalar(0)), ring(box.size(), CV_8U, cv::Scalar(0));
  auto fill = [&](cv::Mat& m, std::vector<cv::Point> pts, int v) {
    for (auto& p : pts) p -= box.tl();
    cv::fillConvexPoly(m, pts, cv::Scalar(v));
  };
  fill(edge, scaled(0.97), 255);
  fill(edge, scaled(0.85), 0);
  fill(ring, outer, 255);
  fill(ring, scaled(1.03), 0);
  if (cv::countNonZero(edge) == 0 || cv::countNonZero(ring) == 0) return -1;
  return cv::mean(gray(box), ring)[0] < cv::mean(gray(box), edge)[0] ? 1 : 0;
}

cv::Point2d Apply(const cv::Matx33d& m, double x, double y) {
  cv::Vec3d p = m * cv::Vec3d(x, y, 1);
  return {p[0] / p[2], p[1] / p[2]};
}

Found FromResult(const ZXing::Result& r, const Work& w, const Variant& v) {
  Found f;
  f.text = r.text();
  f.format = int(r.format());
  const auto& pos = r.position();
  for (int i = 0; i < 4; ++i) f.corners[i] = Apply(w.to_input, pos[i].x, pos[i].y);
  f.inverted = v.invert;
  f.mirrored = v.mirror != r.isMirrored();
  return f;
}

// `also`: linear formats read besides the requested ones, so that a symbol
// of another kind is recognised as such (reported in `others`, accepted like
// the rest) and painted over instead of ending the look.
std::vector<Found> Zxing(const Work& w, const Variant& v, Symbology s, BarcodeFormats formats, int max_results,
                         const std::function<bool(const Found&)>& accept = nullptr, BarcodeFormats also = {},
                         std::vector<Found>* others = nullptr, std::vector<Found>* accepted = nullptr) {
  std::vector<Found> out;
  if (w.img.empty() || w.img.cols < 3 || w.img.rows < 3) return out;
  ZXing::DecodeHints hints;
  hints.setFormats(formats | also).setTryHarder(!v.quick).setTryRotate(true).setTryDownscale(true);
  hints.setBinarizer(v.prep == Variant::Prep::Threshold || v.fixed_binarizer ? ZXing::Binarizer::FixedThreshold
                     : v.global_binarizer               ? ZXing::Binarizer::GlobalHistogram
                                                        : ZXing::Binarizer::LocalAverage);
  if (s != Symbology::Linear) {
    ZXing::ImageView view(w.img.data, w.img.cols, w.img.rows, ZXing::ImageFormat::Lum, int(w.img.step));
    hints.setMaxNumberOfSymbols(uint8_t(max_results <= 0 ? 255 : std::min(max_results, 255)));
    for (const auto& r : ZXing::ReadBarcodes(view, hints))
      if (r.isValid() && formats.testFlag(r.format())) out.push_back(FromResult(r, w, v));
    return out;
  }
  // Linear codes are read one at a time: zxing-cpp 1.4 asserts when it
  // merges a linear symbol found twice (on two pyramid levels or twice in one
  // image). Each symbol read is painted over before the next look.
  hints.setTryDownscale(false).setMaxNumberOfSymbols(1);
  // The quick look scans too few lines to find every symbol.
  if (max_results != 1) hints.setTryHarder(true);
  cv::Mat img = w.img;
  const int limit = max_results <= 0 ? 8 : std::min(max_results, 8);
  for (int n = 0; n < limit; ++n) {
    ZXing::ImageView view(img.data, img.cols, img.rows, ZXing::ImageFormat::Lum, int(img.step));
    ZXing::Result r = ZXing::ReadBarcode(view, hints);
    if (!r.isValid() || !(formats | also).testFlag(r.format())) break;
    // Codes without a mandatory check character must agree on three scan
    // lines, not two, before they count.
    const bool weak = r.format() == BarcodeFormat::Code39 || r.format() == BarcodeFormat::Codabar ||
                      r.format() == BarcodeFormat::ITF;
    if (weak && r.lineCount() < 3) {
      // zxing stops at two lines: ask again for this format alone, with three.
      ZXing::DecodeHints strict = hints;
      strict.setFormats(r.format()).setMinLineCount(3);
      ZXing::Result again = ZXing::ReadBarcode(view, strict);
      if (!again.isValid() || again.text() != r.text()) break;
    }
    Found f = FromResult(r, w, v);
    if (!accept || accept(f)) {
      if (accepted) accepted->push_back(f);
      if (formats.testFlag(r.format())) out.push_back(std::move(f));
      else if (others) others->push_back(std::move(f));
    }
    if (n + 1 == limit) break;
    if (img.data == w.img.data) img = w.img.clone();
    const auto& pos = r.position();
    cv::Point2f a(float(pos[0].x), float(pos[0].y)), b(float(pos[1].x), float(pos[1].y));
    cv::Point2f along = b - a, across(-along.y * 0.6f, along.x * 0.6f);
    std::vector<cv::Point> band{a - along * 0.05f + across, b + along * 0.05f + across,
                                b + along * 0.05f - across, a - along * 0.05f - across};
    cv::fillConvexPoly(img, band, cv::Scalar(255));
  }
  return out;
}

// Textured blobs that may hold a symbol, as rotated rectangles in input
// coordinates, largest first.
std::vector<cv::RotatedRect> Candidates(const cv::Mat& gray, bool linear) {
  std::vector<cv::RotatedRect> out;
  if (gray.cols < 16 || gray.rows < 16) return out;
  double f = std::min(1.0, 800.0 / std::max(gray.cols, gray.rows));
  cv::Mat small;
  if (f < 1) cv::resize(gray, small, cv::Size(), f, f, cv::INTER_AREA); else small = gray;
  cv::Mat sm, grad, mask;
  cv::GaussianBlur(small, sm, cv::Size(0, 0), 1.2);
  cv::morphologyEx(sm, grad, cv::MORPH_GRADIENT, cv::getStructuringElement(cv::MORPH_RECT, {3, 3}));
  cv::blur(grad, grad, cv::Size(7, 7));
  cv::threshold(grad, mask, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
  cv::morphologyEx(mask, mask, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_RECT, {9, 9}));
  cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, {5, 5}));
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);
  std::vector<std::pair<double, cv::RotatedRect>> scored;
  const double img_area = double(small.cols) * small.rows;
  for (const auto& c : contours) {
    double a = cv::contourArea(c);
    if (a < 120 || a > 0.6 * img_area) continue;
    cv::RotatedRect r = cv::minAreaRect(c);
    double lo = std::min(r.size.width, r.size.height), hi = std::max(r.size.width, r.size.height);
    if (lo < 8 || (!linear && hi > 4 * lo)) continue;
    // Solid blobs fill their rectangle; thin streaks (edges of objects) do not.
    if (a < 0.5 * r.size.area()) continue;
    r.center = cv::Point2f(float((r.center.x + 0.5) / f - 0.5), float((r.center.y + 0.5) / f - 0.5));
    r.size = cv::Size2f(float(r.size.width / f), float(r.size.height / f));
    scored.push_back({a, r});
  }
  std::sort(scored.begin(), scored.end(), [](auto& a, auto& b) { return a.first > b.first; });
  for (size_t i = 0; i < scored.size() && i < 4; ++i) out.push_back(scored[i].second);
  return out;
}

// The candidate cut out, turned upright and enlarged so that its shorter side
// is about `target` pixels.
// With `clear_outside`, everything beyond the candidate's own rectangle is
// set to white: a symbol printed with too narrow a quiet zone gets one.
Work CropCandidate(const cv::Mat& gray, const cv::RotatedRect& r, double target, bool clear_outside = false) {
  double w = r.size.width * 1.35 + 8, h = r.size.height * 1.35 + 8;
  double s = std::clamp(target / std::min(w, h), 1.0, 4.0);
  int ow = int(std::ceil(w * s)), oh = int(std::ceil(h * s));
  // output = S * R(-angle) * (input - centre) + half size
  double a = -r.angle * CV_PI / 180, ca = std::cos(a), sa = std::sin(a);
  cv::Matx33d to_out(s * ca, -s * sa, 0, s * sa, s * ca, 0, 0, 0, 1);
  to_out = Shift(ow / 2.0, oh / 2.0) * to_out * Shift(-r.center.x, -r.center.y);
  Work wk;
  cv::Matx23d m(to_out(0, 0), to_out(0, 1), to_out(0, 2), to_out(1, 0), to_out(1, 1), to_out(1, 2));
  cv::warpAffine(gray, wk.img, cv::Mat(m), cv::Size(ow, oh), cv::INTER_CUBIC, cv::BORDER_REPLICATE);
  wk.img = Stretch(wk.img);
  if (clear_outside) {
    int mw = int(r.size.width * s / 2 + 2 * s), mh = int(r.size.height * s / 2 + 2 * s);
    cv::Mat keep(wk.img.size(), CV_8U, cv::Scalar(0));
    cv::rectangle(keep, cv::Point(ow / 2 - mw, oh / 2 - mh), cv::Point(ow / 2 + mw, oh / 2 + mh), cv::Scalar(255), cv::FILLED);
    wk.img.setTo(255, ~keep);
  }
  wk.to_input = to_out.inv();
  return wk;
}

// A bar-like region cut out upright (bars vertical), its own ground beyond
// its bars: the light level inside it fills everything outside the region,
// so a symbol whose narrow quiet zone meets a darker part (where the
// decoder, wanting ten modules, sees none) gets a wide one, while its faint
// narrow bars keep their grey. The whole-symbol checks on the input image
// still decide whether what reads here is whole.
Work RegionCrop(const cv::Mat& gray, const BarRegion& r, bool invert, int scale) {
  constexpr int kMargin = 24;
  const int w = int(std::ceil(2 * r.half_length)) + 2 * kMargin, h = int(std::ceil(2 * r.half_height)) + 2 * kMargin;
  // crop -> input: x along the normal (across the bars), y along the bars.
  const cv::Point2d n = r.normal, t(-n.y, n.x);
  const cv::Point2d origin = r.center - n * (w / 2.0) - t * (h / 2.0);
  const cv::Matx33d to_input(n.x, t.x, origin.x, n.y, t.y, origin.y, 0, 0, 1);
  Work wk;
  cv::warpAffine(gray, wk.img, cv::Mat(cv::Matx23d(n.x, t.x, origin.x, n.y, t.y, origin.y)), cv::Size(w, h),
                 cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
  if (invert) cv::bitwise_not(wk.img, wk.img);
  cv::Rect inside(kMargin, kMargin, w - 2 * kMargin, h - 2 * kMargin);
  // The region's own light ground fills everything beyond the label: a
  // part as dark as the bars right after a narrow quiet zone (inside the
  // region's rough ends) would be taken for one more bar.
  const auto [left, right] = LabelEdges(wk.img, inside);
  if (left > inside.x) inside.width -= left - inside.x, inside.x = left;
  if (right < inside.x + inside.width) inside.width = right - inside.x;
  if (inside.width < 16) return Work{};
  const cv::Mat roi = wk.img(inside);
  std::vector<uint8_t> v(roi.begin<uint8_t>(), roi.end<uint8_t>());
  if (v.empty()) return wk;
  std::nth_element(v.begin(), v.begin() + long(v.size() * 9 / 10), v.end());
  const uint8_t light = v[v.size() * 9 / 10];
  cv::Mat keep(wk.img.size(), CV_8U, cv::Scalar(0));
  keep(inside).setTo(255);
  wk.img.setTo(light, ~keep);
  wk.img = Stretch(wk.img);
  wk.to_input = to_input;
  Upscale(wk, scale);
  return wk;
}

bool Allowed(const Variant& v, const ReadRequest& req) {
  if (req.polarity == Polarity::DarkOnLight && v.invert) return false;
  if (req.polarity == Polarity::LightOnDark && !v.invert && v.prep != Variant::Prep::Candidates &&
      v.prep != Variant::Prep::Dmtx)
    return false;
  if (req.mirror == Mirror::No && v.mirror) return false;
  if (!req.allow_upscale && v.scale > 1) return false;
  return true;
}

std::vector<Variant> BuildVariants(Symbology s) {
  using P = Variant::Prep;
  std::vector<Variant> v;
  auto both = [&](Variant x) {
    v.push_back(x);
    x.invert = true;
    v.push_back(x);
  };
  Variant quick;
  quick.quick = true;
  if (s == Symbology::Linear) {
    // Light bars on dark ground (laser marking on metal, dark plastic) are
    // as common as printed labels: every preparation comes in both
    // polarities, the inverted one right after its twin.
    both(quick);
    both({P::Plain});
    both({P::Stretch});
    both({P::Smooth});
    both({P::Smooth, 2});
    both({P::Threshold});
    Variant fixed;
    fixed.fixed_binarizer = true;
    both(fixed);
    fixed.global_binarizer = true;
    fixed.fixed_binarizer = false;
    both(fixed);
    v.push_back({P::Ground});
    v.push_back({P::Ground, 2});
    both({P::Region});
    Variant region{P::Region};
    region.fixed_binarizer = true;
    both(region);
    v.push_back({P::Candidates});
    return v;
  }
  v.push_back(quick);
  v.push_back({P::Plain});
  both({P::Stretch});
  both({P::Stretch, 2});
  both({P::Smooth, 2});
  v.push_back({P::Candidates});
  both({P::Stretch, 1, false, false, true});
  both({P::Threshold, 2});
  both({P::Stretch, 3});
  if (s == Symbology::DataMatrix) {
    both({P::Stretch, 1, false, true});
    both({P::Stretch, 2, false, true});
    v.push_back({P::Dmtx});
  }
  return v;
}

}  // namespace

// The profile across the bars, from the middle half of the region's
// height (a label's top and bottom edges stay out of it).
std::pair<int, int> LabelEdges(const cv::Mat& img, const cv::Rect& inside) {
  std::pair<int, int> out(0, img.cols);
  const cv::Range rows(inside.y + inside.height / 4, inside.y + 3 * inside.height / 4);
  if (rows.size() < 2 || inside.width < 16) return out;
  cv::Mat prof;
  cv::reduce(img.rowRange(rows), prof, 0, cv::REDUCE_AVG, CV_32F);
  const float* pv = prof.ptr<float>(0);
  std::vector<float> sorted(pv + inside.x, pv + inside.x + inside.width);
  std::sort(sorted.begin(), sorted.end());
  const float lo = sorted[sorted.size() / 10], hi = sorted[sorted.size() * 9 / 10];
  if (hi - lo < 8) return out;
  const float mid = 0.5f * (lo + hi);
  struct Run { int begin, end; bool dark; };
  std::vector<Run> runs;
  for (int x = 0; x < img.cols; ++x) {
    const bool dark = pv[x] < mid;
    if (runs.empty() || runs.back().dark != dark) runs.push_back({x, x + 1, dark});
    else runs.back().end = x + 1;
  }
  // The narrow element: the lower quartile of the runs within the crop.
  std::vector<int> widths;
  for (size_t k = 1; k + 1 < runs.size(); ++k) widths.push_back(runs[k].end - runs[k].begin);
  if (widths.size() < 8) return out;
  std::nth_element(widths.begin(), widths.begin() + long(widths.size() / 4), widths.end());
  const int narrow = widths[widths.size() / 4];
  // The part: a dark run from the crop's end, far wider than any element,
  // after a light margin of at least four narrow elements (a quiet zone).
  auto part = [&](const Run& dark, const Run& margin) {
    return dark.dark && dark.end - dark.begin >= std::max(8, 6 * narrow) && margin.end - margin.begin >= 4 * narrow;
  };
  const int centre = img.cols / 2;
  if (part(runs[0], runs[1]) && runs[0].end <= centre) out.first = runs[0].end;
  if (part(runs.back(), runs[runs.size() - 2]) && runs.back().begin >= centre) out.second = runs.back().begin;
  return out;
}

std::vector<BarRegion> BarCandidateRegions(const cv::Mat& gray) {
  std::vector<BarRegion> out;
  if (gray.cols < 16 || gray.rows < 16) return out;
  // Larger images are looked at reduced, but never so far that 1.5-pixel
  // bars would merge.
  cv::Mat reduced, g;
  const double f = std::min(1.0, 1024.0 / std::max(gray.cols, gray.rows));
  if (f < 1) cv::resize(gray, reduced, cv::Size(), f, f, cv::INTER_AREA);
  cv::GaussianBlur(f < 1 ? reduced : gray, g, cv::Size(3, 3), 0.8);  // never in place: the caller's image
  // Per window of 16 x 16 pixels, at steps of one 4 x 4 cell: the structure
  // tensor (one dominant edge direction?), the mean gradient vector against
  // the mean gradient length (do the edges alternate in sign, as a bar's two
  // edges do, or is it one edge?), and the mean gradient length itself
  // (against noise). The Sobel gradients are summed per cell in one pass
  // over the image, which keeps this near a millisecond on a camera frame.
  constexpr int kCell = 4;
  const cv::Size cells(g.cols / kCell, g.rows / kCell);
  cv::Mat gx(cells, CV_32F, cv::Scalar(0)), gy = gx.clone(), gxx = gx.clone(), gyy = gx.clone(), gxy = gx.clone(),
          mag = gx.clone();
  std::vector<float> rx(size_t(g.cols)), ry(size_t(g.cols)), rm(size_t(g.cols));
  for (int y = 1; y + 1 < cells.height * kCell; ++y) {
    const uint8_t *up = g.ptr<uint8_t>(y - 1), *mid = g.ptr<uint8_t>(y), *dn = g.ptr<uint8_t>(y + 1);
    for (int x = 1; x + 1 < g.cols; ++x) {
      const int sx = (up[x + 1] + 2 * mid[x + 1] + dn[x + 1]) - (up[x - 1] + 2 * mid[x - 1] + dn[x - 1]);
      const int sy = (dn[x - 1] + 2 * dn[x] + dn[x + 1]) - (up[x - 1] + 2 * up[x] + up[x + 1]);
      rx[size_t(x)] = float(sx), ry[size_t(x)] = float(sy);
      rm[size_t(x)] = std::sqrt(float(sx * sx + sy * sy));
    }
    float *cx = gx.ptr<float>(y / kCell), *cy = gy.ptr<float>(y / kCell), *cxx = gxx.ptr<float>(y / kCell),
          *cyy = gyy.ptr<float>(y / kCell), *cxy = gxy.ptr<float>(y / kCell), *cm = mag.ptr<float>(y / kCell);
    for (int x = 1; x + 1 < cells.width * kCell; ++x) {
      const int c = x / kCell;
      const float ax = rx[size_t(x)], ay = ry[size_t(x)];
      cx[c] += ax, cy[c] += ay, cxx[c] += ax * ax, cyy[c] += ay * ay, cxy[c] += ax * ay, cm[c] += rm[size_t(x)];
    }
  }
  // Windows of 4 x 4 cells: sums over 256 pixels.
  for (cv::Mat* m : {&gx, &gy, &gxx, &gyy, &gxy, &mag}) cv::boxFilter(*m, *m, -1, cv::Size(4, 4), cv::Point(-1, -1), false);
  cv::Mat hit(cells, CV_8U, cv::Scalar(0));
  for (int y = 0; y < cells.height; ++y) {
    const float *px = gx.ptr<float>(y), *py = gy.ptr<float>(y), *pxx = gxx.ptr<float>(y), *pyy = gyy.ptr<float>(y),
                *pxy = gxy.ptr<float>(y), *pm = mag.ptr<float>(y);
    uint8_t* out = hit.ptr<uint8_t>(y);
    for (int x = 0; x < cells.width; ++x) {
      // A contrast of about 12 grey levels over bars of a few pixels.
      if (pm[x] < 12.0f * 256) continue;
      const float e = pxx[x] + pyy[x];
      const float d = std::sqrt((pxx[x] - pyy[x]) * (pxx[x] - pyy[x]) + 4 * pxy[x] * pxy[x]);
      const float coherence = d / std::max(e, 1e-3f);
      const float cancel = std::sqrt(px[x] * px[x] + py[x] * py[x]) / pm[x];
      out[x] = coherence > 0.5f && cancel < 0.4f ? 255 : 0;
    }
  }
  // A symbol is a patch of such windows that reaches far along its edges'
  // common normal: many bars side by side. A drawn line, a scratch or the
  // rim of a part is as coherent and alternating, but only a few windows
  // across, however long it is. The patch's spread along the normal is
  // taken from its own shape (the principal axis nearer the normal), which
  // a slightly wrong normal on a long line does not inflate.
  cv::Mat labels;
  const int n = cv::connectedComponents(hit, labels, 8, CV_32S);
  if (n <= 1) return out;
  struct Patch { double jxx = 0, jyy = 0, jxy = 0, sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0; int area = 0; };
  std::vector<Patch> patches(static_cast<size_t>(n));
  for (int y = 0; y < cells.height; ++y)
    for (int x = 0; x < cells.width; ++x)
      if (const int l = labels.at<int>(y, x); l > 0) {
        Patch& p = patches[size_t(l)];
        p.jxx += gxx.at<float>(y, x), p.jyy += gyy.at<float>(y, x), p.jxy += gxy.at<float>(y, x);
        p.sx += x, p.sy += y, p.sxx += double(x) * x, p.syy += double(y) * y, p.sxy += double(x) * y;
        ++p.area;
      }
  for (const Patch& p : patches) {
    if (p.area < 12) continue;
    const double t = 0.5 * std::atan2(2 * p.jxy, p.jxx - p.jyy);  // mean gradient direction
    const double mx = p.sx / p.area, my = p.sy / p.area;
    const double cxx = p.sxx / p.area - mx * mx, cyy = p.syy / p.area - my * my, cxy = p.sxy / p.area - mx * my;
    // The shape's principal axes: an elongated patch is a symbol only when
    // one of them follows the normal (a symbol's length runs across its
    // bars), and the spread is taken along that axis; a roundish patch is
    // measured along the normal itself.
    const double a = 0.5 * std::atan2(2 * cxy, cxx - cyy);
    const double ca = std::cos(a), sa = std::sin(a);
    const double var_a = cxx * ca * ca + 2 * cxy * ca * sa + cyy * sa * sa;
    const double var_b = cxx * sa * sa - 2 * cxy * ca * sa + cyy * ca * ca;
    const double off = std::abs(std::remainder(t - a, CV_PI / 2));  // normal to nearest axis
    const bool along_a = std::abs(std::remainder(t - a, CV_PI)) <= CV_PI / 4;
    double spread;
    if (std::max(var_a, var_b) < 2 * std::min(var_a, var_b)) {
      const double ct = std::cos(t), st = std::sin(t);
      spread = cxx * ct * ct + 2 * cxy * ct * st + cyy * st * st;
    } else if (off <= 20 * CV_PI / 180) {
      spread = along_a ? var_a : var_b;
    } else {
      continue;
    }
    if (spread < 2.0 * 2.0) continue;
    // In input pixels: the window of cell (x, y) is centred on pixel
    // (kCell * x, kCell * y) of the reduced image.
    const double across = std::max(0.0, cxx + cyy - spread);  // variance along the bars
    BarRegion r;
    r.center = cv::Point2d(kCell * mx / f, kCell * my / f);
    r.normal = cv::Point2d(std::cos(t), std::sin(t));
    r.half_length = (std::sqrt(3 * spread) * kCell + 8) / f;
    r.half_height = (std::sqrt(3 * across) * kCell + 8) / f;
    out.push_back(r);
  }
  // A symbol whose wide elements break the chain of windows shows as
  // several patches in a row: patches with one bar direction, on one line
  // along it and closer than their bars are high are one symbol.
  for (bool merged = true; merged;) {
    merged = false;
    for (size_t i = 0; i < out.size() && !merged; ++i)
      for (size_t j = i + 1; j < out.size() && !merged; ++j) {
        BarRegion& a = out[i].half_length >= out[j].half_length ? out[i] : out[j];
        const BarRegion& b = &a == &out[i] ? out[j] : out[i];
        const cv::Point2d d = b.center - a.center;
        const double along = d.dot(a.normal), side = std::abs(d.x * a.normal.y - d.y * a.normal.x);
        const double height = std::min(a.half_height, b.half_height);
        if (std::abs(a.normal.dot(b.normal)) < 0.996 || side > 0.5 * height ||
            std::abs(along) - a.half_length - b.half_length > height)
          continue;
        const double lo = std::min(-a.half_length, along - b.half_length), hi = std::max(a.half_length, along + b.half_length);
        a.center += a.normal * (0.5 * (lo + hi));
        a.half_length = 0.5 * (hi - lo);
        a.half_height = std::max(a.half_height, b.half_height);
        out.erase(out.begin() + long(&a == &out[i] ? j : i));
        merged = true;
      }
  }
  return out;
}

bool HasBarCandidate(const cv::Mat& gray) { return !BarCandidateRegions(gray).empty(); }

bool Explains(const Found& f, const BarRegion& r) {
  const cv::Point2d a = (f.corners[0] + f.corners[3]) * 0.5, b = (f.corners[1] + f.corners[2]) * 0.5;
  const double len = cv::norm(b - a);
  if (len < 1) return false;
  const cv::Point2d dir = (b - a) / len, rel = r.center - a;
  const double along = rel.dot(dir), off = std::abs(rel.x * dir.y - rel.y * dir.x);
  // The symbol runs across the region's bars, through its middle, and is
  // about as long as the region is.
  return std::abs(dir.dot(r.normal)) > 0.8 && along > -0.25 * len && along < 1.25 * len &&
         off <= r.half_height + 8 && len >= 0.5 * r.half_length;
}

std::string ReadAlongLine(const cv::Mat& gray, const Found& f, double offset, double margin, double element) {
  const cv::Point2d a = (f.corners[0] + f.corners[3]) * 0.5, b = (f.corners[1] + f.corners[2]) * 0.5;
  const double len = cv::norm(b - a);
  if (len < 8) return {};
  const cv::Point2d dir = (b - a) / len, across(-dir.y, dir.x);
  // Five lines one pixel apart, centred on the shifted line, in the
  // symbol's own upright frame: x along the scan line from `margin` before
  // its start. Averaged into one profile, they are one scan line with less
  // noise; outside the image counts as light ground.
  constexpr int kRows = 5;
  const int w = int(std::ceil(len + 2 * margin));
  const cv::Point2d origin = a - dir * margin + across * (offset - (kRows - 1) / 2);
  const cv::Matx23d m(dir.x, across.x, origin.x, dir.y, across.y, origin.y);  // strip -> image
  cv::Mat lines, profile;
  cv::warpAffine(gray, lines, cv::Mat(m), cv::Size(w, kRows), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                 cv::BORDER_CONSTANT, cv::Scalar(f.inverted ? 0 : 255));
  cv::reduce(lines, profile, 0, cv::REDUCE_AVG);
  if (f.inverted) cv::bitwise_not(profile, profile);
  // The decoder wants a few rows and a light margin beyond the ends; after
  // the stretch the fixed mid-grey threshold suits a single profile best, the
  // adaptive binarizers see too little of the image to settle.
  ZXing::DecodeHints hints;
  hints.setFormats(BarcodeFormat(f.format)).setTryHarder(true).setTryRotate(false).setTryDownscale(false);
  auto read = [&](cv::Mat line, int scale, ZXing::Binarizer bin) {
    cv::Mat strip;
    if (scale > 1) cv::resize(line, line, cv::Size(), scale, 1, cv::INTER_CUBIC);
    cv::repeat(line, 8, 1, strip);
    cv::copyMakeBorder(strip, strip, 0, 0, 16 * scale, 16 * scale, cv::BORDER_CONSTANT, cv::Scalar(255));
    hints.setBinarizer(bin);
    ZXing::ImageView view(strip.data, strip.cols, strip.rows, ZXing::ImageFormat::Lum, int(strip.step));
    const ZXing::Result r = ZXing::ReadBarcode(view, hints);
    return r.isValid() ? r.text() : std::string();
  };
  // Narrow elements of two pixels or less read better enlarged (cubic
  // interpolation keeps their grey dips apart).
  for (int scale : {1, 2})
    for (auto bin : {ZXing::Binarizer::FixedThreshold, ZXing::Binarizer::LocalAverage})
      if (std::string t = read(Stretch(profile), scale, bin); !t.empty()) return t;
  // Glare and fading move the levels along the line: each sample set
  // between the darkest and the lightest value within four elements either
  // side (a window that holds a bar and a space wherever it lies inside a
  // symbol; flat, it is quiet zone and counts as light).
  const int half = std::max(3, int(std::lround(4 * element)));
  cv::Mat lo, hi, levelled(1, profile.cols, CV_8U);
  const cv::Mat window = cv::Mat::ones(1, 2 * half + 1, CV_8U);
  cv::erode(profile, lo, window, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
  cv::dilate(profile, hi, window, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
  for (int x = 0; x < profile.cols; ++x) {
    const int l = lo.at<uint8_t>(0, x), h = hi.at<uint8_t>(0, x), v = profile.at<uint8_t>(0, x);
    levelled.at<uint8_t>(0, x) = h - l < 8 ? 255 : uint8_t(255 * (v - l) / (h - l));
  }
  for (int scale : {1, 2})
    if (std::string t = read(levelled, scale, ZXing::Binarizer::FixedThreshold); !t.empty()) return t;
  return {};
}

std::string Variant::Name() const {
  static const char* kPrep[] = {"plain", "stretch", "smooth", "threshold", "candidates", "dmtx", "ground", "region"};
  std::string n = kPrep[int(prep)];
  if (scale > 1) n += "_x" + std::to_string(scale);
  if (global_binarizer) n += "_global";
  if (fixed_binarizer) n += "_fixed";
  if (quick) n += "_quick";
  if (invert) n += "_inverted";
  if (mirror) n += "_mirrored";
  return n;
}

const std::vector<Variant>& Variants(Symbology s) {
  static const std::vector<Variant> kDm = BuildVariants(Symbology::DataMatrix);
  static const std::vector<Variant> kQr = BuildVariants(Symbology::QR);
  static const std::vector<Variant> kMqr = BuildVariants(Symbology::MicroQR);
  static const std::vector<Variant> kLin = BuildVariants(Symbology::Linear);
  switch (s) {
    case Symbology::DataMatrix: return kDm;
    case Symbology::QR: return kQr;
    case Symbology::MicroQR: return kMqr;
    case Symbology::Linear: return kLin;
  }
  return kQr;
}

std::vector<Found> ReadCodes(const cv::Mat& gray, const ReadRequest& req) {
  std::vector<Found> found;
  if (gray.empty() || gray.type() != CV_8UC1) return found;
  const auto start = Clock::now();
  auto elapsed_ms = [&] { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); };
  const BarcodeFormats formats = req.formats ? BarcodeFormats(BarcodeFormat(req.formats)) : DefaultFormats(req.symbology);
  const auto& variants = Variants(req.symbology);
  const bool linear = req.symbology == Symbology::Linear;

  std::vector<int> order;
  const bool trained_first = req.first_variant >= 0 && req.first_variant < int(variants.size()) &&
                             Allowed(variants[req.first_variant], req);
  if (trained_first) order.push_back(req.first_variant);
  for (int i = 0; i < int(variants.size()); ++i)
    if (i != req.first_variant && Allowed(variants[i], req)) order.push_back(i);
  if (linear && req.prefer != Polarity::Any) {
    // The trained polarity's preparations before the other polarity's.
    const bool inv = req.prefer == Polarity::LightOnDark;
    std::stable_partition(order.begin() + (trained_first ? 1 : 0), order.end(),
                          [&](int i) { return variants[i].invert == inv || variants[i].prep == Variant::Prep::Candidates; });
  }
  // Nothing bar-like in the image: no preparation would find a symbol, and
  // answering at once is what a camera frame without a code deserves.
  std::vector<BarRegion> regions;
  bool looked = false;
  auto look = [&] {
    if (looked) return;
    looked = true;
    regions = req.known_regions ? *req.known_regions : BarCandidateRegions(gray);
    if (req.regions_seen) *req.regions_seen = regions;
  };
  if (linear && req.stop_without_candidates) {
    look();
    if (regions.empty()) {
      if (req.no_candidates) *req.no_candidates = true;
      return found;
    }
  }
  // Symbols of linear kinds not asked for: once every bar-like region holds
  // one of them (or one asked for), there is nothing left to find.
  BarcodeFormats also;
  if (!regions.empty())
    for (BarcodeFormat f : BarcodeFormats(BarcodeFormat::LinearCodes))
      if (!formats.testFlag(f)) also |= f;
  std::vector<Found> others;
  auto all_explained = [&] {
    return std::all_of(regions.begin(), regions.end(), [&](const BarRegion& r) {
      return std::any_of(others.begin(), others.end(), [&](const Found& f) { return Explains(f, r); }) ||
             std::any_of(found.begin(), found.end(), [&](const Found& f) { return Explains(f, r); });
    });
  };

  size_t accepted = 0;  // symbols the decoder read and `accept` let through
  auto add = [&](std::vector<Found> fs, int idx) {
    accepted += fs.size();
    for (auto& f : fs) {
      bool dup = std::any_of(found.begin(), found.end(), [&](const Found& o) {
        // Linear symbols are reported as scan lines: one read again further
        // along its bars lies within its own length.
        double reach = linear ? 0.6 * cv::norm(o.corners[1] - o.corners[0]) : 20;
        return o.text == f.text && cv::norm(o.corners[0] - f.corners[0]) < reach + 20 &&
               cv::norm(o.corners[2] - f.corners[2]) < reach + 20;
      });
      if (dup) continue;
      f.variant = idx;
      f.contrast = QuadContrast(gray, f.corners);
      if (!linear) {
        int inv = MeasuredInversion(gray, f.corners);
        if (inv >= 0) f.inverted = inv == 1;
        if ((req.polarity == Polarity::DarkOnLight && f.inverted) || (req.polarity == Polarity::LightOnDark && !f.inverted))
          continue;
      }
      found.push_back(std::move(f));
    }
  };
  auto enough = [&] { return !found.empty() && (req.max_results <= 0 || int(found.size()) >= req.max_results); };

  for (size_t k = 0; k < order.size(); ++k) {
    if (k > 0 && req.timeout_ms > 0 && elapsed_ms() > req.timeout_ms) break;
    const int idx = order[k];
    const Variant& v = variants[idx];
    const PreparationRead* known = nullptr;
    if (req.known_reads)
      for (const PreparationRead& r : *req.known_reads)
        if (r.variant == idx) known = &r;
    if (known && known->accepted.empty()) continue;
    const size_t accepted_before = accepted + others.size();
    bool complete = true;  // every form of the preparation was read
    std::vector<Found> in_order;  // what a single-image preparation accepted
    if (known) {
      // The decoder would read the same symbols again: only `accept` is
      // asked again, as it may let through fewer now.
      std::vector<Found> fs;
      for (const Found& f : known->accepted)
        if (!req.accept || req.accept(f)) (formats.testFlag(BarcodeFormat(f.format)) ? fs : others).push_back(f);
      add(std::move(fs), idx);
      complete = false;
    } else if (v.prep == Variant::Prep::Candidates) {
      std::vector<std::pair<cv::RotatedRect, bool>> crops;
      for (const auto& c : Candidates(gray, linear)) {
        crops.push_back({c, false});
        if (linear) crops.push_back({c, true});
      }
      // Each crop as it is, smoothed against noise, and Otsu-binarized: the
      // cut-out is small enough for one global threshold to fit it.
      std::vector<std::pair<Work, bool>> forms;
      for (const auto& [c, clear] : crops) {
        Work base = CropCandidate(gray, c, linear ? 120 : 240, clear);
        Work smooth{cv::Mat(), base.to_input}, binary{cv::Mat(), base.to_input};
        cv::GaussianBlur(base.img, smooth.img, cv::Size(0, 0), 1.0);
        cv::threshold(base.img, binary.img, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
        forms.push_back({std::move(base), false});
        if (!linear) forms.push_back({std::move(smooth), true});
        forms.push_back({std::move(binary), true});
      }
      for (const auto& [base, extra] : forms) {
        if (extra && req.timeout_ms > 0 && elapsed_ms() > req.timeout_ms) {
          complete = false;
          break;
        }
        // Both inversions: the polarity of what is read is measured, not assumed.
        for (int inv = 0; inv < 2; ++inv) {
          // A linear symbol's polarity is that of the crop it was read on.
          if (linear && ((inv && req.polarity == Polarity::DarkOnLight) || (!inv && req.polarity == Polarity::LightOnDark)))
            continue;
          for (int mir = 0; mir < (req.symbology == Symbology::DataMatrix && req.mirror != Mirror::No ? 2 : 1); ++mir) {
            Variant cv_ = v;
            cv_.invert = inv;
            cv_.mirror = mir;
            Work w{base.img.clone(), base.to_input};
            if (inv) cv::bitwise_not(w.img, w.img);
            w = Pad(std::move(w), 16, 255);
            if (mir) {
              cv::flip(w.img, w.img, 1);
              w.to_input = w.to_input * cv::Matx33d(-1, 0, w.img.cols - 1, 0, 1, 0, 0, 0, 1);
            }
            add(Zxing(w, cv_, req.symbology, formats, req.max_results, req.accept, also, &others), idx);
            if (enough() || (found.empty() && !others.empty() && all_explained())) return found;
          }
        }
        if (req.timeout_ms > 0 && elapsed_ms() > req.timeout_ms) {
          complete = false;
          break;
        }
      }
    } else if (v.prep == Variant::Prep::Region) {
      look();
      for (const BarRegion& r : regions) {
        Work w = RegionCrop(gray, r, v.invert, v.scale);
        if (w.img.empty()) continue;
        add(Zxing(w, v, req.symbology, formats, req.max_results, req.accept, also, &others), idx);
        if (enough()) return found;
      }
    } else if (v.prep == Variant::Prep::Dmtx) {
      double budget = req.timeout_ms > 0 ? std::max(50.0, req.timeout_ms - elapsed_ms()) : 1000.0;
      budget = std::min(budget, 600.0);
      std::vector<Found> fs;
      // libdmtx is slow on whole frames: give it the candidates first, enlarged.
      for (const auto& c : Candidates(gray, false)) {
        Work base = CropCandidate(gray, c, 160);
        base = Pad(std::move(base), 12, 255);
        for (int mir = 0; mir < (req.mirror != Mirror::No ? 2 : 1) && fs.empty(); ++mir) {
          for (int inv = 0; inv < 2 && fs.empty(); ++inv) {
            if ((inv && req.polarity == Polarity::DarkOnLight) || (!inv && req.polarity == Polarity::LightOnDark)) continue;
            Work w{base.img.clone(), base.to_input};
            if (inv) cv::bitwise_not(w.img, w.img);
            if (mir) {
              cv::flip(w.img, w.img, 1);
              w.to_input = w.to_input * cv::Matx33d(-1, 0, w.img.cols - 1, 0, 1, 0, 0, 0, 1);
            }
            auto r = ReadDataMatrixDmtx(w.img, budget / 4);
            for (auto& f : r) {
              for (auto& p : f.corners) p = Apply(w.to_input, p.x, p.y);
              f.inverted = inv;
              f.mirrored = mir;
              fs.push_back(f);
            }
          }
        }
        if (!fs.empty() || elapsed_ms() > req.timeout_ms + budget) break;
      }
      add(std::move(fs), idx);
    } else {
      Work w;
      if (!Prepare(gray, v, req.symbology, req.strict_quiet_zone, &w)) continue;
      add(Zxing(w, v, req.symbology, formats, req.max_results, req.accept, also, &others, &in_order), idx);
      if (linear && req.reads_seen && !in_order.empty()) req.reads_seen->push_back({idx, std::move(in_order)});
    }
    if (linear && req.reads_seen && complete && accepted + others.size() == accepted_before)
      req.reads_seen->push_back({idx, {}});
    if (enough()) break;
    if (found.empty() && !others.empty() && all_explained()) break;
    // One preparation that read something ends the search even when fewer
    // than max_results were found: the others would only find the same ones.
    if (!found.empty()) break;
  }
  return found;
}

}  // namespace vision::code
