#include "vision/window/window.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "vision/core/system.h"
#include "vision/window/color.h"
#include "vision/window/font.h"

namespace vision {
namespace {

HTuple Open(int width, int height, const char* mode = "invisible") {
  HTuple h;
  open_window(0, 0, width, height, 0, mode, "", &h);
  return h;
}

cv::Vec3b Pixel(const HObject& img, int r, int c) {
  const auto& p = img.ImageAt(0).planes;
  return {p[0].at<uint8_t>(r, c), p[1].at<uint8_t>(r, c), p[2].at<uint8_t>(r, c)};
}

HObject Dump(const HTuple& w) {
  HObject img;
  dump_window_image(&img, w);
  return img;
}

cv::Mat Lit(const HObject& img) {  // 255 where any channel is non-zero
  const Image& i = img.ImageAt(0);
  return (i.planes[0] | i.planes[1] | i.planes[2]) > 0;
}

int LitCount(const HTuple& w) { return cv::countNonZero(Lit(Dump(w))); }

TEST(Window, NewWindowIsBlackAndDrawsFilled) {
  HTuple w = Open(20, 10);
  HObject img = Dump(w);
  ASSERT_EQ(img.ImageAt(0).planes.size(), 3u);
  EXPECT_EQ(cv::Size(img.ImageAt(0).width, img.ImageAt(0).height), cv::Size(20, 10));
  EXPECT_EQ(cv::countNonZero(Lit(img)), 0);
  HTuple mode;
  get_draw(w, &mode);
  EXPECT_EQ(mode.S(), "fill");
  close_window(w);
  EXPECT_THROW(dump_window_image(&img, w), HException);
}

TEST(Window, RegionLandsOnItsPixelsUnderEachPart) {
  struct Case {
    const char* name;
    int win_w, win_h;
    double part[4];
    Region region;
    int lit;                // expected number of lit window pixels
    cv::Rect box;           // expected bounding box of the lit pixels
  };
  const Case cases[] = {
      {"identity", 10, 10, {0, 0, 9, 9}, Region::Rectangle(2, 3, 5, 7), 20, {3, 2, 5, 4}},
      {"touches both borders", 10, 10, {0, 0, 9, 9}, Region::Rectangle(0, 0, 9, 9), 100,
       {0, 0, 10, 10}},
      {"clipped outside", 10, 10, {0, 0, 9, 9}, Region::Rectangle(-5, 8, 2, 30), 6, {8, 0, 2, 3}},
      {"zoom 2", 10, 10, {0, 0, 4, 4}, Region::Rectangle(1, 1, 1, 1), 4, {2, 2, 2, 2}},
      {"shifted part", 10, 10, {5, 5, 14, 14}, Region::Rectangle(5, 5, 5, 5), 1, {0, 0, 1, 1}},
      {"zoom out 2", 10, 10, {0, 0, 19, 19}, Region::Rectangle(0, 0, 19, 19), 100, {0, 0, 10, 10}},
      // One pixel larger than the window: the last image row and column of
      // the window's size no longer reach a window pixel centre.
      {"one larger", 100, 50, {0, 0, 50, 100}, Region::Rectangle(0, 0, 49, 99), 49 * 99,
       {0, 0, 99, 49}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HTuple w = Open(c.win_w, c.win_h);
    set_part(w, c.part[0], c.part[1], c.part[2], c.part[3]);
    disp_region(HObject(c.region), w);
    const cv::Mat lit = Lit(Dump(w));
    EXPECT_EQ(cv::countNonZero(lit), c.lit);
    EXPECT_EQ(cv::boundingRect(lit), c.box);
    close_window(w);
  }
}

TEST(Window, MarginDrawsOnlyTheBorderWithTheLineWidth) {
  HTuple w = Open(12, 12);
  set_draw(w, "margin");
  disp_region(HObject(Region::Rectangle(2, 2, 9, 9)), w);
  EXPECT_EQ(LitCount(w), 8 * 8 - 6 * 6);
  EXPECT_EQ(Pixel(Dump(w), 5, 5), cv::Vec3b(0, 0, 0));
  EXPECT_EQ(Pixel(Dump(w), 2, 5), cv::Vec3b(255, 255, 255));
  clear_window(w);
  set_line_width(w, 2);
  disp_region(HObject(Region::Rectangle(2, 2, 9, 9)), w);
  EXPECT_EQ(LitCount(w), 8 * 8 - 4 * 4);
}

TEST(Window, ColoursParseAndCycleOverObjects) {
  struct Case {
    const char* text;
    std::optional<Rgba> want;
  };
  const Case cases[] = {
      {"white", Rgba{255, 255, 255, 255}}, {"black", Rgba{0, 0, 0, 255}},
      {"red", Rgba{255, 0, 0, 255}},       {"green", Rgba{0, 255, 0, 255}},
      {"gray", Rgba{190, 190, 190, 255}},  {"medium slate blue", Rgba{123, 104, 238, 255}},
      {"#fce9d4", Rgba{0xfc, 0xe9, 0xd4, 255}}, {"#F28D26", Rgba{0xf2, 0x8d, 0x26, 255}},
      {"#ff000080", Rgba{255, 0, 0, 128}}, {"#12345", std::nullopt},
      {"#gg0000", std::nullopt},           {"#ff00000", std::nullopt},
      {"Red", std::nullopt},               {"", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(ParseColor(c.text), c.want) << c.text;

  HTuple w = Open(6, 2);
  EXPECT_THROW(set_color(w, "no colour"), HException);
  set_color(w, HTuple({"red", "blue"}));
  HObject regions(Region::Rectangle(0, 0, 0, 5));
  regions.Push(Region::Rectangle(1, 0, 1, 2));
  regions.Push(Region::Rectangle(1, 3, 1, 5));
  disp_region(regions, w);
  const HObject img = Dump(w);
  EXPECT_EQ(Pixel(img, 0, 4), cv::Vec3b(255, 0, 0));
  EXPECT_EQ(Pixel(img, 1, 1), cv::Vec3b(0, 0, 255));
  EXPECT_EQ(Pixel(img, 1, 4), cv::Vec3b(255, 0, 0));
  // A half-transparent colour blends with what is there.
  set_color(w, "#00ff0080");
  disp_region(HObject(Region::Rectangle(0, 0, 0, 0)), w);
  EXPECT_EQ(Pixel(Dump(w), 0, 0), cv::Vec3b(127, 128, 0));
  EXPECT_THROW(set_rgb(w, 256, 0, 0), HException);
}

TEST(Window, ImagesAreScaledOntoThePartWithinTheirDomain) {
  cv::Mat grey = (cv::Mat_<uint8_t>(2, 2) << 10, 20, 30, 40);
  Image img = Image::FromPlanes(PixelType::Byte, {grey});
  HTuple w = Open(4, 4);
  set_part(w, 0, 0, 1, 1);
  disp_image(HObject(img), w);
  HObject out = Dump(w);
  EXPECT_EQ(Pixel(out, 0, 0), cv::Vec3b(10, 10, 10));
  EXPECT_EQ(Pixel(out, 1, 3), cv::Vec3b(20, 20, 20));
  EXPECT_EQ(Pixel(out, 3, 0), cv::Vec3b(30, 30, 30));
  EXPECT_EQ(Pixel(out, 2, 2), cv::Vec3b(40, 40, 40));

  const cv::Mat r(1, 2, CV_8U, cv::Scalar(200)), g(1, 2, CV_8U, cv::Scalar(100));
  Image rgb = Image::FromPlanes(PixelType::Byte, {r, g, cv::Mat(1, 2, CV_8U, cv::Scalar(50))});
  rgb.domain = Region::Rectangle(0, 1, 0, 1);
  clear_window(w);
  set_part(w, 0, 0, 3, 3);
  disp_color(HObject(rgb), w);
  out = Dump(w);
  EXPECT_EQ(Pixel(out, 0, 0), cv::Vec3b(0, 0, 0));  // outside the domain
  EXPECT_EQ(Pixel(out, 0, 1), cv::Vec3b(200, 100, 50));
  EXPECT_THROW(disp_color(HObject(img), w), HException);
}

TEST(Window, RectanglesAndLines) {
  HTuple w = Open(10, 10);
  disp_rectangle1(w, 1, 2, 3, 5);
  EXPECT_EQ(cv::boundingRect(Lit(Dump(w))), cv::Rect(2, 1, 4, 3));
  EXPECT_EQ(LitCount(w), 12);
  clear_window(w);
  disp_line(w, 0, 0, 9, 9);
  EXPECT_EQ(LitCount(w), 10);
  EXPECT_EQ(Pixel(Dump(w), 9, 9), cv::Vec3b(255, 255, 255));
  // Far-away coordinates are clipped, not turned into billions of runs.
  clear_window(w);
  disp_line(w, -1e12, -1e12, 1e12, 1e12);
  EXPECT_EQ(LitCount(w), 10);
  disp_rectangle1(w, -1e12, -1e12, 1e12, 1e12);
  EXPECT_EQ(LitCount(w), 100);
  clear_window(w);
  set_part(w, 0, 0, 1e12, 1e12);  // a part so large that the rectangle covers one pixel
  disp_rectangle1(w, 0, 0, 1e11, 1e11);
  EXPECT_EQ(LitCount(w), 1);
}

TEST(Window, FontNamesParseInEveryForm) {
  struct Case {
    const char* name;
    const char* family;
    bool bold, italic;
    int size;
  };
  const Case cases[] = {
      {"-adobe-times-bold-i-normal-*-25-*-*-*-*-*-*-*", "times", true, true, 25},
      {"-adobe-courier-medium-r-normal-*-20-*-*-*-*-*-*-*", "courier", false, false, 20},
      {"-Consolas-16-*-0-*-*-1-", "Consolas", true, false, 16},
      {"-Arial-12-*-1-*-*-0-", "Arial", false, true, 12},
      {"TimesNewRomanPS-BoldMT-24", "TimesNewRoman", true, false, 24},
      {"Menlo-Italic-16", "Menlo", false, true, 16},
      {"ArialMT-30", "Arial", false, false, 30},
      {"mono-18", "mono", false, false, 18},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto rq = ParseFontName(c.name);
    ASSERT_TRUE(rq);
    EXPECT_EQ(rq->family, c.family);
    EXPECT_EQ(rq->bold, c.bold);
    EXPECT_EQ(rq->italic, c.italic);
    EXPECT_EQ(rq->pixel_size, c.size);
  }
  EXPECT_FALSE(ParseFontName(""));
}

TEST(Window, FontsResolveMeasureAndDraw) {
  HTuple w = Open(200, 60);
  EXPECT_THROW(set_font(w, "-adobe-nosuchfamilyxyz-medium-r-normal-*-20-*-*-*-*-*-*-*"),
               HException);
  EXPECT_THROW(set_font(w, "NoSuchFaceXyz-Bold-20"), HException);

  set_font(w, "-adobe-courier-medium-r-normal-*-20-*-*-*-*-*-*-*");
  HTuple asc, desc, mw, mh;
  get_font_extents(w, &asc, &desc, &mw, &mh);
  EXPECT_GT(asc.L(), 10);
  EXPECT_GT(desc.L(), 0);
  EXPECT_GT(mw.L(), 0);
  HTuple a, d, width, height;
  get_string_extents(w, HTuple({"W", "WWW"}), &a, &d, &width, &height);
  ASSERT_EQ(width.Length(), 2);
  EXPECT_GT(width.L(0), 0);
  EXPECT_EQ(width.L(1), 3 * width.L(0));  // a monospaced family

  set_color(w, "green");
  set_tposition(w, 10, 5);
  write_string(w, "HH");
  const HObject img = Dump(w);
  cv::Rect box = cv::boundingRect(Lit(img));
  EXPECT_GE(box.y, 10);
  EXPECT_LE(box.y + box.height, 10 + mh.I());
  EXPECT_GE(box.x, 5);
  EXPECT_LE(box.x + box.width, 5 + 2 * width.I(0) + 1);
  EXPECT_GT(cv::countNonZero(Lit(img)), 20);
  bool full_green = false;
  for (int y = box.y; y < box.y + box.height; ++y)
    for (int x = box.x; x < box.x + box.width; ++x)
      full_green |= Pixel(img, y, x) == cv::Vec3b(0, 255, 0);
  EXPECT_TRUE(full_green);
  HTuple tr, tc;
  get_tposition(w, &tr, &tc);
  EXPECT_DOUBLE_EQ(tc.D(), 5 + 2 * width.D(0));
}

TEST(Window, QueryFontListsLogicalDescriptions) {
  HTuple w = Open(10, 10), fonts;
  query_font(w, &fonts);
  const auto names = fonts.ToSVec();
  EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const std::string& f) {
    return f.rfind("-", 0) == 0 && f.find("dejavu sans mono-bold-") != std::string::npos;
  }));
}

struct Recorder : WindowPresenter {
  std::mutex mu;
  std::vector<std::string> events;
  void WindowOpened(uint64_t, int, int, int w, int h) override {
    std::lock_guard lk(mu);
    events.push_back("open " + std::to_string(w) + "x" + std::to_string(h));
  }
  void WindowChanged(uint64_t, const cv::Mat& rgb) override {
    std::lock_guard lk(mu);
    events.push_back("change " + std::to_string(rgb.at<cv::Vec3b>(0, 0)[0]));
  }
  void WindowClosed(uint64_t) override {
    std::lock_guard lk(mu);
    events.push_back("close");
  }
};

TEST(Window, OnlyVisibleWindowsArePresented) {
  auto rec = std::make_shared<Recorder>();
  SetWindowPresenter(rec);
  HTuple hidden = Open(4, 4, "invisible"), buffer = Open(4, 4, "buffer");
  disp_region(HObject(Region::Rectangle(0, 0, 3, 3)), hidden);
  close_window(hidden);
  close_window(buffer);
  EXPECT_TRUE(rec->events.empty());
  {
    HTuple shown = Open(3, 2, "visible");
    set_color(shown, "red");  // state only, nothing to show
    disp_region(HObject(Region::Rectangle(0, 0, 0, 0)), shown);
    // Dropping the last handle closes the window like close_window.
  }
  {
    // With flushing off, drawing changes the canvas without showing it.
    set_system("flush_graphic", "false");
    HTuple shown = Open(2, 2, "visible");
    disp_region(HObject(Region::Rectangle(0, 0, 0, 0)), shown);
    set_system("flush_graphic", "true");
    close_window(shown);
  }
  SetWindowPresenter(nullptr);
  EXPECT_EQ(rec->events, (std::vector<std::string>{"open 3x2", "change 255", "close", "open 2x2",
                                                   "close"}));
  HTuple h;
  EXPECT_THROW(open_window(0, 0, 4, 4, 0, "floating", "", &h), HException);
  EXPECT_THROW(open_window(0, 0, 0, 4, 0, "invisible", "", &h), HException);
}

TEST(Window, WorkerThreadsDrawAndPresentConcurrently) {
  auto rec = std::make_shared<Recorder>();
  SetWindowPresenter(rec);
  HTuple shared = Open(64, 64, "invisible");
  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t)
    workers.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        HTuple w = Open(16, 16, "visible");
        disp_region(HObject(Region::Rectangle(t, i % 16, t + 2, 15)), w);
        disp_rectangle1(shared, t * 16, i, t * 16 + 3, i + 3);
        close_window(w);
      }
    });
  for (auto& w : workers) w.join();
  SetWindowPresenter(nullptr);
  std::map<std::string, int> kinds;
  for (const std::string& e : rec->events) ++kinds[e.substr(0, e.find(' '))];
  EXPECT_EQ(kinds, (std::map<std::string, int>{{"change", 200}, {"close", 200}, {"open", 200}}));
  EXPECT_EQ(LitCount(shared), 4 * 4 * 53);
}

}  // namespace
}  // namespace vision
