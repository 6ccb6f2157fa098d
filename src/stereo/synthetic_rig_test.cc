#include "stereo/synthetic_rig.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include <opencv2/imgproc.hpp>

namespace velmora::synth {
namespace {

constexpr double kMm = 1e-3;

Eigen::Vector3d Centre(const RigCamera& c) { return c.camera_to_world.translation(); }
Eigen::Vector3d Axis(const RigCamera& c) { return c.camera_to_world.linear().col(2); }

bool ProjectWorld(const RigCamera& c, const Eigen::Vector3d& p, double* row, double* col) {
  return c.params.Project(c.camera_to_world.inverse() * p, row, col);
}

TEST(SyntheticRig, RigsAreRealisticAndGenuinelyDifferent) {
  std::set<double> focus, elevation;
  std::set<std::string> shapes;
  for (int v = 0; v < kVariantCount; ++v) {
    const Rig rig = MakeRig(v);
    ASSERT_EQ(rig.cameras.size(), 8u);
    for (const RigCamera& c : rig.cameras) {
      EXPECT_GE(c.params.focus, 15.8 * kMm);
      EXPECT_LE(c.params.focus, 35.4 * kMm);
      EXPECT_GE(c.params.sx, 5e-6);
      EXPECT_LE(c.params.sx, 7.4e-6);
      EXPECT_EQ(c.params.sx, c.params.sy);
      EXPECT_EQ(c.params.width, 640);
      EXPECT_EQ(c.params.height, 480);
      // Mild distortion: under 2 % at the image corner.
      const double r2 = std::pow(320 * c.params.sx, 2) + std::pow(240 * c.params.sy, 2);
      EXPECT_LT(std::abs(c.params.kappa * r2), 0.02);
      // Looking down at 30 to 60 degrees, from above the board.
      const double el = std::asin(Axis(c).z()) / M_PI * 180;
      EXPECT_GT(el, 30);
      EXPECT_LT(el, 62);
      EXPECT_LT(Centre(c).z(), 0);
    }
    std::string kinds;
    for (const Part& p : rig.parts) {
      EXPECT_GE(p.height, 0.4 * kMm - 1e-12);
      EXPECT_LE(p.height, 1.5 * kMm + 1e-12);
      for (const auto& corner : p.Corners()) EXPECT_LE(corner.head<2>().cwiseAbs().maxCoeff(), 11 * kMm);
      kinds += p.kind + " ";
    }
    // The surface holds the parts: its highest point is the tallest part.
    double top = 0;
    for (float z : rig.surface.z) top = std::min<double>(top, z);
    double tallest = 0;
    for (const Part& p : rig.parts) tallest = std::max(tallest, p.height);
    EXPECT_NEAR(-top, tallest, 0.02 * kMm);
    focus.insert(std::round(rig.cameras[0].params.focus * 1e3));
    elevation.insert(std::round(std::asin(Axis(rig.cameras[0]).z()) / M_PI * 180));
    shapes.insert(kinds);
  }
  EXPECT_EQ(focus.size(), static_cast<size_t>(kVariantCount));
  EXPECT_EQ(elevation.size(), static_cast<size_t>(kVariantCount));
  EXPECT_EQ(shapes.size(), static_cast<size_t>(kVariantCount));
  EXPECT_THROW(MakeRig(kVariantCount), std::invalid_argument);
}

TEST(SyntheticRig, EveryCameraSeesEveryPart) {
  for (int v = 0; v < kVariantCount; ++v) {
    const Rig rig = MakeRig(v);
    for (size_t i = 0; i < rig.cameras.size(); ++i)
      for (const Part& p : rig.parts)
        for (const auto& corner : p.Corners()) {
          double row, col;
          ASSERT_TRUE(ProjectWorld(rig.cameras[i], corner, &row, &col));
          EXPECT_TRUE(row > 10 && row < 470 && col > 10 && col < 630)
              << "variant " << v << " camera " << i << " " << p.kind << ": " << row << ", " << col;
        }
  }
}

TEST(SyntheticRig, StereoPairsConvergeOnThePart) {
  for (int v = 0; v < kVariantCount; ++v) {
    const Rig rig = MakeRig(v);
    for (int a = 0; a < 8; ++a) {
      const RigCamera& c = rig.cameras[a];
      // The optical axis passes within 2 mm of the board's centre.
      const Eigen::Vector3d to_centre = Eigen::Vector3d::Zero() - Centre(c);
      EXPECT_LT((to_centre - to_centre.dot(Axis(c)) * Axis(c)).norm(), 2 * kMm) << v << "/" << a;
    }
    // The default pairs: a modest baseline and a small convergence angle.
    for (int a = 0; a < 8; a += 2) {
      const RigCamera &c0 = rig.cameras[a], &c1 = rig.cameras[a + 1];
      const double baseline = (Centre(c0) - Centre(c1)).norm();
      const double angle = std::acos(Axis(c0).dot(Axis(c1))) / M_PI * 180;
      EXPECT_GT(baseline, 10 * kMm) << v << "/" << a;
      EXPECT_LT(baseline, 0.3 * (Centre(c0).norm())) << v << "/" << a;
      EXPECT_GT(angle, 5) << v << "/" << a;
      EXPECT_LT(angle, 30) << v << "/" << a;
    }
  }
}

// The renderer's line of sight and the camera model's projection agree: a
// surface point projected into a camera is what that pixel's ray hits.
TEST(SyntheticRig, RaysHitWhereProjectionsLand) {
  for (int v = 0; v < kVariantCount; ++v) {
    const Rig rig = MakeRig(v);
    std::vector<Eigen::Vector3d> points;
    for (const Part& p : rig.parts) points.emplace_back(p.cx, p.cy, rig.surface.ZAt(p.cx, p.cy));
    for (double x : {-15 * kMm, 14 * kMm})
      for (double y : {-13 * kMm, 12 * kMm}) points.emplace_back(x, y, 0.0);
    for (size_t i = 0; i < rig.cameras.size(); ++i) {
      int agree = 0;
      for (const auto& p : points) {
        double row, col;
        ASSERT_TRUE(ProjectWorld(rig.cameras[i], p, &row, &col));
        const auto hit = FirstHit(rig, static_cast<int>(i), row, col);
        ASSERT_TRUE(hit);
        // Whatever it hits lies on the surface ...
        EXPECT_NEAR(hit->z(), rig.surface.ZAt(hit->x(), hit->y()), 2e-6);
        // ... and it is the point itself unless a taller part hides it.
        agree += (*hit - p).norm() < 0.01 * kMm;
      }
      EXPECT_GE(agree, static_cast<int>(points.size()) - 1) << "variant " << v << " camera " << i;
    }
  }
}

TEST(SyntheticRig, ViewsAreTexturedNoisyAndReproducible) {
  const Rig rig = MakeRig(0, 1);
  const cv::Mat a = RenderView(rig, 2), b = RenderView(rig, 2), c = RenderView(MakeRig(0, 2), 2);
  ASSERT_EQ(a.size(), cv::Size(640, 480));
  ASSERT_EQ(a.type(), CV_8UC3);
  EXPECT_EQ(cv::norm(a, b, cv::NORM_INF), 0);
  EXPECT_GT(cv::norm(a, c, cv::NORM_L1) / a.total(), 1.0);
  cv::Scalar mean, dev;
  cv::meanStdDev(a, mean, dev);
  EXPECT_GT(dev[1], 20);  // texture
  EXPECT_GT(mean[1], 40);
  EXPECT_LT(mean[1], 200);
  // Camera noise: neighbouring pixels of a flat region differ by a few grey levels.
  cv::Mat grey, diff;
  cv::cvtColor(a, grey, cv::COLOR_BGR2GRAY);
  cv::absdiff(grey(cv::Rect(0, 0, 639, 480)), grey(cv::Rect(1, 0, 639, 480)), diff);
  EXPECT_GT(cv::mean(diff)[0], 1.5);
}

TEST(SyntheticRig, SurfaceFilesRoundTrip) {
  const Rig rig = MakeRig(2);
  const std::string dir = std::filesystem::temp_directory_path() / ("surface_" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  std::string error;
  ASSERT_TRUE(WriteSurface(rig.surface, dir + "/s.npy", dir + "/s.json", &error)) << error;
  const auto back = ReadSurface(dir + "/s.npy", dir + "/s.json", &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->rows, rig.surface.rows);
  EXPECT_EQ(back->cols, rig.surface.cols);
  EXPECT_EQ(back->x0, rig.surface.x0);
  EXPECT_EQ(back->step, rig.surface.step);
  EXPECT_EQ(back->z, rig.surface.z);
  // A cut file is refused with a reason.
  std::filesystem::resize_file(dir + "/s.npy", 1000);
  EXPECT_FALSE(ReadSurface(dir + "/s.npy", dir + "/s.json", &error));
  EXPECT_NE(error.find("shorter"), std::string::npos) << error;
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace velmora::synth
