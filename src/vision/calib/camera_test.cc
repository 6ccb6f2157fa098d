#include "vision/calib/camera.h"

#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace vision {
namespace {

HTuple Cam(double kappa, double sy = 1.2e-5) { return HTuple{0.01, kappa, 1e-5, sy, 320.0, 240.0, 640, 480}; }

TEST(CameraTest, ProjectionMatchesHandValues) {
  struct Case {
    double kappa, x, y, z, row, column;
  } cases[] = {
      // u = 0.001 m, v = 0.0005 m on the sensor: 100 and 41.67 pixels off centre.
      {0.0, 0.1, 0.05, 1.0, 240.0 + 0.0005 / 1.2e-5, 420.0},
      {0.0, -0.2, 0.1, 2.0, 240.0 + 0.0005 / 1.2e-5, 220.0},
      {0.0, 0.0, 0.0, 0.5, 240.0, 320.0},
      // s = 2 / (1 + sqrt(1 - 4 kappa r^2)), r^2 = 1.25e-6.
      {-1000.0, 0.1, 0.05, 1.0, 281.61471313618443, 419.87531152684267},
      {2000.0, 0.1, 0.05, 1.0, 281.7713574448337, 420.2512578676009},
      // Beyond the domain of the model (4 kappa r^2 > 1): the rim, s = 2.
      {2000.0, 2.0, 0.0, 1.0, 240.0, 4320.0},
  };
  for (const Case& c : cases) {
    HTuple row, col;
    project_3d_point(c.x, c.y, c.z, Cam(c.kappa), &row, &col);
    ASSERT_EQ(row.Length(), 1);
    EXPECT_NEAR(row.D(), c.row, 1e-9) << c.kappa << " " << c.x;
    EXPECT_NEAR(col.D(), c.column, 1e-9) << c.kappa << " " << c.x;
  }
  // Tuples of points, one z for all.
  HTuple rows, cols;
  project_3d_point(HTuple{0.1, -0.2}, HTuple{0.05, 0.1}, 1.0, Cam(0.0), &rows, &cols);
  ASSERT_EQ(cols.Length(), 2);
  EXPECT_NEAR(cols.D(0), 420.0, 1e-9);
  EXPECT_NEAR(cols.D(1), 120.0, 1e-9);
  EXPECT_THROW(project_3d_point(HTuple{0.1, 0.2}, HTuple{0.1, 0.2, 0.3}, 1.0, Cam(0.0), &rows, &cols), HException);
  EXPECT_THROW(project_3d_point(0.1, 0.1, 1.0, HTuple{0.01, 0.0, 1e-5}, &rows, &cols), HException);
}

TEST(CameraTest, LineOfSightInvertsProjection) {
  const HTuple cams[] = {Cam(0.0), Cam(-1000.0), Cam(2000.0),
                         HTuple{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480}};
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> xy(-0.02, 0.02), depth(0.05, 0.3);
  HTuple x, y, z;
  for (int i = 0; i < 200; ++i) {
    x.Append(HTuple(xy(rng)));
    y.Append(HTuple(xy(rng)));
    z.Append(HTuple(depth(rng)));
  }
  for (const HTuple& cam : cams) {
    HTuple row, col, p[3], q[3];
    project_3d_point(x, y, z, cam, &row, &col);
    get_line_of_sight(row, col, cam, &p[0], &p[1], &p[2], &q[0], &q[1], &q[2]);
    ASSERT_EQ(q[0].Length(), 200);
    for (Hlong i = 0; i < 200; ++i) {
      EXPECT_EQ(p[0].D(i), 0.0);
      EXPECT_EQ(p[2].D(i), 0.0);
      EXPECT_EQ(q[2].D(i), cam.D(0));  // Q lies on the image plane
      // Q scaled to the point's depth is the point.
      EXPECT_NEAR(q[0].D(i) * z.D(i) / q[2].D(i), x.D(i), 1e-12) << cam.ToString();
      EXPECT_NEAR(q[1].D(i) * z.D(i) / q[2].D(i), y.D(i), 1e-12) << cam.ToString();
    }
  }
}

TEST(CameraTest, ChangeRadialDistortionFixedRoundTrip) {
  const HTuple in{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480};
  HTuple none, back;
  change_radial_distortion_cam_par("fixed", in, 0.0, &none);
  EXPECT_EQ(none, (HTuple{0.025, 0.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480}));
  change_radial_distortion_cam_par("fixed", none, -120.0, &back);
  EXPECT_EQ(back, in);
  EXPECT_THROW(change_radial_distortion_cam_par("adaptive", in, 0.0, &back), HException);
  EXPECT_THROW(change_radial_distortion_cam_par("fixed", in, HTuple{0.0, 1.0}, &back), HException);
}

// The vector loop and the per-point projection agree (the loop multiplies
// where the other divides).
TEST(CameraTest, PointLoopMatchesPerPointProjection) {
  const CamParams cam = CamParams::FromTuple(HTuple{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480}, "t");
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> xy(-0.05, 0.05), depth(0.05, 0.5);
  const size_t n = 1003;  // not a multiple of any vector width
  std::vector<double> x(n), y(n), z(n), row(n), col(n);
  for (size_t i = 0; i < n; ++i) { x[i] = xy(rng); y[i] = xy(rng); z[i] = depth(rng); }
  ProjectPoints(cam, x.data(), y.data(), z.data(), n, row.data(), col.data());
  for (size_t i = 0; i < n; ++i) {
    double r, c;
    ASSERT_TRUE(cam.Project({x[i], y[i], z[i]}, &r, &c));
    ASSERT_NEAR(r, row[i], 1e-10) << i;
    ASSERT_NEAR(c, col[i], 1e-10) << i;
  }
}

}  // namespace
}  // namespace vision
