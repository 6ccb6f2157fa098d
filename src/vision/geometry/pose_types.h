#pragma once
// Value-level pose helpers shared by the 3D areas (calib, stereo, model3d,
// the viewer). Operators take and return 7-value pose tuples; inside, every
// area works on Eigen rigid transforms through these two conversions.
#include <Eigen/Geometry>

#include "vision/core/tuple.h"

namespace vision {

// A pose tuple (x, y, z, alpha, beta, gamma, type code) of any type code the
// reference defines, as the homogeneous transform it stands for
// (p' = T * p). Raises HException(op, ...) for a tuple of the wrong length
// or an unknown type code. Defined in vision/geometry/pose.cc.
Eigen::Isometry3d PoseToIsometry(const HTuple& pose, const char* op);

// The transform as a pose of type 0 ("Rp+T", "gba", "point") with the
// reference's angle ranges. Defined in vision/geometry/pose.cc.
HTuple IsometryToPose(const Eigen::Isometry3d& t);

}  // namespace vision
