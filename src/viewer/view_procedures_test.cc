// The viewer's procedures against hand-computed numbers: integer halving,
// degenerate and edge-on models, weighted centres, the trackball's rim and
// clamping, zoom and move steps.
#include "viewer/view_procedures.h"

#include <gtest/gtest.h>

#include <cmath>

#include <Eigen/Geometry>

#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HTuple;
using vision::Hlong;

HTuple Model(std::vector<Eigen::Vector3f> points) {
  auto m = vision::NewObjectModel3D();
  m->points = std::move(points);
  return vision::ObjectModel3DHandle(m);
}

HTuple Window(int w, int h) {
  HTuple win;
  vision::open_window(0, 0, w, h, 0, "buffer", "", &win);
  return win;
}

void ExpectNear(const HTuple& got, std::vector<double> want, double tol, const char* what) {
  ASSERT_EQ(got.Length(), Hlong(want.size())) << what << ": " << got.ToString();
  for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got.D(Hlong(i)), want[i], tol) << what << " [" << i << "]";
}

// The pose as a transform, so that poses are compared by what they do.
Eigen::Isometry3d T(const HTuple& pose) { return vision::PoseToIsometry(pose, "test"); }

TEST(ViewParameters, OddWindowHalvesAsIntegersAndCentresTheModel) {
  HTuple model = Model({{0.01f, 0.02f, -0.001f}, {0.03f, 0.02f, -0.001f}, {0.02f, 0.04f, 0.0f}});
  HTuple width, height, cam, lrow, lcol, pose, tb;
  init_display_parameter(Window(641, 480), model, &width, &height, &cam, &lrow, &lcol, &pose, &tb);
  EXPECT_EQ(width.L(), 641);
  EXPECT_EQ(height.L(), 480);
  ASSERT_EQ(cam.Length(), 8);
  EXPECT_EQ(cam.ToString(), HTuple({HTuple::Reals({0.06, 0, 8.5e-6, 8.5e-6}), HTuple{320, 240, 641, 480}}).ToString());
  EXPECT_TRUE(cam.IsInt(4) && lcol.IsInt(0));
  EXPECT_EQ(lrow.L(), 240);
  EXPECT_EQ(lcol.L(), 320);
  // Centre (of the bounding box) moved onto the optical axis, unrotated.
  const double cx = (0.01 + 0.03) / 2.0, cy = (0.02 + 0.04) / 2.0;
  EXPECT_NEAR(pose.D(0), -cx, 1e-7);
  EXPECT_NEAR(pose.D(1), -cy, 1e-7);
  ExpectNear(HTuple({HTuple(pose[3]), HTuple(pose[4]), HTuple(pose[5]), HTuple(pose[6])}), {0, 0, 0, 0}, 0, "angles");
  ExpectNear(tb, {0, 0, pose.D(2) - 0.0005}, 1e-7, "trackball centre");

  // The distance by hand (with the model's single-precision coordinates):
  // the box pushed to -minZ + 2 diameters.
  const double x0 = 0.01f, x1 = 0.03f, y0 = 0.02f, y1 = 0.04f, z0 = -0.001f;
  const double mx = (x0 + x1) / 2, my = (y0 + y1) / 2;
  const double diameter = std::sqrt((x1 - x0) * (x1 - x0) + (y1 - y0) * (y1 - y0) + z0 * z0);
  const double z_inter = -z0 + 2 * diameter;
  // Nearest corner z and the projected diagonal of the eight corners.
  const double min_min_z = z_inter + z0;
  double rmin = 1e9, rmax = -1e9, cmin = 1e9, cmax = -1e9;
  for (double x : {x0, x1})
    for (double y : {y0, y1})
      for (double z : {z0, 0.0}) {
        const double qz = z + z_inter;
        const double c = 0.06 * (x - mx) / qz / 8.5e-6, r = 0.06 * (y - my) / qz / 8.5e-6;
        rmin = std::min(rmin, r), rmax = std::max(rmax, r), cmin = std::min(cmin, c), cmax = std::max(cmax, c);
      }
  const double max_dist = std::hypot(rmax - rmin, cmax - cmin);
  const double factor = max_dist / (0.5 * 480 * 1.5 * 2.0);
  EXPECT_NEAR(pose.D(2), factor * min_min_z + (z_inter - min_min_z), 1e-12);
}

TEST(ViewParameters, DegenerateModelsStillGetAFiniteStartPose) {
  // No points, one point at the origin: an all-zero box. One point elsewhere:
  // a zero diameter with a non-zero box.
  for (auto points : std::vector<std::vector<Eigen::Vector3f>>{{}, {{0, 0, 0}}, {{0.01f, -0.02f, 0.5f}}}) {
    HTuple model = Model(points);
    HTuple width, height, cam, lrow, lcol, pose, tb;
    init_display_parameter(Window(100, 80), model, &width, &height, &cam, &lrow, &lcol, &pose, &tb);
    ASSERT_EQ(pose.Length(), 7);
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(std::isfinite(pose.D(i))) << pose.ToString();
    // The 0.01 m offset puts the point in front of the camera.
    const Eigen::Vector3d p = points.empty() ? Eigen::Vector3d(0, 0, 0) : Eigen::Vector3d(points[0].cast<double>());
    EXPECT_NEAR((T(pose) * p).z(), 0.01, 1e-6) << pose.ToString();
    EXPECT_NEAR(tb.D(2), (T(pose) * p).z(), 1e-9);
  }
}

TEST(ViewParameters, EdgeOnModelUsesTheViewFromNinetyDegrees) {
  // A segment along the viewing axis projects to a point; seen from 90 degrees
  // about x it spans 0.06 / 2 / 8.5e-6 pixels at the pushed-away distance 2.
  HTuple model = Model({{0, 0, 0}, {0, 0, 1}});
  const HTuple cam = HTuple({HTuple::Reals({0.06, 0, 8.5e-6, 8.5e-6}), HTuple{50, 50, 100, 100}});
  HTuple pose;
  determine_optimum_pose_distance(model, cam, 1.5, HTuple({HTuple::Reals({0, 0, -0.5, 0, 0, 0}), HTuple(0)}), &pose);
  const double max_dist = 0.06 * 1.0 / 2.0 / 8.5e-6;
  const double factor = max_dist / (0.5 * 100 * 1.5 * 2.0);
  ExpectNear(pose, {0, 0, factor * 2.0, 0, 0, 0, 0}, 1e-9, "pose");
}

TEST(ViewParameters, CentreIsWeightedByBoxDiagonal) {
  struct Case {
    std::vector<std::vector<Eigen::Vector3f>> models;
    std::vector<double> centre;
  } cases[] = {
      // Diagonals 1 and 2: two thirds of the way from 0.5 to 11.
      {{{{0, 0, 0}, {1, 0, 0}}, {{10, 0, 0}, {12, 0, 0}}}, {7.5, 0, 0}},
      // Diagonals all 0: the plain mean of the centres.
      {{{{1, 2, 3}}, {{3, 4, 5}}, {{5, 0, 1}}}, {3, 2, 3}},
      // One model: its own centre.
      {{{{1, 1, 1}, {3, 5, 1}}}, {2, 3, 1}},
  };
  for (const auto& k : cases) {
    HTuple handles, centre;
    for (const auto& pts : k.models) handles.Append(Model(pts));
    get_object_models_center(handles, &centre);
    ExpectNear(centre, k.centre, 1e-6, "centre");
  }
  HTuple centre = HTuple(1);
  get_object_models_center(HTuple(), &centre);
  EXPECT_TRUE(centre.Empty());
}

TEST(Trackball, RimClampAndIdentity) {
  const double h = std::sqrt(0.5);
  struct Case {
    double mx1, my1, mx2, my2;
    const char* mode;
    std::vector<double> quat;
  } cases[] = {
      {0.3, -0.2, 0.3, -0.2, "shoemake", {1, 0, 0, 0}},
      // From the centre to beyond the rim: (0, 0, 0.8) to (0.8, 0, 0), a quarter turn about y.
      {0, 0, 2, 0, "shoemake", {h, 0, h, 0}},
      // The same drag upwards: about -x.
      {0, 0, 0, 3, "shoemake", {h, -h, 0, 0}},
      // Far apart on the hyperbolic sheet: |P2 - P1| = 10 > 1.6, T clamped to 1, a half turn.
      {-5, 0, 5, 0, "sheet", {std::cos(M_PI / 2), 0, 1, 0}},
  };
  for (const auto& k : cases) {
    HTuple q;
    trackball(k.mx1, k.my1, k.mx2, k.my2, k.mode, 0.8, 1.0, &q);
    ExpectNear(q, k.quat, 1e-12, "quaternion");
  }
  // Angle 2 asin(|P2 - P1| / 1.6) for an end point outside the ball.
  HTuple q;
  trackball(0.1, 0.2, 1.5, 0.9, "shoemake", 0.8, 1.0, &q);
  const double d = std::hypot(1.5, 0.9);
  const Eigen::Vector3d p1(0.1, 0.2, std::sqrt(0.64 - 0.05)), p2(1.5 * 0.8 / d, 0.9 * 0.8 / d, 0);
  EXPECT_NEAR(2 * std::acos(q.D(0)), 2 * std::asin((p2 - p1).norm() / 1.6), 1e-12);
}

TEST(Trackball, ProjectionOntoBallAndSheet) {
  struct Case {
    double x, y;
    const char* mode;
    std::vector<double> p;
  } cases[] = {
      {0.3, 0.4, "shoemake", {0.3, 0.4, std::sqrt(0.64 - 0.25)}},
      {0.8, 0.0, "shoemake", {0.8, 0, 0}},
      {3.0, 4.0, "shoemake", {0.48, 0.64, 0}},
      {0.3, 0.4, "sheet", {0.3, 0.4, std::sqrt(0.64 - 0.25)}},
      // Beyond 0.8 * 0.70710678: the sheet 0.6 R^2 / d, not 0.5.
      {1.0, 0.0, "sheet", {1.0, 0, 0.6 * 0.64}},
      {0.6, 0.0, "sheet", {0.6, 0, 0.6 * 0.64 / 0.6}},
  };
  for (const auto& k : cases) {
    HTuple p;
    project_point_on_trackball(k.x, k.y, k.mode, 0.8, &p);
    ExpectNear(p, k.p, 1e-12, k.mode);
  }
  HTuple vc;
  tuple_vector_cross_product(HTuple{1, 2, 3}, HTuple{4, 5, 6}, &vc);
  EXPECT_EQ(vc, (HTuple{-3, 6, -3}));
}

const HTuple kPose = HTuple({HTuple::Reals({0.01, -0.02, 0.3, 20, 10, 350}), HTuple(0)});

TEST(Motion, RotateTurnsAboutTheTrackballCentre) {
  const HTuple tb = HTuple::Reals({0.005, 0.002, 0.31});
  HTuple pose, lr, lc;
  // Same position: nothing turns.
  rotate_object(240, 320, 641, 480, 240, 320, kPose, tb, &pose, &lr, &lc);
  EXPECT_TRUE(T(pose).isApprox(T(kPose), 1e-12));
  // From the centre (integer half of 641 is 320) to the rim on the left.
  rotate_object(240, 320, 641, 480, 240, 128, kPose, tb, &pose, &lr, &lc);
  EXPECT_EQ(lr.L(), 240);
  EXPECT_EQ(lc.L(), 128);
  const Eigen::Vector3d c(0.005, 0.002, 0.31);
  const Eigen::Vector3d model_point = T(kPose).inverse() * c;
  EXPECT_TRUE((T(pose) * model_point).isApprox(c, 1e-12));  // the centre stays
  // MX2 = (320 - 128) / 240 = 0.8: on the rim, a quarter turn about the camera's y axis.
  const Eigen::Matrix3d r = T(pose).linear() * T(kPose).linear().transpose();
  EXPECT_TRUE(r.isApprox(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitY()).toRotationMatrix(), 1e-12));
}

TEST(Motion, ZoomAndMoveSteps) {
  HTuple pose, tb, lr, lc;
  // Purely horizontal drag: nothing moves but the last position.
  zoom_object(100, 100, 250, kPose, HTuple::Reals({0, 0, 2}), &pose, &tb, &lr, &lc);
  EXPECT_TRUE(T(pose).isApprox(T(kPose), 1e-12));
  EXPECT_EQ(tb, HTuple::Reals({0, 0, 2}));
  EXPECT_EQ(lr.L(), 100);
  EXPECT_EQ(lc.L(), 250);
  // Ten pixels down with the centre 2 m away: 0.06 m towards the camera.
  zoom_object(100, 110, 250, kPose, HTuple::Reals({0, 0, 2}), &pose, &tb, &lr, &lc);
  ExpectNear(tb, {0, 0, 1.94}, 1e-12, "centre");
  EXPECT_TRUE(T(pose).translation().isApprox(T(kPose).translation() - Eigen::Vector3d(0, 0, 0.06), 1e-12));
  EXPECT_TRUE(T(pose).linear().isApprox(T(kPose).linear(), 1e-12));

  const HTuple cam = HTuple({HTuple::Reals({0.06, 0, 8.5e-6, 8.5e-6}), HTuple{320, 240, 641, 480}});
  // Unchanged position: no shift.
  move_object(200, 300, 200, 300, cam, kPose, HTuple::Reals({0, 0, 2}), &pose, &lr, &lc);
  EXPECT_TRUE(T(pose).isApprox(T(kPose), 1e-12));
  // Ten columns right: the point at the centre's depth follows the mouse.
  move_object(240, 320, 240, 330, cam, kPose, HTuple::Reals({0, 0, 2}), &pose, &lr, &lc);
  const Eigen::Vector3d shift = T(pose).translation() - T(kPose).translation();
  EXPECT_TRUE(shift.isApprox(Eigen::Vector3d(10 * 8.5e-6 * 2 / 0.06, 0, 0), 1e-12));
  EXPECT_EQ(lc.L(), 330);
  // Same variables for input and output, as the view calls it.
  HTuple p = kPose, r = 240, c = 320;
  move_object(r, c, 250, 320, cam, p, HTuple::Reals({0, 0, 2}), &p, &r, &c);
  EXPECT_NEAR((T(p).translation() - T(kPose).translation()).y(), 10 * 8.5e-6 * 2 / 0.06, 1e-12);
  EXPECT_EQ(r.L(), 250);
}

}  // namespace
}  // namespace velmora
