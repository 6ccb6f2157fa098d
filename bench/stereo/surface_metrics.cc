#include "surface_metrics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <unordered_map>

namespace velmora::bench {

double DistanceToSurface(const synth::Surface& s, const Eigen::Vector3d& p) {
  const double h = s.step;
  const double z0 = s.ZAt(p.x(), p.y());
  const double gx = (s.ZAt(p.x() + h, p.y()) - s.ZAt(p.x() - h, p.y())) / (2 * h);
  const double gy = (s.ZAt(p.x(), p.y() + h) - s.ZAt(p.x(), p.y() - h)) / (2 * h);
  double best = std::abs(p.z() - z0) / std::sqrt(1 + gx * gx + gy * gy);
  if (std::hypot(gx, gy) < 0.5 && best < 2 * h) return best;
  // Near walls: nearest point of the surface resampled at a quarter step.
  const double q = h / 4;
  const int n = int(std::ceil(std::min(best, 0.3e-3) / q)) + 1;
  for (int i = -n; i <= n; ++i)
    for (int j = -n; j <= n; ++j) {
      const double x = p.x() + i * q, y = p.y() + j * q;
      const double d = (Eigen::Vector3d(x, y, s.ZAt(x, y)) - p).norm();
      best = std::min(best, d);
    }
  return best;
}

std::vector<TopSample> TopSurface(const synth::Surface& s) {
  std::vector<TopSample> tops;
  for (int r = 1; r + 1 < s.rows; ++r)
    for (int c = 1; c + 1 < s.cols; ++c) {
      const double z = s.At(r, c);
      // Heights are stored as floats: a part of exactly 0.4 mm counts.
      if (z > -0.4e-3 + 1e-7) continue;
      const double gx = (s.At(r, c + 1) - s.At(r, c - 1)) / (2 * s.step);
      const double gy = (s.At(r + 1, c) - s.At(r - 1, c)) / (2 * s.step);
      if (std::hypot(gx, gy) >= 1.0) continue;
      // Samples whose neighbourhood reaches a wall are not top surface.
      bool wall = false;
      for (int i = -1; i <= 1 && !wall; ++i)
        for (int j = -1; j <= 1; ++j)
          if (std::abs(s.At(r + i, c + j) - z) > 1.5 * s.step) { wall = true; break; }
      if (wall) continue;
      tops.push_back({r, c, Eigen::Vector3d(s.x0 + c * s.step, s.y0 + r * s.step, z)});
    }
  return tops;
}

bool SeenBy(const synth::Rig& rig, int cam, const Eigen::Vector3d& p) {
  const synth::RigCamera& c = rig.cameras.at(size_t(cam));
  double row, col;
  if (!c.params.Project(c.camera_to_world.inverse() * p, &row, &col)) return false;
  if (row < 0 || col < 0 || row > c.params.height - 1 || col > c.params.width - 1) return false;
  const synth::Surface& s = rig.surface;
  const double h = s.step;
  const double gx = (s.ZAt(p.x() + h, p.y()) - s.ZAt(p.x() - h, p.y())) / (2 * h);
  const double gy = (s.ZAt(p.x(), p.y() + h) - s.ZAt(p.x(), p.y() - h)) / (2 * h);
  const Eigen::Vector3d to_eye = (c.camera_to_world.translation() - p).normalized();
  if (Eigen::Vector3d(gx, gy, -1).dot(to_eye) <= 0) return false;
  // March towards the camera until above every part; the surface must stay below the line.
  double top = 0;
  for (const synth::Part& part : rig.parts) top = std::min(top, -part.height - 1e-6);
  for (double t = 3 * h; t < 1.0; t += 0.5 * h) {
    const Eigen::Vector3d q = p + t * to_eye;
    if (q.z() < top) return true;
    if (q.z() > s.ZAt(q.x(), q.y()) + 3e-6) return false;
  }
  return true;
}

std::vector<TopSample> TopSurface(const synth::Rig& rig) {
  std::vector<TopSample> seen;
  for (const TopSample& t : TopSurface(rig.surface))
    for (int a = 0; a + 1 < int(rig.cameras.size()); a += 2)
      if (SeenBy(rig, a, t.p) && SeenBy(rig, a + 1, t.p)) {
        seen.push_back(t);
        break;
      }
  return seen;
}

std::vector<bool> CoveredTops(const std::vector<TopSample>& tops, const std::vector<Eigen::Vector3d>& pts,
                              double radius) {
  // Points hashed into cells of edge `radius`; a sample looks in the 27 cells around it.
  const double cell = radius;
  auto key = [&](double x, double y, double z) {
    const int64_t a = int64_t(std::floor(x / cell)), b = int64_t(std::floor(y / cell)),
                  c = int64_t(std::floor(z / cell));
    return (a * 73856093) ^ (b * 19349663) ^ (c * 83492791);
  };
  std::unordered_multimap<int64_t, size_t> grid;
  grid.reserve(pts.size());
  for (size_t i = 0; i < pts.size(); ++i) grid.emplace(key(pts[i].x(), pts[i].y(), pts[i].z()), i);
  std::vector<bool> out(tops.size(), false);
  for (size_t k = 0; k < tops.size(); ++k) {
    const Eigen::Vector3d& t = tops[k].p;
    bool hit = false;
    for (int a = -1; a <= 1 && !hit; ++a)
      for (int b = -1; b <= 1 && !hit; ++b)
        for (int e = -1; e <= 1 && !hit; ++e) {
          auto range = grid.equal_range(key(t.x() + a * cell, t.y() + b * cell, t.z() + e * cell));
          for (auto it = range.first; it != range.second; ++it)
            if ((pts[it->second] - t).norm() <= radius) { hit = true; break; }
        }
    out[k] = hit;
  }
  return out;
}

SurfaceFigures Evaluate(const synth::Rig& rig, const std::vector<Eigen::Vector3d>& pts) {
  const synth::Surface& s = rig.surface;
  SurfaceFigures f;
  f.points = pts.size();
  if (pts.empty()) return f;
  std::vector<double> d(pts.size());
  for (size_t i = 0; i < pts.size(); ++i) d[i] = DistanceToSurface(s, pts[i]);
  double sum2 = 0;
  size_t far = 0;
  for (double v : d) {
    sum2 += v * v;
    far += v > 100e-6;
  }
  f.rms_um = std::sqrt(sum2 / d.size()) * 1e6;
  std::vector<double> sorted = d;
  std::nth_element(sorted.begin(), sorted.begin() + sorted.size() * 95 / 100, sorted.end());
  f.p95_um = sorted[sorted.size() * 95 / 100] * 1e6;
  f.far_pct = 100.0 * far / d.size();

  const std::vector<TopSample> tops = TopSurface(rig);
  const std::vector<bool> covered = CoveredTops(tops, pts);
  const size_t n_covered = size_t(std::count(covered.begin(), covered.end(), true));
  f.top_coverage_pct = tops.empty() ? 0 : 100.0 * n_covered / tops.size();
  return f;
}

std::string Format(const SurfaceFigures& f) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "points %8zu  rms %6.1f um  p95 %6.1f um  >100um %6.3f %%  top coverage %6.2f %%",
                f.points, f.rms_um, f.p95_um, f.far_pct, f.top_coverage_pct);
  return buf;
}

Eigen::Vector3d SurfaceNormal(const synth::Surface& s, const Eigen::Vector3d& p) {
  const double h = s.step;
  const double gx = (s.ZAt(p.x() + h, p.y()) - s.ZAt(p.x() - h, p.y())) / (2 * h);
  const double gy = (s.ZAt(p.x(), p.y() + h) - s.ZAt(p.x(), p.y() - h)) / (2 * h);
  return Eigen::Vector3d(gx, gy, -1).normalized();
}

Eigen::Vector2d PixelFootprint(const vision::CamParams& cam, const Eigen::Isometry3d& cam_to_world,
                               const Eigen::Vector3d& p, const Eigen::Vector3d& normal) {
  const Eigen::Vector3d q = cam_to_world.inverse() * p;
  const double col = cam.focus * q.x() / q.z() / cam.sx + cam.cx, row = cam.focus * q.y() / q.z() / cam.sy + cam.cy;
  const Eigen::Vector3d eye = cam_to_world.translation();
  // The ray through a pixel centre meets the plane.
  auto hit = [&](double r, double c) {
    const Eigen::Vector3d d =
        cam_to_world.linear() * Eigen::Vector3d((c - cam.cx) * cam.sx, (r - cam.cy) * cam.sy, cam.focus);
    return Eigen::Vector3d(eye + d * (normal.dot(p - eye) / normal.dot(d)));
  };
  const Eigen::Vector3d at = hit(row, col);
  return Eigen::Vector2d((hit(row, col + 1) - at).norm(), (hit(row + 1, col) - at).norm());
}

bool MarchToSurface(const synth::Surface& s, const Eigen::Vector3d& eye, const Eigen::Vector3d& p, double reach,
                    Eigen::Vector3d* hit) {
  const Eigen::Vector3d d = (p - eye).normalized();
  const double l = (p - eye).norm();
  auto inside = [&](double t) {
    const Eigen::Vector3d q = eye + t * d;
    return q.z() >= s.ZAt(q.x(), q.y());
  };
  // March in 5 um steps from `reach` before p to the first point inside, then bisect.
  double lo = l - reach;
  if (inside(lo)) return false;
  double hi = lo;
  for (double t = lo; t <= l + reach; t += 5e-6) {
    if (inside(t)) {
      hi = t;
      break;
    }
    lo = t;
  }
  if (hi <= lo) return false;
  for (int k = 0; k < 30; ++k) {
    const double m = 0.5 * (lo + hi);
    (inside(m) ? hi : lo) = m;
  }
  *hit = eye + hi * d;
  return true;
}

Eigen::Vector3d ExactDepth(const synth::Surface& s, const Eigen::Vector3d& eye, const Eigen::Vector3d& p) {
  Eigen::Vector3d hit;
  return MarchToSurface(s, eye, p, 2e-3, &hit) ? hit : p;
}

std::vector<int> VariantsArg(int argc, char** argv) {
  std::vector<int> variants;
  for (int i = 1; i + 1 < argc; ++i)
    if (!std::strcmp(argv[i], "--variants")) {
      std::stringstream ss(argv[++i]);
      for (std::string v; std::getline(ss, v, ',');) variants.push_back(std::stoi(v));
    }
  if (variants.empty())
    for (int v = 0; v < synth::kVariantCount; ++v) variants.push_back(v);
  return variants;
}

}  // namespace velmora::bench
