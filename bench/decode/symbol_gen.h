#pragma once
// Deterministic camera-like images of 2D codes and bar codes, for the code
// reader's tests and its evaluation set. Symbols come from zxing-cpp's writer
// (and qrencode for Micro QR), are warped, blurred, dimmed and noised with a
// fixed seed, so every run produces the same images.
#include <cstdint>
#include <optional>
#include <string>

#include <opencv2/core.hpp>

#include <ZXing/BarcodeFormat.h>

namespace velmora::symgen {

enum class Kind { DataMatrix, QR, MicroQR, Code39, Code128, Code93, EAN13, EAN8, UPCA, ITF, Codabar };
enum class Grade { Clean, Moderate, Hard };

const char* KindName(Kind k);
// The zxing-cpp format of a kind (the writer's and the direct reader's).
ZXing::BarcodeFormat ZxFormat(Kind k);
const char* GradeName(Grade g);
bool IsLinear(Kind k);

// Modules of one symbol, one pixel per module, 0 = dark, 255 = light, no quiet
// zone; linear codes are one row high. Empty when the writer refuses the text.
cv::Mat SymbolModules(Kind kind, const std::string& text);

// How a symbol is put on the canvas.
struct RenderParams {
  int canvas_w = 640, canvas_h = 480;
  double module_px = 6;        // module (bar) width in pixels
  double bar_height_px = 80;   // linear codes only
  double quiet_modules = 4;    // light margin around the symbol, in modules
  double angle_deg = 0;        // in-plane rotation
  double tilt_x_deg = 0, tilt_y_deg = 0;  // perspective, about the horizontal / vertical axis
  double center_x = 0.5, center_y = 0.5;  // relative position on the canvas
  double dark = 30, light = 220;          // grey levels of dark and light modules
  double background = 150;     // grey level outside the quiet zone
  double blur_sigma = 0;       // Gaussian blur, pixels
  double noise_sigma = 0;      // additive Gaussian noise, grey levels
  double glare = 0;            // peak brightness of a soft highlight
  bool invert = false;         // light modules on dark
  bool mirror = false;         // mirrored symbol (as seen from behind)
  uint32_t seed = 1;           // noise and glare position
};

// Renders the modules as a camera would see them; 8-bit grey canvas.
cv::Mat Render(const cv::Mat& modules, bool linear, const RenderParams& p);

struct Sample {
  Kind kind;
  Grade grade;
  std::string text;   // the text a correct reader returns
  cv::Mat gray;       // 8-bit, canvas size
  RenderParams params;
};

// The index-th sample of a kind and grade; the same arguments always give the
// same image.
Sample MakeSample(Kind kind, Grade grade, int index);

}  // namespace velmora::symgen
