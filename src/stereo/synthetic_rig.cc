#include "stereo/synthetic_rig.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "vision/geometry/pose_types.h"

namespace velmora::synth {

namespace {

constexpr double kMm = 1e-3;
constexpr double kDeg = M_PI / 180.0;

// What distinguishes one rig from another, apart from the random draws.
struct VariantSpec {
  double focus, kappa, cell, distance, elevation_deg, half_baseline_deg, azimuth0_deg;
  double noise_sigma, ambient;
  Eigen::Vector3d light;
  cv::Vec3f light_color;
  int texture_kind;  // 0 circuit board, 1 granite speckle, 2 printed ceramic, 3 fibrous board
};

VariantSpec Spec(int variant) {
  switch (variant) {
    case 0:
      return {25 * kMm, -400, 7.4e-6, 170 * kMm, 45, 9, 0, 3, 0.35,
              Eigen::Vector3d(-0.30, -0.40, -0.87), {1.0f, 1.0f, 1.0f}, 0};
    case 1:
      return {16 * kMm, 1500, 5.0e-6, 150 * kMm, 35, 7, 45, 6, 0.25,
              Eigen::Vector3d(0.50, 0.10, -0.86), {0.85f, 0.95f, 1.0f}, 1};
    case 2:
      return {35 * kMm, -900, 6.5e-6, 270 * kMm, 58, 12, 20, 4, 0.45,
              Eigen::Vector3d(-0.10, 0.60, -0.79), {1.0f, 0.97f, 0.9f}, 2};
    case 3:
      return {20 * kMm, -2200, 5.5e-6, 190 * kMm, 50, 10, -30, 4.5, 0.3,
              Eigen::Vector3d(-0.55, -0.45, -0.70), {0.85f, 0.95f, 1.0f}, 3};
    default:
      throw std::invalid_argument("no synthetic rig variant " + std::to_string(variant) +
                                  " (0 to " + std::to_string(kVariantCount - 1) + ")");
  }
}

std::vector<Part> PartsOf(int variant) {
  auto part = [](const char* kind, double cx, double cy, double hx, double hy, double angle_deg,
                 double height, double bevel) {
    Part p;
    p.kind = kind;
    p.cx = cx * kMm;
    p.cy = cy * kMm;
    p.half_x = hx * kMm;
    p.half_y = hy * kMm;
    p.angle = angle_deg * kDeg;
    p.height = height * kMm;
    p.bevel = bevel * kMm;
    return p;
  };
  switch (variant) {
    case 0:
      return {part("box", -3.5, -2.5, 4.0, 3.0, 15, 1.0, 0.35),
              part("dome", 4.0, 3.5, 3.5, 3.5, 0, 1.5, 0),
              part("cylinder", -4.0, 5.0, 2.5, 2.5, 0, 0.6, 0.15),
              part("box", 5.5, -5.0, 1.5, 1.5, -30, 0.4, 0.2)};
    case 1:
      return {part("ridge", 0.0, -5.5, 8.0, 1.2, -8, 0.8, 0.3),
              part("cylinder", -5.0, 3.0, 3.0, 3.0, 0, 1.2, 0.2),
              part("cylinder", 2.0, 4.0, 1.8, 1.8, 0, 0.5, 0.12),
              part("cone", 6.5, 2.5, 2.6, 2.6, 0, 1.4, 1.8)};
    case 3:
      return {part("wedge", -4.5, -3.5, 3.0, 2.0, 20, 1.2, 0.15),   // a ramp rising along its length
              part("box", 4.5, -4.0, 2.5, 2.5, -15, 1.0, 1.3),     // a frustum with 38 degree sides
              part("dome", 3.5, 4.5, 3.5, 2.2, -35, 0.7, 0),       // a flat elliptical dome
              part("box", -4.5, 4.5, 2.2, 1.4, 60, 0.45, 0.1)};    // a thin chip
    default:
      return {part("box", 0.0, 0.0, 6.5, 4.5, 40, 0.5, 0.25),      // a low base plate
              part("box", 0.5, 0.5, 2.5, 2.0, 40, 1.3, 0.5),       // a block on it
              part("dome", -6.0, 5.5, 3.0, 2.0, 25, 0.9, 0),       // an elliptical dome
              part("cone", 6.0, -6.0, 2.2, 2.2, 0, 1.1, 1.1)};
  }
}

// Height of one part above the board at (x, y), metres, >= 0.
double PartHeight(const Part& p, double x, double y) {
  const double dx = x - p.cx, dy = y - p.cy;
  const double c = std::cos(p.angle), s = std::sin(p.angle);
  const double lx = c * dx + s * dy, ly = -s * dx + c * dy;
  if (p.kind == "box" || p.kind == "ridge") {
    const double d = std::min(p.half_x - std::abs(lx), p.half_y - std::abs(ly));
    if (d <= 0) return 0;
    return p.height * std::min(1.0, d / p.bevel);
  }
  if (p.kind == "wedge") {
    // Rises along its length from a quarter of its height to all of it.
    const double d = std::min(p.half_x - std::abs(lx), p.half_y - std::abs(ly));
    if (d <= 0) return 0;
    const double ramp = std::min(1.0, 0.25 + 0.75 * (lx + p.half_x) / (2 * p.half_x - p.bevel));
    return p.height * ramp * std::min(1.0, d / p.bevel);
  }
  if (p.kind == "dome") {
    // A spherical cap stretched to the part's ellipse.
    const double r = std::hypot(lx / p.half_x, ly / p.half_y);
    if (r >= 1) return 0;
    const double R = std::max(p.half_x, p.half_y), H = p.height;
    const double rs = (R * R + H * H) / (2 * H), rho = r * R;
    return std::max(0.0, std::sqrt(rs * rs - rho * rho) - (rs - H));
  }
  // cylinder and cone: round, with a sloped rim of width `bevel`.
  const double d = p.half_x - std::hypot(lx, ly);
  if (d <= 0) return 0;
  return p.height * std::min(1.0, d / p.bevel);
}

Surface MakeSurface(const std::vector<Part>& parts, std::vector<uint8_t>* part_of_sample) {
  Surface s;
  s.step = 0.04 * kMm;
  const double half = 12 * kMm;
  s.x0 = s.y0 = -half;
  s.cols = s.rows = static_cast<int>(std::lround(2 * half / s.step)) + 1;
  s.z.assign(static_cast<size_t>(s.rows) * s.cols, 0.0f);
  part_of_sample->assign(s.z.size(), 0);
  for (int r = 0; r < s.rows; ++r) {
    const double y = s.y0 + r * s.step;
    for (int c = 0; c < s.cols; ++c) {
      const double x = s.x0 + c * s.step;
      double best = 0;
      uint8_t id = 0;
      for (size_t i = 0; i < parts.size(); ++i) {
        const double h = PartHeight(parts[i], x, y);
        if (h > best) {
          best = h;
          id = static_cast<uint8_t>(i + 1);
        }
      }
      s.z[static_cast<size_t>(r) * s.cols + c] = static_cast<float>(-best);
      (*part_of_sample)[static_cast<size_t>(r) * s.cols + c] = id;
    }
  }
  return s;
}

// Noise of a given grain: white noise blurred at `sigma` texels, scaled to unit spread.
cv::Mat Grain(cv::RNG& rng, int n, double sigma) {
  cv::Mat m(n, n, CV_32F);
  rng.fill(m, cv::RNG::NORMAL, 0, 1);
  if (sigma > 0.3) cv::GaussianBlur(m, m, cv::Size(), sigma, sigma, cv::BORDER_REFLECT);
  cv::Scalar mean, dev;
  cv::meanStdDev(m, mean, dev);
  m = (m - mean[0]) / std::max(1e-6, dev[0]);
  return m;
}

std::string RandomLabel(cv::RNG& rng) {
  static const char kChars[] = "ABCDEFGHJKLMNPRSTUVWXYZ0123456789";
  std::string s;
  const int n = rng.uniform(2, 6);
  for (int i = 0; i < n; ++i) s += kChars[rng.uniform(0, static_cast<int>(sizeof kChars) - 1)];
  return s;
}

// The board's printed appearance, BGR, with structure at every scale a camera
// pixel sees and nothing periodic.
cv::Mat BoardTexture(int kind, cv::RNG& rng, int n) {
  cv::Mat3f tex(n, n);
  const cv::Mat fine = Grain(rng, n, 0.8), mid = Grain(rng, n, 3), coarse = Grain(rng, n, 12);
  cv::Vec3f base;
  double a_fine, a_mid, a_coarse;
  switch (kind) {
    case 0: base = {0.22f, 0.42f, 0.16f}; a_fine = 0.05; a_mid = 0.05; a_coarse = 0.04; break;
    case 1: base = {0.50f, 0.45f, 0.40f}; a_fine = 0.10; a_mid = 0.10; a_coarse = 0.06; break;
    case 3: base = {0.48f, 0.52f, 0.56f}; a_fine = 0.07; a_mid = 0.06; a_coarse = 0.05; break;
    default: base = {0.62f, 0.72f, 0.78f}; a_fine = 0.06; a_mid = 0.04; a_coarse = 0.03; break;
  }
  for (int r = 0; r < n; ++r)
    for (int c = 0; c < n; ++c) {
      const float v = static_cast<float>(1 + a_fine * fine.at<float>(r, c) + a_mid * mid.at<float>(r, c) +
                                         a_coarse * coarse.at<float>(r, c));
      tex(r, c) = base * v;
    }
  // Printed features, drawn in 0..1 BGR.
  const double unit = n / 48.0;  // texels per millimetre
  auto px = [&](double mm) { return static_cast<int>(std::lround(mm * unit)); };
  if (kind == 0) {
    // Copper traces, pads, vias and silkscreen labels of a circuit board.
    const cv::Scalar copper(0.35, 0.62, 0.72), pad(0.55, 0.75, 0.82), silk(0.92, 0.92, 0.9);
    for (int i = 0; i < 140; ++i) {
      cv::Point p(rng.uniform(0, n), rng.uniform(0, n));
      const int segments = rng.uniform(2, 6);
      const int width = std::max(1, px(rng.uniform(0.12, 0.35)));
      for (int k = 0; k < segments; ++k) {
        const int dir = rng.uniform(0, 8);
        const double len = rng.uniform(1.0, 7.0) * unit;
        cv::Point q(p.x + static_cast<int>(len * std::cos(dir * M_PI / 4)),
                    p.y + static_cast<int>(len * std::sin(dir * M_PI / 4)));
        cv::line(tex, p, q, copper, width, cv::LINE_AA);
        p = q;
      }
      cv::circle(tex, p, px(0.35), pad, -1, cv::LINE_AA);
      cv::circle(tex, p, px(0.12), cv::Scalar(0.05, 0.05, 0.05), -1, cv::LINE_AA);
    }
    for (int i = 0; i < 60; ++i) {
      cv::Point p(rng.uniform(0, n), rng.uniform(0, n));
      cv::rectangle(tex, p, p + cv::Point(px(rng.uniform(0.4, 1.5)), px(rng.uniform(0.4, 1.5))), pad, -1);
    }
    for (int i = 0; i < 50; ++i) {
      cv::putText(tex, RandomLabel(rng), cv::Point(rng.uniform(0, n), rng.uniform(0, n)),
                  cv::FONT_HERSHEY_SIMPLEX, unit * rng.uniform(0.03, 0.06), silk,
                  std::max(1, px(0.08)), cv::LINE_AA);
    }
  } else if (kind == 1) {
    // Granite: grains of many sizes and tones.
    for (int i = 0; i < 9000; ++i) {
      const double tone = rng.uniform(0.1, 1.0);
      const double radius = std::exp(rng.uniform(std::log(0.04), std::log(0.5)));
      cv::ellipse(tex, cv::Point(rng.uniform(0, n), rng.uniform(0, n)),
                  cv::Size(std::max(1, px(radius)), std::max(1, px(radius * rng.uniform(0.4, 1.0)))),
                  rng.uniform(0.0, 180.0), 0, 360, cv::Scalar(tone * 0.9, tone * 0.85, tone * 0.8), -1,
                  cv::LINE_AA);
    }
  } else if (kind == 3) {
    // Pressed fibres: short thin strokes, most of them near one direction.
    for (int i = 0; i < 7000; ++i) {
      const cv::Point p(rng.uniform(0, n), rng.uniform(0, n));
      const double a = (30 + rng.gaussian(25)) * M_PI / 180, len = rng.uniform(0.2, 1.2) * unit;
      const double tone = rng.uniform(0.25, 0.95);
      cv::line(tex, p, p + cv::Point(static_cast<int>(len * std::cos(a)), static_cast<int>(len * std::sin(a))),
               cv::Scalar(tone * 0.85, tone * 0.9, tone), std::max(1, px(rng.uniform(0.04, 0.1))), cv::LINE_AA);
    }
  } else {
    // Ceramic with printed dots, strokes and text.
    const cv::Scalar ink(0.12, 0.10, 0.10), red(0.15, 0.18, 0.62);
    for (int i = 0; i < 5000; ++i)
      cv::circle(tex, cv::Point(rng.uniform(0, n), rng.uniform(0, n)), std::max(1, px(rng.uniform(0.03, 0.25))),
                 rng.uniform(0, 4) == 0 ? red : ink, -1, cv::LINE_AA);
    for (int i = 0; i < 400; ++i) {
      const cv::Point p(rng.uniform(0, n), rng.uniform(0, n));
      const double a = rng.uniform(0.0, M_PI), len = rng.uniform(0.3, 2.0) * unit;
      cv::line(tex, p, p + cv::Point(static_cast<int>(len * std::cos(a)), static_cast<int>(len * std::sin(a))),
               ink, std::max(1, px(0.06)), cv::LINE_AA);
    }
    for (int i = 0; i < 80; ++i)
      cv::putText(tex, RandomLabel(rng), cv::Point(rng.uniform(0, n), rng.uniform(0, n)),
                  cv::FONT_HERSHEY_PLAIN, unit * rng.uniform(0.05, 0.1), ink, std::max(1, px(0.07)), cv::LINE_AA);
  }
  cv::GaussianBlur(tex, tex, cv::Size(), 0.6, 0.6);
  cv::Mat out;
  tex.convertTo(out, CV_8UC3, 255.0);
  return out;
}

cv::Mat PartTexture(int kind, cv::RNG& rng, int n) {
  const cv::Mat fine = Grain(rng, n, kind == 1 ? 1.6 : 0.9), mid = Grain(rng, n, kind == 2 ? 2.5 : 5);
  cv::Mat v = 0.5 + 0.17 * fine + 0.1 * mid;
  cv::Mat out;
  v.convertTo(out, CV_8U, 255.0);
  return out;
}

// Camera frame looking from `eye` at `target`, image rows pointing down the
// board's slope as seen by the camera (x right, y down, z forward).
Eigen::Isometry3d LookAt(const Eigen::Vector3d& eye, const Eigen::Vector3d& target, double roll) {
  const Eigen::Vector3d z = (target - eye).normalized();
  const Eigen::Vector3d down(0, 0, 1);
  const Eigen::Vector3d y = (down - down.dot(z) * z).normalized();
  const Eigen::Vector3d x = y.cross(z);
  Eigen::Matrix3d r;
  r.col(0) = x;
  r.col(1) = y;
  r.col(2) = z;
  Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
  t.linear() = r * Eigen::AngleAxisd(roll, Eigen::Vector3d::UnitZ()).toRotationMatrix();
  t.translation() = eye;
  return t;
}

inline float Bilinear8(const cv::Mat& m, double u, double v, int channel) {
  // Tiled: wraps in both directions.
  const int n = m.cols, rows = m.rows;
  const double fu = std::floor(u), fv = std::floor(v);
  const float a = static_cast<float>(u - fu), b = static_cast<float>(v - fv);
  int c0 = static_cast<int>(fu) % n, r0 = static_cast<int>(fv) % rows;
  if (c0 < 0) c0 += n;
  if (r0 < 0) r0 += rows;
  const int c1 = c0 + 1 == n ? 0 : c0 + 1, r1 = r0 + 1 == rows ? 0 : r0 + 1;
  const int ch = m.channels();
  const uint8_t* p0 = m.ptr<uint8_t>(r0);
  const uint8_t* p1 = m.ptr<uint8_t>(r1);
  const float v00 = p0[c0 * ch + channel], v01 = p0[c1 * ch + channel];
  const float v10 = p1[c0 * ch + channel], v11 = p1[c1 * ch + channel];
  return (v00 * (1 - a) + v01 * a) * (1 - b) + (v10 * (1 - a) + v11 * a) * b;
}

}  // namespace

vision::HTuple RigCamera::PoseTuple() const { return vision::IsometryToPose(camera_to_world); }

double Surface::ZAt(double x, double y) const {
  const double u = (x - x0) / step, v = (y - y0) / step;
  if (!(u >= 0 && v >= 0 && u <= cols - 1 && v <= rows - 1)) return 0;
  int c = static_cast<int>(u), r = static_cast<int>(v);
  if (c >= cols - 1) c = cols - 2;
  if (r >= rows - 1) r = rows - 2;
  const double a = u - c, b = v - r;
  const float* p = z.data() + static_cast<size_t>(r) * cols + c;
  return (p[0] * (1 - a) + p[1] * a) * (1 - b) + (p[cols] * (1 - a) + p[cols + 1] * a) * b;
}

std::vector<Eigen::Vector3d> Part::Corners() const {
  std::vector<Eigen::Vector3d> out;
  const double c = std::cos(angle), s = std::sin(angle);
  for (double z : {-height, 0.0})
    for (int k = 0; k < 4; ++k) {
      const double lx = (k & 1 ? 1 : -1) * half_x, ly = (k & 2 ? 1 : -1) * half_y;
      out.emplace_back(cx + c * lx - s * ly, cy + s * lx + c * ly, z);
    }
  return out;
}

Rig MakeRig(int variant, uint32_t seed) {
  const VariantSpec spec = Spec(variant);
  Rig rig;
  rig.variant = variant;
  rig.seed = seed;
  rig.parts = PartsOf(variant);
  rig.surface = MakeSurface(rig.parts, &rig.part_of_sample);

  // Geometry from the variant alone, so every seed of a variant shares one calibration.
  cv::RNG geo(0x5eed0000u + static_cast<uint32_t>(variant));
  const Eigen::Vector3d centre(0, 0, -0.5 * kMm);
  for (int i = 0; i < kCameraCount; ++i) {
    const int side = i / 2;
    const double az = (spec.azimuth0_deg + 90.0 * side +
                       (i % 2 == 0 ? -spec.half_baseline_deg : spec.half_baseline_deg) +
                       geo.uniform(-1.0, 1.0)) * kDeg;
    const double el = (spec.elevation_deg + geo.uniform(-2.0, 2.0)) * kDeg;
    const double dist = spec.distance * (1 + geo.uniform(-0.03, 0.03));
    const Eigen::Vector3d eye = centre + dist * Eigen::Vector3d(std::cos(el) * std::cos(az),
                                                                std::cos(el) * std::sin(az), -std::sin(el));
    const Eigen::Vector3d aim = centre + Eigen::Vector3d(geo.uniform(-1.0, 1.0), geo.uniform(-1.0, 1.0), 0) * kMm;
    RigCamera cam;
    cam.camera_to_world = LookAt(eye, aim, geo.uniform(-2.0, 2.0) * kDeg);
    cam.params.focus = spec.focus * (1 + geo.uniform(-0.01, 0.01));
    cam.params.kappa = spec.kappa * (1 + geo.uniform(-0.1, 0.1));
    cam.params.sx = cam.params.sy = spec.cell;
    cam.params.cx = kImageWidth / 2.0 - 0.5 + geo.uniform(-6.0, 6.0);
    cam.params.cy = kImageHeight / 2.0 - 0.5 + geo.uniform(-6.0, 6.0);
    cam.params.width = kImageWidth;
    cam.params.height = kImageHeight;
    rig.cameras.push_back(cam);
  }

  cv::RNG look(seed * 2654435761u + static_cast<uint32_t>(variant) * 97u + 1u);
  const int n = 1600;
  rig.texture_step = 48 * kMm / n;
  rig.board_texture = BoardTexture(spec.texture_kind, look, n);
  rig.part_texture = PartTexture(spec.texture_kind, look, 1024);
  static const cv::Vec3f kPalette[4][4] = {
      {{0.30f, 0.28f, 0.30f}, {0.72f, 0.72f, 0.74f}, {0.62f, 0.38f, 0.22f}, {0.35f, 0.55f, 0.75f}},
      {{0.70f, 0.66f, 0.60f}, {0.20f, 0.30f, 0.55f}, {0.55f, 0.62f, 0.55f}, {0.30f, 0.30f, 0.32f}},
      {{0.40f, 0.52f, 0.40f}, {0.70f, 0.70f, 0.70f}, {0.25f, 0.45f, 0.70f}, {0.65f, 0.45f, 0.50f}},
      {{0.45f, 0.40f, 0.35f}, {0.25f, 0.35f, 0.30f}, {0.60f, 0.55f, 0.65f}, {0.22f, 0.22f, 0.26f}}};
  for (size_t i = 0; i < rig.parts.size(); ++i) rig.part_colors.push_back(kPalette[spec.texture_kind][i % 4]);
  rig.light = spec.light.normalized();
  rig.light_color = spec.light_color;
  rig.ambient = spec.ambient;
  rig.noise_sigma = spec.noise_sigma;
  return rig;
}

namespace {

struct Hit {
  Eigen::Vector3d p;
  Eigen::Vector3d normal;
  int part;  // 0 board
};

// What the ray caster precomputes once per rendering: the highest point of
// the surface overall and per tile, so that rays skip flat board in big steps.
struct Scene {
  explicit Scene(const Rig& r) : rig(r) {
    const Surface& s = rig.surface;
    tile_rows = (s.rows - 1 + kTile - 1) / kTile;
    tile_cols = (s.cols - 1 + kTile - 1) / kTile;
    tile_top.assign(static_cast<size_t>(tile_rows) * tile_cols, 0.0f);
    for (int tr = 0; tr < tile_rows; ++tr)
      for (int tc = 0; tc < tile_cols; ++tc) {
        float m = 0;
        // Tiles share their border samples, so bilinear values inside are bounded.
        for (int r = tr * kTile; r <= std::min(s.rows - 1, (tr + 1) * kTile); ++r)
          for (int c = tc * kTile; c <= std::min(s.cols - 1, (tc + 1) * kTile); ++c) m = std::min(m, s.At(r, c));
        tile_top[static_cast<size_t>(tr) * tile_cols + tc] = m;
        top = std::min<double>(top, m);
      }
    top -= 1e-6;
    tile_size = kTile * s.step;
    // A coarser level over the tiles lets rays cross open board in a few steps.
    coarse_rows = (tile_rows + kCoarse - 1) / kCoarse;
    coarse_cols = (tile_cols + kCoarse - 1) / kCoarse;
    coarse_top.assign(static_cast<size_t>(coarse_rows) * coarse_cols, 0.0f);
    for (int tr = 0; tr < tile_rows; ++tr)
      for (int tc = 0; tc < tile_cols; ++tc) {
        float& m = coarse_top[static_cast<size_t>(tr / kCoarse) * coarse_cols + tc / kCoarse];
        m = std::min(m, tile_top[static_cast<size_t>(tr) * tile_cols + tc]);
      }
    coarse_size = kCoarse * tile_size;
  }
  static constexpr int kTile = 4;
  static constexpr int kCoarse = 8;
  const Rig& rig;
  double top = 0, tile_size = 0, coarse_size = 0;
  int tile_rows = 0, tile_cols = 0, coarse_rows = 0, coarse_cols = 0;
  std::vector<float> tile_top, coarse_top;
};

// First point where the line of sight from `o` along the unit vector `d`
// meets the scene (t in metres along the ray).
bool CastRay(const Scene& scene, const Eigen::Vector3d& o, const Eigen::Vector3d& d, Hit* hit) {
  const Surface& s = scene.rig.surface;
  if (!(d.z() > 1e-9) || o.z() >= 0) return false;
  const double t_top = (scene.top - o.z()) / d.z(), t_board = -o.z() / d.z();
  // The part of the ray inside the grid's footprint, between its top and the board.
  double ta = std::max(0.0, t_top), tb = t_board;
  const double xmax = s.x0 + (s.cols - 1) * s.step, ymax = s.y0 + (s.rows - 1) * s.step;
  auto clip = [&](double origin, double dir, double lo, double hi) {
    if (std::abs(dir) < 1e-15) {
      if (origin < lo || origin > hi) tb = -1;
      return;
    }
    double t0 = (lo - origin) / dir, t1 = (hi - origin) / dir;
    if (t0 > t1) std::swap(t0, t1);
    ta = std::max(ta, t0);
    tb = std::min(tb, t1);
  };
  clip(o.x(), d.x(), s.x0, xmax);
  clip(o.y(), d.y(), s.y0, ymax);
  const double inv_step = 1.0 / s.step;
  const float* zs = s.z.data();
  // Inside the footprint the bilinear value needs no bounds check beyond a clamp.
  auto above = [&](double t) {
    const double x = o.x() + t * d.x(), y = o.y() + t * d.y(), z = o.z() + t * d.z();
    const double u = std::clamp((x - s.x0) * inv_step, 0.0, s.cols - 1.000001);
    const double v = std::clamp((y - s.y0) * inv_step, 0.0, s.rows - 1.000001);
    const int c = static_cast<int>(u), r = static_cast<int>(v);
    const double a = u - c, b = v - r;
    const float* q = zs + static_cast<size_t>(r) * s.cols + c;
    return z < (q[0] * (1 - a) + q[1] * a) * (1 - b) + (q[s.cols] * (1 - a) + q[s.cols + 1] * a) * b;
  };
  double t_hit = t_board;
  const double horiz = std::sqrt(d.x() * d.x() + d.y() * d.y());
  // Fine steps: about a sample sideways and 0.05 mm in depth; the surface is
  // smooth at that scale, and bisection finds the crossing.
  const double dt = std::min(horiz > 1e-12 ? 1.2 * s.step / horiz : 1e9, 5e-5 / d.z());
  auto exit_of = [&](double origin, double dir, double lo, double size) {
    if (dir > 1e-15) return (lo + size - origin) / dir;
    if (dir < -1e-15) return (lo - origin) / dir;
    return 1e30;
  };
  for (double t = ta; t < tb;) {
    const Eigen::Vector3d p = o + t * d;
    const int cc = std::clamp(static_cast<int>((p.x() - s.x0) / scene.coarse_size), 0, scene.coarse_cols - 1);
    const int cr = std::clamp(static_cast<int>((p.y() - s.y0) / scene.coarse_size), 0, scene.coarse_rows - 1);
    const double tce = std::min({exit_of(o.x(), d.x(), s.x0 + cc * scene.coarse_size, scene.coarse_size),
                                 exit_of(o.y(), d.y(), s.y0 + cr * scene.coarse_size, scene.coarse_size), tb});
    if (tce > t && o.z() + tce * d.z() < scene.coarse_top[static_cast<size_t>(cr) * scene.coarse_cols + cc]) {
      t = tce + 1e-9;  // above everything in this coarse tile
      continue;
    }
    const int tc = std::clamp(static_cast<int>((p.x() - s.x0) / scene.tile_size), 0, scene.tile_cols - 1);
    const int tr = std::clamp(static_cast<int>((p.y() - s.y0) / scene.tile_size), 0, scene.tile_rows - 1);
    double te = std::min({exit_of(o.x(), d.x(), s.x0 + tc * scene.tile_size, scene.tile_size),
                          exit_of(o.y(), d.y(), s.y0 + tr * scene.tile_size, scene.tile_size), tb});
    if (te < t) te = t;
    if (o.z() + te * d.z() < scene.tile_top[static_cast<size_t>(tr) * scene.tile_cols + tc]) {
      t = te + 1e-9;  // above everything in this tile
      continue;
    }
    double found = -1, t_prev = t;
    for (double u = std::min(t + dt, te);; u = std::min(u + dt, te)) {
      if (!above(u)) {
        double lo = t_prev, hi = u;
        for (int k = 0; k < 7; ++k) {
          const double mid = 0.5 * (lo + hi);
          (above(mid) ? lo : hi) = mid;
        }
        found = hi;
        break;
      }
      t_prev = u;
      if (u >= te) break;
    }
    if (found >= 0) {
      t_hit = found;
      break;
    }
    t = te + 1e-9;
  }
  hit->p = o + t_hit * d;
  const double x = hit->p.x(), y = hit->p.y(), e = s.step;
  const double gx = (s.ZAt(x + e, y) - s.ZAt(x - e, y)) / (2 * e);
  const double gy = (s.ZAt(x, y + e) - s.ZAt(x, y - e)) / (2 * e);
  hit->normal = Eigen::Vector3d(gx, gy, -1).normalized();
  const int c = static_cast<int>(std::lround((x - s.x0) / s.step));
  const int r = static_cast<int>(std::lround((y - s.y0) / s.step));
  hit->part = (c >= 0 && r >= 0 && c < s.cols && r < s.rows && hit->p.z() < -1e-6)
                  ? scene.rig.part_of_sample[static_cast<size_t>(r) * s.cols + c]
                  : 0;
  return true;
}

cv::Vec3f Shade(const Rig& rig, const Hit& h) {
  cv::Vec3f albedo;
  const double inv = 1.0 / rig.texture_step;
  if (h.part == 0) {
    const double u = h.p.x() * inv + 800, v = h.p.y() * inv + 800;
    for (int k = 0; k < 3; ++k) albedo[k] = Bilinear8(rig.board_texture, u, v, k) / 255.0f;
  } else {
    // Texture projected along the dominant axes of the normal, so that slopes
    // and walls carry texture as well as tops.
    const double wx = std::abs(h.normal.x()), wy = std::abs(h.normal.y()), wz = std::abs(h.normal.z());
    const double sum = wx + wy + wz;
    const double x = h.p.x() * inv, y = h.p.y() * inv, z = h.p.z() * inv;
    const double speckle = (wz * Bilinear8(rig.part_texture, x, y, 0) +
                            wx * Bilinear8(rig.part_texture, y + 311, z + 97, 0) +
                            wy * Bilinear8(rig.part_texture, x + 523, z + 211, 0)) /
                           (255.0 * sum);
    albedo = rig.part_colors[h.part - 1] * static_cast<float>(0.35 + 0.9 * speckle);
  }
  const double diffuse = std::max(0.0, h.normal.dot(rig.light));
  const float shade = static_cast<float>(rig.ambient + (1 - rig.ambient) * diffuse);
  return cv::Vec3f(albedo[0] * rig.light_color[0], albedo[1] * rig.light_color[1],
                   albedo[2] * rig.light_color[2]) * shade;
}

constexpr int kBandRows = 24;

void RenderBand(const Scene& scene, int camera, int row0, int row1, cv::Mat* out) {
  const Rig& rig = scene.rig;
  const RigCamera& cam = rig.cameras[camera];
  const Eigen::Matrix3d R = cam.camera_to_world.linear();
  const Eigen::Vector3d o = cam.camera_to_world.translation();
  // Four rays per pixel on a rotated grid: anti-aliasing as a sensor's fill factor gives.
  static const double kOffsets[4][2] = {{-0.375, -0.125}, {0.125, -0.375}, {0.375, 0.125}, {-0.125, 0.375}};
  const cv::Vec3f background(0.02f, 0.02f, 0.02f);
  cv::Mat noise(row1 - row0, out->cols, CV_32FC3);
  cv::RNG rng(rig.seed * 7919u + static_cast<uint32_t>(camera) * 104729u + static_cast<uint32_t>(row0) + 17u);
  rng.fill(noise, cv::RNG::NORMAL, 0, rig.noise_sigma);
  const double half_diag2 = 0.25 * (out->cols * out->cols + out->rows * out->rows);
  for (int row = row0; row < row1; ++row) {
    auto* dst = out->ptr<cv::Vec3b>(row);
    const auto* nz = noise.ptr<cv::Vec3f>(row - row0);
    for (int col = 0; col < out->cols; ++col) {
      cv::Vec3f sum(0, 0, 0);
      for (const auto& off : kOffsets) {
        const Eigen::Vector3d d = (R * cam.params.Unproject(row + off[1], col + off[0])).normalized();
        Hit hit;
        sum += CastRay(scene, o, d, &hit) ? Shade(rig, hit) : background;
      }
      // A little lens vignetting, as real optics have.
      const double dr = row - cam.params.cy, dc = col - cam.params.cx;
      const float vignette = static_cast<float>(1.0 - 0.12 * (dr * dr + dc * dc) / half_diag2);
      for (int k = 0; k < 3; ++k) {
        const float v = sum[k] * 0.25f * vignette * 255.0f + nz[col][k];
        dst[col][k] = cv::saturate_cast<uint8_t>(v);
      }
    }
  }
}

}  // namespace

std::optional<Eigen::Vector3d> FirstHit(const Rig& rig, int camera, double row, double column) {
  const Scene scene(rig);
  const RigCamera& cam = rig.cameras.at(static_cast<size_t>(camera));
  const Eigen::Vector3d d = (cam.camera_to_world.linear() * cam.params.Unproject(row, column)).normalized();
  Hit hit;
  if (!CastRay(scene, cam.camera_to_world.translation(), d, &hit)) return std::nullopt;
  return hit.p;
}

cv::Mat RenderView(const Rig& rig, int camera) {
  const Scene scene(rig);
  cv::Mat out(kImageHeight, kImageWidth, CV_8UC3);
  for (int r = 0; r < kImageHeight; r += kBandRows)
    RenderBand(scene, camera, r, std::min(kImageHeight, r + kBandRows), &out);
  return out;
}

std::vector<cv::Mat> RenderViews(const Rig& rig) {
  const Scene scene(rig);
  std::vector<cv::Mat> views;
  for (size_t i = 0; i < rig.cameras.size(); ++i) views.emplace_back(kImageHeight, kImageWidth, CV_8UC3);
  const int bands = (kImageHeight + kBandRows - 1) / kBandRows;
  const int tasks = bands * static_cast<int>(views.size());
  std::atomic<int> next{0};
  auto work = [&] {
    for (int t = next++; t < tasks; t = next++) {
      const int cam = t / bands, r0 = (t % bands) * kBandRows;
      RenderBand(scene, cam, r0, std::min(kImageHeight, r0 + kBandRows), &views[cam]);
    }
  };
  const unsigned n = std::clamp(std::thread::hardware_concurrency(), 1u, 16u);
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < n; ++i) threads.emplace_back(work);
  work();
  for (auto& t : threads) t.join();
  return views;
}

bool WriteSurface(const Surface& surface, const std::string& npy_path, const std::string& json_path,
                  std::string* error) {
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                       std::to_string(surface.rows) + ", " + std::to_string(surface.cols) + "), }";
  // Magic (6) + version (2) + length (2) + header, padded to a multiple of 64.
  while ((10 + header.size() + 1) % 64 != 0) header += ' ';
  header += '\n';
  std::ofstream npy(npy_path, std::ios::binary | std::ios::trunc);
  if (!npy) {
    if (error) *error = "cannot write " + npy_path;
    return false;
  }
  const uint16_t hlen = static_cast<uint16_t>(header.size());
  npy.write("\x93NUMPY\x01\x00", 8);
  const char len_le[2] = {static_cast<char>(hlen & 0xff), static_cast<char>(hlen >> 8)};
  npy.write(len_le, 2);
  npy.write(header.data(), static_cast<std::streamsize>(header.size()));
  npy.write(reinterpret_cast<const char*>(surface.z.data()),
            static_cast<std::streamsize>(surface.z.size() * sizeof(float)));
  nlohmann::ordered_json j;
  j["format"] = "npy float32, world z in metres (negative above the board)";
  j["rows"] = surface.rows;
  j["cols"] = surface.cols;
  j["origin"] = {surface.x0, surface.y0};
  j["step"] = surface.step;
  j["sample"] = "(r, c) at x = origin[0] + c * step, y = origin[1] + r * step";
  std::ofstream js(json_path, std::ios::trunc);
  js << j.dump(2) << "\n";
  if (!npy || !js) {
    if (error) *error = "cannot write " + npy_path + " or " + json_path;
    return false;
  }
  return true;
}

std::optional<Surface> ReadSurface(const std::string& npy_path, const std::string& json_path,
                                   std::string* error) {
  auto fail = [&](const std::string& why) -> std::optional<Surface> {
    if (error) *error = why;
    return std::nullopt;
  };
  std::ifstream js(json_path);
  if (!js) return fail("cannot read " + json_path);
  Surface s;
  try {
    const auto j = nlohmann::json::parse(js);
    s.rows = j.at("rows").get<int>();
    s.cols = j.at("cols").get<int>();
    s.x0 = j.at("origin").at(0).get<double>();
    s.y0 = j.at("origin").at(1).get<double>();
    s.step = j.at("step").get<double>();
  } catch (const std::exception& e) {
    return fail(json_path + ": " + e.what());
  }
  if (s.rows < 2 || s.cols < 2 || !(s.step > 0)) return fail(json_path + ": bad grid size");
  std::ifstream npy(npy_path, std::ios::binary);
  char head[10];
  if (!npy.read(head, 10) || std::memcmp(head, "\x93NUMPY", 6) != 0)
    return fail(npy_path + ": not an .npy file");
  const size_t hlen = static_cast<uint8_t>(head[8]) | (static_cast<size_t>(static_cast<uint8_t>(head[9])) << 8);
  std::string header(hlen, '\0');
  if (!npy.read(header.data(), static_cast<std::streamsize>(hlen)) ||
      header.find("'<f4'") == std::string::npos || header.find("False") == std::string::npos)
    return fail(npy_path + ": expected little-endian float32 in C order");
  s.z.resize(static_cast<size_t>(s.rows) * s.cols);
  if (!npy.read(reinterpret_cast<char*>(s.z.data()), static_cast<std::streamsize>(s.z.size() * sizeof(float))))
    return fail(npy_path + ": shorter than " + std::to_string(s.rows) + " x " + std::to_string(s.cols));
  return s;
}

}  // namespace velmora::synth
