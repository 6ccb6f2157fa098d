#include "vision/calib/camera.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <string>
#include <vector>

#include "vision/core/param.h"

namespace vision {

namespace {

// A coordinate input of n points: its own values, or its one value spread
// over n (into *scratch).
std::span<const double> Spread(std::span<const double> v, size_t n, std::vector<double>* scratch) {
  if (v.size() == n) return v;
  const double x = v[0];
  scratch->assign(n, x);
  return *scratch;
}

}  // namespace

// Two divisions and one square root per point; everything else multiplies,
// so the loop runs at the width of the vector registers (four doubles where
// the processor has AVX2, chosen when the program loads).
__attribute__((target_clones("avx2", "default")))
void ProjectPoints(const CamParams& cam, const double* __restrict x, const double* __restrict y,
                   const double* __restrict z, size_t n, double* __restrict row,
                   double* __restrict column) {
  const double f = cam.focus, k4 = 4.0 * cam.kappa, cx = cam.cx, cy = cam.cy;
  const double ax = 2.0 / cam.sx, ay = 2.0 / cam.sy;
  for (size_t i = 0; i < n; ++i) {
    const double w = f / z[i];
    const double u = x[i] * w, v = y[i] * w;
    // kappa = 0 gives d = 1 and t = 1/2 exactly, so no branch is needed.
    const double e = 1.0 - k4 * (u * u + v * v);
    const double d = e > 0.0 ? e : 0.0;
    const double t = 1.0 / (1.0 + std::sqrt(d));
    column[i] = u * t * ax + cx;
    row[i] = v * t * ay + cy;
  }
}

// Coordinates are read in place and the results handed to the tuples
// without copies, so the operator runs at nearly the speed of the loop.
void project_3d_point(const HTuple& x, const HTuple& y, const HTuple& z, const HTuple& camera_param,
                      HTuple* row, HTuple* column) {
  constexpr const char* op = "project_3d_point";
  const CamParams cam = CamParams::FromTuple(camera_param, op);
  std::vector<double> sx, sy, sz;
  std::span<const double> vx = ParamReals(x, op, "X", &sx), vy = ParamReals(y, op, "Y", &sy),
                          vz = ParamReals(z, op, "Z", &sz);
  if (vx.empty() && vy.empty() && vz.empty()) {
    *row = HTuple();
    *column = HTuple();
    return;
  }
  const size_t n = size_t(ParamItems(op, {{x, "X"}, {y, "Y"}, {z, "Z"}}));
  vx = Spread(vx, n, &sx); vy = Spread(vy, n, &sy); vz = Spread(vz, n, &sz);
  std::vector<double> r(n), c(n);
  ProjectPoints(cam, vx.data(), vy.data(), vz.data(), n, r.data(), c.data());
  *row = HTuple::Reals(std::move(r));
  *column = HTuple::Reals(std::move(c));
}

void get_line_of_sight(const HTuple& row, const HTuple& column, const HTuple& camera_param,
                       HTuple* px, HTuple* py, HTuple* pz, HTuple* qx, HTuple* qy, HTuple* qz) {
  constexpr const char* op = "get_line_of_sight";
  const CamParams cam = CamParams::FromTuple(camera_param, op);
  std::vector<double> sr, sc;
  std::span<const double> r = ParamReals(row, op, "Row", &sr), c = ParamReals(column, op, "Column", &sc);
  size_t n = 0;
  if (!(r.empty() && c.empty())) {
    n = size_t(ParamItems(op, {{row, "Row"}, {column, "Column"}}));
    r = Spread(r, n, &sr);
    c = Spread(c, n, &sc);
  }
  // CamParams::Unproject, unrolled over the arrays.
  std::vector<double> ox(n), oy(n), oz(n, cam.focus);
  for (size_t i = 0; i < n; ++i) {
    const double ut = (c[i] - cam.cx) * cam.sx, vt = (r[i] - cam.cy) * cam.sy;
    const double k = 1.0 + cam.kappa * (ut * ut + vt * vt);
    ox[i] = ut / k;
    oy[i] = vt / k;
  }
  *px = HTuple::Reals(std::vector<double>(n, 0.0));
  *py = HTuple::Reals(std::vector<double>(n, 0.0));
  *pz = HTuple::Reals(std::vector<double>(n, 0.0));
  *qx = HTuple::Reals(std::move(ox)); *qy = HTuple::Reals(std::move(oy)); *qz = HTuple::Reals(std::move(oz));
}

void change_radial_distortion_cam_par(const HTuple& mode, const HTuple& cam_param_in,
                                      const HTuple& distortion_coeffs, HTuple* cam_param_out) {
  constexpr const char* op = "change_radial_distortion_cam_par";
  const std::string& m = ParamString(mode, op, "Mode");
  CamParams cam = CamParams::FromTuple(cam_param_in, op);
  const double kappa = ParamReal(distortion_coeffs, op, "DistortionCoeffs");
  if (m == "fullsize" || m == "adaptive" || m == "preserve_resolution")
    throw HException(op, "Mode " + m + " is not supported", kErrNotImplemented);
  if (m != "fixed") ThrowParamValue(op, "Mode", "'" + m + "'");
  cam.kappa = kappa;
  *cam_param_out = cam.ToTuple();
}

}  // namespace vision
