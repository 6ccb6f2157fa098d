#include "vision/window/render_3d.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "vision/calib/camera_params.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/color.h"
#include "vision/window/window.h"

namespace vision {
namespace {

struct Rgb {
  float r, g, b;
};

// ceil and floor of coordinates already limited to +-1e7, without the libm
// calls that x86-64's baseline instruction set needs for them.
inline int CeilInt(float v) {
  const int i = int(v);
  return i + (float(i) < v);
}
inline int FloorInt(float v) {
  const int i = int(v);
  return i - (float(i) > v);
}

// Everything the generic parameters can set.
struct DisplayParams {
  Rgb color{255, 255, 255};
  int colored = 0;
  std::string intensity, intensity_red, intensity_green, intensity_blue;
  double point_size = 3;
  double alpha = 1;
  bool disp_pose = false;
  double light[4] = {-100, -100, -100, 1};
  Rgb ambient{0.2f, 0.2f, 0.2f}, diffuse{0.8f, 0.8f, 0.8f};
};

std::vector<double> Numbers(const HTuple& value, Hlong i, size_t n, const char* op,
                            const std::string& name) {
  std::vector<double> out;
  if (value.IsString(i)) {
    std::istringstream in(value.S(i));
    double v;
    while (in >> v) out.push_back(v);
    if (!in.eof()) out.clear();
  } else if (value.IsNumber(i)) {
    out.push_back(value.D(i));
  }
  if (out.size() != n)
    throw HException(op, "Wrong value of generic parameter " + name, kErrWrongParamValue);
  for (double v : out)
    if (!std::isfinite(v)) throw HException(op, "Wrong value of generic parameter " + name, kErrWrongParamValue);
  return out;
}

DisplayParams ParseParams(const HTuple& names, const HTuple& values, const char* op) {
  if (names.Length() != values.Length())
    throw HException(op, "Number of generic parameter names and values differ", kErrWrongParamCount);
  DisplayParams p;
  for (Hlong i = 0; i < names.Length(); ++i) {
    if (!names.IsString(i)) throw HException(op, "Wrong type of control parameter GenParamName", kErrWrongParamType);
    const std::string& n = names.S(i);
    auto str = [&]() -> const std::string& {
      if (!values.IsString(i)) throw HException(op, "Wrong type of generic parameter value for " + n, kErrWrongParamType);
      return values.S(i);
    };
    auto attrib = [&]() {
      const std::string& s = str();
      if (s.empty() || s[0] != '&')
        throw HException(op, "Wrong value of generic parameter " + n + ": '" + s + "'", kErrWrongParamValue);
      return s;
    };
    if (n == "color") {
      auto c = ParseColor(str());
      if (!c) throw HException(op, "Wrong value of generic parameter color: '" + values.S(i) + "'", kErrWrongParamValue);
      p.color = {float(c->r), float(c->g), float(c->b)};
    } else if (n == "colored") {
      int k = int(Numbers(values, i, 1, op, n)[0]);
      if (k != 3 && k != 6 && k != 12) throw HException(op, "Wrong value of generic parameter colored", kErrWrongParamValue);
      p.colored = k;
    } else if (n == "intensity") {
      p.intensity = attrib();
    } else if (n == "intensity_red") {
      p.intensity_red = attrib();
    } else if (n == "intensity_green") {
      p.intensity_green = attrib();
    } else if (n == "intensity_blue") {
      p.intensity_blue = attrib();
    } else if (n == "point_size") {
      p.point_size = Numbers(values, i, 1, op, n)[0];
      if (p.point_size < 0 || p.point_size > 1000) throw HException(op, "Wrong value of generic parameter point_size", kErrWrongParamValue);
    } else if (n == "alpha") {
      p.alpha = Numbers(values, i, 1, op, n)[0];
      if (p.alpha < 0 || p.alpha > 1) throw HException(op, "Wrong value of generic parameter alpha", kErrWrongParamValue);
    } else if (n == "disp_pose") {
      const std::string& s = str();
      if (s != "true" && s != "false") throw HException(op, "Wrong value of generic parameter disp_pose", kErrWrongParamValue);
      p.disp_pose = s == "true";
    } else if (n == "light_position") {
      auto v = Numbers(values, i, 4, op, n);
      std::copy(v.begin(), v.end(), p.light);
    } else if (n == "light_ambient" || n == "light_diffuse") {
      auto v = Numbers(values, i, 3, op, n);
      for (double x : v)
        if (x < 0 || x > 1) throw HException(op, "Wrong value of generic parameter " + n, kErrWrongParamValue);
      (n == "light_ambient" ? p.ambient : p.diffuse) = {float(v[0]), float(v[1]), float(v[2])};
    } else {
      throw HException(op, "Wrong value of control parameter GenParamName: '" + n + "'", kErrWrongParamValue);
    }
  }
  return p;
}

// Where the camera's image lands in the target: target = (image - part) * scale
// with pixel centres on integers.
struct TargetMap {
  double row0 = 0, col0 = 0, sy = 1, sx = 1;
};

// The per-frame buffers, kept per thread so that redraws do not allocate.
struct Frame {
  int width = 0, height = 0;
  std::vector<float> invz;   // 1/z of the nearest surface, 0 where nothing
  std::vector<uint8_t> rgb;  // red first, when colours are wanted
  std::vector<float> qx, qy; // x/z, y/z of the surface, when coordinates are wanted
  bool want_rgb = false, want_xyz = false;

  void Reset(int w, int h, bool rgb_wanted, bool xyz_wanted) {
    width = w;
    height = h;
    want_rgb = rgb_wanted;
    want_xyz = xyz_wanted;
    const size_t n = size_t(w) * size_t(h);
    invz.assign(n, 0.0f);
    if (want_rgb) rgb.resize(3 * n);
    if (want_xyz) {
      qx.resize(n);
      qy.resize(n);
    }
  }
};

struct Vertex {
  float x, y;      // target pixel coordinates
  float invz;      // 1 / z (0 marks a point that cannot be drawn)
  float qx, qy;    // camera x/z, y/z
  float r, g, b;   // colour 0..255
  float cx, cy, cz;  // camera frame position
};

const std::vector<double>* Attribute(const ObjectModel3DData& m, const std::string& name,
                                     const char* op) {
  if (name.empty()) return nullptr;
  auto it = m.attribs.find(name);
  if (it == m.attribs.end() || it->second.size() != m.points.size())
    throw HException(op, "Object model has no attribute " + name, kErrWrongParamValue);
  return &it->second;
}

Rgb ModelColor(const DisplayParams& p, size_t index) {
  if (p.colored == 0) return p.color;
  static const char* kPalette[12] = {"red", "green", "blue", "cyan", "magenta", "yellow",
                                     "coral", "slate blue", "spring green", "orange red",
                                     "dark olive green", "pink"};
  auto c = ParseColor(kPalette[index % size_t(p.colored)]);
  return {float(c->r), float(c->g), float(c->b)};
}

class Rasterizer {
 public:
  Rasterizer(Frame& frame, const CamParams& cam, const TargetMap& map, const DisplayParams& p)
      : f_(frame), cam_(cam), map_(map), p_(p) {}

  void Draw(const ObjectModel3DData& m, const Eigen::Isometry3d& pose, Rgb base, const char* op) {
    const std::vector<double>* ar = Attribute(m, p_.intensity_red, op);
    const std::vector<double>* ag = Attribute(m, p_.intensity_green, op);
    const std::vector<double>* ab = Attribute(m, p_.intensity_blue, op);
    const std::vector<double>* ai = Attribute(m, p_.intensity, op);
    const size_t n = m.points.size();
    verts_.resize(n);
    const Eigen::Matrix3f R = pose.linear().cast<float>();
    const Eigen::Vector3f T = pose.translation().cast<float>();
    const float f = float(cam_.focus), kappa = float(cam_.kappa);
    const float ksx = float(map_.sx / cam_.sx), ksy = float(map_.sy / cam_.sy);
    const float ox = float((cam_.cx - map_.col0 + 0.5) * map_.sx - 0.5);
    const float oy = float((cam_.cy - map_.row0 + 0.5) * map_.sy - 0.5);
    auto channel = [](const std::vector<double>* a, size_t i, float dflt) {
      if (!a) return dflt;
      return float(std::clamp((*a)[i], 0.0, 255.0));
    };
    for (size_t i = 0; i < n; ++i) {
      Vertex& v = verts_[i];
      const Eigen::Vector3f c = R * m.points[i] + T;
      v.cx = c.x();
      v.cy = c.y();
      v.cz = c.z();
      v.invz = 0;
      if (!(c.z() > 1e-9f)) continue;
      const float iz = 1.0f / c.z();
      float u = f * c.x() * iz, w = f * c.y() * iz;
      if (kappa != 0) {
        const float d = 1.0f - 4.0f * kappa * (u * u + w * w);
        if (d < 0) continue;
        const float s = 2.0f / (1.0f + std::sqrt(d));
        u *= s;
        w *= s;
      }
      v.x = u * ksx + ox;
      v.y = w * ksy + oy;
      if (!std::isfinite(v.x) || !std::isfinite(v.y) || std::abs(v.x) > 1e7f || std::abs(v.y) > 1e7f) continue;
      v.invz = iz;
      v.qx = c.x() * iz;
      v.qy = c.y() * iz;
      if (ai) {
        const float g = channel(ai, i, 0);
        v.r = v.g = v.b = g;
      } else {
        v.r = channel(ar, i, base.r);
        v.g = channel(ag, i, base.g);
        v.b = channel(ab, i, base.b);
      }
    }
    if (m.HasTriangles()) {
      if (f_.want_rgb && !f_.want_xyz) Triangles<true, false>(m.triangles, n);
      else if (!f_.want_rgb && f_.want_xyz) Triangles<false, true>(m.triangles, n);
      else Triangles<true, true>(m.triangles, n);
    } else {
      const bool lit = m.HasNormals() && m.normals.size() == n;
      for (size_t i = 0; i < n; ++i) {
        const Vertex& v = verts_[i];
        if (v.invz == 0) continue;
        if (lit) {
          const Eigen::Vector3f nrm = R * m.normals[i];
          Point(v, Light(nrm, v));
        } else {
          Point(v, Rgb{1, 1, 1});
        }
      }
    }
  }

 private:
  // Two-sided Lambert term of the face normal `n` at `at`, per channel.
  Rgb Light(const Eigen::Vector3f& n, const Vertex& at) const {
    Eigen::Vector3f l(float(p_.light[0]), float(p_.light[1]), float(p_.light[2]));
    if (p_.light[3] != 0) l -= Eigen::Vector3f(at.cx, at.cy, at.cz);
    const float nl2 = n.squaredNorm() * l.squaredNorm();
    const float c = nl2 > 0 ? std::abs(n.dot(l)) / std::sqrt(nl2) : 1.0f;
    return {std::min(1.0f, p_.ambient.r + p_.diffuse.r * c), std::min(1.0f, p_.ambient.g + p_.diffuse.g * c),
            std::min(1.0f, p_.ambient.b + p_.diffuse.b * c)};
  }

  template <bool kRgb, bool kXyz>
  void Triangles(const std::vector<std::array<int32_t, 3>>& tris, size_t n) {
    for (const auto& t : tris) {
      if (uint32_t(t[0]) >= n || uint32_t(t[1]) >= n || uint32_t(t[2]) >= n) continue;
      Triangle<kRgb, kXyz>(verts_[size_t(t[0])], verts_[size_t(t[1])], verts_[size_t(t[2])]);
    }
  }

  void Put(size_t idx, float invz, float r, float g, float b, float qx, float qy) {
    f_.invz[idx] = invz;
    if (f_.want_rgb) {
      uint8_t* px = &f_.rgb[3 * idx];
      px[0] = uint8_t(std::min(255.0f, r) + 0.5f);
      px[1] = uint8_t(std::min(255.0f, g) + 0.5f);
      px[2] = uint8_t(std::min(255.0f, b) + 0.5f);
    }
    if (f_.want_xyz) {
      f_.qx[idx] = qx;
      f_.qy[idx] = qy;
    }
  }

  void Point(const Vertex& v, Rgb light) {
    const double size = std::max(1.0, p_.point_size);
    const int x0 = int(std::ceil(v.x - size / 2)), y0 = int(std::ceil(v.y - size / 2));
    const int x1 = x0 + int(std::lround(size)) - 1, y1 = y0 + int(std::lround(size)) - 1;
    const int xa = std::max(0, x0), xb = std::min(f_.width - 1, x1);
    const int ya = std::max(0, y0), yb = std::min(f_.height - 1, y1);
    for (int y = ya; y <= yb; ++y)
      for (int x = xa; x <= xb; ++x) {
        const size_t idx = size_t(y) * size_t(f_.width) + size_t(x);
        if (v.invz > f_.invz[idx])
          Put(idx, v.invz, v.r * light.r, v.g * light.g, v.b * light.b, v.qx, v.qy);
      }
  }

  template <bool kRgb, bool kXyz>
  void Triangle(const Vertex& a, const Vertex& b, const Vertex& c) {
    if (a.invz == 0 || b.invz == 0 || c.invz == 0) return;
    const float minx = std::min({a.x, b.x, c.x}), maxx = std::max({a.x, b.x, c.x});
    const float miny = std::min({a.y, b.y, c.y}), maxy = std::max({a.y, b.y, c.y});
    // Pixel centres are the integers; a face between two of them covers none.
    int xa = CeilInt(minx), xb = FloorInt(maxx);
    int ya = CeilInt(miny), yb = FloorInt(maxy);
    xa = std::max(xa, 0);
    ya = std::max(ya, 0);
    xb = std::min(xb, f_.width - 1);
    yb = std::min(yb, f_.height - 1);
    if (xa > xb || ya > yb) return;
    float area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
    if (area == 0) return;
    Rgb light{1, 1, 1};
    if (kRgb) {
      // Face normal and the direction to the light from the first corner.
      const float ux = b.cx - a.cx, uy = b.cy - a.cy, uz = b.cz - a.cz;
      const float vx = c.cx - a.cx, vy = c.cy - a.cy, vz = c.cz - a.cz;
      light = Light(Eigen::Vector3f(uy * vz - uz * vy, uz * vx - ux * vz, ux * vy - uy * vx), a);
    }
    // Edge functions w_k(x, y), positive inside for either winding.
    const float s = area > 0 ? 1.0f : -1.0f;
    const float inv_area = 1.0f / (area * s);
    struct Edge {
      float A, B, C;
    };
    auto edge = [s](const Vertex& p, const Vertex& q) {
      // (x - p.x) * (q.y - p.y) - (y - p.y) * (q.x - p.x), sign-normalised
      return Edge{s * -(q.y - p.y), s * (q.x - p.x), s * ((q.y - p.y) * p.x - (q.x - p.x) * p.y)};
    };
    // w0 opposite a (edge b->c), w1 opposite b (c->a), w2 opposite c (a->b).
    const Edge e0 = edge(b, c), e1 = edge(c, a), e2 = edge(a, b);
    const float lr = light.r, lg = light.g, lb = light.b;
    float* invz = f_.invz.data();
    uint8_t* rgb = kRgb ? f_.rgb.data() : nullptr;
    float* qx = kXyz ? f_.qx.data() : nullptr;
    float* qy = kXyz ? f_.qy.data() : nullptr;
    // A pixel centre on an edge shared by two faces must not fall through
    // both through rounding: accept a hair beyond the edge.
    const float eps = -1e-5f * area * s;
    for (int y = ya; y <= yb; ++y) {
      float w0 = e0.A * xa + e0.B * y + e0.C;
      float w1 = e1.A * xa + e1.B * y + e1.C;
      float w2 = e2.A * xa + e2.B * y + e2.C;
      size_t idx = size_t(y) * size_t(f_.width) + size_t(xa);
      for (int x = xa; x <= xb; ++x, ++idx, w0 += e0.A, w1 += e1.A, w2 += e2.A) {
        if (w0 < eps || w1 < eps || w2 < eps) continue;
        const float b0 = w0 * inv_area, b1 = w1 * inv_area, b2 = 1.0f - b0 - b1;
        const float iz = b0 * a.invz + b1 * b.invz + b2 * c.invz;
        if (!(iz > invz[idx])) continue;
        invz[idx] = iz;
        if (kRgb) {
          uint8_t* px = rgb + 3 * idx;
          px[0] = uint8_t(std::min(255.0f, (b0 * a.r + b1 * b.r + b2 * c.r) * lr) + 0.5f);
          px[1] = uint8_t(std::min(255.0f, (b0 * a.g + b1 * b.g + b2 * c.g) * lg) + 0.5f);
          px[2] = uint8_t(std::min(255.0f, (b0 * a.b + b1 * b.b + b2 * c.b) * lb) + 0.5f);
        }
        if (kXyz) {
          // x/z and y/z are affine in the image of a distortion-free camera.
          qx[idx] = b0 * a.qx + b1 * b.qx + b2 * c.qx;
          qy[idx] = b0 * a.qy + b1 * b.qy + b2 * c.qy;
        }
      }
    }
  }

  Frame& f_;
  const CamParams& cam_;
  const TargetMap& map_;
  const DisplayParams& p_;
  std::vector<Vertex> verts_;
};

// Every model of the tuple with its pose.
void RenderAll(Frame& frame, const HTuple& models, const HTuple& cam_param, const HTuple& pose,
               const TargetMap& map, const DisplayParams& params, const char* op,
               std::vector<std::pair<Eigen::Isometry3d, double>>* frames_drawn = nullptr) {
  const CamParams cam = CamParams::FromTuple(cam_param, op);
  const Hlong nm = models.Length();
  if (nm == 0) throw HException(op, "Wrong number of values of control parameter ObjectModel3D", kErrWrongParamCount);
  if (pose.Length() != 7 && pose.Length() != 7 * nm)
    throw HException(op, "Wrong number of values of control parameter Pose", kErrWrongParamCount);
  Rasterizer raster(frame, cam, map, params);
  for (Hlong i = 0; i < nm; ++i) {
    const ObjectModel3DData* m = ObjectModel3DCast(models, op, i);
    HTuple pi;
    const Hlong base = pose.Length() == 7 ? 0 : 7 * i;
    for (Hlong k = 0; k < 7; ++k) pi.Append(pose[base + k]);
    const Eigen::Isometry3d T = PoseToIsometry(pi, op);
    raster.Draw(*m, T, ModelColor(params, size_t(i)), op);
    if (frames_drawn) {
      // Axis length: a fifth of the model's extent, so that the axes show at any scale.
      Eigen::Vector3f lo = Eigen::Vector3f::Constant(0), hi = lo;
      if (!m->points.empty()) {
        lo = hi = m->points[0];
        for (const auto& p : m->points) {
          lo = lo.cwiseMin(p);
          hi = hi.cwiseMax(p);
        }
      }
      double len = 0.2 * double((hi - lo).norm());
      frames_drawn->push_back({T, len > 0 ? len : 0.01});
    }
  }
}

// Projects a camera-frame point into the target; false when it cannot be seen.
bool ToTarget(const CamParams& cam, const TargetMap& map, const Eigen::Vector3d& p, cv::Point* out) {
  double r, c;
  if (!cam.Project(p, &r, &c)) return false;
  double x = (c - map.col0 + 0.5) * map.sx - 0.5, y = (r - map.row0 + 0.5) * map.sy - 0.5;
  if (!(std::abs(x) < 1e6 && std::abs(y) < 1e6)) return false;
  *out = cv::Point(int(std::lround(x)), int(std::lround(y)));
  return true;
}

Frame& ThreadFrame() {
  thread_local Frame f;
  return f;
}

}  // namespace

void disp_object_model_3d(const HTuple& window_handle, const HTuple& object_model_3d,
                          const HTuple& cam_param, const HTuple& pose,
                          const HTuple& gen_param_name, const HTuple& gen_param_value) {
  const char* op = "disp_object_model_3d";
  const DisplayParams params = ParseParams(gen_param_name, gen_param_value, op);
  DrawIntoWindow(window_handle, op, [&](WindowCanvas& w) {
    Frame& frame = ThreadFrame();
    frame.Reset(w.canvas.cols, w.canvas.rows, true, false);
    const TargetMap map{w.part_row1, w.part_column1, w.scale_y, w.scale_x};
    std::vector<std::pair<Eigen::Isometry3d, double>> axes;
    RenderAll(frame, object_model_3d, cam_param, pose, map, params, op, params.disp_pose ? &axes : nullptr);
    const float a = float(params.alpha);
    for (int y = 0; y < frame.height; ++y) {
      auto* dst = w.canvas.ptr<cv::Vec3b>(y);
      const float* iz = &frame.invz[size_t(y) * size_t(frame.width)];
      const uint8_t* src = &frame.rgb[3 * size_t(y) * size_t(frame.width)];
      for (int x = 0; x < frame.width; ++x) {
        if (iz[x] == 0) continue;
        const uint8_t* s = src + 3 * x;
        if (a >= 1) {
          dst[x] = cv::Vec3b(s[0], s[1], s[2]);
        } else {
          for (int k = 0; k < 3; ++k) dst[x][k] = uint8_t(std::lround(a * s[k] + (1 - a) * dst[x][k]));
        }
      }
    }
    if (!axes.empty()) {
      const CamParams cam = CamParams::FromTuple(cam_param, op);
      for (const auto& [T, len] : axes) {
        cv::Point o;
        if (!ToTarget(cam, map, T.translation(), &o)) continue;
        const cv::Scalar colors[3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
        for (int k = 0; k < 3; ++k) {
          cv::Point e;
          if (ToTarget(cam, map, T * (Eigen::Vector3d::Unit(k) * len), &e))
            cv::line(w.canvas, o, e, colors[k], 1, cv::LINE_8);
        }
      }
    }
  });
}

void render_object_model_3d(HObject* image, const HTuple& object_model_3d, const HTuple& cam_param,
                            const HTuple& pose, const HTuple& gen_param_name,
                            const HTuple& gen_param_value) {
  const char* op = "render_object_model_3d";
  const DisplayParams params = ParseParams(gen_param_name, gen_param_value, op);
  const CamParams cam = CamParams::FromTuple(cam_param, op);
  Frame& frame = ThreadFrame();
  frame.Reset(cam.width, cam.height, true, false);
  RenderAll(frame, object_model_3d, cam_param, pose, TargetMap{}, params, op);
  std::vector<cv::Mat> planes(3);
  for (auto& p : planes) p.create(cam.height, cam.width, CV_8UC1);
  for (int y = 0; y < cam.height; ++y) {
    const uint8_t* src = &frame.rgb[3 * size_t(y) * size_t(cam.width)];
    const float* iz = &frame.invz[size_t(y) * size_t(cam.width)];
    uint8_t *r = planes[0].ptr<uint8_t>(y), *g = planes[1].ptr<uint8_t>(y), *b = planes[2].ptr<uint8_t>(y);
    for (int x = 0; x < cam.width; ++x) {
      const bool on = iz[x] != 0;
      r[x] = on ? src[3 * x] : 0;
      g[x] = on ? src[3 * x + 1] : 0;
      b[x] = on ? src[3 * x + 2] : 0;
    }
  }
  *image = HObject(Image::FromPlanes(PixelType::Byte, std::move(planes)));
}

void object_model_3d_to_xyz(HObject* x, HObject* y, HObject* z, const HTuple& object_model_3d,
                            const HTuple& type, const HTuple& cam_param, const HTuple& pose) {
  const char* op = "object_model_3d_to_xyz";
  if (type.Length() != 1 || !type.IsString(0))
    throw HException(op, "Wrong type of control parameter Type", kErrWrongParamType);
  if (type.S(0) != "cartesian")
    throw HException(op, "Wrong value of control parameter Type: '" + type.S(0) + "'",
                     type.S(0) == "from_xyz_map" || type.S(0) == "cartesian_faces" ? kErrNotImplemented
                                                                                 : kErrWrongParamValue);
  const CamParams cam = CamParams::FromTuple(cam_param, op);
  DisplayParams params;
  params.point_size = 1;  // every point stands for the one pixel it falls on
  Frame& frame = ThreadFrame();
  frame.Reset(cam.width, cam.height, false, true);
  RenderAll(frame, object_model_3d, cam_param, pose, TargetMap{}, params, op);
  cv::Mat X(cam.height, cam.width, CV_32F, cv::Scalar(0)), Y = X.clone(), Z = X.clone();
  cv::Mat mask(cam.height, cam.width, CV_8UC1, cv::Scalar(0));
  for (int r = 0; r < cam.height; ++r) {
    const size_t row = size_t(r) * size_t(cam.width);
    float *px = X.ptr<float>(r), *py = Y.ptr<float>(r), *pz = Z.ptr<float>(r);
    uint8_t* m = mask.ptr<uint8_t>(r);
    for (int c = 0; c < cam.width; ++c) {
      const float iz = frame.invz[row + size_t(c)];
      if (iz == 0) continue;
      const float depth = 1.0f / iz;
      pz[c] = depth;
      px[c] = frame.qx[row + size_t(c)] * depth;
      py[c] = frame.qy[row + size_t(c)] * depth;
      m[c] = 255;
    }
  }
  const Region domain = Region::FromMask(mask);
  auto make = [&](cv::Mat plane) {
    Image img = Image::FromPlanes(PixelType::Real, {std::move(plane)});
    img.domain = domain;
    return HObject(std::move(img));
  };
  *x = make(X);
  *y = make(Y);
  *z = make(Z);
}

}  // namespace vision
