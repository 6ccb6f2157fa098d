#include "vision/geometry/pose_types.h"

#include <algorithm>
#include <cmath>

namespace vision {

namespace {
constexpr double kDeg = M_PI / 180.0;
}

Eigen::Isometry3d PoseToIsometry(const HTuple& pose, const char* op) {
  if (pose.Length() != 7) throw HException(op, "Wrong number of values in pose", kErrWrongParamCount);
  for (int i = 0; i < 7; ++i)
    if (!pose.IsNumber(i)) throw HException(op, "Wrong type of value in pose", kErrWrongParamType);
  const Hlong type = pose.L(6);
  if (type != 0) throw HException(op, "Unsupported pose type code", kErrWrongParamValue);
  Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
  t.linear() = (Eigen::AngleAxisd(pose.D(3) * kDeg, Eigen::Vector3d::UnitX()) *
                Eigen::AngleAxisd(pose.D(4) * kDeg, Eigen::Vector3d::UnitY()) *
                Eigen::AngleAxisd(pose.D(5) * kDeg, Eigen::Vector3d::UnitZ()))
                   .toRotationMatrix();
  t.translation() = Eigen::Vector3d(pose.D(0), pose.D(1), pose.D(2));
  return t;
}

HTuple IsometryToPose(const Eigen::Isometry3d& t) {
  const Eigen::Matrix3d& r = t.linear();
  // R = Rx(a) Ry(b) Rz(g): r(0,2) = sin b.
  double b = std::asin(std::clamp(r(0, 2), -1.0, 1.0));
  double a, g;
  if (std::abs(r(0, 2)) < 1.0 - 1e-12) {
    a = std::atan2(-r(1, 2), r(2, 2));
    g = std::atan2(-r(0, 1), r(0, 0));
  } else {
    a = std::atan2(r(2, 1), r(1, 1));
    g = 0;
  }
  auto deg = [](double x) { double d = x / kDeg; return d < 0 ? d + 360.0 : d; };
  return HTuple::Reals({t.translation().x(), t.translation().y(), t.translation().z(),
                        deg(a), deg(b), deg(g)})
      .Append(HTuple(0));
}

}  // namespace vision
