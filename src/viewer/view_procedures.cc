#include "viewer/view_procedures.h"

#include <cmath>
#include <random>

#include "vision/calib/camera.h"
#include "vision/core/system.h"
#include "vision/filter/tuple_ops.h"
#include "vision/geometry/pose.h"
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

// ---- the library's operators, in the form the procedures use them ----

HTuple PoseToHomMat3d(const HTuple& pose) { HTuple h; vision::pose_to_hom_mat3d(pose, &h); return h; }
HTuple HomMat3dToPose(const HTuple& h) { HTuple p; vision::hom_mat3d_to_pose(h, &p); return p; }
HTuple HomMat3dTranslate(const HTuple& h, const HTuple& tx, const HTuple& ty, const HTuple& tz) {
  HTuple o;
  vision::hom_mat3d_translate(h, tx, ty, tz, &o);
  return o;
}
HTuple HomMat3dCompose(const HTuple& a, const HTuple& b) { HTuple o; vision::hom_mat3d_compose(a, b, &o); return o; }
using vision::affine_trans_point_3d;

// The second point of the line of sight through (row, column).
void LineOfSightQ(const HTuple& row, const HTuple& column, const HTuple& cam_param, HTuple* qx,
                  HTuple* qy, HTuple* qz) {
  HTuple px, py, pz;
  vision::get_line_of_sight(row, column, cam_param, &px, &py, &pz, qx, qy, qz);
}

// "bounding_box1", "diameter_axis_aligned_bounding_box" or "center" of every
// model of the tuple, concatenated. A model without points has no box; here
// it counts as the empty box at the origin (all zeros), so that a start view
// exists for it too.
HTuple ModelParams(const HTuple& models, const char* name) {
  HTuple out;
  for (Hlong i = 0; i < models.Length(); ++i) {
    const HTuple model = Elem(models, i);
    HTuple num, v;
    vision::get_object_model_3d_params(model, "num_points", &num);
    if (num.L() == 0) {
      const Hlong n = std::string(name) == "bounding_box1" ? 6 : std::string(name) == "center" ? 3 : 1;
      vision::tuple_gen_const(n, 0.0, &v);
    } else {
      vision::get_object_model_3d_params(model, name, &v);
    }
    out.Append(v);
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
  affine_trans_point_3d(h, x, y, z, &qx, &qy, &qz);
  vision::project_3d_point(qx, qy, qz, cam_param, &rows, &cols);
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
  HTuple pose_in;
  vision::create_pose(-Elem(center, 0), -Elem(center, 1), -Elem(center, 2), 0, 0, 0, "Rp+T", "gba",
                      "point", &pose_in);
  determine_optimum_pose_distance(hv_ObjectModel3DID, *hv_CamParam, 1.5, pose_in, hv_PoseOut);
  HTuple qx, qy, qz;
  affine_trans_point_3d(PoseToHomMat3d(*hv_PoseOut), Elem(center, 0), Elem(center, 1), Elem(center, 2), &qx, &qy, &qz);
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
    HTuple rotated, rad90;
    vision::tuple_rad(90, &rad90);
    vision::hom_mat3d_rotate_local(h, rad90, "x", &rotated);
    ProjectedExtent(rotated, x, y, z, hv_CamParam, &rotated_dist, nullptr);
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
  HTuple r;
  vision::quat_to_hom_mat3d(quat, &r);
  HTuple h = PoseToHomMat3d(hv_PoseIn);
  h = HomMat3dTranslate(h, -Elem(hv_TBCenter, 0), -Elem(hv_TBCenter, 1), -Elem(hv_TBCenter, 2));
  h = HomMat3dCompose(r, h);
  h = HomMat3dTranslate(h, Elem(hv_TBCenter, 0), Elem(hv_TBCenter, 1), Elem(hv_TBCenter, 2));
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
  *hv_PoseOut = HomMat3dToPose(HomMat3dTranslate(PoseToHomMat3d(hv_PoseIn), 0, 0, dz));
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
  HTuple qx1, qy1, qz1, qx2, qy2, qz2;
  LineOfSightQ(hv_LastRow, hv_LastColumn, hv_CamParam, &qx1, &qy1, &qz1);
  LineOfSightQ(row2, column2, hv_CamParam, &qx2, &qy2, &qz2);
  const HTuple len = Sqrt(qx1 * qx1 + qy1 * qy1 + qz1 * qz1);
  const HTuple c = hv_TBCenter;
  const HTuple dist = Sqrt(Elem(c, 0) * Elem(c, 0) + Elem(c, 1) * Elem(c, 1) + Elem(c, 2) * Elem(c, 2));
  const HTuple tx = (qx2 - qx1) * dist / len, ty = (qy2 - qy1) * dist / len, tz = (qz2 - qz1) * dist / len;
  *hv_PoseOut = HomMat3dToPose(HomMat3dTranslate(PoseToHomMat3d(hv_PoseIn), tx, ty, tz));
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
  vision::axis_angle_to_quat(Elem(axis, 0), Elem(axis, 1), Elem(axis, 2), phi, hv_QuatRotation);
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
