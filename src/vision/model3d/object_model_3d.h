#pragma once
// The 3D object model handle: points, optional triangles, optional normals
// and named per-point extended attributes ("&coord_r", ...). Every operator
// that adds, drops or reorders points keeps all per-point arrays in step.
// A handle is only ever touched by one thread at a time (the worker that
// builds a model, then the main thread that shows it); creating and clearing
// handles is safe from any thread.
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Core>

#include "vision/core/tuple.h"

namespace vision {

class ObjectModel3DData : public HandleBase {
 public:
  const char* TypeName() const override { return "object_model_3d"; }
  void Clear() override {
    HandleBase::Clear();
    points.clear(); points.shrink_to_fit();
    normals.clear(); normals.shrink_to_fit();
    triangles.clear(); triangles.shrink_to_fit();
    attribs.clear();
  }

  std::vector<Eigen::Vector3f> points;                 // metres, model frame
  std::vector<Eigen::Vector3f> normals;                // empty, or one per point
  std::vector<std::array<int32_t, 3>> triangles;       // indices into points
  std::map<std::string, std::vector<double>> attribs;  // "&name" -> one per point

  size_t NumPoints() const { return points.size(); }
  bool HasTriangles() const { return !triangles.empty(); }
  bool HasNormals() const { return !normals.empty(); }
};

using ObjectModel3DPtr = std::shared_ptr<ObjectModel3DData>;

// A new, empty model and its handle tuple.
inline ObjectModel3DPtr NewObjectModel3D() { return std::make_shared<ObjectModel3DData>(); }
inline HTuple ObjectModel3DHandle(const ObjectModel3DPtr& m) { return HTuple(HHandle(m)); }

// The model behind element i of a handle tuple; raises HException(op, ...)
// for anything else or a cleared handle.
inline ObjectModel3DData* ObjectModel3DCast(const HTuple& t, const char* op, Hlong i = 0) {
  return HandleCast<ObjectModel3DData>(t, op, i);
}

}  // namespace vision
