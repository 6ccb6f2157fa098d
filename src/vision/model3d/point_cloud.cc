// The point-cloud operators that need no neighbour search: model and point
// selection, voxel thinning. The others are in point_cloud_pcl.cc.
#include "vision/model3d/point_cloud.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vision/core/param.h"
#include "vision/model3d/model3d_util.h"
#include "vision/model3d/object_model_3d.h"

namespace vision {

using model3d::AppendModel;
using model3d::ModelsOf;

namespace {

// Bounds of feature k: one bound for all features, or one per feature.
// Integers stay exact (a bound like 10^14 must compare exactly with counts).
long double Bound(const HTuple& t, size_t k, size_t features, const char* op, const char* what) {
  ParamCountPer(t, op, what, Hlong(features));
  const Hlong i = t.Length() == 1 ? 0 : Hlong(k);
  if (t.IsInt(i)) return (long double)t.L(i);
  if (t.IsReal(i)) return (long double)t.D(i);
  ThrowParamType(op, what, "number");
}

}  // namespace

void select_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Feature,
                            const HTuple& Operation, const HTuple& MinValue,
                            const HTuple& MaxValue, HTuple* ObjectModel3DSelected) {
  const char* op = "select_object_model_3d";
  ParamCount(Feature, op, "Feature", 1, -1);
  std::vector<std::string> features;
  for (Hlong i = 0; i < Feature.Length(); ++i)
    features.push_back(
        ParamStringIn(Feature, op, "Feature", {"num_points", "num_triangles", "diameter_axis_aligned_bounding_box"}, i));
  const bool all = ParamStringIn(Operation, op, "Operation", {"and", "or"}) == "and";
  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    bool keep = all;
    for (size_t k = 0; k < features.size(); ++k) {
      long double v;
      if (features[k] == "num_points") {
        v = (long double)m->NumPoints();
      } else if (features[k] == "num_triangles") {
        v = (long double)m->triangles.size();
      } else {
        Eigen::Vector3d lo = Eigen::Vector3d::Zero(), hi = lo;
        if (m->NumPoints()) {
          lo = hi = m->points[0].cast<double>();
          for (const auto& p : m->points) {
            lo = lo.cwiseMin(p.cast<double>());
            hi = hi.cwiseMax(p.cast<double>());
          }
        }
        v = (hi - lo).norm();
      }
      const bool in = v >= Bound(MinValue, k, features.size(), op, "MinValue") &&
                      v <= Bound(MaxValue, k, features.size(), op, "MaxValue");
      keep = all ? keep && in : keep || in;
    }
    // Copies, so that clearing the input and the selection are independent.
    if (keep) AppendModel(&out, std::make_shared<ObjectModel3DData>(*m));
  }
  *ObjectModel3DSelected = std::move(out);
}

void select_points_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Attrib,
                                   const HTuple& MinValue, const HTuple& MaxValue,
                                   HTuple* ObjectModel3DThresholded) {
  const char* op = "select_points_object_model_3d";
  ParamCount(Attrib, op, "Attrib", 1, -1);
  std::vector<std::string> attribs;
  for (Hlong i = 0; i < Attrib.Length(); ++i) attribs.push_back(ParamString(Attrib, op, "Attrib", i));
  std::vector<double> lo, hi;
  for (size_t k = 0; k < attribs.size(); ++k) {
    lo.push_back(double(Bound(MinValue, k, attribs.size(), op, "MinValue")));
    hi.push_back(double(Bound(MaxValue, k, attribs.size(), op, "MaxValue")));
  }
  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    std::vector<char> keep(m->NumPoints(), 1);
    for (size_t k = 0; k < attribs.size(); ++k) {
      const std::vector<double> v = model3d::PointAttribute(*m, attribs[k], op);
      if (attribs[k][0] == '&') {
        for (size_t i = 0; i < v.size(); ++i) keep[i] = keep[i] && v[i] >= lo[k] && v[i] <= hi[k];
      } else {
        // Coordinates and normals are stored as float: the bounds are too, so
        // that a point set at a bound stays inside it.
        const float flo = float(lo[k]), fhi = float(hi[k]);
        for (size_t i = 0; i < v.size(); ++i)
          keep[i] = keep[i] && float(v[i]) >= flo && float(v[i]) <= fhi;
      }
    }
    std::vector<int32_t> idx;
    for (size_t i = 0; i < keep.size(); ++i)
      if (keep[i]) idx.push_back(int32_t(i));
    AppendModel(&out, model3d::SubsetOf(*m, idx));
  }
  *ObjectModel3DThresholded = std::move(out);
}

void sample_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                            const HTuple& SampleDistance, const HTuple& GenParamName,
                            const HTuple& GenParamValue, HTuple* SampledObjectModel3D) {
  const char* op = "sample_object_model_3d";
  ParamStringIn(Method, op, "Method", {"fast"});
  const double d = ParamReal(SampleDistance, op, "SampleDistance");
  if (!(d > 0)) ThrowParamValue(op, "SampleDistance", "not positive");
  const model3d::GenParams gp(GenParamName, GenParamValue, op, {"min_num_points"});
  const Hlong min_points = gp.Int("min_num_points", 1);
  if (min_points < 1) ThrowParamValue(op, "'min_num_points'", "below 1");

  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    const size_t n = m->NumPoints();
    // Voxel of each finite point, then points sorted by voxel: one pass over
    // the sorted list averages each voxel.
    struct Cell {
      int32_t x, y, z, i;
    };
    std::vector<Cell> cells;
    cells.reserve(n);
    Eigen::Vector3d lo = Eigen::Vector3d::Constant(std::numeric_limits<double>::infinity());
    for (const auto& p : m->points)
      if (p.allFinite()) lo = lo.cwiseMin(p.cast<double>());
    for (size_t i = 0; i < n; ++i) {
      const Eigen::Vector3f& p = m->points[i];
      if (!p.allFinite()) continue;
      const Eigen::Vector3d c = ((p.cast<double>() - lo) / d).array().floor();
      if (c.maxCoeff() >= double(std::numeric_limits<int32_t>::max()))
        throw HException(op, "SampleDistance is too small for the model's extent",
                         kErrWrongParamValue);
      cells.push_back({int32_t(c.x()), int32_t(c.y()), int32_t(c.z()), int32_t(i)});
    }
    std::sort(cells.begin(), cells.end(), [](const Cell& a, const Cell& b) {
      if (a.x != b.x) return a.x < b.x;
      if (a.y != b.y) return a.y < b.y;
      if (a.z != b.z) return a.z < b.z;
      return a.i < b.i;
    });
    auto s = NewObjectModel3D();
    std::vector<std::pair<const std::vector<double>*, std::vector<double>*>> attribs;
    for (const auto& [name, vals] : m->attribs) attribs.push_back({&vals, &s->attribs[name]});
    for (size_t b = 0; b < cells.size();) {
      size_t e = b + 1;
      while (e < cells.size() && cells[e].x == cells[b].x && cells[e].y == cells[b].y &&
             cells[e].z == cells[b].z)
        ++e;
      if (Hlong(e - b) >= min_points) {
        const double w = 1.0 / double(e - b);
        Eigen::Vector3d p = Eigen::Vector3d::Zero(), nrm = Eigen::Vector3d::Zero();
        for (size_t k = b; k < e; ++k) {
          p += m->points[size_t(cells[k].i)].cast<double>();
          if (m->HasNormals()) nrm += m->normals[size_t(cells[k].i)].cast<double>();
        }
        s->points.push_back((p * w).cast<float>());
        if (m->HasNormals()) {
          const double len = nrm.norm();
          s->normals.push_back(len > 0 ? Eigen::Vector3f((nrm / len).cast<float>()) : Eigen::Vector3f::Zero());
        }
        for (auto& [src, dst] : attribs) {
          double sum = 0;
          for (size_t k = b; k < e; ++k) sum += (*src)[size_t(cells[k].i)];
          dst->push_back(sum * w);
        }
      }
      b = e;
    }
    AppendModel(&out, std::move(s));
  }
  *SampledObjectModel3D = std::move(out);
}

}  // namespace vision
