#pragma once
// The area-scan division camera (8 values: focal length, kappa, Sx, Sy, Cx,
// Cy, image width, image height) as a value type with its projection. Kept
// header-only and branch-light so that projection loops vectorise.
#include <cmath>

#include <Eigen/Core>

#include "vision/core/tuple.h"

namespace vision {

struct CamParams {
  double focus = 0, kappa = 0, sx = 0, sy = 0, cx = 0, cy = 0;
  int width = 0, height = 0;

  // Reads an 8-value camera parameter tuple; raises HException(op, ...) for
  // another length, a non-number, or a zero focus or cell size. Defined in
  // vision/calib/camera_params.cc.
  static CamParams FromTuple(const HTuple& t, const char* op);
  HTuple ToTuple() const;  // defined in vision/calib/camera_params.cc

  // Camera frame (x right, y down, z along the view) to image (row, column).
  // Returns false where the point is not in front of the camera or lies
  // outside the domain of the division model.
  bool Project(const Eigen::Vector3d& p, double* row, double* column) const {
    if (!(p.z() > 0)) return false;
    double u = focus * p.x() / p.z(), v = focus * p.y() / p.z();
    double s = 1.0;
    if (kappa != 0) {
      double d = 1.0 - 4.0 * kappa * (u * u + v * v);
      if (d < 0) return false;
      s = 2.0 / (1.0 + std::sqrt(d));
    }
    *column = s * u / sx + cx;
    *row = s * v / sy + cy;
    return true;
  }

  // Image (row, column) to the undistorted point on the sensor plane at
  // z = focus, in metres (the direction of the line of sight).
  Eigen::Vector3d Unproject(double row, double column) const {
    double ut = (column - cx) * sx, vt = (row - cy) * sy;
    double k = 1.0 + kappa * (ut * ut + vt * vt);
    return {ut / k, vt / k, focus};
  }
};

}  // namespace vision
