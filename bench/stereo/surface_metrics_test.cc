#include "bench/stereo/surface_metrics.h"

#include <gtest/gtest.h>

namespace velmora::bench {
namespace {

// A 4 x 4 mm plateau of the given height with 80 degree walls, on a 10 mm grid.
synth::Surface Plateau(double height) {
  synth::Surface s;
  s.step = 40e-6;
  s.x0 = s.y0 = -5e-3;
  s.rows = s.cols = 251;
  s.z.assign(size_t(s.rows) * s.cols, 0.0f);
  for (int r = 0; r < s.rows; ++r)
    for (int c = 0; c < s.cols; ++c) {
      const double x = s.x0 + c * s.step, y = s.y0 + r * s.step;
      const double d = std::min(2e-3 - std::abs(x), 2e-3 - std::abs(y));  // inside the square
      if (d > 0) s.z[size_t(r) * s.cols + c] = float(-height * std::min(1.0, d / 0.1e-3));
    }
  return s;
}

TEST(SurfaceMetrics, TopSurfaceIsTheFlatPartFromFourTenthsOfAMillimetre) {
  // A part of exactly 0.4 mm counts (its height stored as a float); the
  // walls and their neighbourhood do not.
  const struct { double height; bool counts; } cases[] = {{0.399e-3, false}, {0.4e-3, true}, {1.0e-3, true}};
  for (const auto& c : cases) {
    const auto tops = TopSurface(Plateau(c.height));
    SCOPED_TRACE(c.height);
    if (!c.counts) {
      EXPECT_TRUE(tops.empty());
      continue;
    }
    // The plateau inside the 0.1 mm wall, less one sample at the wall's foot of the slope test.
    const double side = 4e-3 - 2 * 0.1e-3;
    EXPECT_NEAR(double(tops.size()), side * side / (40e-6 * 40e-6), 0.06 * side * side / (40e-6 * 40e-6));
    for (const auto& t : tops) EXPECT_NEAR(t.p.z(), -c.height, 1e-9);
  }
}

TEST(SurfaceMetrics, CoverageCountsPointsWithinSixtyMicrometres) {
  const std::vector<TopSample> tops = {{0, 0, Eigen::Vector3d(0, 0, -1e-3)}, {0, 1, Eigen::Vector3d(1e-3, 0, -1e-3)},
                                       {0, 2, Eigen::Vector3d(2e-3, 0, -1e-3)}};
  const std::vector<Eigen::Vector3d> pts = {Eigen::Vector3d(0, 0, -1e-3 + 59e-6),
                                            Eigen::Vector3d(1e-3 + 42e-6, 42e-6, -1e-3),  // 59.4 um
                                            Eigen::Vector3d(2e-3, 61e-6, -1e-3)};
  const auto covered = CoveredTops(tops, pts);
  EXPECT_EQ(covered, (std::vector<bool>{true, true, false}));
}

TEST(SurfaceMetrics, OnlyWhatAPairSeesIsAskedFor) {
  synth::Rig rig = synth::MakeRig(0);
  const size_t all = TopSurface(rig.surface).size();
  EXPECT_EQ(TopSurface(rig).size(), all);  // every top of the demo rig faces some pair
  // A part's top is hidden from a camera looking at it from below the board,
  // and from one whose image it falls outside.
  const Eigen::Vector3d top(rig.parts[0].cx, rig.parts[0].cy, rig.surface.ZAt(rig.parts[0].cx, rig.parts[0].cy));
  EXPECT_TRUE(SeenBy(rig, 0, top));
  synth::Rig below = rig;
  for (auto& cam : below.cameras) {
    Eigen::Vector3d eye = cam.camera_to_world.translation();
    eye.z() = -eye.z();  // under the board, looking up
    Eigen::Matrix3d flip = Eigen::Vector3d(1, 1, -1).asDiagonal();
    cam.camera_to_world.linear() = flip * cam.camera_to_world.linear() * Eigen::Vector3d(-1, 1, 1).asDiagonal();
    cam.camera_to_world.translation() = eye;
  }
  EXPECT_FALSE(SeenBy(below, 0, top));
  EXPECT_TRUE(TopSurface(below).empty());
  synth::Rig narrow = rig;
  for (auto& cam : narrow.cameras) cam.params.focus *= 20;  // the part leaves the image
  EXPECT_FALSE(SeenBy(narrow, 0, Eigen::Vector3d(9e-3, 9e-3, 0)));
}

TEST(SurfaceMetrics, PixelFootprintGrowsWithDistanceAndSlant) {
  // A camera looking straight down onto the board from `distance`; 5 um
  // cells at 20 mm focal length. The plane is slanted about the world y axis
  // (stretching the rows) or the x axis (stretching across them).
  vision::CamParams cam;
  cam.focus = 0.02;
  cam.sx = cam.sy = 5e-6;
  cam.cx = 320;
  cam.cy = 240;
  cam.width = 640;
  cam.height = 480;
  const struct { double distance, about_y_deg, about_x_deg, u_um, v_um; } cases[] = {
      {0.1, 0, 0, 25, 25}, {0.2, 0, 0, 50, 50}, {0.2, 60, 0, 100, 50}, {0.2, 0, 45, 50, 50 * std::sqrt(2.0)}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.distance << " " << c.about_y_deg << " " << c.about_x_deg);
    Eigen::Isometry3d cam_to_world = Eigen::Isometry3d::Identity();
    cam_to_world.translation() = Eigen::Vector3d(0, 0, -c.distance);
    const Eigen::Vector3d normal = Eigen::AngleAxisd(c.about_y_deg * M_PI / 180, Eigen::Vector3d::UnitY()) *
                                   Eigen::AngleAxisd(c.about_x_deg * M_PI / 180, Eigen::Vector3d::UnitX()) *
                                   Eigen::Vector3d(0, 0, -1);
    const Eigen::Vector2d f = PixelFootprint(cam, cam_to_world, Eigen::Vector3d::Zero(), normal);
    // Perspective makes the neighbouring pixel's step on a slanted plane
    // differ from the local one by a few parts in ten thousand.
    EXPECT_NEAR(f.x() * 1e6, c.u_um, 1e-3 * c.u_um);
    EXPECT_NEAR(f.y() * 1e6, c.v_um, 1e-3 * c.v_um);
  }
}

TEST(SurfaceMetrics, ExactDepthMovesAPointAlongItsLineOfSightOntoTheSurface) {
  const synth::Surface s = Plateau(1e-3);
  const struct { Eigen::Vector3d eye, truth; double off_mm; bool moves; } cases[] = {
      {{0, 0, -0.1}, {0.5e-3, 0.2e-3, -1e-3}, 0.3, true},    // too deep, onto the plateau
      {{0, 0, -0.1}, {0.5e-3, 0.2e-3, -1e-3}, -0.3, true},   // too shallow
      {{0.06, 0.02, -0.1}, {-1e-3, 1e-3, -1e-3}, 1.5, true},  // slanted line of sight
      {{0.06, 0.02, -0.1}, {4e-3, 0, 0}, -0.2, true},         // the board beside the plateau
      {{0, 0, -0.1}, {0.5e-3, 0.2e-3, -1e-3}, -2.5, false},  // the surface is more than 2 mm away
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.off_mm);
    const Eigen::Vector3d d = (c.truth - c.eye).normalized();
    const Eigen::Vector3d p = c.truth + c.off_mm * 1e-3 * d;
    const Eigen::Vector3d q = ExactDepth(s, c.eye, p);
    if (c.moves)
      EXPECT_LT((q - c.truth).norm(), 1e-7);
    else
      EXPECT_EQ(q, p);
  }
}

}  // namespace
}  // namespace velmora::bench
