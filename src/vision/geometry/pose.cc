#include "vision/geometry/pose.h"

#include <cmath>
#include <initializer_list>
#include <string>
#include <vector>

#include <Eigen/Geometry>
#include <Eigen/SVD>

#include "vision/geometry/pose_types.h"

namespace vision {

namespace {

std::vector<double> Numbers(const HTuple& t, const char* op) {
  std::vector<double> v(size_t(t.Length()));
  for (Hlong i = 0; i < t.Length(); ++i) {
    if (!t.IsNumber(i)) throw HException(op, "Wrong type of control parameter: number expected", kErrWrongParamType);
    v[size_t(i)] = t.D(i);
  }
  return v;
}

// Number of items of a vectorised call: every input holds `stride` values
// per item, and holds either one item or the same number as the others.
size_t Items(const char* op, std::initializer_list<std::pair<Hlong, Hlong>> inputs) {
  size_t n = 1;
  for (auto [len, stride] : inputs) {
    if (len == 0 || len % stride != 0) throw HException(op, "Wrong number of values of control parameter", kErrWrongParamCount);
    const size_t k = size_t(len / stride);
    if (k != 1) {
      if (n != 1 && n != k) throw HException(op, "Control parameters of different lengths", kErrWrongParamCount);
      n = k;
    }
  }
  return n;
}

// Item i of an input holding one or n items of `stride` values.
size_t At(size_t i, size_t len, size_t stride) { return len == stride ? 0 : i * stride; }

Eigen::Affine3d ReadMat(const std::vector<double>& v, size_t off) {
  Eigen::Affine3d m = Eigen::Affine3d::Identity();
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m.matrix()(r, c) = v[off + size_t(r * 4 + c)];
  return m;
}

void AppendMat(HTuple* out, const Eigen::Matrix4d& m) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) out->Append(HValue(m(r, c)));
}

HTuple MatTuple(const Eigen::Matrix4d& m) {
  HTuple out;
  AppendMat(&out, m);
  return out;
}

Eigen::Affine3d SingleMat(const HTuple& t, const char* op) {
  if (t.Length() != 12) throw HException(op, "Wrong number of values in homogeneous 3D matrix", kErrWrongParamCount);
  return ReadMat(Numbers(t, op), 0);
}

double SingleNumber(const HTuple& t, const char* op) {
  if (t.Length() != 1) throw HException(op, "Wrong number of values of control parameter", kErrWrongParamCount);
  if (!t.IsNumber(0)) throw HException(op, "Wrong type of control parameter: number expected", kErrWrongParamType);
  return t.D(0);
}

HTuple PoseAt(const HTuple& poses, size_t i) {
  return HTuple(std::vector<HValue>(poses.Values().begin() + Hlong(i * 7), poses.Values().begin() + Hlong(i * 7 + 7)));
}

const std::string& OneString(const HTuple& t, const char* op) {
  if (t.Length() != 1) throw HException(op, "Wrong number of values of control parameter", kErrWrongParamCount);
  if (!t.IsString(0)) throw HException(op, "Wrong type of control parameter: string expected", kErrWrongParamType);
  return t.S(0);
}

int TypeCode(const HTuple& order_of_transform, const HTuple& order_of_rotation,
             const HTuple& view_of_transform, const char* op) {
  int code = 0;
  const std::string& t = OneString(order_of_transform, op);
  if (t == "R(p-T)") code += 1;
  else if (t != "Rp+T") throw HException(op, "Wrong value of control parameter OrderOfTransform", kErrWrongParamValue);
  const std::string& r = OneString(order_of_rotation, op);
  if (r == "abg") code += 2;
  else if (r == "rodriguez") code += 4;
  else if (r != "gba") throw HException(op, "Wrong value of control parameter OrderOfRotation", kErrWrongParamValue);
  const std::string& v = OneString(view_of_transform, op);
  if (v == "coordinate_system") code += 8;
  else if (v != "point") throw HException(op, "Wrong value of control parameter ViewOfTransform", kErrWrongParamValue);
  return code;
}

void CheckPoses(const HTuple& poses, const char* op) {
  if (poses.Length() == 0 || poses.Length() % 7 != 0)
    throw HException(op, "Wrong number of values in pose", kErrWrongParamCount);
  for (Hlong i = 0; i < poses.Length() / 7; ++i) CheckPose(PoseAt(poses, size_t(i)), op);
}

Eigen::Vector3d Axis(const HTuple& axis, const char* op) {
  if (axis.Length() == 1 && axis.IsString(0)) {
    const std::string& a = axis.S(0);
    if (a == "x") return Eigen::Vector3d::UnitX();
    if (a == "y") return Eigen::Vector3d::UnitY();
    if (a == "z") return Eigen::Vector3d::UnitZ();
    throw HException(op, "Wrong value of control parameter Axis", kErrWrongParamValue);
  }
  if (axis.Length() != 3) throw HException(op, "Wrong number of values of control parameter Axis", kErrWrongParamCount);
  std::vector<double> v = Numbers(axis, op);
  Eigen::Vector3d a(v[0], v[1], v[2]);
  if (!(a.norm() > 0)) throw HException(op, "Rotation axis of length zero", kErrWrongParamValue);
  return a.normalized();
}

Eigen::Quaterniond ReadQuat(const std::vector<double>& v, size_t off) {
  return Eigen::Quaterniond(v[off], v[off + 1], v[off + 2], v[off + 3]);
}

void AppendQuat(HTuple* out, const Eigen::Quaterniond& q) {
  out->Append(HValue(q.w())).Append(HValue(q.x())).Append(HValue(q.y())).Append(HValue(q.z()));
}

}  // namespace

void create_pose(const HTuple& trans_x, const HTuple& trans_y, const HTuple& trans_z,
                 const HTuple& rot_x, const HTuple& rot_y, const HTuple& rot_z,
                 const HTuple& order_of_transform, const HTuple& order_of_rotation,
                 const HTuple& view_of_transform, HTuple* pose) {
  constexpr const char* op = "create_pose";
  const int code = TypeCode(order_of_transform, order_of_rotation, view_of_transform, op);
  const HTuple* in[6] = {&trans_x, &trans_y, &trans_z, &rot_x, &rot_y, &rot_z};
  std::vector<double> v[6];
  for (int k = 0; k < 6; ++k) v[k] = Numbers(*in[k], op);
  const size_t n = Items(op, {{trans_x.Length(), 1}, {trans_y.Length(), 1}, {trans_z.Length(), 1},
                              {rot_x.Length(), 1}, {rot_y.Length(), 1}, {rot_z.Length(), 1}});
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 6; ++k) out.Append(HValue(v[k][At(i, v[k].size(), 1)]));
    out.Append(HValue(Hlong(code)));
  }
  *pose = std::move(out);
}

void convert_pose_type(const HTuple& pose_in, const HTuple& order_of_transform,
                       const HTuple& order_of_rotation, const HTuple& view_of_transform,
                       HTuple* pose_out) {
  constexpr const char* op = "convert_pose_type";
  const int code = TypeCode(order_of_transform, order_of_rotation, view_of_transform, op);
  CheckPoses(pose_in, op);
  HTuple out;
  for (size_t i = 0; i < size_t(pose_in.Length() / 7); ++i)
    out.Append(IsometryToPose(PoseToIsometry(PoseAt(pose_in, i), op), code));
  *pose_out = std::move(out);
}

void get_pose_type(const HTuple& pose, HTuple* order_of_transform, HTuple* order_of_rotation,
                   HTuple* view_of_transform) {
  const int code = CheckPose(pose, "get_pose_type");
  *order_of_transform = HTuple((code & 1) ? "R(p-T)" : "Rp+T");
  *order_of_rotation = HTuple((code & 6) == 4 ? "rodriguez" : (code & 6) == 2 ? "abg" : "gba");
  *view_of_transform = HTuple((code & 8) ? "coordinate_system" : "point");
}

void pose_to_hom_mat3d(const HTuple& pose, HTuple* hom_mat3d) {
  constexpr const char* op = "pose_to_hom_mat3d";
  CheckPoses(pose, op);
  HTuple out;
  for (size_t i = 0; i < size_t(pose.Length() / 7); ++i)
    AppendMat(&out, PoseToIsometry(PoseAt(pose, i), op).matrix());
  *hom_mat3d = std::move(out);
}

void hom_mat3d_to_pose(const HTuple& hom_mat3d, HTuple* pose) {
  constexpr const char* op = "hom_mat3d_to_pose";
  if (hom_mat3d.Length() == 0 || hom_mat3d.Length() % 12 != 0)
    throw HException(op, "Wrong number of values in homogeneous 3D matrix", kErrWrongParamCount);
  const std::vector<double> v = Numbers(hom_mat3d, op);
  HTuple out;
  for (size_t i = 0; i < v.size() / 12; ++i) {
    Eigen::Affine3d m = ReadMat(v, i * 12);
    Eigen::Matrix3d r = m.linear();
    if (!((r.transpose() * r - Eigen::Matrix3d::Identity()).cwiseAbs().maxCoeff() < 1e-9)) {
      // Not a rotation: take the nearest one, as long as it keeps handedness.
      Eigen::JacobiSVD<Eigen::Matrix3d> svd(r, Eigen::ComputeFullU | Eigen::ComputeFullV);
      r = svd.matrixU() * svd.matrixV().transpose();
      if (!(r.determinant() > 0))
        throw HException(op, "Matrix is not a rigid transformation", kErrWrongParamValue);
    }
    Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
    t.linear() = r;
    t.translation() = m.translation();
    out.Append(IsometryToPose(t));
  }
  *pose = std::move(out);
}

void pose_invert(const HTuple& pose, HTuple* pose_invert) {
  constexpr const char* op = "pose_invert";
  CheckPoses(pose, op);
  HTuple out;
  for (size_t i = 0; i < size_t(pose.Length() / 7); ++i) {
    HTuple p = PoseAt(pose, i);
    out.Append(IsometryToPose(PoseToIsometry(p, op).inverse(), int(p.L(6))));
  }
  *pose_invert = std::move(out);
}

void pose_compose(const HTuple& pose_left, const HTuple& pose_right, HTuple* pose_compose) {
  constexpr const char* op = "pose_compose";
  CheckPoses(pose_left, op);
  CheckPoses(pose_right, op);
  const size_t n = Items(op, {{pose_left.Length(), 7}, {pose_right.Length(), 7}});
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    HTuple l = PoseAt(pose_left, At(i, size_t(pose_left.Length()), 7) / 7);
    HTuple r = PoseAt(pose_right, At(i, size_t(pose_right.Length()), 7) / 7);
    out.Append(IsometryToPose(PoseToIsometry(l, op) * PoseToIsometry(r, op), int(l.L(6))));
  }
  *pose_compose = std::move(out);
}

void hom_mat3d_identity(HTuple* hom_mat3d_identity) {
  *hom_mat3d_identity = MatTuple(Eigen::Matrix4d::Identity());
}

void hom_mat3d_translate(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                         const HTuple& tz, HTuple* hom_mat3d_translate) {
  constexpr const char* op = "hom_mat3d_translate";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.pretranslate(Eigen::Vector3d(SingleNumber(tx, op), SingleNumber(ty, op), SingleNumber(tz, op)));
  *hom_mat3d_translate = MatTuple(m.matrix());
}

void hom_mat3d_translate_local(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                               const HTuple& tz, HTuple* hom_mat3d_translate) {
  constexpr const char* op = "hom_mat3d_translate_local";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.translate(Eigen::Vector3d(SingleNumber(tx, op), SingleNumber(ty, op), SingleNumber(tz, op)));
  *hom_mat3d_translate = MatTuple(m.matrix());
}

void hom_mat3d_rotate(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                      const HTuple& px, const HTuple& py, const HTuple& pz,
                      HTuple* hom_mat3d_rotate) {
  constexpr const char* op = "hom_mat3d_rotate";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  const Eigen::Vector3d p(SingleNumber(px, op), SingleNumber(py, op), SingleNumber(pz, op));
  const Eigen::AngleAxisd r(SingleNumber(phi, op), Axis(axis, op));
  m.pretranslate(-p).prerotate(r).pretranslate(p);
  *hom_mat3d_rotate = MatTuple(m.matrix());
}

void hom_mat3d_rotate_local(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                            HTuple* hom_mat3d_rotate) {
  constexpr const char* op = "hom_mat3d_rotate_local";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.rotate(Eigen::AngleAxisd(SingleNumber(phi, op), Axis(axis, op)));
  *hom_mat3d_rotate = MatTuple(m.matrix());
}

void hom_mat3d_compose(const HTuple& hom_mat3d_left, const HTuple& hom_mat3d_right,
                       HTuple* hom_mat3d_compose) {
  constexpr const char* op = "hom_mat3d_compose";
  const size_t n = Items(op, {{hom_mat3d_left.Length(), 12}, {hom_mat3d_right.Length(), 12}});
  const std::vector<double> l = Numbers(hom_mat3d_left, op), r = Numbers(hom_mat3d_right, op);
  HTuple out;
  for (size_t i = 0; i < n; ++i)
    AppendMat(&out, (ReadMat(l, At(i, l.size(), 12)) * ReadMat(r, At(i, r.size(), 12))).matrix());
  *hom_mat3d_compose = std::move(out);
}

void hom_mat3d_invert(const HTuple& hom_mat3d, HTuple* hom_mat3d_invert) {
  constexpr const char* op = "hom_mat3d_invert";
  const size_t n = Items(op, {{hom_mat3d.Length(), 12}});
  const std::vector<double> v = Numbers(hom_mat3d, op);
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    Eigen::Affine3d m = ReadMat(v, i * 12);
    const double det = m.linear().determinant();
    if (!(std::abs(det) > 1e-300) || !std::isfinite(det))
      throw HException(op, "Matrix is not invertible", kErrWrongParamValue);
    AppendMat(&out, m.inverse(Eigen::Affine).matrix());
  }
  *hom_mat3d_invert = std::move(out);
}

void affine_trans_point_3d(const HTuple& hom_mat3d, const HTuple& px, const HTuple& py,
                           const HTuple& pz, HTuple* qx, HTuple* qy, HTuple* qz) {
  constexpr const char* op = "affine_trans_point_3d";
  const Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  const std::vector<double> x = Numbers(px, op), y = Numbers(py, op), z = Numbers(pz, op);
  HTuple ox, oy, oz;
  if (!(x.empty() && y.empty() && z.empty())) {
    const size_t n = Items(op, {{px.Length(), 1}, {py.Length(), 1}, {pz.Length(), 1}});
    std::vector<double> rx(n), ry(n), rz(n);
    for (size_t i = 0; i < n; ++i) {
      const Eigen::Vector3d q = m * Eigen::Vector3d(x[At(i, x.size(), 1)], y[At(i, y.size(), 1)], z[At(i, z.size(), 1)]);
      rx[i] = q.x(); ry[i] = q.y(); rz[i] = q.z();
    }
    ox = HTuple::Reals(rx); oy = HTuple::Reals(ry); oz = HTuple::Reals(rz);
  }
  *qx = std::move(ox); *qy = std::move(oy); *qz = std::move(oz);
}

void axis_angle_to_quat(const HTuple& axis_x, const HTuple& axis_y, const HTuple& axis_z,
                        const HTuple& angle, HTuple* quaternion) {
  constexpr const char* op = "axis_angle_to_quat";
  const std::vector<double> x = Numbers(axis_x, op), y = Numbers(axis_y, op), z = Numbers(axis_z, op),
                            a = Numbers(angle, op);
  const size_t n = Items(op, {{axis_x.Length(), 1}, {axis_y.Length(), 1}, {axis_z.Length(), 1}, {angle.Length(), 1}});
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    Eigen::Vector3d axis(x[At(i, x.size(), 1)], y[At(i, y.size(), 1)], z[At(i, z.size(), 1)]);
    const double half = a[At(i, a.size(), 1)] / 2;
    const double len = axis.norm();
    if (!(len > 0)) {  // no axis, no rotation
      AppendQuat(&out, Eigen::Quaterniond::Identity());
      continue;
    }
    axis /= len;
    const Eigen::Vector3d v = std::sin(half) * axis;
    AppendQuat(&out, Eigen::Quaterniond(std::cos(half), v.x(), v.y(), v.z()));
  }
  *quaternion = std::move(out);
}

namespace {
// The rotation of the quaternion at v[at..at+3], normalised; a quaternion of
// length zero stands for no rotation and is refused.
Eigen::Matrix3d QuatRotation(const std::vector<double>& v, size_t at, const char* op) {
  const Eigen::Quaterniond q = ReadQuat(v, at);
  if (!(q.norm() > 0)) throw HException(op, "Quaternion of length zero", kErrWrongParamValue);
  return q.normalized().toRotationMatrix();
}
}  // namespace

void quat_to_hom_mat3d(const HTuple& quaternion, HTuple* rot_matrix) {
  constexpr const char* op = "quat_to_hom_mat3d";
  const size_t n = Items(op, {{quaternion.Length(), 4}});
  const std::vector<double> v = Numbers(quaternion, op);
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.topLeftCorner<3, 3>() = QuatRotation(v, i * 4, op);
    AppendMat(&out, m);
  }
  *rot_matrix = std::move(out);
}

void quat_compose(const HTuple& quaternion_left, const HTuple& quaternion_right,
                  HTuple* quaternion_composed) {
  constexpr const char* op = "quat_compose";
  const size_t n = Items(op, {{quaternion_left.Length(), 4}, {quaternion_right.Length(), 4}});
  const std::vector<double> l = Numbers(quaternion_left, op), r = Numbers(quaternion_right, op);
  HTuple out;
  for (size_t i = 0; i < n; ++i)
    AppendQuat(&out, ReadQuat(l, At(i, l.size(), 4)) * ReadQuat(r, At(i, r.size(), 4)));
  *quaternion_composed = std::move(out);
}

void pose_to_quat(const HTuple& pose, HTuple* quaternion) {
  constexpr const char* op = "pose_to_quat";
  CheckPoses(pose, op);
  HTuple out;
  for (size_t i = 0; i < size_t(pose.Length() / 7); ++i) {
    Eigen::Quaterniond q(PoseToIsometry(PoseAt(pose, i), op).linear());
    if (q.w() < 0) q.coeffs() = -q.coeffs();  // one sign for one rotation
    AppendQuat(&out, q);
  }
  *quaternion = std::move(out);
}

void quat_to_pose(const HTuple& quaternion, HTuple* pose) {
  constexpr const char* op = "quat_to_pose";
  const size_t n = Items(op, {{quaternion.Length(), 4}});
  const std::vector<double> v = Numbers(quaternion, op);
  HTuple out;
  for (size_t i = 0; i < n; ++i) {
    Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
    t.linear() = QuatRotation(v, i * 4, op);
    out.Append(IsometryToPose(t));
  }
  *pose = std::move(out);
}

}  // namespace vision
