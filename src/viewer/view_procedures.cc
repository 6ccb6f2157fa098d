#include "viewer/view_procedures.h"

#include <cmath>
#include <random>

#include <Eigen/Geometry>

#include "vision/calib/camera_params.h"
#include "vision/core/system.h"
#include "vision/filter/tuple_ops.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/render_3d.h"
#include "vision/window/window.h"

namespace velmora {

using vision::HException;
using vision::Hlong;

namespace {

// ---- tuple helpers (the procedures' own vocabulary) ----

HTuple Elem(const HTuple& t, Hlong i) { return HTuple(t[i]); }

HTuple Select(const HTuple& t, const HTuple& idx) {
  HTuple out;
  vision::tuple_select(t, idx, &out);
  return out;
}
HTuple Min(const HTuple& t) { HTuple o; vision::tuple_min(t, &o); return o; }
HTuple Max(const HTuple& t) { HTuple o; vision::tuple_max(t, &o); return o; }
HTuple Sqrt(const HTuple& t) { HTuple o; vision::tuple_sqrt(t, &o); return o; }
HTuple Abs(const HTuple& t) { HTuple o; vision::tuple_abs(t, &o); return o; }
HTuple Sum(const HTuple& t) { HTuple o; vision::tuple_sum(t, &o); return o; }
HTuple Mean(const HTuple& t) { HTuple o; vision::tuple_mean(t, &o); return o; }
HTuple Sgn(const HTuple& t) { HTuple o; vision::tuple_sgn(t, &o); return o; }
HTuple Concat(const HTuple& a, const HTuple& b) { HTuple o = a; o.Append(b); return o; }
// t with element i replaced by v.
HTuple Replace(HTuple t, Hlong i, const HTuple& v) {
  t[i] = v[0];
  return t;
}
double D(const HTuple& t, Hlong i = 0) { return t.D(i); }

// ---- the library's pose and matrix operators, on Eigen ----
// A homogeneous 3D matrix tuple holds the 12 values of the upper 3 x 4 part,
// row by row.

Eigen::Isometry3d HomMat(const HTuple& h, const char* op) {
  if (h.Length() != 12) throw HException(op, "Wrong number of values of control parameter HomMat3D", vision::kErrWrongParamCount);
  Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m(r, c) = h.D(r * 4 + c);
  Eigen::Isometry3d t;
  t.matrix() = m;
  return t;
}

HTuple HomMatTuple(const Eigen::Isometry3d& t) {
  std::vector<double> v;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) v.push_back(t.matrix()(r, c));
  return HTuple::Reals(v);
}

HTuple PoseToHomMat3d(const HTuple& pose) { return HomMatTuple(vision::PoseToIsometry(pose, "pose_to_hom_mat3d")); }
HTuple HomMat3dToPose(const HTuple& h) { return vision::IsometryToPose(HomMat(h, "hom_mat3d_to_pose")); }

// Adds the translation after the transformation (in the target frame).
HTuple HomMat3dTranslate(const HTuple& h, double tx, double ty, double tz) {
  Eigen::Isometry3d t = HomMat(h, "hom_mat3d_translate");
  t.pretranslate(Eigen::Vector3d(tx, ty, tz));
  return HomMatTuple(t);
}

HTuple HomMat3dCompose(const HTuple& a, const HTuple& b) {
  return HomMatTuple(HomMat(a, "hom_mat3d_compose") * HomMat(b, "hom_mat3d_compose"));
}

// Rotation about the matrix's own (local) x axis: H * Rx(phi).
HTuple HomMat3dRotateLocalX(const HTuple& h, double phi) {
  Eigen::Isometry3d t = HomMat(h, "hom_mat3d_rotate_local");
  t.rotate(Eigen::AngleAxisd(phi, Eigen::Vector3d::UnitX()));
  return HomMatTuple(t);
}

void AffineTransPoint3d(const HTuple& h, const HTuple& x, const HTuple& y, const HTuple& z,
                        HTuple* qx, HTuple* qy, HTuple* qz) {
  const char* op = "affine_trans_point_3d";
  const Eigen::Isometry3d t = HomMat(h, op);
  if (y.Length() != x.Length() || z.Length() != x.Length())
    throw HException(op, "Number of input points differs", vision::kErrWrongParamCount);
  std::vector<double> ox, oy, oz;
  for (Hlong i = 0; i < x.Length(); ++i) {
    const Eigen::Vector3d p = t * Eigen::Vector3d(x.D(i), y.D(i), z.D(i));
    ox.push_back(p.x());
    oy.push_back(p.y());
    oz.push_back(p.z());
  }
  *qx = HTuple::Reals(ox);
  *qy = HTuple::Reals(oy);
  *qz = HTuple::Reals(oz);
}

void Project3dPoint(const HTuple& x, const HTuple& y, const HTuple& z, const HTuple& cam_param,
                    HTuple* row, HTuple* column) {
  const auto cam = vision::CamParams::FromTuple(cam_param, "project_3d_point");
  std::vector<double> rows, cols;
  for (Hlong i = 0; i < x.Length(); ++i) {
    double u = cam.focus * x.D(i) / z.D(i), v = cam.focus * y.D(i) / z.D(i);
    if (cam.kappa != 0) {
      const double s = 2.0 / (1.0 + std::sqrt(1.0 - 4.0 * cam.kappa * (u * u + v * v)));
      u *= s;
      v *= s;
    }
    cols.push_back(u / cam.sx + cam.cx);
    rows.push_back(v / cam.sy + cam.cy);
  }
  *row = HTuple::Reals(rows);
  *column = HTuple::Reals(cols);
}

// The second point of the line of sight through (row, column): on the
// sensor plane at z = focus.
Eigen::Vector3d LineOfSightQ(const HTuple& row, const HTuple& column, const HTuple& cam_param) {
  return vision::CamParams::FromTuple(cam_param, "get_line_of_sight").Unproject(D(row), D(column));
}

HTuple AxisAngleToQuat(double ax, double ay, double az, double angle) {
  const double s = std::sin(angle / 2);
  return HTuple::Reals({std::cos(angle / 2), ax * s, ay * s, az * s});
}

HTuple QuatToHomMat3d(const HTuple& q) {
  Eigen::Quaterniond quat(q.D(0), q.D(1), q.D(2), q.D(3));
  if (quat.norm() > 0) quat.normalize();
  Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
  t.linear() = quat.toRotationMatrix();
  return HomMatTuple(t);
}

// ---- object model parameters ----

// "bounding_box1", "diameter_axis_aligned_bounding_box" or "center" of every
// model of the tuple, concatenated. A model without points has the empty box
// at the origin (all zeros), so that a start view exists for it too.
HTuple ModelParams(const HTuple& models, const std::string& name) {
  const char* op = "get_object_model_3d_params";
  HTuple out;
  for (Hlong i = 0; i < models.Length(); ++i) {
    const vision::ObjectModel3DData* m = vision::ObjectModel3DCast(models, op, i);
    Eigen::Vector3d lo = Eigen::Vector3d::Zero(), hi = lo, sum = lo;
    if (!m->points.empty()) {
      lo = hi = m->points[0].cast<double>();
      for (const auto& p : m->points) {
        const Eigen::Vector3d q = p.cast<double>();
        lo = lo.cwiseMin(q);
        hi = hi.cwiseMax(q);
        sum += q;
      }
    }
    if (name == "bounding_box1") {
      out.Append(HTuple::Reals({lo.x(), lo.y(), lo.z(), hi.x(), hi.y(), hi.z()}));
    } else if (name == "diameter_axis_aligned_bounding_box") {
      out.Append(HTuple((hi - lo).norm()));
    } else if (name == "center") {
      const Eigen::Vector3d c = m->points.empty() ? sum : sum / double(m->points.size());
      out.Append(HTuple::Reals({c.x(), c.y(), c.z()}));
    } else {
      throw HException(op, "Wrong value of control parameter GenParamName: '" + name + "'", vision::kErrWrongParamValue);
    }
  }
  return out;
}

// Uniform numbers in [0, 1) for the vanishing box of a degenerate model.
HTuple TupleRand(int n) {
  thread_local std::mt19937_64 gen{std::random_device{}()};
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> v;
  for (int i = 0; i < n; ++i) v.push_back(u(gen));
  return HTuple::Reals(v);
}

HTuple Range(Hlong start, Hlong end_exclusive, Hlong step) {
  std::vector<Hlong> v;
  for (Hlong i = start; i < end_exclusive; i += step) v.push_back(i);
  return HTuple::Ints(v);
}

// Diagonal in pixels of the projected extent of the corners under H.
void ProjectedExtent(const HTuple& h, const HTuple& x, const HTuple& y, const HTuple& z,
                     const HTuple& cam_param, HTuple* max_dist, HTuple* min_z) {
  HTuple qx, qy, qz, rows, cols;
  AffineTransPoint3d(h, x, y, z, &qx, &qy, &qz);
  Project3dPoint(qx, qy, qz, cam_param, &rows, &cols);
  if (min_z) *min_z = Min(qz);
  const Hlong n = cam_param.Length();
  HTuple dr = rows - Elem(cam_param, n - 3), dc = cols - Elem(cam_param, n - 4);
  dr = Max(dr) - Min(dr);
  dc = Max(dc) - Min(dc);
  *max_dist = Sqrt(dr * dr + dc * dc);
}

}  // namespace

void init_display_parameter(HTuple hv_WindowHandle, HTuple hv_ObjectModel3DID, HTuple* hv_Width,
                            HTuple* hv_Height, HTuple* hv_CamParam, HTuple* hv_LRow,
                            HTuple* hv_LColumn, HTuple* hv_PoseOut, HTuple* hv_TBCenter) {
  HTuple row, column, width, height;
  vision::get_window_extents(hv_WindowHandle, &row, &column, &width, &height);
  *hv_Width = width;
  *hv_Height = height;
  *hv_CamParam = Concat(HTuple::Reals({0.06, 0, 8.5e-6, 8.5e-6}),
                        Concat(Concat(width / HTuple(2), height / HTuple(2)), Concat(width, height)));
  *hv_LRow = height / HTuple(2);
  *hv_LColumn = width / HTuple(2);
  HTuple center;
  get_object_models_center(hv_ObjectModel3DID, &center);
  const HTuple pose_in = Concat(-center, Concat(HTuple::Reals({0, 0, 0}), HTuple(0)));
  determine_optimum_pose_distance(hv_ObjectModel3DID, *hv_CamParam, 1.5, pose_in, hv_PoseOut);
  HTuple qx, qy, qz;
  AffineTransPoint3d(PoseToHomMat3d(*hv_PoseOut), Elem(center, 0), Elem(center, 1), Elem(center, 2), &qx, &qy, &qz);
  *hv_TBCenter = Concat(Concat(qx, qy), qz);
}

void determine_optimum_pose_distance(HTuple hv_ObjectModel3DID, HTuple hv_CamParam,
                                     HTuple hv_ImageCoverage, HTuple hv_PoseIn,
                                     HTuple* hv_PoseOut) {
  const HTuple num_models = hv_ObjectModel3DID.Length();  // kept, not used further
  (void)num_models;
  HTuple bb = ModelParams(hv_ObjectModel3DID, "bounding_box1");
  const HTuple s = Range(0, bb.Length(), 6);
  const HTuple dx = Max(Select(bb, s + HTuple(3))) - Min(Select(bb, s));
  const HTuple dy = Max(Select(bb, s + HTuple(4))) - Min(Select(bb, s + HTuple(1)));
  const HTuple dz = Max(Select(bb, s + HTuple(5))) - Min(Select(bb, s + HTuple(2)));
  HTuple diameter = Sqrt(dx * dx + dy * dy + dz * dz);
  if (D(Sum(Abs(bb))) == 0.0) {
    // A box of random, vanishing size around the origin keeps the later
    // divisions away from zero.
    bb = Concat(-Abs(TupleRand(3) * HTuple(1e-20)), Abs(TupleRand(3) * HTuple(1e-20)));
  }
  HTuple offset = 0.0;
  if (D(Max(diameter)) < 1e-10) offset = 0.01;
  if (D(Min(diameter)) < 1e-10)
    diameter = diameter - Sgn(Sgn(diameter - HTuple(1e-10)) - HTuple(1)) * HTuple(1e-10);
  const HTuple min_x = Select(bb, s), min_y = Select(bb, s + HTuple(1)), min_z = Select(bb, s + HTuple(2));
  const HTuple max_x = Select(bb, s + HTuple(3)), max_y = Select(bb, s + HTuple(4)), max_z = Select(bb, s + HTuple(5));
  const HTuple x = {min_x, max_x, min_x, min_x, max_x, max_x, min_x, max_x};
  const HTuple y = {min_y, min_y, max_y, min_y, max_y, min_y, max_y, max_y};
  const HTuple z = {min_z, min_z, min_z, max_z, min_z, max_z, max_z, max_z};
  const HTuple pose_inter = Replace(hv_PoseIn, 2, -Min(z) + HTuple(2) * Max(diameter));
  const HTuple h = PoseToHomMat3d(pose_inter);
  HTuple max_dist, min_min_z;
  ProjectedExtent(h, x, y, z, hv_CamParam, &max_dist, &min_min_z);
  if (D(max_dist) < 1e-10) {
    // Seen edge-on: try the view from 90 degrees about the local x axis too.
    HTuple rotated_dist;
    ProjectedExtent(HomMat3dRotateLocalX(h, M_PI / 2), x, y, z, hv_CamParam, &rotated_dist, nullptr);
    max_dist = Max(Concat(max_dist, rotated_dist));
  }
  const Hlong n = hv_CamParam.Length();
  const HTuple image_size = Min(Concat(Elem(hv_CamParam, n - 2), Elem(hv_CamParam, n - 1)));
  const HTuple zz = Elem(pose_inter, 2);
  const HTuple factor = max_dist / (HTuple(0.5) * image_size * hv_ImageCoverage * HTuple(2.0));
  *hv_PoseOut = Replace(pose_inter, 2, factor * min_min_z + (zz - min_min_z) + offset);
}

void get_object_models_center(HTuple hv_ObjectModel3DID, HTuple* hv_Center) {
  if (hv_ObjectModel3DID.Empty()) {
    *hv_Center = HTuple();
    return;
  }
  const HTuple diameters = ModelParams(hv_ObjectModel3DID, "diameter_axis_aligned_bounding_box");
  const HTuple mean_diameter = Mean(diameters);
  HTuple weights = D(mean_diameter) > 1e-10 ? diameters / mean_diameter : diameters;
  HTuple sum_w = Sum(weights);
  if (D(sum_w) < 1e-10) {
    vision::tuple_gen_const(weights.Length(), 1.0, &weights);
    sum_w = Sum(weights);
  }
  HTuple center = HTuple::Reals({0, 0, 0});
  for (Hlong i = 0; i < hv_ObjectModel3DID.Length(); ++i) {
    const HTuple ci = ModelParams(Elem(hv_ObjectModel3DID, i), "center");
    for (Hlong k = 0; k < 3; ++k) center = Replace(center, k, Elem(center, k) + Elem(ci, k) * Elem(weights, i));
  }
  for (Hlong k = 0; k < 3; ++k) center = Replace(center, k, Elem(center, k) * (HTuple(1.0) / sum_w));
  *hv_Center = center;
}

void rotate_object(HTuple hv_LastRow, HTuple hv_LastColumn, HTuple hv_Width, HTuple hv_Height,
                   HTuple hv_Row, HTuple hv_Column, HTuple hv_PoseIn, HTuple hv_TBCenter,
                   HTuple* hv_PoseOut, HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut) {
  *hv_PoseOut = hv_PoseIn;
  *hv_LastRowOut = hv_LastRow;
  *hv_LastColumnOut = hv_LastColumn;
  const HTuple min_size = Min(Concat(hv_Width, hv_Height));
  const HTuple half = HTuple(0.5) * min_size;
  const HTuple mx1 = (hv_Width / HTuple(2) - hv_LastColumn) / half;
  const HTuple my1 = (hv_Height / HTuple(2) - hv_LastRow) / half;
  const HTuple mx2 = (hv_Width / HTuple(2) - hv_Column) / half;
  const HTuple my2 = (hv_Height / HTuple(2) - hv_Row) / half;
  HTuple quat;
  trackball(mx1, my1, mx2, my2, "shoemake", 0.8, 1.0, &quat);
  const HTuple r = QuatToHomMat3d(quat);
  HTuple h = PoseToHomMat3d(hv_PoseIn);
  h = HomMat3dTranslate(h, -D(hv_TBCenter, 0), -D(hv_TBCenter, 1), -D(hv_TBCenter, 2));
  h = HomMat3dCompose(r, h);
  h = HomMat3dTranslate(h, D(hv_TBCenter, 0), D(hv_TBCenter, 1), D(hv_TBCenter, 2));
  *hv_PoseOut = HomMat3dToPose(h);
  *hv_LastRowOut = hv_Row;
  *hv_LastColumnOut = hv_Column;
}

void zoom_object(HTuple hv_LastRow, HTuple hv_Row, HTuple hv_Column, HTuple hv_PoseIn,
                 HTuple hv_TBCenterIn, HTuple* hv_PoseOut, HTuple* hv_TBCenterOut,
                 HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut) {
  *hv_PoseOut = hv_PoseIn;
  *hv_TBCenterOut = hv_TBCenterIn;
  *hv_LastRowOut = hv_LastRow;
  const HTuple drow = hv_Row - hv_LastRow;
  const HTuple c = hv_TBCenterIn;
  const HTuple dist = Sqrt(Elem(c, 0) * Elem(c, 0) + Elem(c, 1) * Elem(c, 1) + Elem(c, 2) * Elem(c, 2));
  const HTuple dz = -dist * drow * HTuple(0.003) * HTuple(1.0);
  *hv_TBCenterOut = Replace(*hv_TBCenterOut, 2, Elem(c, 2) + dz);
  *hv_PoseOut = HomMat3dToPose(HomMat3dTranslate(PoseToHomMat3d(hv_PoseIn), 0, 0, D(dz)));
  *hv_LastRowOut = hv_Row;
  *hv_LastColumnOut = hv_Column;
}

void move_object(HTuple hv_LastRow, HTuple hv_LastColumn, HTuple hv_Row, HTuple hv_Column,
                 HTuple hv_CamParam, HTuple hv_PoseIn, HTuple hv_TBCenter, HTuple* hv_PoseOut,
                 HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut) {
  *hv_PoseOut = hv_PoseIn;
  *hv_LastRowOut = hv_LastRow;
  *hv_LastColumnOut = hv_LastColumn;
  const HTuple row2 = hv_LastRow + (hv_Row - hv_LastRow) * HTuple(1.0);
  const HTuple column2 = hv_LastColumn + (hv_Column - hv_LastColumn) * HTuple(1.0);
  const Eigen::Vector3d q1 = LineOfSightQ(hv_LastRow, hv_LastColumn, hv_CamParam);
  const Eigen::Vector3d q2 = LineOfSightQ(row2, column2, hv_CamParam);
  const double len = q1.norm();
  const double dist = std::sqrt(D(hv_TBCenter, 0) * D(hv_TBCenter, 0) + D(hv_TBCenter, 1) * D(hv_TBCenter, 1) +
                                D(hv_TBCenter, 2) * D(hv_TBCenter, 2));
  const Eigen::Vector3d t = (q2 - q1) * dist / len;
  *hv_PoseOut = HomMat3dToPose(HomMat3dTranslate(PoseToHomMat3d(hv_PoseIn), t.x(), t.y(), t.z()));
  *hv_LastRowOut = hv_Row;
  *hv_LastColumnOut = hv_Column;
}

void trackball(HTuple hv_MX1, HTuple hv_MY1, HTuple hv_MX2, HTuple hv_MY2,
               HTuple hv_VirtualTrackball, HTuple hv_TrackballSize, HTuple hv_SensFactor,
               HTuple* hv_QuatRotation) {
  if (hv_MX1 == hv_MX2 && hv_MY1 == hv_MY2) {
    *hv_QuatRotation = HTuple{1, 0, 0, 0};
    return;
  }
  HTuple p1, p2, axis;
  project_point_on_trackball(hv_MX1, hv_MY1, hv_VirtualTrackball, hv_TrackballSize, &p1);
  project_point_on_trackball(hv_MX2, hv_MY2, hv_VirtualTrackball, hv_TrackballSize, &p2);
  tuple_vector_cross_product(p1, p2, &axis);
  const HTuple d = p2 - p1;
  HTuple t = Sqrt(Sum(d * d)) / (HTuple(2.0) * hv_TrackballSize);
  if (D(t) > 1.0) t = 1.0;
  if (D(t) < -1.0) t = -1.0;
  const double phi = 2.0 * std::asin(D(t)) * D(hv_SensFactor);
  const HTuple len = Sqrt(Sum(axis * axis));
  if (D(len) > 0.0) axis = axis / len;
  *hv_QuatRotation = AxisAngleToQuat(D(axis, 0), D(axis, 1), D(axis, 2), phi);
}

void project_point_on_trackball(HTuple hv_X, HTuple hv_Y, HTuple hv_VirtualTrackball,
                                HTuple hv_TrackballSize, HTuple* hv_P) {
  const HTuple r0 = hv_TrackballSize;
  const HTuple d = Sqrt(hv_X * hv_X + hv_Y * hv_Y);
  const bool shoemake = hv_VirtualTrackball.Length() == 1 && hv_VirtualTrackball.IsString(0) &&
                        hv_VirtualTrackball.S(0) == "shoemake";
  if (shoemake) {
    if (D(d) <= D(r0)) *hv_P = {hv_X, hv_Y, Sqrt(r0 * r0 - d * d)};
    else *hv_P = {hv_X * r0 / d, hv_Y * r0 / d, HTuple(0.0)};
  } else {
    // 0.6 rather than 0.5: the sheet deliberately does not meet the sphere
    // exactly at the switch radius.
    if (D(d) <= D(r0 * HTuple(0.70710678))) *hv_P = {hv_X, hv_Y, Sqrt(r0 * r0 - d * d)};
    else *hv_P = {hv_X, hv_Y, HTuple(0.6) * r0 * r0 / d};
  }
}

void tuple_vector_cross_product(HTuple hv_V1, HTuple hv_V2, HTuple* hv_VC) {
  auto e = [](const HTuple& v, Hlong i) { return Elem(v, i); };
  *hv_VC = {e(hv_V1, 1) * e(hv_V2, 2) - e(hv_V1, 2) * e(hv_V2, 1),
            e(hv_V1, 2) * e(hv_V2, 0) - e(hv_V1, 0) * e(hv_V2, 2),
            e(hv_V1, 0) * e(hv_V2, 1) - e(hv_V1, 1) * e(hv_V2, 0)};
}

void display_model(HTuple hv_WindowHandle, HTuple hv_ObjectModel3D, HTuple hv_CamParam,
                   HTuple hv_Pose, HTuple hv_GenParamName, HTuple hv_GenParamValue) {
  vision::set_system("flush_graphic", "false");
  vision::clear_window(hv_WindowHandle);
  vision::disp_object_model_3d(hv_WindowHandle, hv_ObjectModel3D, hv_CamParam, hv_Pose,
                               hv_GenParamName, hv_GenParamValue);
  vision::set_system("flush_graphic", "true");
  // A line outside the window: its only effect is the flush of the frame
  // drawn above, so that clearing and redrawing show as one picture.
  vision::disp_line(hv_WindowHandle, -1, -1, -1, -1);
}

}  // namespace velmora
