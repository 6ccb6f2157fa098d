#include "vision/window/window.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>

#include <opencv2/imgproc.hpp>

#include "vision/core/param.h"
#include "vision/window/color.h"
#include "vision/window/font.h"
#include "vision/window/system_query.h"

namespace vision {
namespace {

// Coordinates far outside any canvas are clamped before they become integers,
// so that absurd parts or positions cannot overflow.
int ClampToInt(double v) {
  constexpr double kLimit = 1 << 30;
  return int(std::clamp(v, -kLimit, kLimit));
}
int FloorInt(double v) { return ClampToInt(std::floor(v)); }
int RoundInt(double v) { return ClampToInt(std::round(v)); }

constexpr const char* kDefaultFont = "-*-courier-medium-r-normal-*-16-*-*-*-*-*-*-*";
constexpr int kMaxWindowSide = 16384;
// The reference's number for "mouse pointer outside of the window".
constexpr int kErrMouseOutside = 5104;

struct PresenterSlot {
  std::mutex mu;
  std::shared_ptr<WindowPresenter> presenter;
};

PresenterSlot& Presenters() {
  static PresenterSlot slot;
  return slot;
}

std::shared_ptr<WindowPresenter> CurrentPresenter() {
  auto& s = Presenters();
  std::lock_guard lk(s.mu);
  return s.presenter;
}

uint64_t NextWindowId() {
  static std::atomic<uint64_t> next{1};
  return next++;
}

class Window;

// Windows by id, so that the GUI can report the pointer by the id it knows.
struct WindowRegistry {
  std::mutex mu;
  std::map<uint64_t, std::weak_ptr<Window>> windows;
};

WindowRegistry& Registry() {
  static WindowRegistry r;
  return r;
}

class Window final : public HandleBase {
 public:
  Window(int row, int column, int width, int height, bool visible)
      : id(NextWindowId()), visible(visible), row(row), column(column),
        canvas(height, width, CV_8UC3, cv::Scalar::all(0)),
        pr2(height - 1), pc2(width - 1) {}
  ~Window() override {
    {
      auto& r = Registry();
      std::lock_guard lk(r.mu);
      r.windows.erase(id);
    }
    if (!cleared_ && visible)
      if (auto p = CurrentPresenter()) p->WindowClosed(id);
  }
  const char* TypeName() const override { return "window"; }
  void Clear() override {
    bool notify;
    {
      std::lock_guard lk(mu);
      notify = !cleared_ && visible;
      cleared_ = true;
      canvas.release();
      font.reset();
    }
    if (notify)
      if (auto p = CurrentPresenter()) p->WindowClosed(id);
  }

  int Width() const { return canvas.cols; }
  int Height() const { return canvas.rows; }
  double ScaleY() const { return Height() / (pr2 - pr1 + 1); }
  double ScaleX() const { return Width() / (pc2 - pc1 + 1); }
  // Window coordinates of the centre of image pixel (r, c).
  cv::Point2d CentreOf(double r, double c) const {
    return {(c - pc1 + 0.5) * ScaleX() - 0.5, (r - pr1 + 0.5) * ScaleY() - 0.5};
  }
  const Font& CurrentFont(const char* op) {
    if (!font) {
      try {
        font = Font::Load(font_name, op);
      } catch (const HException&) {
        // A system without the courier metric clones still has some
        // monospaced font; only the default may fall back to it.
        if (font_name != kDefaultFont) throw;
        font = Font::Load("mono-16", op);
      }
    }
    return *font;
  }

  std::mutex mu;
  const uint64_t id;
  const bool visible;
  const int row, column;
  cv::Mat canvas;  // CV_8UC3, red first
  double pr1 = 0, pc1 = 0, pr2, pc2;
  std::vector<Rgba> colors{Rgba{255, 255, 255, 255}};
  bool fill = true;
  double line_width = 1;
  std::string font_name = kDefaultFont;
  std::optional<Font> font;
  double trow = 0, tcol = 0;
  // Pointer as the GUI last reported it (window pixels).
  bool mouse_inside = false;
  double mouse_x = 0, mouse_y = 0;
  int mouse_button = 0;
};


// Locks the window of a handle for one operator and, when the operator changed
// the canvas of a visible window, hands a copy to the presenter afterwards
// (outside the lock, so that the presenter may call back into the library).
class Access {
 public:
  Access(const HTuple& handle, const char* op, bool draws = false)
      : w_(HandleCast<Window>(handle, op)), lk_(w_->mu), draws_(draws),
        exceptions_(std::uncaught_exceptions()) {
    if (w_->IsCleared()) throw HException(op, "Handle has been cleared", kErrHandle);
  }
  ~Access() noexcept(false) {
    // A failed operator shows nothing.
    if (!draws_ || !w_->visible || std::uncaught_exceptions() > exceptions_) return;
    auto presenter = CurrentPresenter();
    if (!presenter || !FlushGraphicEnabled()) return;
    cv::Mat copy = w_->canvas.clone();
    uint64_t id = w_->id;
    lk_.unlock();
    presenter->WindowChanged(id, copy);
  }
  Window* operator->() const { return w_; }
  Window& operator*() const { return *w_; }

 private:
  Window* w_;
  std::unique_lock<std::mutex> lk_;
  bool draws_;
  int exceptions_;
};

// Text of one tuple element, as the text operators print values.
std::string ElementText(const HTuple& t, Hlong i) {
  if (t.IsString(i)) return t.S(i);
  if (t.IsInt(i)) return std::to_string(t.L(i));
  if (t.IsReal(i)) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", t.D(i));
    return buf;
  }
  return "<handle>";
}

// Window mask of a region under the current image part: a window pixel is
// set when the image pixel whose scaled area covers its centre belongs to the
// region. `pad` extra pixels are added on each side (for margin drawing).
cv::Mat RegionMask(const Window& w, const Region& region, int pad = 0) {
  const int H = w.Height(), W = w.Width();
  cv::Mat mask(H + 2 * pad, W + 2 * pad, CV_8UC1, cv::Scalar(0));
  if (region.Empty()) return mask;
  const double sy = w.ScaleY(), sx = w.ScaleX();
  const auto& runs = region.Runs();
  int prev_row = INT32_MIN;
  for (int y = -pad; y < H + pad; ++y) {
    const int r = FloorInt(w.pr1 + (y + 0.5) / sy);
    uint8_t* dst = mask.ptr<uint8_t>(y + pad);
    if (r == prev_row) {  // upscaled parts repeat the row above
      std::copy_n(mask.ptr<uint8_t>(y + pad - 1), mask.cols, dst);
      continue;
    }
    prev_row = r;
    auto it = std::lower_bound(runs.begin(), runs.end(), r,
                               [](const Run& a, int row) { return a.row < row; });
    for (; it != runs.end() && it->row == r; ++it) {
      double x0 = std::ceil((it->cb - w.pc1) * sx - 0.5);
      double x1 = std::ceil((double(it->ce) + 1 - w.pc1) * sx - 0.5) - 1;
      x0 = std::max(x0, double(-pad));
      x1 = std::min(x1, double(W + pad - 1));
      if (x1 >= x0) std::fill(dst + int(x0) + pad, dst + int(x1) + pad + 1, uint8_t(255));
    }
  }
  return mask;
}

void PaintMask(Window& w, const cv::Mat& mask, const Rgba& c) {
  if (c.a == 255) {
    w.canvas.setTo(cv::Scalar(c.r, c.g, c.b), mask);
    return;
  }
  const double a = c.a / 255.0;
  for (int y = 0; y < mask.rows; ++y) {
    const uint8_t* m = mask.ptr<uint8_t>(y);
    auto* p = w.canvas.ptr<cv::Vec3b>(y);
    for (int x = 0; x < mask.cols; ++x)
      if (m[x])
        p[x] = cv::Vec3b(uint8_t(std::lround(c.r * a + p[x][0] * (1 - a))),
                         uint8_t(std::lround(c.g * a + p[x][1] * (1 - a))),
                         uint8_t(std::lround(c.b * a + p[x][2] * (1 - a))));
  }
}

void DrawRegion(Window& w, const Region& region, const Rgba& c) {
  if (w.fill) {
    PaintMask(w, RegionMask(w, region), c);
    return;
  }
  const int lw = std::max(1, RoundInt(w.line_width));
  cv::Mat mask = RegionMask(w, region, lw);
  cv::Mat inner;
  cv::erode(mask, inner, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * lw + 1, 2 * lw + 1)),
            cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::Mat edge = mask & ~inner;
  PaintMask(w, edge(cv::Rect(lw, lw, w.Width(), w.Height())), c);
}

cv::Scalar ScalarOf(const Rgba& c) { return cv::Scalar(c.r, c.g, c.b); }

int Thickness(const Window& w) { return std::max(1, RoundInt(w.line_width)); }

// One plane as bytes: byte images as they are, others scaled from their
// value range onto 0..255.
cv::Mat BytePlane(const cv::Mat& plane) {
  if (plane.depth() == CV_8U) return plane;
  double lo = 0, hi = 0;
  cv::minMaxLoc(plane, &lo, &hi);
  cv::Mat out;
  double scale = hi > lo ? 255.0 / (hi - lo) : 0;
  plane.convertTo(out, CV_8U, scale, -lo * scale);
  return out;
}

void DrawImage(Window& w, const Image& img, bool color, const char* op) {
  if (img.type == PixelType::VectorField)
    throw HException(op, "Vector field images cannot be displayed", kErrWrongObject);
  if (img.planes.empty()) throw HException(op, "Image has no channels", kErrEmptyInput);
  const bool rgb = color && img.planes.size() >= 3;
  if (color && !rgb) throw HException(op, "Three-channel image expected", kErrWrongObject);
  cv::Mat p[3];
  for (int k = 0; k < 3; ++k) p[k] = BytePlane(img.planes[rgb ? k : 0]);
  const int H = w.Height(), W = w.Width();
  const double sy = w.ScaleY(), sx = w.ScaleX();
  std::vector<int> cols(size_t(W), -1);
  for (int x = 0; x < W; ++x) {
    int c = FloorInt(w.pc1 + (x + 0.5) / sx);
    if (c >= 0 && c < img.width) cols[size_t(x)] = c;
  }
  cv::Mat domain = RegionMask(w, img.domain);
  for (int y = 0; y < H; ++y) {
    int r = FloorInt(w.pr1 + (y + 0.5) / sy);
    if (r < 0 || r >= img.height) continue;
    const uint8_t* m = domain.ptr<uint8_t>(y);
    auto* dst = w.canvas.ptr<cv::Vec3b>(y);
    const uint8_t *s0 = p[0].ptr<uint8_t>(r), *s1 = p[1].ptr<uint8_t>(r), *s2 = p[2].ptr<uint8_t>(r);
    for (int x = 0; x < W; ++x) {
      int c = cols[size_t(x)];
      if (c >= 0 && m[x]) dst[x] = cv::Vec3b(s0[c], s1[c], s2[c]);
    }
  }
}

}  // namespace

void SetWindowPresenter(std::shared_ptr<WindowPresenter> presenter) {
  auto& s = Presenters();
  std::lock_guard lk(s.mu);
  s.presenter = std::move(presenter);
}

void open_window(const HTuple& row, const HTuple& column, const HTuple& width,
                 const HTuple& height, const HTuple& father_window, const HTuple& mode,
                 const HTuple& machine, HTuple* window_handle) {
  const char* op = "open_window";
  (void)machine;
  int r = int(ParamIntIn(row, op, "Row", -kMaxWindowSide, 1 << 20));
  int c = int(ParamIntIn(column, op, "Column", -kMaxWindowSide, 1 << 20));
  int w = int(ParamIntIn(width, op, "Width", -1, kMaxWindowSide));
  int h = int(ParamIntIn(height, op, "Height", -1, kMaxWindowSide));
  // -1 asks for the default size, as in the reference.
  if (w == -1) w = 512;
  if (h == -1) h = 512;
  if (w < 1 || h < 1 || w > kMaxWindowSide || h > kMaxWindowSide)
    throw HException(op, "Wrong value of control parameter Width/Height", kErrWrongParamValue);
  const std::string& m = ParamString(mode, op, "Mode");
  if (m != "visible" && m != "invisible" && m != "buffer" && m != "transparent")
    throw HException(op, "Wrong value of control parameter Mode: " + m, kErrWrongParamValue);
  bool visible = m == "visible" || m == "transparent";
  // A father given as an integer is a view of the GUI that embeds the window.
  int64_t father = 0;
  if (father_window.Length() == 1 && father_window.IsInt(0)) father = father_window.L(0);
  auto win = std::make_shared<Window>(r, c, w, h, visible);
  {
    auto& reg = Registry();
    std::lock_guard lk(reg.mu);
    reg.windows[win->id] = win;
  }
  if (visible)
    if (auto p = CurrentPresenter()) {
      if (father != 0) p->WindowOpenedIn(win->id, father, r, c, w, h);
      else p->WindowOpened(win->id, r, c, w, h);
    }
  *window_handle = HTuple(HHandle(win));
}

uint64_t WindowId(const HTuple& window_handle) {
  return HandleCast<Window>(window_handle, "window")->id;
}

void SetWindowMouse(uint64_t id, bool inside, double x, double y, int button) {
  std::shared_ptr<Window> w;
  {
    auto& reg = Registry();
    std::lock_guard lk(reg.mu);
    auto it = reg.windows.find(id);
    if (it != reg.windows.end()) w = it->second.lock();
  }
  if (!w) return;
  std::lock_guard lk(w->mu);
  w->mouse_inside = inside;
  w->mouse_x = x;
  w->mouse_y = y;
  w->mouse_button = button;
}

void DrawIntoWindow(const HTuple& window_handle, const char* op,
                    const std::function<void(WindowCanvas&)>& draw) {
  Access w(window_handle, op, true);
  WindowCanvas c{w->canvas, w->pr1, w->pc1, w->ScaleY(), w->ScaleX()};
  draw(c);
}

void get_mposition_sub_pix(const HTuple& window_handle, HTuple* row, HTuple* column,
                           HTuple* button) {
  const char* op = "get_mposition_sub_pix";
  Access w(window_handle, op);
  if (!w->mouse_inside || w->mouse_x < 0 || w->mouse_y < 0 || w->mouse_x >= w->Width() ||
      w->mouse_y >= w->Height())
    throw HException(op, "Mouse pointer is not inside the window", kErrMouseOutside);
  // Window pixel centres map back onto image coordinates through the part.
  *row = HTuple(w->pr1 + (w->mouse_y + 0.5) / w->ScaleY() - 0.5);
  *column = HTuple(w->pc1 + (w->mouse_x + 0.5) / w->ScaleX() - 0.5);
  *button = HTuple(w->mouse_button);
}

void close_window(const HTuple& window_handle) {
  HandleCast<Window>(window_handle, "close_window")->Clear();
}

void clear_window(const HTuple& window_handle) {
  Access w(window_handle, "clear_window", true);
  w->canvas.setTo(cv::Scalar::all(0));
}

void set_part(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
              const HTuple& row2, const HTuple& column2) {
  const char* op = "set_part";
  double r1 = ParamReal(row1, op, "Row1"), c1 = ParamReal(column1, op, "Column1");
  double r2 = ParamReal(row2, op, "Row2"), c2 = ParamReal(column2, op, "Column2");
  if (r2 < r1 || c2 < c1)
    throw HException(op, "Wrong value of control parameter: the part is empty", kErrWrongParamValue);
  Access w(window_handle, op);
  w->pr1 = r1;
  w->pc1 = c1;
  w->pr2 = r2;
  w->pc2 = c2;
}

void get_part(const HTuple& window_handle, HTuple* row1, HTuple* column1, HTuple* row2,
              HTuple* column2) {
  Access w(window_handle, "get_part");
  // Whole-pixel parts come back as integers, as they were most likely given.
  auto out = [](double v) { return v == std::floor(v) ? HTuple(Hlong(v)) : HTuple(v); };
  *row1 = out(w->pr1);
  *column1 = out(w->pc1);
  *row2 = out(w->pr2);
  *column2 = out(w->pc2);
}

void get_window_extents(const HTuple& window_handle, HTuple* row, HTuple* column, HTuple* width,
                        HTuple* height) {
  Access w(window_handle, "get_window_extents");
  *row = HTuple(w->row);
  *column = HTuple(w->column);
  *width = HTuple(w->Width());
  *height = HTuple(w->Height());
}

void set_color(const HTuple& window_handle, const HTuple& color) {
  const char* op = "set_color";
  ParamCount(color, op, "Color", 1, -1);
  std::vector<Rgba> colors;
  for (Hlong i = 0; i < color.Length(); ++i) {
    auto c = ParseColor(ParamString(color, op, "Color", i));
    if (!c) ThrowParamValue(op, "Color", "'" + color.S(i) + "'");
    colors.push_back(*c);
  }
  Access w(window_handle, op);
  w->colors = std::move(colors);
}

void set_rgb(const HTuple& window_handle, const HTuple& red, const HTuple& green,
             const HTuple& blue) {
  const char* op = "set_rgb";
  Hlong n = red.Length();
  if (n == 0 || green.Length() != n || blue.Length() != n)
    throw HException(op, "Wrong number of values of control parameters Red/Green/Blue", kErrWrongParamCount);
  std::vector<Rgba> colors;
  for (Hlong i = 0; i < n; ++i) {
    const Hlong v[3] = {ParamIntIn(red, op, "Red", 0, 255, i), ParamIntIn(green, op, "Green", 0, 255, i),
                        ParamIntIn(blue, op, "Blue", 0, 255, i)};
    colors.push_back(Rgba{uint8_t(v[0]), uint8_t(v[1]), uint8_t(v[2]), 255});
  }
  Access w(window_handle, op);
  w->colors = std::move(colors);
}

void get_rgb(const HTuple& window_handle, HTuple* red, HTuple* green, HTuple* blue) {
  Access w(window_handle, "get_rgb");
  HTuple r, g, b;
  for (const Rgba& c : w->colors) {
    r.Append(HValue(Hlong(c.r)));
    g.Append(HValue(Hlong(c.g)));
    b.Append(HValue(Hlong(c.b)));
  }
  *red = r;
  *green = g;
  *blue = b;
}

void set_draw(const HTuple& window_handle, const HTuple& mode) {
  const char* op = "set_draw";
  const std::string& m = ParamString(mode, op, "Mode");
  if (m != "fill" && m != "margin")
    throw HException(op, "Wrong value of control parameter Mode: " + m, kErrWrongParamValue);
  Access w(window_handle, op);
  w->fill = m == "fill";
}

void get_draw(const HTuple& window_handle, HTuple* mode) {
  Access w(window_handle, "get_draw");
  *mode = HTuple(w->fill ? "fill" : "margin");
}

void set_line_width(const HTuple& window_handle, const HTuple& width) {
  const char* op = "set_line_width";
  double v = ParamReal(width, op, "Width");
  if (v < 1 || v > 2000) throw HException(op, "Wrong value of control parameter Width", kErrWrongParamValue);
  Access w(window_handle, op);
  w->line_width = v;
}

void get_line_width(const HTuple& window_handle, HTuple* width) {
  Access w(window_handle, "get_line_width");
  double v = w->line_width;
  *width = v == std::floor(v) ? HTuple(Hlong(v)) : HTuple(v);
}

void disp_region(const HObject& regions, const HTuple& window_handle) {
  const char* op = "disp_region";
  Access w(window_handle, op, true);
  for (long i = 0; i < regions.Count(); ++i)
    DrawRegion(*w, regions.RegionOrDomainAt(i, op), w->colors[size_t(i) % w->colors.size()]);
}

void disp_image(const HObject& image, const HTuple& window_handle) {
  const char* op = "disp_image";
  Access w(window_handle, op, true);
  for (long i = 0; i < image.Count(); ++i) DrawImage(*w, image.ImageAt(i, op), false, op);
}

void disp_color(const HObject& color_image, const HTuple& window_handle) {
  const char* op = "disp_color";
  Access w(window_handle, op, true);
  for (long i = 0; i < color_image.Count(); ++i) DrawImage(*w, color_image.ImageAt(i, op), true, op);
}

void disp_obj(const HObject& object, const HTuple& window_handle) {
  const char* op = "disp_obj";
  Access w(window_handle, op, true);
  for (long i = 0; i < object.Count(); ++i) {
    if (object.IsRegion(i)) {
      DrawRegion(*w, object.RegionAt(i, op), w->colors[size_t(i) % w->colors.size()]);
    } else {
      const Image& img = object.ImageAt(i, op);
      DrawImage(*w, img, img.planes.size() == 3, op);
    }
  }
}

void disp_rectangle1(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
                     const HTuple& row2, const HTuple& column2) {
  const char* op = "disp_rectangle1";
  Hlong n = row1.Length();
  if (column1.Length() != n || row2.Length() != n || column2.Length() != n)
    throw HException(op, "Wrong number of values of the corner parameters", kErrWrongParamCount);
  Access w(window_handle, op, true);
  for (Hlong i = 0; i < n; ++i) {
    double r1 = ParamReal(row1, op, "Row1", i), c1 = ParamReal(column1, op, "Column1", i);
    double r2 = ParamReal(row2, op, "Row2", i), c2 = ParamReal(column2, op, "Column2", i);
    const Rgba& c = w->colors[size_t(i) % w->colors.size()];
    if (w->fill) {
      // The window pixels whose centres fall on the rectangle's pixels, as
      // RegionMask would find them, without building runs for huge ones.
      const double y0 = std::ceil((std::round(r1) - w->pr1) * w->ScaleY() - 0.5);
      const double y1 = std::ceil((std::round(r2) + 1 - w->pr1) * w->ScaleY() - 0.5) - 1;
      const double x0 = std::ceil((std::round(c1) - w->pc1) * w->ScaleX() - 0.5);
      const double x1 = std::ceil((std::round(c2) + 1 - w->pc1) * w->ScaleX() - 0.5) - 1;
      cv::Mat mask(w->Height(), w->Width(), CV_8UC1, cv::Scalar(0));
      const int ya = std::max(0, ClampToInt(y0)), yb = std::min(w->Height() - 1, ClampToInt(y1));
      const int xa = std::max(0, ClampToInt(x0)), xb = std::min(w->Width() - 1, ClampToInt(x1));
      if (yb >= ya && xb >= xa) mask(cv::Range(ya, yb + 1), cv::Range(xa, xb + 1)).setTo(255);
      PaintMask(*w, mask, c);
    } else {
      cv::Point2d a = w->CentreOf(r1, c1), b = w->CentreOf(r2, c2);
      cv::rectangle(w->canvas, cv::Point(RoundInt(a.x), RoundInt(a.y)),
                    cv::Point(RoundInt(b.x), RoundInt(b.y)), ScalarOf(c),
                    Thickness(*w), cv::LINE_8);
    }
  }
}

void disp_line(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
               const HTuple& row2, const HTuple& column2) {
  const char* op = "disp_line";
  Hlong n = row1.Length();
  if (column1.Length() != n || row2.Length() != n || column2.Length() != n)
    throw HException(op, "Wrong number of values of the end point parameters", kErrWrongParamCount);
  Access w(window_handle, op, true);
  for (Hlong i = 0; i < n; ++i) {
    cv::Point2d a = w->CentreOf(ParamReal(row1, op, "Row1", i), ParamReal(column1, op, "Column1", i));
    cv::Point2d b = w->CentreOf(ParamReal(row2, op, "Row2", i), ParamReal(column2, op, "Column2", i));
    // Clip in 64 bits first: OpenCV's fixed-point line drawing overflows on
    // far-away end points.
    const int m = Thickness(*w) + 1;
    cv::Point2l p(RoundInt(a.x) + m, RoundInt(a.y) + m), q(RoundInt(b.x) + m, RoundInt(b.y) + m);
    if (!cv::clipLine(cv::Size2l(w->Width() + 2 * m, w->Height() + 2 * m), p, q)) continue;
    cv::line(w->canvas, cv::Point(int(p.x - m), int(p.y - m)), cv::Point(int(q.x - m), int(q.y - m)),
             ScalarOf(w->colors[size_t(i) % w->colors.size()]), Thickness(*w), cv::LINE_8);
  }
}

void dump_window_image(HObject* image, const HTuple& window_handle) {
  Access w(window_handle, "dump_window_image");
  std::vector<cv::Mat> planes;
  cv::split(w->canvas, planes);
  *image = HObject(Image::FromPlanes(PixelType::Byte, std::move(planes)));
}

void set_font(const HTuple& window_handle, const HTuple& font) {
  const char* op = "set_font";
  const std::string& name = ParamString(font, op, "Font");
  Font loaded = Font::Load(name, op);  // outside the window lock: may read files
  Access w(window_handle, op);
  w->font = std::move(loaded);
  w->font_name = name;
}

void get_font(const HTuple& window_handle, HTuple* font) {
  Access w(window_handle, "get_font");
  *font = HTuple(w->font_name);
}

void query_font(const HTuple& window_handle, HTuple* font) {
  { Access w(window_handle, "query_font"); }
  *font = HTuple::Strings(ListFonts());
}

void get_font_extents(const HTuple& window_handle, HTuple* max_ascent, HTuple* max_descent,
                      HTuple* max_width, HTuple* max_height) {
  const char* op = "get_font_extents";
  Access w(window_handle, op);
  const Font& f = w->CurrentFont(op);
  *max_ascent = HTuple(f.Ascent());
  *max_descent = HTuple(f.Descent());
  *max_width = HTuple(f.MaxWidth());
  *max_height = HTuple(f.Height());
}

void get_string_extents(const HTuple& window_handle, const HTuple& values, HTuple* ascent,
                        HTuple* descent, HTuple* width, HTuple* height) {
  const char* op = "get_string_extents";
  Access w(window_handle, op);
  const Font& f = w->CurrentFont(op);
  HTuple a, d, wd, h;
  for (Hlong i = 0; i < values.Length(); ++i) {
    a.Append(HValue(Hlong(f.Ascent())));
    d.Append(HValue(Hlong(f.Descent())));
    wd.Append(HValue(Hlong(f.TextWidth(ElementText(values, i)))));
    h.Append(HValue(Hlong(f.Height())));
  }
  *ascent = a;
  *descent = d;
  *width = wd;
  *height = h;
}

void set_tposition(const HTuple& window_handle, const HTuple& row, const HTuple& column) {
  const char* op = "set_tposition";
  double r = ParamReal(row, op, "Row"), c = ParamReal(column, op, "Column");
  Access w(window_handle, op);
  w->trow = r;
  w->tcol = c;
}

void get_tposition(const HTuple& window_handle, HTuple* row, HTuple* column) {
  Access w(window_handle, "get_tposition");
  *row = HTuple(w->trow);
  *column = HTuple(w->tcol);
}

void write_string(const HTuple& window_handle, const HTuple& string) {
  const char* op = "write_string";
  Access w(window_handle, op, true);
  const Font& f = w->CurrentFont(op);
  std::string text;
  for (Hlong i = 0; i < string.Length(); ++i) text += ElementText(string, i);
  // The cursor is the top left corner of the text cell, in image coordinates.
  const int top = RoundInt((w->trow - w->pr1) * w->ScaleY());
  const int left = RoundInt((w->tcol - w->pc1) * w->ScaleX());
  const Rgba c = w->colors.front();
  cv::Mat& canvas = w->canvas;
  f.Render(text, top, left, [&](int y, int x, uint8_t cov) {
    if (y < 0 || x < 0 || y >= canvas.rows || x >= canvas.cols) return;
    const double a = cov / 255.0 * (c.a / 255.0);
    auto& p = canvas.at<cv::Vec3b>(y, x);
    p = cv::Vec3b(uint8_t(std::lround(c.r * a + p[0] * (1 - a))),
                  uint8_t(std::lround(c.g * a + p[1] * (1 - a))),
                  uint8_t(std::lround(c.b * a + p[2] * (1 - a))));
  });
  w->tcol += f.TextWidth(text) / w->ScaleX();
}

}  // namespace vision
