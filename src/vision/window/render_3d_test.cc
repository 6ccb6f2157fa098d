// 3D display: known faces land on known pixels with known colour and depth;
// coordinate images give back the model's points; the mouse position and
// flushing behave as the GUI needs them.
#include "vision/window/render_3d.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "vision/core/system.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/window.h"

namespace vision {
namespace {

// 100 x 100 pixels, 1 mm focus, 10 um cells: x/z = 0.01 moves one pixel.
const HTuple kCam = HTuple::Reals({0.001, 0, 1e-5, 1e-5, 50, 50}).Append(HTuple(100)).Append(HTuple(100));
const HTuple kIdentity = HTuple::Reals({0, 0, 0, 0, 0, 0}).Append(HTuple(0));

// A flat triangle at depth z, one colour, with corners at pixel offsets given
// as (column, row) of the camera image.
HTuple FlatTriangle(double z, std::array<std::array<double, 2>, 3> px, std::array<double, 3> rgb) {
  auto m = NewObjectModel3D();
  for (const auto& p : px) m->points.emplace_back(float((p[0] - 50) * 1e-5 / 0.001 * z), float((p[1] - 50) * 1e-5 / 0.001 * z), float(z));
  m->triangles.push_back({0, 1, 2});
  m->attribs["&coord_r"] = {rgb[0], rgb[0], rgb[0]};
  m->attribs["&coord_g"] = {rgb[1], rgb[1], rgb[1]};
  m->attribs["&coord_b"] = {rgb[2], rgb[2], rgb[2]};
  return ObjectModel3DHandle(m);
}

const HTuple kColourNames = HTuple::Strings({"intensity_red", "intensity_green", "intensity_blue", "light_position"});
// Light along the viewing axis: a face square to it gets ambient + diffuse = 1.
const HTuple kColourValues = HTuple::Strings({"&coord_r", "&coord_g", "&coord_b", "0 0 -1 0"});

cv::Vec3b Pixel(const HObject& img, int r, int c) {
  const Image& i = img.ImageAt(0);
  return {i.planes[0].at<uint8_t>(r, c), i.planes[1].at<uint8_t>(r, c), i.planes[2].at<uint8_t>(r, c)};
}

TEST(Render3D, TriangleCoversItsPixelsWithItsColourNearestWins) {
  // Far red triangle over the top-left; near green one overlapping, drawn first and last.
  HTuple far = FlatTriangle(2.0, {{{20, 20}, {80, 20}, {20, 80}}}, {200, 100, 50});
  HTuple near = FlatTriangle(1.0, {{{40, 40}, {90, 40}, {40, 90}}}, {10, 220, 30});
  for (const HTuple& models : {HTuple{far, near}, HTuple{near, far}}) {
    HObject img;
    render_object_model_3d(&img, models, kCam, kIdentity, kColourNames, kColourValues);
    struct Case { int r, c; cv::Vec3b rgb; } cases[] = {
        {25, 25, {200, 100, 50}},  // far only
        {45, 45, {10, 220, 30}},   // both: the near one
        {60, 25, {200, 100, 50}},
        {19, 19, {0, 0, 0}},       // outside both
        {85, 85, {0, 0, 0}},       // beyond the near face's hypotenuse
        {41, 88, {10, 220, 30}},   // near-only corner region
    };
    for (const auto& k : cases) EXPECT_EQ(Pixel(img, k.r, k.c), k.rgb) << k.r << "," << k.c;
  }
  // Depth: the coordinate images hold the nearest face's depth.
  HObject X, Y, Z;
  object_model_3d_to_xyz(&X, &Y, &Z, HTuple{far, near}, "cartesian", kCam, kIdentity);
  EXPECT_FLOAT_EQ(Z.ImageAt(0).planes[0].at<float>(25, 25), 2.0f);
  EXPECT_FLOAT_EQ(Z.ImageAt(0).planes[0].at<float>(45, 45), 1.0f);
  EXPECT_NEAR(X.ImageAt(0).planes[0].at<float>(45, 60), (60 - 50) * 1e-2, 1e-6);
  EXPECT_NEAR(Y.ImageAt(0).planes[0].at<float>(45, 60), (45 - 50) * 1e-2, 1e-6);
  EXPECT_NEAR(X.ImageAt(0).planes[0].at<float>(25, 30), (30 - 50) * 2e-2, 1e-6);
  // The domain is where a face is seen: the far face's 61-pixel-sided
  // triangle (1891 centres) joined by the part of the near face beyond it.
  const Region& d = Z.ImageAt(0).domain;
  EXPECT_TRUE(d.Contains(25, 25));
  EXPECT_FALSE(d.Contains(19, 19));
  EXPECT_FALSE(d.Contains(85, 85));
}

TEST(Render3D, LightingDarkensTiltedFaces) {
  // The same face lit along its normal and at 60 degrees: ambient 0.2 + 0.8 cos.
  HTuple face = FlatTriangle(1.0, {{{20, 20}, {80, 20}, {20, 80}}}, {200, 200, 200});
  HTuple names = HTuple::Strings({"intensity_red", "intensity_green", "intensity_blue", "light_position"});
  HObject img;
  render_object_model_3d(&img, face, kCam, kIdentity, names,
                         HTuple::Strings({"&coord_r", "&coord_g", "&coord_b", "0 0.8660254 -0.5 0"}));
  EXPECT_EQ(Pixel(img, 30, 30), cv::Vec3b(120, 120, 120));  // 200 * (0.2 + 0.8 * 0.5)
}

TEST(Render3D, PointsAndCoordinateImagesGiveBackTheModel) {
  auto m = NewObjectModel3D();
  // A grid of points 5 cm apart at z = 0 in the model frame; the pose puts
  // them 1 m in front of the camera, 5 pixels apart.
  for (int i = -3; i <= 3; ++i)
    for (int j = -2; j <= 2; ++j) m->points.emplace_back(i * 0.05f, j * 0.05f, 0.0f);
  HTuple model = ObjectModel3DHandle(m);
  HTuple pose = HTuple::Reals({0.001, -0.002, 1.0, 0, 0, 0}).Append(HTuple(0));
  HObject X, Y, Z;
  object_model_3d_to_xyz(&X, &Y, &Z, model, "cartesian", kCam, pose);
  const Image &x = X.ImageAt(0), &y = Y.ImageAt(0), &z = Z.ImageAt(0);
  EXPECT_EQ(z.domain.Area(), 35);
  for (const auto& p : m->points) {
    const double cx = p.x() + 0.001, cy = p.y() - 0.002;
    const int col = int(std::lround(cx * 100 + 50)), row = int(std::lround(cy * 100 + 50));
    ASSERT_TRUE(z.domain.Contains(row, col)) << row << "," << col;
    EXPECT_NEAR(x.planes[0].at<float>(row, col), cx, 1e-6);
    EXPECT_NEAR(y.planes[0].at<float>(row, col), cy, 1e-6);
    EXPECT_NEAR(z.planes[0].at<float>(row, col), 1.0, 1e-6);
  }
  // Point size: a 3-pixel point covers 3 x 3 pixels of the display.
  HObject img;
  render_object_model_3d(&img, model, kCam, pose, HTuple::Strings({"point_size", "color"}),
                         HTuple{HTuple(3), HTuple("red")});
  int lit = 0;
  for (int r = 0; r < 100; ++r)
    for (int c = 0; c < 100; ++c) lit += Pixel(img, r, c) == cv::Vec3b(255, 0, 0);
  EXPECT_EQ(lit, 35 * 9);
}

TEST(Render3D, BadInputRaises) {
  HTuple face = FlatTriangle(1.0, {{{20, 20}, {80, 20}, {20, 80}}}, {1, 2, 3});
  HObject img, X, Y, Z;
  struct Case { HTuple names, values, pose, cam; } cases[] = {
      {HTuple::Strings({"no_such"}), HTuple("x"), kIdentity, kCam},
      {HTuple::Strings({"intensity_red"}), HTuple("&missing"), kIdentity, kCam},
      {HTuple::Strings({"alpha"}), HTuple(2.0), kIdentity, kCam},
      {HTuple::Strings({"point_size", "alpha"}), HTuple(1), kIdentity, kCam},
      {HTuple(), HTuple(), HTuple::Reals({0, 0, 1}), kCam},
      {HTuple(), HTuple(), kIdentity, HTuple::Reals({0.01, 0})},
  };
  for (const auto& k : cases)
    EXPECT_THROW(render_object_model_3d(&img, face, k.cam, k.pose, k.names, k.values), HException);
  EXPECT_THROW(object_model_3d_to_xyz(&X, &Y, &Z, face, "polar", kCam, kIdentity), HException);
  EXPECT_THROW(object_model_3d_to_xyz(&X, &Y, &Z, HTuple(), "cartesian", kCam, kIdentity), HException);
}

struct Frames : WindowPresenter {
  std::mutex mu;
  std::vector<cv::Mat> shown;
  int64_t father = 0;
  void WindowOpened(uint64_t, int, int, int, int) override {}
  void WindowOpenedIn(uint64_t, int64_t f, int, int, int, int) override { father = f; }
  void WindowChanged(uint64_t, const cv::Mat& rgb) override {
    std::lock_guard lk(mu);
    shown.push_back(rgb);
  }
  void WindowClosed(uint64_t) override {}
};

TEST(Render3D, WindowShowsOnlyFlushedFramesAndReportsTheMouse) {
  auto frames = std::make_shared<Frames>();
  SetWindowPresenter(frames);
  HTuple w;
  open_window(0, 0, 100, 100, 4242, "visible", "", &w);
  EXPECT_EQ(frames->father, 4242);
  HTuple face = FlatTriangle(1.0, {{{20, 20}, {80, 20}, {20, 80}}}, {200, 100, 50});
  // The display sequence of the viewer: nothing reaches the screen until the
  // flush, which then shows the cleared and redrawn frame at once.
  set_system("flush_graphic", "false");
  clear_window(w);
  disp_object_model_3d(w, face, kCam, kIdentity, kColourNames, kColourValues);
  EXPECT_TRUE(frames->shown.empty());
  set_system("flush_graphic", "true");
  disp_line(w, -1, -1, -1, -1);
  ASSERT_EQ(frames->shown.size(), 1u);
  EXPECT_EQ(frames->shown[0].at<cv::Vec3b>(25, 25), cv::Vec3b(200, 100, 50));
  EXPECT_EQ(frames->shown[0].at<cv::Vec3b>(90, 90), cv::Vec3b(0, 0, 0));

  // A part of half the window size doubles the picture.
  set_part(w, 0, 0, 49, 49);
  HObject dumped;
  clear_window(w);
  disp_object_model_3d(w, face, kCam, kIdentity, kColourNames, kColourValues);
  dump_window_image(&dumped, w);
  EXPECT_EQ(Pixel(dumped, 45, 45), cv::Vec3b(200, 100, 50));
  EXPECT_EQ(Pixel(dumped, 35, 35), cv::Vec3b(0, 0, 0));

  HTuple row, col, button;
  EXPECT_THROW(get_mposition_sub_pix(w, &row, &col, &button), HException);
  SetWindowMouse(WindowId(w), true, 30, 10, 1);
  get_mposition_sub_pix(w, &row, &col, &button);
  EXPECT_DOUBLE_EQ(row.D(), 4.75);  // window row 10 in a part scaled by 2
  EXPECT_DOUBLE_EQ(col.D(), 14.75);
  EXPECT_EQ(button.L(), 1);
  SetWindowMouse(WindowId(w), false, 30, 10, 0);
  EXPECT_THROW(get_mposition_sub_pix(w, &row, &col, &button), HException);
  SetWindowMouse(WindowId(w), true, 100, 10, 0);  // just beyond the right edge
  EXPECT_THROW(get_mposition_sub_pix(w, &row, &col, &button), HException);
  close_window(w);
  SetWindowPresenter(nullptr);
}

}  // namespace
}  // namespace vision
