#include "vision/geometry/pose.h"

#include <array>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vision/geometry/pose_types.h"

namespace vision {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Elementary rotations written out, independent of the code under test.
using M3 = std::array<std::array<double, 3>, 3>;
M3 Mul(const M3& a, const M3& b) {
  M3 r{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
  return r;
}
M3 RotX(double deg) { double c = std::cos(deg * kPi / 180), s = std::sin(deg * kPi / 180); return {{{1, 0, 0}, {0, c, -s}, {0, s, c}}}; }
M3 RotY(double deg) { double c = std::cos(deg * kPi / 180), s = std::sin(deg * kPi / 180); return {{{c, 0, s}, {0, 1, 0}, {-s, 0, c}}}; }
M3 RotZ(double deg) { double c = std::cos(deg * kPi / 180), s = std::sin(deg * kPi / 180); return {{{c, -s, 0}, {s, c, 0}, {0, 0, 1}}}; }

// Expected hom_mat3d of (t, r, code), from the textbook definitions.
std::vector<double> Expected(const double t[3], const double r[3], int code) {
  const double sg = (code & 8) ? -1 : 1;
  M3 R;
  if ((code & 6) == 0) {
    R = Mul(Mul(RotX(sg * r[0]), RotY(sg * r[1])), RotZ(sg * r[2]));
  } else if ((code & 6) == 2) {
    R = Mul(Mul(RotZ(sg * r[2]), RotY(sg * r[1])), RotX(sg * r[0]));
  } else {  // Rodriguez: rotation by 2 atan(|g|) about g
    const double g[3] = {sg * r[0], sg * r[1], sg * r[2]};
    const double n = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
    const double th = 2 * std::atan(n), c = std::cos(th), s = std::sin(th);
    const double k[3] = {g[0] / n, g[1] / n, g[2] / n};
    const M3 K{{{0, -k[2], k[1]}, {k[2], 0, -k[0]}, {-k[1], k[0], 0}}};
    const M3 K2 = Mul(K, K);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) R[i][j] = (i == j) + s * K[i][j] + (1 - c) * K2[i][j];
  }
  double tt[3];
  for (int i = 0; i < 3; ++i)
    tt[i] = (code & 1) ? -(R[i][0] * t[0] + R[i][1] * t[1] + R[i][2] * t[2]) : t[i];
  std::vector<double> m;
  for (int i = 0; i < 3; ++i) m.insert(m.end(), {R[i][0], R[i][1], R[i][2], tt[i]});
  return m;
}

void ExpectNear(const HTuple& got, const std::vector<double>& want, double tol, const std::string& what) {
  ASSERT_EQ(got.Length(), Hlong(want.size())) << what;
  for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got.D(Hlong(i)), want[i], tol) << what << " [" << i << "]";
}

std::vector<double> Values(const HTuple& t) { return t.ToDVec(); }

const char* kTransform[] = {"Rp+T", "R(p-T)"};
const char* kRotation[] = {"gba", "abg", "rodriguez"};
const char* kView[] = {"point", "coordinate_system"};

HTuple Create(const double t[3], const double r[3], int code) {
  HTuple pose;
  create_pose(t[0], t[1], t[2], r[0], r[1], r[2], kTransform[code & 1], kRotation[(code & 6) / 2],
              kView[(code & 8) / 8], &pose);
  return pose;
}

const int kCodes[] = {0, 1, 2, 3, 4, 5, 8, 9, 10, 11, 12, 13};

TEST(PoseTest, EveryTypeCodeGivesTheTextbookMatrix) {
  struct Case {
    double t[3], r[3];
  } cases[] = {
      {{0.1, -0.2, 0.3}, {10, 20, 30}},
      {{1, 2, 3}, {90, 0, 0}},
      {{0, 0, 0.5}, {0, 90, 45}},
      {{-0.05, 0.02, 0.7}, {350, 271, 5}},
      {{0, 0, 0}, {0.2, -0.1, 0.4}},  // meaningful as a Rodriguez vector too
  };
  for (int code : kCodes) {
    for (const Case& c : cases) {
      HTuple pose = Create(c.t, c.r, code), mat;
      ASSERT_EQ(pose.Length(), 7);
      EXPECT_EQ(pose.L(6), code);
      pose_to_hom_mat3d(pose, &mat);
      ExpectNear(mat, Expected(c.t, c.r, code), 1e-12, "code " + std::to_string(code) + " " + pose.ToString());
    }
  }
  // A few written out in full.
  HTuple m;
  pose_to_hom_mat3d(HTuple{1, 2, 3, 90, 0, 0, 0}, &m);
  ExpectNear(m, {1, 0, 0, 1, 0, 0, -1, 2, 0, 1, 0, 3}, 1e-15, "Rx(90) + T");
  pose_to_hom_mat3d(HTuple{1, 2, 3, 90, 0, 0, 1}, &m);
  ExpectNear(m, {1, 0, 0, -1, 0, 0, -1, 3, 0, 1, 0, -2}, 1e-15, "Rx(90) (p - T)");
  pose_to_hom_mat3d(HTuple{0, 0, 0, 90, 90, 0, 0}, &m);
  ExpectNear(m, {0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0, 0}, 1e-15, "gba 90 90");
  pose_to_hom_mat3d(HTuple{0, 0, 0, 90, 90, 0, 2}, &m);
  ExpectNear(m, {0, 1, 0, 0, 0, 0, -1, 0, -1, 0, 0, 0}, 1e-15, "abg 90 90");
  pose_to_hom_mat3d(HTuple{0, 0, 0, 0, 0, 1, 4}, &m);
  ExpectNear(m, {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0}, 1e-15, "rodriguez z 1");
  pose_to_hom_mat3d(HTuple{1, 0, 0, 0, 0, 1, 13}, &m);
  ExpectNear(m, {0, 1, 0, 0, -1, 0, 0, 1, 0, 0, 1, 0}, 1e-15, "rodriguez z 1, coordinate system, R(p-T)");
}

TEST(PoseTest, ConversionsRoundTripAndKeepTheReferenceAngleRanges) {
  const double t[3] = {0.0513, 0.0243, -0.0755};
  const double rots[][3] = {{18.01, 326.90, 300.77}, {0, 0, 0}, {45, 90, 30}, {10, 270, 20},
                            {179.9, 0.5, 181}, {0.3, -0.2, 0.1}};
  for (int from : kCodes) {
    for (const auto& r : rots) {
      const HTuple pose = Create(t, r, from);
      HTuple m0;
      pose_to_hom_mat3d(pose, &m0);
      const std::string what = pose.ToString();
      for (int to : kCodes) {
        HTuple conv, back, m1;
        convert_pose_type(pose, kTransform[to & 1], kRotation[(to & 6) / 2], kView[(to & 8) / 8], &conv);
        EXPECT_EQ(conv.L(6), to) << what;
        if ((to & 6) != 4)
          for (int k = 3; k < 6; ++k) {
            EXPECT_GE(conv.D(k), 0.0) << what << " to " << to;
            EXPECT_LT(conv.D(k), 360.0) << what << " to " << to;
          }
        pose_to_hom_mat3d(conv, &m1);
        ExpectNear(m1, Values(m0), 1e-12, what + " as " + std::to_string(to));
        convert_pose_type(conv, kTransform[from & 1], kRotation[(from & 6) / 2], kView[(from & 8) / 8], &back);
        pose_to_hom_mat3d(back, &m1);
        ExpectNear(m1, Values(m0), 1e-12, what + " back from " + std::to_string(to));
      }
      HTuple p0, m2;
      hom_mat3d_to_pose(m0, &p0);
      EXPECT_EQ(p0.L(6), 0);
      for (int k = 3; k < 6; ++k) EXPECT_TRUE(p0.D(k) >= 0 && p0.D(k) < 360) << p0.ToString();
      pose_to_hom_mat3d(p0, &m2);
      ExpectNear(m2, Values(m0), 1e-12, what + " through hom_mat3d_to_pose");
    }
  }
  // A type-0 pose in range comes back with its own angles.
  HTuple m, p;
  pose_to_hom_mat3d(HTuple{0.0513, 0.0243, -0.0755, 18.01, 326.90, 300.77, 0}, &m);
  hom_mat3d_to_pose(m, &p);
  ExpectNear(p, {0.0513, 0.0243, -0.0755, 18.01, 326.90, 300.77, 0}, 1e-10, "rig pose");
}

TEST(PoseTest, InvertAndComposeWorkOnTuplesOfPoses) {
  const HTuple a{0.1, 0.2, 0.3, 10, 20, 30, 0}, b{-0.5, 0.0, 1.0, 5, 300, 90, 2}, c{0.0, 0.1, 0.0, 0.1, 0.2, 0.3, 5};
  HTuple ab = a, ma, mb, mab, comp, inv, ident;
  ab.Append(b);
  // One left pose with two right ones broadcasts; the result keeps the left type.
  HTuple bc = b;
  bc.Append(c);
  pose_compose(a, bc, &comp);
  ASSERT_EQ(comp.Length(), 14);
  for (int i = 0; i < 2; ++i) {
    HTuple r = i == 0 ? b : c, part, mr, mc;
    part = comp.Slice(7 * i, 7 * i + 7);
    EXPECT_EQ(part.L(6), 0);
    pose_to_hom_mat3d(a, &ma);
    pose_to_hom_mat3d(r, &mr);
    hom_mat3d_compose(ma, mr, &mc);
    pose_to_hom_mat3d(part, &mab);
    ExpectNear(mab, Values(mc), 1e-12, "compose " + std::to_string(i));
  }
  pose_invert(ab, &inv);
  ASSERT_EQ(inv.Length(), 14);
  EXPECT_EQ(inv.L(13), 2);
  HTuple both;
  pose_compose(ab, inv, &both);
  pose_to_hom_mat3d(both, &mab);
  hom_mat3d_identity(&ident);
  HTuple two = ident;
  two.Append(ident);
  ExpectNear(mab, Values(two), 1e-12, "pose * inverse");
  EXPECT_THROW(pose_compose(ab, HTuple{a, a, a}, &comp), HException);
  EXPECT_THROW(pose_invert(HTuple{0, 0, 0, 0, 0, 0, 6}, &inv), HException);
  EXPECT_THROW(pose_invert(HTuple{0, 0, 0, 0, 0, 0}, &inv), HException);
  EXPECT_THROW(pose_invert(HTuple{0, 0, 0, 0, 0, 0, 0.5}, &inv), HException);
  EXPECT_THROW(create_pose(0, 0, 0, 0, 0, 0, "Rp+T", "xyz", "point", &inv), HException);
}

TEST(HomMat3dTest, OperatorsMatchHandValues) {
  HTuple id, m, q[3];
  hom_mat3d_identity(&id);
  ExpectNear(id, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0}, 0, "identity");
  const HTuple rx90 = HTuple{1, 0, 0, 0, 0, 0, -1, 0, 0, 1, 0, 0};
  struct Case {
    const char* what;
    std::function<void(HTuple*)> run;
    std::vector<double> want;
  } cases[] = {
      {"translate after", [&](HTuple* o) { hom_mat3d_translate(rx90, 1, 2, 3, o); }, {1, 0, 0, 1, 0, 0, -1, 2, 0, 1, 0, 3}},
      {"translate local", [&](HTuple* o) { hom_mat3d_translate_local(rx90, 1, 2, 3, o); }, {1, 0, 0, 1, 0, 0, -1, -3, 0, 1, 0, 2}},
      {"rotate z about (1,0,0)", [&](HTuple* o) { hom_mat3d_rotate(id, kPi / 2, "z", 1, 0, 0, o); }, {0, -1, 0, 1, 1, 0, 0, -1, 0, 0, 1, 0}},
      {"rotate about a vector", [&](HTuple* o) { hom_mat3d_rotate(id, kPi / 2, HTuple{0, 0, 2}, 0, 0, 0, o); }, {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0}},
      {"rotate local", [&](HTuple* o) {
         HTuple t;
         hom_mat3d_translate(id, 1, 0, 0, &t);
         hom_mat3d_rotate_local(t, kPi / 2, "y", o);
       }, {0, 0, 1, 1, 0, 1, 0, 0, -1, 0, 0, 0}},
      {"compose", [&](HTuple* o) { hom_mat3d_compose(rx90, rx90, o); }, {1, 0, 0, 0, 0, -1, 0, 0, 0, 0, -1, 0}},
      {"invert", [&](HTuple* o) {
         HTuple t;
         hom_mat3d_translate(rx90, 1, 2, 3, &t);
         hom_mat3d_invert(t, o);
       }, {1, 0, 0, -1, 0, 0, 1, -3, 0, -1, 0, 2}},
      {"quaternion", [&](HTuple* o) {
         HTuple qt;
         axis_angle_to_quat(1, 0, 0, kPi / 2, &qt);
         quat_to_hom_mat3d(qt, o);
       }, {1, 0, 0, 0, 0, 0, -1, 0, 0, 1, 0, 0}},
  };
  for (auto& c : cases) {
    c.run(&m);
    ExpectNear(m, c.want, 1e-15, c.what);
  }
  affine_trans_point_3d(HTuple{1, 0, 0, 1, 0, 0, -1, 2, 0, 1, 0, 3}, HTuple{1, 0}, HTuple{0, 1}, 5,
                        &q[0], &q[1], &q[2]);
  ExpectNear(q[0], {2, 1}, 1e-15, "qx");
  ExpectNear(q[1], {-3, -3}, 1e-15, "qy");
  ExpectNear(q[2], {3, 4}, 1e-15, "qz");
  EXPECT_THROW(hom_mat3d_invert(HTuple{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0}, &m), HException);
  EXPECT_THROW(hom_mat3d_rotate_local(id, 1.0, "w", &m), HException);
  EXPECT_THROW(affine_trans_point_3d(id, HTuple{1, 2}, HTuple{1, 2, 3}, 0, &q[0], &q[1], &q[2]), HException);
}

TEST(QuaternionTest, ComposeAgreesWithMatricesAndAxisIsNormalised) {
  HTuple q1, q2, q12, m1, m2, m12, mq;
  axis_angle_to_quat(0, 0, 3, kPi / 2, &q1);
  ExpectNear(q1, {std::sqrt(0.5), 0, 0, std::sqrt(0.5)}, 1e-15, "z quarter turn");
  axis_angle_to_quat(1, 1, 0, 0.7, &q2);
  quat_compose(q1, q2, &q12);
  quat_to_hom_mat3d(q1, &m1);
  quat_to_hom_mat3d(q2, &m2);
  hom_mat3d_compose(m1, m2, &m12);
  quat_to_hom_mat3d(q12, &mq);
  ExpectNear(mq, Values(m12), 1e-15, "q1 q2");
  // Vectorised: two angles about one axis.
  HTuple qs;
  axis_angle_to_quat(0, 0, 1, HTuple{0.0, kPi}, &qs);
  ExpectNear(qs, {1, 0, 0, 0, 0, 0, 0, 1}, 1e-15, "two angles");
  axis_angle_to_quat(0, 0, 0, kPi, &qs);
  ExpectNear(qs, {1, 0, 0, 0}, 0, "no axis");
  // pose_to_quat and back describe the same rotation.
  HTuple pose{0.0, 0.0, 0.0, 30, 60, 90, 0}, pq, back;
  pose_to_quat(pose, &pq);
  quat_to_pose(pq, &back);
  ExpectNear(back, Values(pose), 1e-12, "pose quat pose");
}

}  // namespace
}  // namespace vision
