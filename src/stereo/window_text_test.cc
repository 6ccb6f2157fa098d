#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "stereo/disp_message.h"
#include "stereo/set_display_font.h"
#include "vision/core/system.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HException;
using vision::HObject;
using vision::HTuple;

HTuple Open(int width, int height) {
  HTuple h;
  vision::open_window(0, 0, width, height, 0, "buffer", "", &h);
  return h;
}

std::string Font(const HTuple& w) {
  HTuple f;
  vision::get_font(w, &f);
  return f.S();
}

cv::Mat Canvas(const HTuple& w) {  // CV_8UC3, red first
  HObject img;
  vision::dump_window_image(&img, w);
  cv::Mat out;
  cv::merge(img.ImageAt(0).planes, out);
  return out;
}

struct OsGuard {
  explicit OsGuard(const char* os) { vision::set_system("operating_system", os); }
  ~OsGuard() { vision::set_system("operating_system", "Linux"); }
};

std::string ErrorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const HException& e) {
    return e.ErrorMessage();
  }
  return "no error";
}

TEST(SetDisplayFont, EachSystemBranchNamesItsFont) {
  struct Case {
    const char* os;
    HTuple size;
    const char *font, *bold, *slant, *want;
  };
  const Case cases[] = {
      {"Linux", -1, "mono", "true", "false", "-adobe-courier-bold-r-normal-*-20-*-*-*-*-*-*-*"},
      {"Linux", HTuple(), "serif", "false", "true", "-adobe-times-medium-i-normal-*-20-*-*-*-*-*-*-*"},
      {"Linux", 12, "sans", "false", "true", "-adobe-helvetica-medium-o-normal-*-14-*-*-*-*-*-*-*"},
      {"Linux", 13, "courier", "false", "false", "-adobe-courier-medium-r-normal-*-17-*-*-*-*-*-*-*"},
      {"Linux", 22, "Courier", "true", "true", "-adobe-courier-bold-o-normal-*-25-*-*-*-*-*-*-*"},
      {"Linux", 8, "serif", "false", "false", "-adobe-times-medium-r-normal-*-11-*-*-*-*-*-*-*"},
      {"Linux", 40, "serif", "false", "false", "-adobe-times-medium-r-normal-*-34-*-*-*-*-*-*-*"},
      {"Darwin", 24, "serif", "true", "false", "TimesNewRomanPS-BoldMT-24"},
      {"Darwin", -1, "mono", "false", "false", "Menlo-Regular-16"},
      {"Darwin", 14, "sans", "true", "true", "Arial-BoldItalicMT-14"},
      {"Darwin", 14, "courier", "false", "true", "CourierNewPS-ItalicMT-14"},
      // Other names are looked up among the system's faces.
      {"Darwin", 12, "DejaVuSans", "true", "false", "DejaVuSans-Bold-12"},
      {"Darwin", 12, "LiberationSerif", "false", "true", "LiberationSerif-Italic-12"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    OsGuard os(c.os);
    HTuple w = Open(64, 64);
    set_display_font(w, c.size, c.font, c.bold, c.slant);
    EXPECT_EQ(Font(w), c.want);
  }
}

TEST(SetDisplayFont, WindowsScalesTheSizeByAReferenceText) {
  OsGuard os("Windows NT");
  HTuple probe = Open(256, 256), a, d, width, h;
  vision::set_font(probe, "-Consolas-16-*-0-*-*-1-");
  vision::get_string_extents(probe, "test_string", &a, &d, &width, &h);
  const int want = int(20 * (110.0 / width.D()));
  ASSERT_GT(want, 0);
  HTuple w = Open(64, 64);
  set_display_font(w, 20, "Courier", "true", "false");
  EXPECT_EQ(Font(w), "-Courier New-" + std::to_string(want) + "-*-0-*-*-1-");
  set_display_font(w, 20, "serif", "false", "true");
  EXPECT_EQ(Font(w), "-Times New Roman-" + std::to_string(want) + "-*-1-*-*-0-");
}

TEST(SetDisplayFont, BadBoldAndSlantRaiseTheirTextsOnEverySystem) {
  for (const char* os : {"Linux", "Darwin", "Windows NT"}) {
    SCOPED_TRACE(os);
    OsGuard guard(os);
    HTuple w = Open(32, 32);
    EXPECT_EQ(ErrorOf([&] { set_display_font(w, 16, "mono", "yes", "false"); }),
              "Wrong value of control parameter Bold");
    EXPECT_EQ(ErrorOf([&] { set_display_font(w, 16, "mono", "false", "maybe"); }),
              "Wrong value of control parameter Slant");
  }
  OsGuard guard("Darwin");  // this branch checks Slant first
  HTuple w = Open(32, 32);
  EXPECT_EQ(ErrorOf([&] { set_display_font(w, 16, "mono", "yes", "maybe"); }),
            "Wrong value of control parameter Slant");
}

// Rows of `canvas` with a pixel of this colour blended onto black (text
// edges are antialiased, so the hue counts, not the exact value).
std::vector<int> RowsWith(const cv::Mat& canvas, cv::Vec3b color) {
  std::vector<int> rows;
  auto tint = [&](cv::Vec3b p) {
    int k = std::max({p[0], p[1], p[2]});
    if (k < 128) return false;
    for (int i = 0; i < 3; ++i)
      if (std::abs(p[i] * 255 - color[i] * k) > 2 * 255) return false;
    return true;
  };
  for (int y = 0; y < canvas.rows; ++y)
    for (int x = 0; x < canvas.cols; ++x)
      if (tint(canvas.at<cv::Vec3b>(y, x))) {
        rows.push_back(y);
        break;
      }
  return rows;
}

TEST(DispMessage, BoxShadowAndPadding) {
  const cv::Vec3b box(0xfc, 0xe9, 0xd4), shadow(0xf2, 0x8d, 0x26), black(0, 0, 0);
  struct Case {
    HTuple box_arg;
    bool has_box, has_shadow;
  };
  const Case cases[] = {
      {"true", true, true}, {HTuple({"true", "false"}), true, false}, {"false", false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.box_arg.ToString());
    HTuple w = Open(200, 100), a, d, mw, h, sa, sd, sw, sh;
    vision::set_font(w, "-adobe-courier-medium-r-normal-*-14-*-*-*-*-*-*-*");
    vision::get_font_extents(w, &a, &d, &mw, &h);
    vision::get_string_extents(w, " Hi ", &sa, &sd, &sw, &sh);
    disp_message(w, "Hi", "window", 10, 20, "black", c.box_arg);
    cv::Mat canvas = Canvas(w);
    const int r2 = 10 + h.I(), c2 = 20 + sw.I();
    EXPECT_EQ(canvas.at<cv::Vec3b>(10, 20), c.has_box ? box : black);
    EXPECT_EQ(canvas.at<cv::Vec3b>(r2, c2), c.has_box ? box : black);
    EXPECT_EQ(canvas.at<cv::Vec3b>(r2 + 1, c2 + 1), c.has_shadow ? shadow : black);
    EXPECT_EQ(canvas.at<cv::Vec3b>(r2 + 2, c2 + 2), black);
    EXPECT_EQ(canvas.at<cv::Vec3b>(9, 20), black);
  }
  // Without a box there is no padding blank: the text starts at the column.
  HTuple w = Open(200, 100);
  disp_message(w, "H", "window", 10, 20, "white", "false");
  cv::Mat lit;
  cv::cvtColor(Canvas(w), lit, cv::COLOR_RGB2GRAY);
  EXPECT_LE(cv::boundingRect(lit > 0).x, 22);
  HTuple w2 = Open(200, 100);
  disp_message(w2, "H", "window", 10, 20, "white", HTuple({"#000000", "false"}));
  cv::cvtColor(Canvas(w2), lit, cv::COLOR_RGB2GRAY);
  EXPECT_GE(cv::boundingRect(lit > 0).x, 24);
}

TEST(DispMessage, LinesCycleColoursAndStateIsRestored) {
  HTuple w = Open(200, 120), a, d, mw, h;
  vision::set_color(w, "yellow");
  vision::set_part(w, 0, 0, 59, 99);
  vision::get_font_extents(w, &a, &d, &mw, &h);
  disp_message(w, HTuple({"MMM", "MMM\nMMM"}), "window", 5, 5, HTuple({"red", "auto"}), "false");
  cv::Mat canvas = Canvas(w);
  const int H = h.I();
  auto in_line = [&](const std::vector<int>& rows, int line) {
    return !rows.empty() && rows.front() >= 5 + H * line && rows.back() < 5 + H * (line + 1);
  };
  std::vector<int> red = RowsWith(canvas, {255, 0, 0}), yellow = RowsWith(canvas, {255, 255, 0});
  // Line 0 and line 2 red, line 1 in the colour set before ("auto").
  ASSERT_FALSE(red.empty());
  EXPECT_TRUE(in_line(yellow, 1));
  EXPECT_GE(red.front(), 5);
  EXPECT_LT(red.back(), 5 + 3 * H);
  EXPECT_TRUE(std::none_of(red.begin(), red.end(), [&](int r) { return r >= 5 + H && r < 5 + 2 * H; }));
  EXPECT_TRUE(std::any_of(red.begin(), red.end(), [&](int r) { return r >= 5 + 2 * H; }));

  HTuple r, g, b, r1, c1, r2, c2;
  vision::get_rgb(w, &r, &g, &b);
  EXPECT_EQ(HTuple({r, g, b}), HTuple({255, 255, 0}));
  vision::get_part(w, &r1, &c1, &r2, &c2);
  EXPECT_EQ(HTuple({r1, c1, r2, c2}), HTuple({0, 0, 59, 99}));

  // Image coordinates go through the part saved on entry: row 10 of a part
  // of 60 rows on a window of 120 is window row 21.
  HTuple w2 = Open(200, 120);
  vision::set_part(w2, 0, 0, 59, 99);
  disp_message(w2, "X", "image", 10, 10, "green", "true");
  EXPECT_EQ(Canvas(w2).at<cv::Vec3b>(21, 21), cv::Vec3b(0xfc, 0xe9, 0xd4));
  EXPECT_EQ(Canvas(w2).at<cv::Vec3b>(20, 21), cv::Vec3b(0, 0, 0));
}

TEST(DispMessage, BadBoxValuesRaiseTheirTexts) {
  HTuple w = Open(50, 50);
  EXPECT_EQ(ErrorOf([&] { disp_message(w, "x", "window", 1, 1, "", "no colour"); }),
            "Wrong value of control parameter Box[0] (must be a 'true', 'false', or a valid color string)");
  EXPECT_EQ(ErrorOf([&] { disp_message(w, "x", "window", 1, 1, "", HTuple({"true", "bad"})); }),
            "Wrong value of control parameter Box[1] (must be a 'true', 'false', or a valid color string)");
  EXPECT_THROW(disp_message(w, "x", "window", 1, 1, "not a colour", "false"), HException);
}

}  // namespace
}  // namespace velmora
