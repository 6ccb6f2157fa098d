#include "vision/calib/camera.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string>
#include <vector>

namespace vision {

namespace {

std::vector<double> Numbers(const HTuple& t, const char* op) {
  std::vector<double> v(size_t(t.Length()));
  const std::vector<HValue>& values = t.Values();
  for (size_t i = 0; i < values.size(); ++i) {
    if (const double* d = std::get_if<double>(&values[i])) v[i] = *d;
    else if (const Hlong* l = std::get_if<Hlong>(&values[i])) v[i] = double(*l);
    else throw HException(op, "Wrong type of control parameter: number expected", kErrWrongParamType);
  }
  return v;
}

// Common length of coordinate tuples, one-value tuples broadcast; each one
// is expanded to that length in place.
size_t Broadcast(const char* op, std::initializer_list<std::vector<double>*> vs) {
  size_t n = 0;
  for (auto* v : vs) n = std::max(n, v->size());
  for (auto* v : vs) {
    if (v->size() == n) continue;
    if (v->size() != 1) throw HException(op, "Control parameters of different lengths", kErrWrongParamCount);
    v->assign(n, (*v)[0]);
  }
  return n;
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

void project_3d_point(const HTuple& x, const HTuple& y, const HTuple& z, const HTuple& camera_param,
                      HTuple* row, HTuple* column) {
  constexpr const char* op = "project_3d_point";
  const CamParams cam = CamParams::FromTuple(camera_param, op);
  std::vector<double> vx = Numbers(x, op), vy = Numbers(y, op), vz = Numbers(z, op);
  HTuple rows, cols;
  if (!(vx.empty() && vy.empty() && vz.empty())) {
    const size_t n = Broadcast(op, {&vx, &vy, &vz});
    std::vector<double> r(n), c(n);
    ProjectPoints(cam, vx.data(), vy.data(), vz.data(), n, r.data(), c.data());
    rows = HTuple::Reals(r);
    cols = HTuple::Reals(c);
  }
  *row = std::move(rows);
  *column = std::move(cols);
}

void get_line_of_sight(const HTuple& row, const HTuple& column, const HTuple& camera_param,
                       HTuple* px, HTuple* py, HTuple* pz, HTuple* qx, HTuple* qy, HTuple* qz) {
  constexpr const char* op = "get_line_of_sight";
  const CamParams cam = CamParams::FromTuple(camera_param, op);
  std::vector<double> r = Numbers(row, op), c = Numbers(column, op);
  size_t n = 0;
  if (!(r.empty() && c.empty())) n = Broadcast(op, {&r, &c});
  std::vector<double> ox(n), oy(n), oz(n);
  for (size_t i = 0; i < n; ++i) {
    const Eigen::Vector3d q = cam.Unproject(r[i], c[i]);
    ox[i] = q.x(); oy[i] = q.y(); oz[i] = q.z();
  }
  const std::vector<double> zero(n, 0.0);
  *px = HTuple::Reals(zero); *py = HTuple::Reals(zero); *pz = HTuple::Reals(zero);
  *qx = HTuple::Reals(ox); *qy = HTuple::Reals(oy); *qz = HTuple::Reals(oz);
}

void change_radial_distortion_cam_par(const HTuple& mode, const HTuple& cam_param_in,
                                      const HTuple& distortion_coeffs, HTuple* cam_param_out) {
  constexpr const char* op = "change_radial_distortion_cam_par";
  if (mode.Length() != 1 || !mode.IsString(0)) throw HException(op, "Wrong type of control parameter Mode", kErrWrongParamType);
  CamParams cam = CamParams::FromTuple(cam_param_in, op);
  if (distortion_coeffs.Length() != 1) throw HException(op, "Wrong number of distortion coefficients", kErrWrongParamCount);
  if (!distortion_coeffs.IsNumber(0)) throw HException(op, "Wrong type of distortion coefficient", kErrWrongParamType);
  const std::string& m = mode.S(0);
  if (m == "fullsize" || m == "adaptive" || m == "preserve_resolution")
    throw HException(op, "Mode " + m + " is not supported", kErrNotImplemented);
  if (m != "fixed") throw HException(op, "Wrong value of control parameter Mode", kErrWrongParamValue);
  cam.kappa = distortion_coeffs.D(0);
  *cam_param_out = cam.ToTuple();
}

}  // namespace vision
