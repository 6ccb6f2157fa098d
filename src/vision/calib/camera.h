#pragma once
// Projection with the area-scan division camera (camera_params.h) as the
// reference library's operators, and the point loop they run on.
#include <cstddef>

#include "vision/calib/camera_params.h"
#include "vision/core/tuple.h"

namespace vision {

// Projects n points of the camera frame, given as separate x, y and z arrays,
// to image rows and columns: CamParams::Project without its checks and with
// divisions turned into products (equal to a few units in the last place), so
// that the loop runs on vector registers. Points beyond the
// domain of the division model (kappa > 0) land on its rim (factor 2); points
// at or behind the camera give what the central projection gives.
void ProjectPoints(const CamParams& cam, const double* x, const double* y, const double* z,
                   size_t n, double* row, double* column);

// Points (x[i], y[i], z[i]) of the camera frame to pixels; one-value
// coordinates broadcast. Row and Column are reals.
void project_3d_point(const HTuple& x, const HTuple& y, const HTuple& z, const HTuple& camera_param,
                      HTuple* row, HTuple* column);
// The line of sight through each pixel, in the camera frame: P is the
// projection centre (0, 0, 0), Q the undistorted point on the image plane,
// so QZ is the focal length.
void get_line_of_sight(const HTuple& row, const HTuple& column, const HTuple& camera_param,
                       HTuple* px, HTuple* py, HTuple* pz, HTuple* qx, HTuple* qy, HTuple* qz);
// The camera parameters with the distortion coefficient (kappa) replaced.
// Mode "fixed" keeps every other parameter; the modes that rescale the image
// ("fullsize", "adaptive", "preserve_resolution") are not offered.
void change_radial_distortion_cam_par(const HTuple& mode, const HTuple& cam_param_in,
                                      const HTuple& distortion_coeffs, HTuple* cam_param_out);

}  // namespace vision
