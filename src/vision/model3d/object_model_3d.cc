#include "vision/model3d/object_model_3d.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <vector>

#include <Eigen/Geometry>
#include <opencv2/core.hpp>

#include "vision/core/param.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/model3d_util.h"

namespace vision {

using model3d::AppendModel;
using model3d::ModelsOf;

void gen_object_model_3d_from_points(const HTuple& X, const HTuple& Y, const HTuple& Z,
                                     HTuple* ObjectModel3D) {
  const char* op = "gen_object_model_3d_from_points";
  if (Y.Length() != X.Length()) ThrowParamCount(op, "Y");
  if (Z.Length() != X.Length()) ThrowParamCount(op, "Z");
  std::vector<double> sx, sy, sz;
  const std::span<const double> x = ParamReals(X, op, "X", &sx), y = ParamReals(Y, op, "Y", &sy),
                                z = ParamReals(Z, op, "Z", &sz);
  auto m = NewObjectModel3D();
  m->points.resize(x.size());
  for (size_t i = 0; i < x.size(); ++i) m->points[i] = Eigen::Vector3f(float(x[i]), float(y[i]), float(z[i]));
  ObjectModel3D->Clear();
  AppendModel(ObjectModel3D, std::move(m));
}

namespace {

// The single image of an iconic parameter, as 32-bit float planes.
cv::Mat FloatPlane(const HObject& obj, const char* op, const Image** img) {
  if (obj.Count() != 1)
    throw HException(op, "Exactly one image expected per coordinate", kErrWrongParamCount);
  const Image& im = obj.ImageAt(0, op);
  if (im.Channels() != 1 || im.type == PixelType::VectorField)
    throw HException(op, "Coordinate images must have one channel", kErrWrongObject);
  *img = &im;
  if (im.planes[0].depth() == CV_32F) return im.planes[0];
  cv::Mat f;
  im.planes[0].convertTo(f, CV_32F);
  return f;
}

}  // namespace

void xyz_to_object_model_3d(const HObject& X, const HObject& Y, const HObject& Z,
                            HTuple* ObjectModel3D) {
  const char* op = "xyz_to_object_model_3d";
  const Image *ix, *iy, *iz;
  const cv::Mat px = FloatPlane(X, op, &ix), py = FloatPlane(Y, op, &iy),
                pz = FloatPlane(Z, op, &iz);
  if (ix->width != iy->width || ix->width != iz->width || ix->height != iy->height ||
      ix->height != iz->height)
    throw HException(op, "Coordinate images differ in size", kErrImageSize);
  const Region domain = ix->domain.Intersection(iy->domain)
                            .Intersection(iz->domain)
                            .Clipped(ix->height, ix->width);
  auto m = NewObjectModel3D();
  m->points.reserve(size_t(domain.Area()));
  for (const Run& r : domain.Runs()) {
    const float *rx = px.ptr<float>(r.row), *ry = py.ptr<float>(r.row), *rz = pz.ptr<float>(r.row);
    for (int c = r.cb; c <= r.ce; ++c) m->points.emplace_back(rx[c], ry[c], rz[c]);
  }
  ObjectModel3D->Clear();
  AppendModel(ObjectModel3D, std::move(m));
}

void set_object_model_3d_attrib_mod(const HTuple& ObjectModel3D, const HTuple& AttribName,
                                    const HTuple& AttachExtAttribTo,
                                    const HTuple& AttribValues) {
  const char* op = "set_object_model_3d_attrib_mod";
  ParamCount(AttribName, op, "AttribName", 1, -1);
  std::vector<std::string> names;
  for (Hlong i = 0; i < AttribName.Length(); ++i) names.push_back(ParamString(AttribName, op, "AttribName", i));
  for (Hlong i = 0; i < AttachExtAttribTo.Length(); ++i) {
    const std::string& to = ParamString(AttachExtAttribTo, op, "AttachExtAttribTo", i);
    if (to != "points" && !to.empty())
      throw HException(op, "Extended attributes can only be attached to points",
                       kErrNotImplemented);
  }
  std::vector<double> scratch;
  const std::span<const double> vals = ParamReals(AttribValues, op, "AttribValues", &scratch);
  for (ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    const size_t n = m->NumPoints();
    const bool broadcast = vals.size() == names.size() && n != 1;
    if (!broadcast && vals.size() != names.size() * n) ThrowParamCount(op, "AttribValues");
    for (size_t a = 0; a < names.size(); ++a) {
      const std::string& name = names[a];
      auto value = [&](size_t i) { return broadcast ? vals[a] : vals[a * n + i]; };
      int coord = -1, normal = -1;
      if (name.rfind("point_coord_", 0) == 0 && name.size() == 13) coord = name[12] - 'x';
      if (name.rfind("point_normal_", 0) == 0 && name.size() == 14) normal = name[13] - 'x';
      if (coord >= 0 && coord < 3) {
        for (size_t i = 0; i < n; ++i) m->points[i][coord] = float(value(i));
      } else if (normal >= 0 && normal < 3) {
        if (!m->HasNormals()) m->normals.assign(n, Eigen::Vector3f::Zero());
        for (size_t i = 0; i < n; ++i) m->normals[i][normal] = float(value(i));
      } else if (name.size() > 1 && name[0] == '&') {
        std::vector<double>& dst = m->attribs[name];
        dst.resize(n);
        for (size_t i = 0; i < n; ++i) dst[i] = value(i);
      } else {
        ThrowParamValue(op, "AttribName", "'" + name + "'");
      }
    }
  }
}

namespace {

struct Box {
  Eigen::Vector3f lo, hi;
};

Box BoundingBox(const ObjectModel3DData& m, const char* op) {
  if (m.NumPoints() == 0) throw HException(op, "3D object model has no points", kErrEmptyInput);
  Box b{Eigen::Vector3f::Constant(std::numeric_limits<float>::infinity()),
        Eigen::Vector3f::Constant(-std::numeric_limits<float>::infinity())};
  for (const auto& p : m.points) {
    b.lo = b.lo.cwiseMin(p);
    b.hi = b.hi.cwiseMax(p);
  }
  return b;
}

void AppendReals(HTuple* out, std::vector<double> v) { out->Append(HTuple::Reals(std::move(v))); }

}  // namespace

void get_object_model_3d_params(const HTuple& ObjectModel3D, const HTuple& GenParamName,
                                HTuple* GenParamValue) {
  const char* op = "get_object_model_3d_params";
  HTuple out;
  ParamCount(GenParamName, op, "GenParamName", 1, -1);
  std::vector<std::string> names;
  for (Hlong i = 0; i < GenParamName.Length(); ++i) names.push_back(ParamString(GenParamName, op, "GenParamName", i));
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    for (const std::string& name : names) {
      if (name == "num_points") {
        out.Append(HValue(Hlong(m->NumPoints())));
      } else if (name == "num_triangles") {
        out.Append(HValue(Hlong(m->triangles.size())));
      } else if (name == "has_points" || name == "has_triangles" ||
                 name == "has_point_normals") {
        const bool has = name == "has_points"      ? m->NumPoints() > 0
                         : name == "has_triangles" ? m->HasTriangles()
                                                   : m->HasNormals();
        out.Append(HValue(std::string(has ? "true" : "false")));
      } else if (name == "center" || name == "bounding_box1" ||
                 name == "diameter_axis_aligned_bounding_box") {
        const Box b = BoundingBox(*m, op);
        if (name == "center") {
          const Eigen::Vector3d c = (b.lo.cast<double>() + b.hi.cast<double>()) / 2;
          AppendReals(&out, {c.x(), c.y(), c.z()});
        } else if (name == "bounding_box1") {
          AppendReals(&out, {b.lo.x(), b.lo.y(), b.lo.z(), b.hi.x(), b.hi.y(), b.hi.z()});
        } else {
          out.Append(HValue((b.hi.cast<double>() - b.lo.cast<double>()).norm()));
        }
      } else if (name == "triangles") {
        for (const auto& t : m->triangles)
          for (int32_t v : t) out.Append(HValue(Hlong(v)));
      } else if (name == "num_extended_attribute") {
        out.Append(HValue(Hlong(m->attribs.size())));
      } else if (name == "extended_attribute_names") {
        for (const auto& [n, v] : m->attribs) out.Append(HValue(n));
      } else {
        AppendReals(&out, model3d::PointAttribute(*m, name, op));
      }
    }
  }
  *GenParamValue = std::move(out);
}

void rigid_trans_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Pose,
                                 HTuple* ObjectModel3DRigidTrans) {
  const char* op = "rigid_trans_object_model_3d";
  const auto models = ModelsOf(ObjectModel3D, op);
  if (Pose.Length() != 7 && Pose.Length() != 7 * Hlong(models.size())) ThrowParamCount(op, "Pose");
  HTuple out;
  for (size_t k = 0; k < models.size(); ++k) {
    const Hlong at = Pose.Length() == 7 ? 0 : Hlong(k) * 7;
    const Eigen::Isometry3d t = PoseToIsometry(Pose.Slice(at, at + 7), op);
    const Eigen::Matrix3f r = t.linear().cast<float>();
    const Eigen::Vector3d tr = t.translation();
    auto m = std::make_shared<ObjectModel3DData>(*models[k]);
    for (auto& p : m->points)
      p = (t.linear() * p.cast<double>() + tr).cast<float>();
    for (auto& n : m->normals) n = r * n;
    AppendModel(&out, std::move(m));
  }
  *ObjectModel3DRigidTrans = std::move(out);
}

void union_object_model_3d(const HTuple& ObjectModels3D, const HTuple& Method,
                           HTuple* UnionObjectModel3D) {
  const char* op = "union_object_model_3d";
  ParamStringIn(Method, op, "Method", {"points_surface"});
  const auto models = ModelsOf(ObjectModels3D, op);
  auto u = NewObjectModel3D();
  size_t total = 0;
  bool normals = true;
  const ObjectModel3DData* first = nullptr;  // the first model with points
  for (const ObjectModel3DData* m : models) {
    total += m->NumPoints();
    if (m->NumPoints() == 0) continue;
    normals = normals && m->HasNormals();
    if (!first) first = m;
  }
  if (total > size_t(std::numeric_limits<int32_t>::max()))
    throw HException(op, "Too many points", kErrNoMemory);
  // An attribute survives if every model with points carries it.
  std::vector<std::string> attribs;
  if (first) {
    for (const auto& [name, v] : first->attribs) {
      bool all = true;
      for (const ObjectModel3DData* m : models)
        all = all && (m->NumPoints() == 0 || m->attribs.count(name));
      if (all) attribs.push_back(name);
    }
  }
  u->points.reserve(total);
  if (normals && first) u->normals.reserve(total);
  for (const std::string& a : attribs) u->attribs[a].reserve(total);
  for (const ObjectModel3DData* m : models) {
    const int32_t base = int32_t(u->points.size());
    u->points.insert(u->points.end(), m->points.begin(), m->points.end());
    if (normals && first) u->normals.insert(u->normals.end(), m->normals.begin(), m->normals.end());
    for (const std::string& a : attribs) {
      if (m->NumPoints() == 0) continue;
      const auto& src = m->attribs.at(a);
      u->attribs[a].insert(u->attribs[a].end(), src.begin(), src.end());
    }
    for (const auto& t : m->triangles) u->triangles.push_back({t[0] + base, t[1] + base, t[2] + base});
  }
  UnionObjectModel3D->Clear();
  AppendModel(UnionObjectModel3D, std::move(u));
}

void copy_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Attributes,
                          HTuple* CopiedObjectModel3D) {
  const char* op = "copy_object_model_3d";
  bool coord = false, normal = false, tri = false, ext = false;
  ParamCount(Attributes, op, "Attributes", 1, -1);
  for (Hlong i = 0; i < Attributes.Length(); ++i) {
    const std::string& a = ParamString(Attributes, op, "Attributes", i);
    if (a == "all") coord = normal = tri = ext = true;
    else if (a == "point_coord") coord = true;
    else if (a == "point_normal") normal = true;
    else if (a == "triangles") tri = true;
    else if (a == "extended_attribute") ext = true;
    else ThrowParamValue(op, "Attributes", "'" + a + "'");
  }
  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    auto c = NewObjectModel3D();
    // Normals, triangles and attributes refer to points: without the points
    // they have nothing to belong to.
    if (coord) {
      c->points = m->points;
      if (normal) c->normals = m->normals;
      if (tri) c->triangles = m->triangles;
      if (ext) c->attribs = m->attribs;
    }
    AppendModel(&out, std::move(c));
  }
  *CopiedObjectModel3D = std::move(out);
}

void clear_object_model_3d(const HTuple& ObjectModel3D) {
  const char* op = "clear_object_model_3d";
  // Check every element first so that a bad tuple clears nothing.
  std::vector<ObjectModel3DData*> models;
  for (Hlong i = 0; i < ObjectModel3D.Length(); ++i) {
    if (!ObjectModel3D.IsHandle(i))
      throw HException(op, "Wrong type of control parameter: handle expected", kErrHandle);
    auto* m = dynamic_cast<ObjectModel3DData*>(ObjectModel3D.H(i).get());
    if (!m) throw HException(op, "Wrong handle type", kErrHandle);
    models.push_back(m);
  }
  for (ObjectModel3DData* m : models) m->Clear();
}

}  // namespace vision
