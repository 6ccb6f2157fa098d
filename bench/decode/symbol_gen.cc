#include "symbol_gen.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

namespace velmora::symgen {
namespace {


// zxing-cpp 1.4 cannot write Micro QR; qrencode can, as text art with two
// characters per module.
cv::Mat MicroQrModules(const std::string& text) {
  for (char c : text)
    if (!std::isalnum(static_cast<unsigned char>(c))) return {};
  std::string cmd = "qrencode -M -m 0 -t ASCII -o - '" + text + "' 2>/dev/null";
  FILE* f = popen(cmd.c_str(), "r");
  if (!f) return {};
  std::vector<std::string> lines;
  std::array<char, 1024> buf{};
  while (fgets(buf.data(), int(buf.size()), f)) {
    std::string l(buf.data());
    while (!l.empty() && (l.back() == '\n' || l.back() == '\r')) l.pop_back();
    if (!l.empty()) lines.push_back(l);
  }
  pclose(f);
  if (lines.empty()) return {};
  int n = int(lines.size());
  cv::Mat m(n, n, CV_8U, cv::Scalar(255));
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n && 2 * x < int(lines[y].size()); ++x)
      if (lines[y][2 * x] == '#') m.at<uint8_t>(y, x) = 0;
  return m;
}

int Ean13Check(const std::string& d) {
  int s = 0;
  for (size_t i = 0; i < d.size(); ++i) s += (d[d.size() - 1 - i] - '0') * (i % 2 == 0 ? 3 : 1);
  return (10 - s % 10) % 10;
}

std::string RandomText(std::mt19937& rng, const std::string& alphabet, int min_len, int max_len) {
  std::uniform_int_distribution<int> len(min_len, max_len);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  std::string s(size_t(len(rng)), ' ');
  for (auto& c : s) c = alphabet[pick(rng)];
  return s;
}

const std::string kDigits = "0123456789";
const std::string kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
const std::string kMixed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-./:+ ";

// The text to encode and the text a reader reports for it.
std::pair<std::string, std::string> MakeText(Kind k, std::mt19937& rng) {
  switch (k) {
    case Kind::DataMatrix: { auto t = RandomText(rng, kMixed, 4, 30); return {t, t}; }
    case Kind::QR: { auto t = RandomText(rng, kMixed, 4, 40); return {t, t}; }
    case Kind::MicroQR: { auto t = RandomText(rng, kUpper, 3, 12); return {t, t}; }
    case Kind::Code39: { auto t = RandomText(rng, kUpper + "-", 4, 10); return {t, t}; }
    case Kind::Code93: { auto t = RandomText(rng, kUpper, 4, 10); return {t, t}; }
    case Kind::Code128: { auto t = RandomText(rng, kMixed, 4, 12); return {t, t}; }
    case Kind::EAN13: {
      auto t = std::string(1, char('1' + rng() % 9)) + RandomText(rng, kDigits, 11, 11);
      return {t, t + char('0' + Ean13Check(t))};
    }
    case Kind::EAN8: { auto t = RandomText(rng, kDigits, 7, 7); return {t, t + char('0' + Ean13Check(t))}; }
    case Kind::UPCA: { auto t = RandomText(rng, kDigits, 11, 11); return {t, t + char('0' + Ean13Check(t))}; }
    case Kind::ITF: { auto t = RandomText(rng, kDigits, 3, 7); t += t; return {t, t}; }
    case Kind::Codabar: { auto t = RandomText(rng, kDigits, 4, 12); return {"A" + t + "B", t}; }
  }
  return {};
}

double U(std::mt19937& rng, double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); }
bool Chance(std::mt19937& rng, double p) { return U(rng, 0, 1) < p; }

}  // namespace

ZXing::BarcodeFormat ZxFormat(Kind k) {
  using F = ZXing::BarcodeFormat;
  switch (k) {
    case Kind::DataMatrix: return F::DataMatrix;
    case Kind::QR: return F::QRCode;
    case Kind::MicroQR: return F::MicroQRCode;
    case Kind::Code39: return F::Code39;
    case Kind::Code128: return F::Code128;
    case Kind::Code93: return F::Code93;
    case Kind::EAN13: return F::EAN13;
    case Kind::EAN8: return F::EAN8;
    case Kind::UPCA: return F::UPCA;
    case Kind::ITF: return F::ITF;
    case Kind::Codabar: return F::Codabar;
  }
  return F::None;
}

const char* KindName(Kind k) {
  switch (k) {
    case Kind::DataMatrix: return "Data Matrix";
    case Kind::QR: return "QR Code";
    case Kind::MicroQR: return "Micro QR";
    case Kind::Code39: return "Code 39";
    case Kind::Code128: return "Code 128";
    case Kind::Code93: return "Code 93";
    case Kind::EAN13: return "EAN-13";
    case Kind::EAN8: return "EAN-8";
    case Kind::UPCA: return "UPC-A";
    case Kind::ITF: return "ITF";
    case Kind::Codabar: return "Codabar";
  }
  return "?";
}

const char* GradeName(Grade g) {
  return g == Grade::Clean ? "clean" : g == Grade::Moderate ? "moderate" : "hard";
}

bool IsLinear(Kind k) { return k != Kind::DataMatrix && k != Kind::QR && k != Kind::MicroQR; }

cv::Mat SymbolModules(Kind kind, const std::string& text) {
  if (kind == Kind::MicroQR) return MicroQrModules(text);
  try {
    auto bits = ZXing::MultiFormatWriter(ZxFormat(kind)).setMargin(0).encode(text, 0, 0);
    int h = IsLinear(kind) ? 1 : bits.height();
    cv::Mat m(h, bits.width(), CV_8U);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < bits.width(); ++x) m.at<uint8_t>(y, x) = bits.get(x, y) ? 0 : 255;
    return m;
  } catch (const std::exception&) {
    return {};
  }
}

cv::Mat Render(const cv::Mat& modules, bool linear, const RenderParams& p) {
  const double dark = p.invert ? p.light : p.dark, light = p.invert ? p.dark : p.light;
  int q = int(std::ceil(p.quiet_modules));
  cv::Mat sym;
  cv::copyMakeBorder(modules, sym, linear ? 0 : q, linear ? 0 : q, q, q, cv::BORDER_CONSTANT, cv::Scalar(255));
  if (p.mirror) cv::flip(sym, sym, 1);
  cv::Mat lv(sym.size(), CV_8U);
  for (int y = 0; y < sym.rows; ++y)
    for (int x = 0; x < sym.cols; ++x)
      lv.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>(sym.at<uint8_t>(y, x) ? light : dark);

  // Symbol plane in pixels, centred, rotated in 3D and projected by a pinhole
  // camera; supersampled 3x so that module edges are anti-aliased.
  const int ss = 3;
  double w = sym.cols * p.module_px, h = linear ? p.bar_height_px : sym.rows * p.module_px;
  double f = 1200.0 * ss;
  double ax = p.tilt_x_deg * CV_PI / 180, ay = p.tilt_y_deg * CV_PI / 180, az = p.angle_deg * CV_PI / 180;
  cv::Matx33d rx(1, 0, 0, 0, std::cos(ax), -std::sin(ax), 0, std::sin(ax), std::cos(ax));
  cv::Matx33d ry(std::cos(ay), 0, std::sin(ay), 0, 1, 0, -std::sin(ay), 0, std::cos(ay));
  cv::Matx33d rz(std::cos(az), -std::sin(az), 0, std::sin(az), std::cos(az), 0, 0, 0, 1);
  cv::Matx33d r = rz * ry * rx;
  double cx = p.center_x * p.canvas_w * ss, cy = p.center_y * p.canvas_h * ss;
  // Outer pixel edges of the module image (pixel centres lie at integers).
  const float x0 = -0.5f, y0 = -0.5f, x1 = float(sym.cols) - 0.5f, y1 = float(sym.rows) - 0.5f;
  std::array<cv::Point2f, 4> src{cv::Point2f(x0, y0), cv::Point2f(x1, y0), cv::Point2f(x1, y1), cv::Point2f(x0, y1)};
  std::array<cv::Point2f, 4> dst;
  for (int i = 0; i < 4; ++i) {
    cv::Vec3d pt(((src[i].x + 0.5) / sym.cols - 0.5) * w * ss, ((src[i].y + 0.5) / sym.rows - 0.5) * h * ss, 0);
    cv::Vec3d c = r * pt;
    double z = c[2] + f;
    dst[i] = cv::Point2f(float(f * c[0] / z + cx), float(f * c[1] / z + cy));
  }
  cv::Mat hm = cv::getPerspectiveTransform(src.data(), dst.data());
  cv::Mat big(p.canvas_h * ss, p.canvas_w * ss, CV_8U, cv::Scalar(cv::saturate_cast<uint8_t>(p.background)));
  cv::warpPerspective(lv, big, hm, big.size(), cv::INTER_NEAREST, cv::BORDER_TRANSPARENT);
  cv::Mat img;
  cv::resize(big, img, cv::Size(p.canvas_w, p.canvas_h), 0, 0, cv::INTER_AREA);

  cv::Mat fimg;
  img.convertTo(fimg, CV_32F);
  std::mt19937 rng(p.seed);
  if (p.glare > 0) {
    double gx = U(rng, 0.2, 0.8) * p.canvas_w, gy = U(rng, 0.2, 0.8) * p.canvas_h, gs = U(rng, 60, 140);
    for (int y = 0; y < fimg.rows; ++y)
      for (int x = 0; x < fimg.cols; ++x) {
        double d2 = (x - gx) * (x - gx) + (y - gy) * (y - gy);
        fimg.at<float>(y, x) += float(p.glare * std::exp(-d2 / (2 * gs * gs)));
      }
  }
  if (p.blur_sigma > 0) cv::GaussianBlur(fimg, fimg, cv::Size(0, 0), p.blur_sigma);
  if (p.noise_sigma > 0) {
    cv::Mat noise(fimg.size(), CV_32F);
    cv::RNG noise_rng(uint64_t(p.seed) * 2654435761u + 1);
    noise_rng.fill(noise, cv::RNG::NORMAL, 0, p.noise_sigma);
    fimg += noise;
  }
  fimg.convertTo(img, CV_8U);
  return img;
}

Sample MakeSample(Kind kind, Grade grade, int index) {
  uint32_t seed = uint32_t(int(kind) * 1000003 + int(grade) * 7919 + index * 31 + 12345);
  std::mt19937 rng(seed);
  Sample s{kind, grade, {}, {}, {}};
  auto [encode, expect] = MakeText(kind, rng);
  cv::Mat modules = SymbolModules(kind, encode);
  if (modules.empty()) throw std::runtime_error(std::string("cannot encode ") + KindName(kind) + " '" + encode + "'");
  s.text = expect;
  RenderParams& p = s.params;
  p.seed = seed;
  const bool linear = IsLinear(kind);
  double contrast;
  switch (grade) {
    case Grade::Clean:
      p.module_px = linear ? U(rng, 2.5, 4) : U(rng, 4, 7);
      p.angle_deg = linear ? U(rng, -2, 2) : U(rng, -10, 10);
      contrast = U(rng, 0.7, 0.85);
      p.blur_sigma = 0.4;
      p.noise_sigma = 2;
      p.quiet_modules = linear ? 10 : (kind == Kind::MicroQR ? 2 : 4);
      break;
    case Grade::Moderate:
      p.module_px = linear ? U(rng, 2, 3) : U(rng, 3, 5);
      p.angle_deg = linear ? U(rng, -4, 4) : U(rng, 0, 360);
      p.tilt_x_deg = U(rng, -15, 15);
      p.tilt_y_deg = linear ? U(rng, -8, 8) : U(rng, -15, 15);
      contrast = U(rng, 0.4, 0.7);
      p.blur_sigma = U(rng, 0.5, 0.9);
      p.noise_sigma = U(rng, 3, 6);
      p.glare = U(rng, 0, 40);
      p.quiet_modules = linear ? 6 : 2;
      p.invert = !linear && Chance(rng, 0.2);
      p.mirror = kind == Kind::DataMatrix && Chance(rng, 0.15);
      break;
    case Grade::Hard:
    default:
      p.module_px = linear ? U(rng, 2, 2.6) : U(rng, 2, 4);
      p.angle_deg = linear ? U(rng, -6, 6) : U(rng, 0, 360);
      p.tilt_x_deg = U(rng, -30, 30);
      p.tilt_y_deg = linear ? U(rng, -15, 15) : U(rng, -30, 30);
      contrast = U(rng, 0.2, 0.45);
      p.blur_sigma = std::min(U(rng, 0.7, 1.2), 0.45 * p.module_px);
      p.noise_sigma = U(rng, 3, 7);
      p.glare = U(rng, 20, 60);
      p.quiet_modules = linear ? 3 : 1;
      p.invert = !linear && Chance(rng, 0.25);
      p.mirror = kind == Kind::DataMatrix && Chance(rng, 0.2);
      break;
  }
  // Keep the whole symbol on the canvas.
  double extent_modules = modules.cols + 2 * p.quiet_modules;
  double max_extent = linear ? 0.85 * p.canvas_w : 0.6 * p.canvas_h;
  if (extent_modules * p.module_px > max_extent) p.module_px = max_extent / extent_modules;
  p.bar_height_px = U(rng, 50, 100);
  double mid = U(rng, 100, 150);
  p.dark = mid - contrast * 127;
  p.light = mid + contrast * 127;
  p.background = U(rng, 90, 200);
  p.center_x = U(rng, 0.4, 0.6);
  p.center_y = U(rng, 0.4, 0.6);
  s.gray = Render(modules, linear, p);
  return s;
}

}  // namespace velmora::symgen
