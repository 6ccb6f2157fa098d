#include "vision/model3d/model3d_util.h"

#include <algorithm>
#include <exception>
#include <thread>

#include "vision/core/param.h"

namespace vision::model3d {

std::vector<ObjectModel3DData*> ModelsOf(const HTuple& handles, const char* op) {
  std::vector<ObjectModel3DData*> out;
  out.reserve(size_t(handles.Length()));
  for (Hlong i = 0; i < handles.Length(); ++i) out.push_back(ObjectModel3DCast(handles, op, i));
  return out;
}

void AppendModel(HTuple* out, ObjectModel3DPtr m) { out->Append(HValue(HHandle(std::move(m)))); }

GenParams::GenParams(const HTuple& names, const HTuple& values, const char* op,
                     std::vector<std::string> known)
    : op_(op), values_(values) {
  if (names.Length() != values.Length()) ThrowParamCount(op, "GenParamValue");
  for (Hlong i = 0; i < names.Length(); ++i) {
    const std::string& n = ParamString(names, op, "GenParamName", i);
    if (std::find(known.begin(), known.end(), n) == known.end())
      ThrowParamValue(op, "GenParamName", "unknown parameter '" + n + "'");
    names_.push_back(n);
  }
}

Hlong GenParams::Find(const std::string& name) const {
  // The last occurrence wins, as when a caller appends an override.
  for (size_t i = names_.size(); i-- > 0;)
    if (names_[i] == name) return Hlong(i);
  return -1;
}

double GenParams::Real(const std::string& name, double def) const {
  const Hlong i = Find(name);
  return i < 0 ? def : ParamReal(values_, op_, ("'" + name + "'").c_str(), i);
}

Hlong GenParams::Int(const std::string& name, Hlong def) const {
  const Hlong i = Find(name);
  return i < 0 ? def : ParamInt(values_, op_, ("'" + name + "'").c_str(), i);
}

std::string GenParams::Str(const std::string& name, const std::string& def) const {
  const Hlong i = Find(name);
  return i < 0 ? def : ParamString(values_, op_, ("'" + name + "'").c_str(), i);
}

bool GenParams::Bool(const std::string& name, bool def) const {
  const Hlong i = Find(name);
  return i < 0 ? def : ParamBool(values_, op_, ("'" + name + "'").c_str(), i);
}

ObjectModel3DPtr SubsetOf(const ObjectModel3DData& m, const std::vector<int32_t>& keep) {
  auto out = NewObjectModel3D();
  out->points.reserve(keep.size());
  for (int32_t i : keep) out->points.push_back(m.points[size_t(i)]);
  if (m.HasNormals()) {
    out->normals.reserve(keep.size());
    for (int32_t i : keep) out->normals.push_back(m.normals[size_t(i)]);
  }
  for (const auto& [name, vals] : m.attribs) {
    std::vector<double>& dst = out->attribs[name];
    dst.reserve(keep.size());
    for (int32_t i : keep) dst.push_back(vals[size_t(i)]);
  }
  if (m.HasTriangles()) {
    std::vector<int32_t> renum(m.points.size(), -1);
    for (size_t k = 0; k < keep.size(); ++k) renum[size_t(keep[k])] = int32_t(k);
    for (const auto& t : m.triangles) {
      const int32_t a = renum[size_t(t[0])], b = renum[size_t(t[1])], c = renum[size_t(t[2])];
      if (a >= 0 && b >= 0 && c >= 0) out->triangles.push_back({a, b, c});
    }
  }
  return out;
}

std::vector<double> PointAttribute(const ObjectModel3DData& m, const std::string& name,
                                   const char* op) {
  static constexpr const char* kCoord[] = {"point_coord_x", "point_coord_y", "point_coord_z"};
  static constexpr const char* kNormal[] = {"point_normal_x", "point_normal_y", "point_normal_z"};
  for (int c = 0; c < 3; ++c) {
    if (name == kCoord[c]) {
      std::vector<double> v(m.points.size());
      for (size_t i = 0; i < v.size(); ++i) v[i] = m.points[i][c];
      return v;
    }
    if (name == kNormal[c]) {
      if (!m.HasNormals() && m.NumPoints() > 0)
        throw HException(op, "3D object model has no point normals", kErrWrongParamValue);
      std::vector<double> v(m.normals.size());
      for (size_t i = 0; i < v.size(); ++i) v[i] = m.normals[i][c];
      return v;
    }
  }
  auto it = m.attribs.find(name);
  if (it == m.attribs.end())
    throw HException(op, "3D object model has no attribute " + name, kErrWrongParamValue);
  return it->second;
}

void ParallelFor(size_t n, const std::function<void(size_t, size_t)>& body, size_t min_block,
                 unsigned max_threads) {
  const unsigned cores = std::max(1u, std::min(max_threads, std::thread::hardware_concurrency()));
  const size_t blocks = std::max<size_t>(1, std::min<size_t>(cores, n / std::max<size_t>(min_block, 1)));
  if (blocks <= 1) {
    if (n) body(0, n);
    return;
  }
  std::vector<std::exception_ptr> errors(blocks);
  std::vector<std::thread> threads;
  auto run = [&](size_t b) {
    try {
      body(n * b / blocks, n * (b + 1) / blocks);
    } catch (...) {
      errors[b] = std::current_exception();
    }
  };
  for (size_t b = 1; b < blocks; ++b) threads.emplace_back(run, b);
  run(0);
  for (auto& t : threads) t.join();
  for (auto& e : errors)
    if (e) std::rethrow_exception(e);
}

}  // namespace vision::model3d
