#pragma once
// Value-level pose helpers shared by the 3D areas (calib, stereo, model3d,
// the viewer). Operators take and return 7-value pose tuples; inside, every
// area works on Eigen rigid transforms through these conversions.
//
// A pose type code is the sum of three choices:
//   order of transform  "Rp+T" 0 (p' = R p + T), "R(p-T)" 1 (p' = R (p - T));
//   order of rotation   "gba" 0 (R = Rx(a) Ry(b) Rz(g)),
//                       "abg" 2 (R = Rz(g) Ry(b) Rx(a)),
//                       "rodriguez" 4 (the three values are the Rodriguez
//                       vector, axis times tan(angle / 2), no unit);
//   view of transform   "point" 0, "coordinate_system" 8 (the rotation is
//                       given for the coordinate system: angles, or the
//                       Rodriguez vector, with the opposite sign).
// Angles are in degrees.
#include <span>
#include <vector>

#include <Eigen/Geometry>

#include "vision/core/tuple.h"

namespace vision {

// A pose tuple (x, y, z, alpha, beta, gamma, type code) of any type code the
// reference defines, as the homogeneous transform it stands for
// (p' = T * p). Raises HException(op, ...) for a tuple of the wrong length
// or an unknown type code. Defined in vision/geometry/pose_types.cc.
Eigen::Isometry3d PoseToIsometry(const HTuple& pose, const char* op);

// The same from the seven values of a pose whose type code has been checked
// (values 0-5 are read; the code is given).
Eigen::Isometry3d PoseToIsometry(std::span<const double> pose, int type_code);

// Appends the seven values of IsometryToPose(t, type_code) to *out.
void AppendPose(std::vector<HValue>* out, const Eigen::Isometry3d& t, int type_code);

// The transform as a pose of type 0 ("Rp+T", "gba", "point") with the
// reference's angle ranges: every angle in [0, 360).
HTuple IsometryToPose(const Eigen::Isometry3d& t);

// The transform as a pose of the given type code (angles in [0, 360), a
// Rodriguez vector as it comes). The code must be valid (IsPoseTypeCode).
HTuple IsometryToPose(const Eigen::Isometry3d& t, int type_code);

// True for the twelve type codes 0-5 and 8-13.
bool IsPoseTypeCode(Hlong code);

// Raises HException(op, ...) unless `pose` is 7 finite numbers with a valid
// integral type code (read as the parameter "Pose" with the shared parameter
// rules); returns that code.
int CheckPose(const HTuple& pose, const char* op);

}  // namespace vision
