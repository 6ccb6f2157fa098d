#include "vision/geometry/pose.h"

#include <cmath>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include <Eigen/Geometry>
#include <Eigen/SVD>

#include "vision/core/param.h"
#include "vision/geometry/pose_types.h"

namespace vision {

namespace {

// Item i of an input holding one or n items of `stride` values.
size_t At(size_t i, size_t len, size_t stride) { return len == stride ? 0 : i * stride; }

Eigen::Affine3d ReadMat(std::span<const double> v, size_t off) {
  Eigen::Affine3d m = Eigen::Affine3d::Identity();
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) m.matrix()(r, c) = v[off + size_t(r * 4 + c)];
  return m;
}

void AppendMat(std::vector<double>* out, const Eigen::Matrix4d& m) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) out->push_back(m(r, c));
}

HTuple MatTuple(const Eigen::Matrix4d& m) {
  std::vector<double> out;
  out.reserve(12);
  AppendMat(&out, m);
  return HTuple::Reals(std::move(out));
}

// Matrices, poses and quaternions: numbers, finite.
std::span<const double> Reals(const HTuple& t, const char* op, const char* name, std::vector<double>* scratch) {
  return ParamReals(t, op, name, scratch, true);
}

Eigen::Affine3d SingleMat(const HTuple& t, const char* op, const char* name = "HomMat3D") {
  ParamCount(t, op, name, 12);
  std::vector<double> scratch;
  return ReadMat(Reals(t, op, name, &scratch), 0);
}

int TypeCode(const HTuple& order_of_transform, const HTuple& order_of_rotation,
             const HTuple& view_of_transform, const char* op) {
  int code = 0;
  if (ParamStringIn(order_of_transform, op, "OrderOfTransform", {"Rp+T", "R(p-T)"}) == "R(p-T)") code += 1;
  const std::string& r = ParamStringIn(order_of_rotation, op, "OrderOfRotation", {"gba", "abg", "rodriguez"});
  if (r == "abg") code += 2;
  else if (r == "rodriguez") code += 4;
  if (ParamStringIn(view_of_transform, op, "ViewOfTransform", {"point", "coordinate_system"}) == "coordinate_system")
    code += 8;
  return code;
}

// A tuple of whole poses, each with a valid type code; the values and the
// codes.
struct Poses {
  std::span<const double> v;
  std::vector<double> scratch;
  std::vector<int> code;
  size_t Count() const { return code.size(); }
  Eigen::Isometry3d At(size_t i) const { return PoseToIsometry(v.subspan(i * 7, 7), code[i]); }
};

Poses ReadPoses(const HTuple& t, const char* op, const char* name) {
  if (t.Length() == 0 || t.Length() % 7 != 0) ThrowParamCount(op, name);
  Poses p;
  p.v = Reals(t, op, name, &p.scratch);
  p.code.resize(p.v.size() / 7);
  for (size_t i = 0; i < p.code.size(); ++i) {
    const Hlong code = ParamInt(t, op, name, Hlong(i * 7 + 6));
    if (!IsPoseTypeCode(code)) ThrowParamValue(op, name, "pose type code " + std::to_string(code));
    p.code[i] = int(code);
  }
  return p;
}

Eigen::Vector3d Axis(const HTuple& axis, const char* op) {
  if (axis.Length() == 1 && axis.IsString(0)) {
    const std::string& a = ParamStringIn(axis, op, "Axis", {"x", "y", "z"});
    return a == "x" ? Eigen::Vector3d::UnitX() : a == "y" ? Eigen::Vector3d::UnitY() : Eigen::Vector3d::UnitZ();
  }
  ParamCount(axis, op, "Axis", 3);
  std::vector<double> scratch;
  std::span<const double> v = Reals(axis, op, "Axis", &scratch);
  Eigen::Vector3d a(v[0], v[1], v[2]);
  if (!(a.norm() > 0)) ThrowParamValue(op, "Axis", "rotation axis of length zero");
  return a.normalized();
}

Eigen::Quaterniond ReadQuat(std::span<const double> v, size_t off) {
  return Eigen::Quaterniond(v[off], v[off + 1], v[off + 2], v[off + 3]);
}

void AppendQuat(std::vector<double>* out, const Eigen::Quaterniond& q) {
  out->insert(out->end(), {q.w(), q.x(), q.y(), q.z()});
}

}  // namespace

void create_pose(const HTuple& trans_x, const HTuple& trans_y, const HTuple& trans_z,
                 const HTuple& rot_x, const HTuple& rot_y, const HTuple& rot_z,
                 const HTuple& order_of_transform, const HTuple& order_of_rotation,
                 const HTuple& view_of_transform, HTuple* pose) {
  constexpr const char* op = "create_pose";
  const int code = TypeCode(order_of_transform, order_of_rotation, view_of_transform, op);
  const HTuple* in[6] = {&trans_x, &trans_y, &trans_z, &rot_x, &rot_y, &rot_z};
  static constexpr const char* kNames[6] = {"TransX", "TransY", "TransZ", "RotX", "RotY", "RotZ"};
  std::vector<double> scratch[6];
  std::span<const double> v[6];
  for (int k = 0; k < 6; ++k) v[k] = Reals(*in[k], op, kNames[k], &scratch[k]);
  const size_t n = size_t(ParamItems(op, {{trans_x, "TransX"}, {trans_y, "TransY"}, {trans_z, "TransZ"},
                                          {rot_x, "RotX"}, {rot_y, "RotY"}, {rot_z, "RotZ"}}));
  std::vector<HValue> out;
  out.reserve(n * 7);
  for (size_t i = 0; i < n; ++i) {
    for (int k = 0; k < 6; ++k) out.emplace_back(v[k][At(i, v[k].size(), 1)]);
    out.emplace_back(Hlong(code));
  }
  *pose = HTuple(std::move(out));
}

void convert_pose_type(const HTuple& pose_in, const HTuple& order_of_transform,
                       const HTuple& order_of_rotation, const HTuple& view_of_transform,
                       HTuple* pose_out) {
  constexpr const char* op = "convert_pose_type";
  const int code = TypeCode(order_of_transform, order_of_rotation, view_of_transform, op);
  const Poses p = ReadPoses(pose_in, op, "PoseIn");
  std::vector<HValue> out;
  out.reserve(p.Count() * 7);
  for (size_t i = 0; i < p.Count(); ++i) AppendPose(&out, p.At(i), code);
  *pose_out = HTuple(std::move(out));
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
  const Poses p = ReadPoses(pose, op, "Pose");
  std::vector<double> out;
  out.reserve(p.Count() * 12);
  for (size_t i = 0; i < p.Count(); ++i) AppendMat(&out, p.At(i).matrix());
  *hom_mat3d = HTuple::Reals(std::move(out));
}

void hom_mat3d_to_pose(const HTuple& hom_mat3d, HTuple* pose) {
  constexpr const char* op = "hom_mat3d_to_pose";
  const size_t n = size_t(ParamItems(op, {{hom_mat3d, "HomMat3D", 12}}));
  std::vector<double> scratch;
  const std::span<const double> v = Reals(hom_mat3d, op, "HomMat3D", &scratch);
  std::vector<HValue> out;
  out.reserve(n * 7);
  for (size_t i = 0; i < n; ++i) {
    Eigen::Affine3d m = ReadMat(v, i * 12);
    Eigen::Matrix3d r = m.linear();
    if (!((r.transpose() * r - Eigen::Matrix3d::Identity()).cwiseAbs().maxCoeff() < 1e-9)) {
      // Not a rotation: take the nearest one, as long as it keeps handedness.
      Eigen::JacobiSVD<Eigen::Matrix3d> svd(r, Eigen::ComputeFullU | Eigen::ComputeFullV);
      r = svd.matrixU() * svd.matrixV().transpose();
      if (!(r.determinant() > 0)) ThrowParamValue(op, "HomMat3D", "not a rigid transformation");
    }
    Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
    t.linear() = r;
    t.translation() = m.translation();
    AppendPose(&out, t, 0);
  }
  *pose = HTuple(std::move(out));
}

void pose_invert(const HTuple& pose, HTuple* pose_invert) {
  constexpr const char* op = "pose_invert";
  const Poses p = ReadPoses(pose, op, "Pose");
  std::vector<HValue> out;
  out.reserve(p.Count() * 7);
  for (size_t i = 0; i < p.Count(); ++i) AppendPose(&out, p.At(i).inverse(), p.code[i]);
  *pose_invert = HTuple(std::move(out));
}

void pose_compose(const HTuple& pose_left, const HTuple& pose_right, HTuple* pose_compose) {
  constexpr const char* op = "pose_compose";
  const Poses l = ReadPoses(pose_left, op, "PoseLeft");
  const Poses r = ReadPoses(pose_right, op, "PoseRight");
  const size_t n = size_t(ParamItems(op, {{pose_left, "PoseLeft", 7}, {pose_right, "PoseRight", 7}}));
  std::vector<HValue> out;
  out.reserve(n * 7);
  for (size_t i = 0; i < n; ++i) {
    const size_t a = l.Count() == 1 ? 0 : i, b = r.Count() == 1 ? 0 : i;
    AppendPose(&out, l.At(a) * r.At(b), l.code[a]);
  }
  *pose_compose = HTuple(std::move(out));
}

void hom_mat3d_identity(HTuple* hom_mat3d_identity) {
  *hom_mat3d_identity = MatTuple(Eigen::Matrix4d::Identity());
}

void hom_mat3d_translate(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                         const HTuple& tz, HTuple* hom_mat3d_translate) {
  constexpr const char* op = "hom_mat3d_translate";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.pretranslate(Eigen::Vector3d(ParamReal(tx, op, "Tx"), ParamReal(ty, op, "Ty"), ParamReal(tz, op, "Tz")));
  *hom_mat3d_translate = MatTuple(m.matrix());
}

void hom_mat3d_translate_local(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                               const HTuple& tz, HTuple* hom_mat3d_translate) {
  constexpr const char* op = "hom_mat3d_translate_local";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.translate(Eigen::Vector3d(ParamReal(tx, op, "Tx"), ParamReal(ty, op, "Ty"), ParamReal(tz, op, "Tz")));
  *hom_mat3d_translate = MatTuple(m.matrix());
}

void hom_mat3d_rotate(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                      const HTuple& px, const HTuple& py, const HTuple& pz,
                      HTuple* hom_mat3d_rotate) {
  constexpr const char* op = "hom_mat3d_rotate";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  const Eigen::Vector3d p(ParamReal(px, op, "Px"), ParamReal(py, op, "Py"), ParamReal(pz, op, "Pz"));
  const Eigen::AngleAxisd r(ParamReal(phi, op, "Phi"), Axis(axis, op));
  m.pretranslate(-p).prerotate(r).pretranslate(p);
  *hom_mat3d_rotate = MatTuple(m.matrix());
}

void hom_mat3d_rotate_local(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                            HTuple* hom_mat3d_rotate) {
  constexpr const char* op = "hom_mat3d_rotate_local";
  Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  m.rotate(Eigen::AngleAxisd(ParamReal(phi, op, "Phi"), Axis(axis, op)));
  *hom_mat3d_rotate = MatTuple(m.matrix());
}

void hom_mat3d_compose(const HTuple& hom_mat3d_left, const HTuple& hom_mat3d_right,
                       HTuple* hom_mat3d_compose) {
  constexpr const char* op = "hom_mat3d_compose";
  const size_t n = size_t(ParamItems(op, {{hom_mat3d_left, "HomMat3DLeft", 12}, {hom_mat3d_right, "HomMat3DRight", 12}}));
  std::vector<double> sl, sr;
  const std::span<const double> l = Reals(hom_mat3d_left, op, "HomMat3DLeft", &sl);
  const std::span<const double> r = Reals(hom_mat3d_right, op, "HomMat3DRight", &sr);
  std::vector<double> out;
  out.reserve(n * 12);
  for (size_t i = 0; i < n; ++i)
    AppendMat(&out, (ReadMat(l, At(i, l.size(), 12)) * ReadMat(r, At(i, r.size(), 12))).matrix());
  *hom_mat3d_compose = HTuple::Reals(std::move(out));
}

void hom_mat3d_invert(const HTuple& hom_mat3d, HTuple* hom_mat3d_invert) {
  constexpr const char* op = "hom_mat3d_invert";
  const size_t n = size_t(ParamItems(op, {{hom_mat3d, "HomMat3D", 12}}));
  std::vector<double> scratch;
  const std::span<const double> v = Reals(hom_mat3d, op, "HomMat3D", &scratch);
  std::vector<double> out;
  out.reserve(n * 12);
  for (size_t i = 0; i < n; ++i) {
    Eigen::Affine3d m = ReadMat(v, i * 12);
    const double det = m.linear().determinant();
    if (!(std::abs(det) > 1e-300) || !std::isfinite(det)) ThrowParamValue(op, "HomMat3D", "not invertible");
    AppendMat(&out, m.inverse(Eigen::Affine).matrix());
  }
  *hom_mat3d_invert = HTuple::Reals(std::move(out));
}

// One pass over plain arrays; a one-value coordinate is served to every point.
void affine_trans_point_3d(const HTuple& hom_mat3d, const HTuple& px, const HTuple& py,
                           const HTuple& pz, HTuple* qx, HTuple* qy, HTuple* qz) {
  constexpr const char* op = "affine_trans_point_3d";
  const Eigen::Affine3d m = SingleMat(hom_mat3d, op);
  std::vector<double> sx, sy, sz;
  const std::span<const double> x = ParamReals(px, op, "Px", &sx), y = ParamReals(py, op, "Py", &sy),
                                z = ParamReals(pz, op, "Pz", &sz);
  if (x.empty() && y.empty() && z.empty()) {
    *qx = HTuple(); *qy = HTuple(); *qz = HTuple();
    return;
  }
  const size_t n = size_t(ParamItems(op, {{px, "Px"}, {py, "Py"}, {pz, "Pz"}}));
  const size_t ix = x.size() == 1 ? 0 : 1, iy = y.size() == 1 ? 0 : 1, iz = z.size() == 1 ? 0 : 1;
  std::vector<double> rx(n), ry(n), rz(n);
  const Eigen::Matrix<double, 3, 4> a = m.matrix().topRows<3>();
  for (size_t i = 0; i < n; ++i) {
    const double u = x[i * ix], v = y[i * iy], w = z[i * iz];
    rx[i] = a(0, 0) * u + a(0, 1) * v + a(0, 2) * w + a(0, 3);
    ry[i] = a(1, 0) * u + a(1, 1) * v + a(1, 2) * w + a(1, 3);
    rz[i] = a(2, 0) * u + a(2, 1) * v + a(2, 2) * w + a(2, 3);
  }
  *qx = HTuple::Reals(std::move(rx)); *qy = HTuple::Reals(std::move(ry)); *qz = HTuple::Reals(std::move(rz));
}

void axis_angle_to_quat(const HTuple& axis_x, const HTuple& axis_y, const HTuple& axis_z,
                        const HTuple& angle, HTuple* quaternion) {
  constexpr const char* op = "axis_angle_to_quat";
  std::vector<double> sx, sy, sz, sa;
  const std::span<const double> x = Reals(axis_x, op, "AxisX", &sx), y = Reals(axis_y, op, "AxisY", &sy),
                                z = Reals(axis_z, op, "AxisZ", &sz), a = Reals(angle, op, "Angle", &sa);
  const size_t n = size_t(ParamItems(op, {{axis_x, "AxisX"}, {axis_y, "AxisY"}, {axis_z, "AxisZ"}, {angle, "Angle"}}));
  std::vector<double> out;
  out.reserve(n * 4);
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
  *quaternion = HTuple::Reals(std::move(out));
}

namespace {
// The rotation of the quaternion at v[at..at+3], normalised; a quaternion of
// length zero stands for no rotation and is refused.
Eigen::Matrix3d QuatRotation(std::span<const double> v, size_t at, const char* op, const char* name) {
  const Eigen::Quaterniond q = ReadQuat(v, at);
  if (!(q.norm() > 0)) ThrowParamValue(op, name, "quaternion of length zero");
  return q.normalized().toRotationMatrix();
}
}  // namespace

void quat_to_hom_mat3d(const HTuple& quaternion, HTuple* rot_matrix) {
  constexpr const char* op = "quat_to_hom_mat3d";
  const size_t n = size_t(ParamItems(op, {{quaternion, "Quaternion", 4}}));
  std::vector<double> scratch;
  const std::span<const double> v = Reals(quaternion, op, "Quaternion", &scratch);
  std::vector<double> out;
  out.reserve(n * 12);
  for (size_t i = 0; i < n; ++i) {
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m.topLeftCorner<3, 3>() = QuatRotation(v, i * 4, op, "Quaternion");
    AppendMat(&out, m);
  }
  *rot_matrix = HTuple::Reals(std::move(out));
}

void quat_compose(const HTuple& quaternion_left, const HTuple& quaternion_right,
                  HTuple* quaternion_composed) {
  constexpr const char* op = "quat_compose";
  const size_t n = size_t(ParamItems(op, {{quaternion_left, "QuaternionLeft", 4}, {quaternion_right, "QuaternionRight", 4}}));
  std::vector<double> sl, sr;
  const std::span<const double> l = Reals(quaternion_left, op, "QuaternionLeft", &sl);
  const std::span<const double> r = Reals(quaternion_right, op, "QuaternionRight", &sr);
  std::vector<double> out;
  out.reserve(n * 4);
  for (size_t i = 0; i < n; ++i)
    AppendQuat(&out, ReadQuat(l, At(i, l.size(), 4)) * ReadQuat(r, At(i, r.size(), 4)));
  *quaternion_composed = HTuple::Reals(std::move(out));
}

void pose_to_quat(const HTuple& pose, HTuple* quaternion) {
  constexpr const char* op = "pose_to_quat";
  const Poses p = ReadPoses(pose, op, "Pose");
  std::vector<double> out;
  out.reserve(p.Count() * 4);
  for (size_t i = 0; i < p.Count(); ++i) {
    Eigen::Quaterniond q(p.At(i).linear());
    if (q.w() < 0) q.coeffs() = -q.coeffs();  // one sign for one rotation
    AppendQuat(&out, q);
  }
  *quaternion = HTuple::Reals(std::move(out));
}

void quat_to_pose(const HTuple& quaternion, HTuple* pose) {
  constexpr const char* op = "quat_to_pose";
  const size_t n = size_t(ParamItems(op, {{quaternion, "Quaternion", 4}}));
  std::vector<double> scratch;
  const std::span<const double> v = Reals(quaternion, op, "Quaternion", &scratch);
  std::vector<HValue> out;
  out.reserve(n * 7);
  for (size_t i = 0; i < n; ++i) {
    Eigen::Isometry3d t = Eigen::Isometry3d::Identity();
    t.linear() = QuatRotation(v, i * 4, op, "Quaternion");
    AppendPose(&out, t, 0);
  }
  *pose = HTuple(std::move(out));
}

}  // namespace vision
