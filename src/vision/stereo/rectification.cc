#include "vision/stereo/rectification.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <Eigen/Geometry>
#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "vision/calib/camera_params.h"
#include "vision/core/param.h"
#include "vision/geometry/pose_types.h"

namespace vision {
namespace {

// Rectified images larger than this many times the originals are refused:
// they only arise from pairs that look past each other.
constexpr double kMaxGrowth = 4.0;

struct Extent {
  double umin = std::numeric_limits<double>::max(), umax = std::numeric_limits<double>::lowest();
  double vmin = std::numeric_limits<double>::max(), vmax = std::numeric_limits<double>::lowest();
  int seen = 0;
};

// Where the border of a camera's image lands on the rectified image plane
// (in rectified pixels, before the principal point is added). `to_rect`
// turns directions of the camera frame into the rectified frame.
Extent BorderExtent(const CamParams& cam, const Eigen::Matrix3d& to_rect, double f, double s) {
  Extent e;
  auto add = [&](double row, double col) {
    Eigen::Vector3d d = to_rect * cam.Unproject(row, col);
    if (!(d.z() > 1e-9 * d.norm())) return;
    double u = f * d.x() / d.z() / s, v = f * d.y() / d.z() / s;
    e.umin = std::min(e.umin, u); e.umax = std::max(e.umax, u);
    e.vmin = std::min(e.vmin, v); e.vmax = std::max(e.vmax, v);
    ++e.seen;
  };
  const double w = cam.width - 1, h = cam.height - 1;
  for (int i = 0; i <= 32; ++i) {
    double a = i / 32.0;
    add(0, a * w); add(h, a * w); add(a * h, 0); add(a * h, w);
  }
  return e;
}

void FillMap(cv::Mat* rows, cv::Mat* cols, const CamParams& src, const Eigen::Matrix3d& rect_to_src,
             const CamParams& rect) {
  *rows = cv::Mat(rect.height, rect.width, CV_32F);
  *cols = cv::Mat(rect.height, rect.width, CV_32F);
  cv::parallel_for_(cv::Range(0, rect.height), [&](const cv::Range& range) {
    for (int r = range.start; r < range.end; ++r) {
      float* pr = rows->ptr<float>(r);
      float* pc = cols->ptr<float>(r);
      int c = 0;
#if CV_SIMD128_64F
      // Two pixels at a time, with the projection's operations in its
      // order; pixels it refuses are marked after the vector part.
      using cv::v_float64x2;
      const Eigen::Matrix3d& m = rect_to_src;
      const double d1 = (r - rect.cy) * rect.sy, d2 = rect.focus;
      const v_float64x2 x1 = cv::v_setall_f64(m(0, 1) * d1), x2 = cv::v_setall_f64(m(0, 2) * d2);
      const v_float64x2 y1 = cv::v_setall_f64(m(1, 1) * d1), y2 = cv::v_setall_f64(m(1, 2) * d2);
      const v_float64x2 z1 = cv::v_setall_f64(m(2, 1) * d1), z2 = cv::v_setall_f64(m(2, 2) * d2);
      const v_float64x2 m0x = cv::v_setall_f64(m(0, 0)), m0y = cv::v_setall_f64(m(1, 0)), m0z = cv::v_setall_f64(m(2, 0));
      const v_float64x2 focus = cv::v_setall_f64(src.focus), four_kappa = cv::v_setall_f64(4.0 * src.kappa);
      const v_float64x2 one = cv::v_setall_f64(1.0), two = cv::v_setall_f64(2.0), zero = cv::v_setzero_f64();
      const v_float64x2 ssx = cv::v_setall_f64(src.sx), ssy = cv::v_setall_f64(src.sy);
      const v_float64x2 scx = cv::v_setall_f64(src.cx), scy = cv::v_setall_f64(src.cy);
      const bool distorted = src.kappa != 0;
      for (; c + 2 <= rect.width; c += 2) {
        const v_float64x2 d0 = (v_float64x2(double(c), double(c + 1)) - cv::v_setall_f64(rect.cx)) *
                               cv::v_setall_f64(rect.sx);
        const v_float64x2 x = (m0x * d0 + x1) + x2, y = (m0y * d0 + y1) + y2, z = (m0z * d0 + z1) + z2;
        const v_float64x2 u = focus * x / z, v = focus * y / z;
        v_float64x2 sc = one;
        v_float64x2 ok = z > zero;
        if (distorted) {
          const v_float64x2 d = one - four_kappa * (u * u + v * v);
          ok = ok & (d >= zero);
          sc = two / (one + cv::v_sqrt(cv::v_max(d, zero)));
        }
        const v_float64x2 col = sc * u / ssx + scx, row = sc * v / ssy + scy;
        double cr[2], cc[2];
        cv::v_store(cr, row);
        cv::v_store(cc, col);
        const int mask = cv::v_signmask(ok);
        for (int j = 0; j < 2; ++j) {
          const bool in = mask >> j & 1;
          pr[c + j] = in ? float(cr[j]) : -1e6f;
          pc[c + j] = in ? float(cc[j]) : -1e6f;
        }
      }
#endif
      for (; c < rect.width; ++c) {
        Eigen::Vector3d d((c - rect.cx) * rect.sx, (r - rect.cy) * rect.sy, rect.focus);
        double row, col;
        if (src.Project(rect_to_src * d, &row, &col)) {
          pr[c] = float(row);
          pc[c] = float(col);
        } else {
          pr[c] = pc[c] = -1e6f;
        }
      }
    }
  });
}

}  // namespace

void gen_binocular_rectification_map(HObject* map1, HObject* map2, const HTuple& cam_param1,
                                     const HTuple& cam_param2, const HTuple& rel_pose,
                                     const HTuple& sub_sampling, const HTuple& method,
                                     const HTuple& map_type, HTuple* cam_param_rect1,
                                     HTuple* cam_param_rect2, HTuple* cam_pose_rect1,
                                     HTuple* cam_pose_rect2, HTuple* rel_pose_rect) {
  constexpr const char* op = "gen_binocular_rectification_map";
  const CamParams c1 = CamParams::FromTuple(cam_param1, op);
  const CamParams c2 = CamParams::FromTuple(cam_param2, op);
  const Eigen::Isometry3d rel = PoseToIsometry(rel_pose, op);
  if (ParamReal(sub_sampling, op, "SubSampling") != 1.0)
    throw HException(op, "Only SubSampling 1 is offered", kErrNotImplemented);
  ParamStringIn(method, op, "Method", {"geometric"});
  ParamStringIn(map_type, op, "MapType", {"bilinear"});

  const Eigen::Vector3d t = rel.translation();
  const double baseline = t.norm();
  if (!(baseline > 0)) throw HException(op, "The two cameras have the same optical centre", kErrWrongParamValue);
  const Eigen::Matrix3d r21 = rel.linear();  // camera 2 directions into camera 1

  // Common orientation: x along the baseline, z the mean viewing direction
  // made orthogonal to it.
  const Eigen::Vector3d x = t / baseline;
  Eigen::Vector3d zm = Eigen::Vector3d::UnitZ() + r21 * Eigen::Vector3d::UnitZ();
  Eigen::Vector3d y = zm.cross(x);
  if (y.norm() < 1e-9) throw HException(op, "The cameras look along their baseline", kErrWrongParamValue);
  y.normalize();
  const Eigen::Vector3d z = x.cross(y);
  Eigen::Matrix3d rect_to_cam1;
  rect_to_cam1 << x, y, z;

  // Square pixels no larger than the finest of the originals.
  const double f = c1.focus;
  const double s = std::min({c1.sx, c1.sy, c2.sx * f / c2.focus, c2.sy * f / c2.focus});

  const Eigen::Matrix3d cam1_to_rect = rect_to_cam1.transpose();
  const Eigen::Matrix3d cam2_to_rect = cam1_to_rect * r21;
  const Extent e1 = BorderExtent(c1, cam1_to_rect, f, s);
  const Extent e2 = BorderExtent(c2, cam2_to_rect, f, s);
  if (e1.seen == 0 || e2.seen == 0)
    throw HException(op, "The fields of view of the two cameras do not overlap", kErrWrongParamValue);
  const double vmin = std::max(e1.vmin, e2.vmin), vmax = std::min(e1.vmax, e2.vmax);
  if (!(vmax > vmin))
    throw HException(op, "The fields of view of the two cameras do not overlap", kErrWrongParamValue);

  // Column offset of image 2: the point where the optical axes pass closest
  // gets disparity 0, so the part the cameras converge on has disparities
  // around 0 whatever the baseline.
  double offset = 0;
  {
    const Eigen::Vector3d d1 = Eigen::Vector3d::UnitZ(), d2 = r21 * Eigen::Vector3d::UnitZ();
    const double b = d1.dot(d2), den = 1 - b * b;
    if (den > 1e-6) {
      const Eigen::Vector3d w0 = -t;
      const double sa = (b * d2.dot(w0) - d1.dot(w0)) / den;
      const double sb = (d2.dot(w0) - b * d1.dot(w0)) / den;
      const Eigen::Vector3d p = cam1_to_rect * (0.5 * (sa * d1 + t + sb * d2));
      if (sa > 0 && sb > 0 && p.z() > 0) offset = f * baseline / (p.z() * s);
    }
  }
  const double umin = std::min(e1.umin, e2.umin + offset);
  const double umax = std::max(e1.umax, e2.umax + offset);
  const double width = std::ceil(umax - umin) + 1, height = std::ceil(vmax - vmin) + 1;
  const double limit = kMaxGrowth * std::max(double(c1.width) * c1.height, double(c2.width) * c2.height);
  if (!(width * height <= limit))
    throw HException(op, "The fields of view of the two cameras do not overlap", kErrWrongParamValue);

  CamParams r1;
  r1.focus = f; r1.kappa = 0; r1.sx = r1.sy = s;
  r1.cx = -umin; r1.cy = -vmin;
  r1.width = int(width); r1.height = int(height);
  CamParams r2 = r1;
  r2.cx = r1.cx + offset;

  cv::Mat m1r, m1c, m2r, m2c;
  FillMap(&m1r, &m1c, c1, rect_to_cam1, r1);
  FillMap(&m2r, &m2c, c2, r21.transpose() * rect_to_cam1, r2);
  *map1 = HObject(Image::FromPlanes(PixelType::Real, {m1r, m1c}));
  *map2 = HObject(Image::FromPlanes(PixelType::Real, {m2r, m2c}));

  Eigen::Isometry3d pose1 = Eigen::Isometry3d::Identity();
  pose1.linear() = rect_to_cam1;
  Eigen::Isometry3d rect2_in_cam1 = pose1;
  rect2_in_cam1.translation() = t;
  Eigen::Isometry3d relr = Eigen::Isometry3d::Identity();
  relr.translation() = Eigen::Vector3d(baseline, 0, 0);
  *cam_param_rect1 = r1.ToTuple();
  *cam_param_rect2 = r2.ToTuple();
  *cam_pose_rect1 = IsometryToPose(pose1);
  *cam_pose_rect2 = IsometryToPose(rel.inverse() * rect2_in_cam1);
  *rel_pose_rect = IsometryToPose(relr);
}

void map_image(const HObject& image, const HObject& map, HObject* image_mapped) {
  constexpr const char* op = "map_image";
  const Image& m = map.ImageAt(0, op);
  if (m.type != PixelType::Real || m.planes.size() != 2)
    throw HException(op, "Wrong map: a two-channel real map is expected", kErrWrongParamValue);
  const cv::Mat& mrow = m.planes[0];
  const cv::Mat& mcol = m.planes[1];
  // The map in the fixed-point form cv::remap turns float maps into for
  // bilinear interpolation (1/32 pixel), converted once for every plane
  // instead of once per plane: the same interpolated values.
  cv::Mat fixed_xy, fixed_frac;
  cv::convertMaps(mcol, mrow, fixed_xy, fixed_frac, CV_16SC2, false);
  HObject out;
  for (long i = 0; i < image.Count(); ++i) {
    const Image& src = image.ImageAt(i, op);
    if (src.type == PixelType::VectorField)
      throw HException(op, "Wrong image type: vector fields cannot be mapped", kErrWrongParamValue);
    std::vector<cv::Mat> planes;
    if (src.planes.size() == 3 && src.planes[0].depth() == CV_8U) {
      // Colour in one pass: the coordinates and weights of each pixel are
      // worked out once for its three values.
      cv::Mat packed, dst;
      cv::merge(src.planes, packed);
      cv::remap(packed, dst, fixed_xy, fixed_frac, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
      cv::split(dst, planes);
    } else {
      for (const cv::Mat& p : src.planes) {
        cv::Mat dst;
        cv::remap(p, dst, fixed_xy, fixed_frac, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
        planes.push_back(dst);
      }
    }
    // Pixels whose source lies inside the source and its domain.
    cv::Mat mask(mrow.size(), CV_8U);
    const bool full = src.FullDomain();
    cv::Mat dom;
    if (!full) dom = src.domain.ToMask(src.height, src.width);
    const float hmax = float(src.height - 1), wmax = float(src.width - 1);
    for (int r = 0; r < mask.rows; ++r) {
      const float* pr = mrow.ptr<float>(r);
      const float* pc = mcol.ptr<float>(r);
      uint8_t* o = mask.ptr<uint8_t>(r);
      for (int c = 0; c < mask.cols; ++c) {
        bool in = pr[c] >= 0 && pc[c] >= 0 && pr[c] <= hmax && pc[c] <= wmax;
        if (in && !full) in = dom.at<uint8_t>(int(pr[c] + 0.5f), int(pc[c] + 0.5f)) != 0;
        o[c] = in ? 255 : 0;
      }
    }
    Image img = Image::FromPlanes(src.type, std::move(planes));
    img.domain = Region::FromMask(mask);
    out.Push(std::move(img));
  }
  *image_mapped = std::move(out);
}

void disparity_image_to_xyz(const HObject& disparity, HObject* x, HObject* y, HObject* z,
                            const HTuple& cam_param_rect1, const HTuple& cam_param_rect2,
                            const HTuple& rel_pose_rect) {
  constexpr const char* op = "disparity_image_to_xyz";
  const CamParams c1 = CamParams::FromTuple(cam_param_rect1, op);
  const CamParams c2 = CamParams::FromTuple(cam_param_rect2, op);
  const Eigen::Isometry3d rel = PoseToIsometry(rel_pose_rect, op);
  const Image& d = disparity.ImageAt(0, op);
  if (d.type == PixelType::VectorField || d.planes.size() != 1)
    throw HException(op, "Wrong disparity image: one channel expected", kErrWrongParamValue);
  cv::Mat disp;
  d.planes[0].convertTo(disp, CV_32F);
  cv::Mat px(disp.size(), CV_32F, cv::Scalar(0)), py = px.clone(), pz = px.clone();
  const Eigen::Vector3d o2 = rel.translation();
  const Eigen::Matrix3d r2 = rel.linear();
  for (const Run& run : d.domain.Runs()) {
    if (run.row < 0 || run.row >= disp.rows) continue;
    const float* dr = disp.ptr<float>(run.row);
    float *ox = px.ptr<float>(run.row), *oy = py.ptr<float>(run.row), *oz = pz.ptr<float>(run.row);
    int c = std::max(run.cb, 0);
    const int ce = std::min(run.ce, disp.cols - 1);
#if CV_SIMD128_64F
    {
      // Two pixels at a time, each value by the operations below in their
      // order.
      using cv::v_float64x2;
      auto all = [](double v) { return cv::v_setall_f64(v); };
      auto neg = [](const v_float64x2& v) {  // the sign flipped, as unary minus
        return cv::v_reinterpret_as_f64(cv::v_reinterpret_as_u64(v) ^ cv::v_setall_u64(uint64_t(1) << 63));
      };
      const v_float64x2 vt1 = all((run.row - c1.cy) * c1.sy), vt2 = all((run.row - c2.cy) * c2.sy);
      const v_float64x2 one = all(1.0), half = all(0.5), f1 = all(c1.focus), f2 = all(c2.focus);
      const v_float64x2 ox2 = all(o2.x()), oy2 = all(o2.y()), oz2 = all(o2.z());
      for (; c + 1 <= ce; c += 2) {
        const v_float64x2 col1(double(c), double(c + 1));
        const v_float64x2 col2(double(float(c) + dr[c]), double(float(c + 1) + dr[c + 1]));
        const v_float64x2 u1 = (col1 - all(c1.cx)) * all(c1.sx);
        const v_float64x2 k1 = one + all(c1.kappa) * (u1 * u1 + vt1 * vt1);
        const v_float64x2 x1 = u1 / k1, y1 = vt1 / k1, z1 = f1;
        const v_float64x2 u2 = (col2 - all(c2.cx)) * all(c2.sx);
        const v_float64x2 k2 = one + all(c2.kappa) * (u2 * u2 + vt2 * vt2);
        const v_float64x2 e0 = u2 / k2, e1 = vt2 / k2, e2 = f2;
        const v_float64x2 x2 = (all(r2(0, 0)) * e0 + all(r2(0, 1)) * e1) + all(r2(0, 2)) * e2;
        const v_float64x2 y2 = (all(r2(1, 0)) * e0 + all(r2(1, 1)) * e1) + all(r2(1, 2)) * e2;
        const v_float64x2 z2 = (all(r2(2, 0)) * e0 + all(r2(2, 1)) * e1) + all(r2(2, 2)) * e2;
        const v_float64x2 a = (x1 * x1 + y1 * y1) + z1 * z1, b = (x1 * x2 + y1 * y2) + z1 * z2;
        const v_float64x2 cc = (x2 * x2 + y2 * y2) + z2 * z2;
        const v_float64x2 dd = neg((x1 * ox2 + y1 * oy2) + z1 * oz2), e = neg((x2 * ox2 + y2 * oy2) + z2 * oz2);
        const v_float64x2 den = a * cc - b * b;
        const v_float64x2 s = (b * e - cc * dd) / den, u = (a * e - b * dd) / den;
        const v_float64x2 qx = half * ((s * x1 + ox2) + u * x2), qy = half * ((s * y1 + oy2) + u * y2),
                          qz = half * ((s * z1 + oz2) + u * z2);
        double bx[2], by[2], bz[2], bd[2];
        cv::v_store(bx, qx);
        cv::v_store(by, qy);
        cv::v_store(bz, qz);
        cv::v_store(bd, den);
        for (int j = 0; j < 2; ++j) {
          if (!(std::abs(bd[j]) > 1e-30)) continue;
          ox[c + j] = float(bx[j]);
          oy[c + j] = float(by[j]);
          oz[c + j] = float(bz[j]);
        }
      }
    }
#endif
    for (; c <= ce; ++c) {
      // Midpoint of the two lines of sight.
      const Eigen::Vector3d d1 = c1.Unproject(run.row, c);
      const Eigen::Vector3d d2 = r2 * c2.Unproject(run.row, c + dr[c]);
      const double a = d1.dot(d1), b = d1.dot(d2), cc = d2.dot(d2);
      const double dd = -d1.dot(o2), e = -d2.dot(o2);
      const double den = a * cc - b * b;
      if (!(std::abs(den) > 1e-30)) continue;
      const double s = (b * e - cc * dd) / den, u = (a * e - b * dd) / den;
      const Eigen::Vector3d p = 0.5 * (s * d1 + o2 + u * d2);
      ox[c] = float(p.x()); oy[c] = float(p.y()); oz[c] = float(p.z());
    }
  }
  auto make = [&](const cv::Mat& m) {
    Image img = Image::FromPlanes(PixelType::Real, {m});
    img.domain = d.domain;
    return HObject(std::move(img));
  };
  *x = make(px);
  *y = make(py);
  *z = make(pz);
}

}  // namespace vision
