#include "vision/geometry/pose_types.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "vision/core/param.h"

namespace vision {

namespace {

constexpr double kDeg = M_PI / 180.0;
constexpr int kInverseTransform = 1;  // "R(p-T)"
constexpr int kAbg = 2;
constexpr int kRodriguez = 4;
constexpr int kCoordinateSystem = 8;

Eigen::Matrix3d Rx(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitX()).toRotationMatrix(); }
Eigen::Matrix3d Ry(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitY()).toRotationMatrix(); }
Eigen::Matrix3d Rz(double a) { return Eigen::AngleAxisd(a, Eigen::Vector3d::UnitZ()).toRotationMatrix(); }

// Rodriguez (Gibbs) vector g = axis * tan(angle / 2) to its rotation:
// R = ((1 - g.g) I + 2 g g^T + 2 [g]x) / (1 + g.g).
Eigen::Matrix3d FromRodriguez(const Eigen::Vector3d& g) {
  Eigen::Matrix3d cross;
  cross << 0, -g.z(), g.y(), g.z(), 0, -g.x(), -g.y(), g.x(), 0;
  const double n = g.squaredNorm();
  return ((1 - n) * Eigen::Matrix3d::Identity() + 2 * g * g.transpose() + 2 * cross) / (1 + n);
}

Eigen::Vector3d ToRodriguez(const Eigen::Matrix3d& r) {
  Eigen::Quaterniond q(r);
  if (q.w() < 0) q.coeffs() = -q.coeffs();
  // A half turn has no finite Rodriguez vector; a very long one stands in.
  return q.vec() / std::max(q.w(), 1e-15);
}

// R = Rx(a) Ry(b) Rz(g): r(0,2) = sin b. At b = +-90 degrees only a + g or
// a - g is defined; g is then 0.
Eigen::Vector3d ToGba(const Eigen::Matrix3d& r) {
  const double b = std::asin(std::clamp(r(0, 2), -1.0, 1.0));
  if (std::abs(r(0, 2)) < 1.0 - 1e-12)
    return {std::atan2(-r(1, 2), r(2, 2)), b, std::atan2(-r(0, 1), r(0, 0))};
  return {std::atan2(r(2, 1), r(1, 1)), b, 0.0};
}

// R = Rz(g) Ry(b) Rx(a): r(2,0) = -sin b; at the poles a carries it all.
Eigen::Vector3d ToAbg(const Eigen::Matrix3d& r) {
  const double b = std::asin(std::clamp(-r(2, 0), -1.0, 1.0));
  if (std::abs(r(2, 0)) < 1.0 - 1e-12)
    return {std::atan2(r(2, 1), r(2, 2)), b, std::atan2(r(1, 0), r(0, 0))};
  return {std::atan2(-r(1, 2), r(1, 1)), b, 0.0};
}

// Radians to degrees in [0, 360).
double Degrees(double rad) {
  double d = rad / kDeg;
  if (d < 0) d += 360.0;
  if (d >= 360.0) d -= 360.0;
  return d + 0.0;  // no negative zero
}

}  // namespace

bool IsPoseTypeCode(Hlong code) { return (code >= 0 && code <= 5) || (code >= 8 && code <= 13); }

int CheckPose(const HTuple& pose, const char* op) {
  ParamCount(pose, op, "Pose", 7);
  for (int i = 0; i < 6; ++i) ParamReal(pose, op, "Pose", i);
  const Hlong code = ParamInt(pose, op, "Pose", 6);
  if (!IsPoseTypeCode(code)) ThrowParamValue(op, "Pose", "pose type code " + std::to_string(code));
  return int(code);
}

Eigen::Isometry3d PoseToIsometry(const HTuple& pose, const char* op) {
  const int type = CheckPose(pose, op);
  const double v[6] = {pose.D(0), pose.D(1), pose.D(2), pose.D(3), pose.D(4), pose.D(5)};
  return PoseToIsometry(std::span<const double>(v, 6), type);
}

Eigen::Isometry3d PoseToIsometry(std::span<const double> pose, int type) {
  const double sign = (type & kCoordinateSystem) ? -1.0 : 1.0;
  const Eigen::Vector3d rot(sign * pose[3], sign * pose[4], sign * pose[5]);
  Eigen::Matrix3d r;
  switch (type & 6) {
    case 0: r = Rx(rot.x() * kDeg) * Ry(rot.y() * kDeg) * Rz(rot.z() * kDeg); break;
    case kAbg: r = Rz(rot.z() * kDeg) * Ry(rot.y() * kDeg) * Rx(rot.x() * kDeg); break;
    default: r = FromRodriguez(rot); break;
  }
  const Eigen::Vector3d trans(pose[0], pose[1], pose[2]);
  Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
  t.linear() = r;
  t.translation() = (type & kInverseTransform) ? Eigen::Vector3d(-(r * trans)) : trans;
  return t;
}

HTuple IsometryToPose(const Eigen::Isometry3d& t) { return IsometryToPose(t, 0); }

HTuple IsometryToPose(const Eigen::Isometry3d& t, int type) {
  std::vector<HValue> v;
  v.reserve(7);
  AppendPose(&v, t, type);
  return HTuple(std::move(v));
}

void AppendPose(std::vector<HValue>* out, const Eigen::Isometry3d& t, int type) {
  const Eigen::Matrix3d r = t.linear();
  const double sign = (type & kCoordinateSystem) ? -1.0 : 1.0;
  Eigen::Vector3d rot;
  if ((type & 6) == kRodriguez) {
    rot = sign * ToRodriguez(r);
  } else {
    Eigen::Vector3d rad = sign * ((type & 6) == kAbg ? ToAbg(r) : ToGba(r));
    rot = {Degrees(rad.x()), Degrees(rad.y()), Degrees(rad.z())};
  }
  const Eigen::Vector3d trans =
      (type & kInverseTransform) ? Eigen::Vector3d(-(r.transpose() * t.translation())) : t.translation();
  for (double x : {trans.x(), trans.y(), trans.z(), rot.x(), rot.y(), rot.z()}) out->emplace_back(x);
  out->emplace_back(Hlong(type));
}

}  // namespace vision
