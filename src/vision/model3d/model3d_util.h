#pragma once
// Helpers shared by the 3D object model operators (not part of the public
// operator interface): handle lists, generic parameters, point subsets.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vision/model3d/object_model_3d.h"

namespace vision::model3d {

// Every model of a handle tuple, in order; raises for a non-model element.
std::vector<ObjectModel3DData*> ModelsOf(const HTuple& handles, const char* op);

// Appends a new handle for `m` to `out`.
void AppendModel(HTuple* out, ObjectModel3DPtr m);

// The generic parameters of an operator: names and values of equal length,
// looked up by name; an unknown name is an error, so a typo is never ignored.
// Values are read with the shared parameter rules (vision/core/param.h).
class GenParams {
 public:
  GenParams(const HTuple& names, const HTuple& values, const char* op,
            std::vector<std::string> known);
  double Real(const std::string& name, double def) const;
  Hlong Int(const std::string& name, Hlong def) const;
  std::string Str(const std::string& name, const std::string& def) const;
  bool Bool(const std::string& name, bool def) const;  // "true" / "false"

 private:
  Hlong Find(const std::string& name) const;  // -1: not given
  const char* op_;
  std::vector<std::string> names_;
  HTuple values_;
};

// A copy of the points `keep` (ascending or not: the output follows their
// order) with their normals and attributes; triangles whose three corners are
// all kept are renumbered, the others dropped.
ObjectModel3DPtr SubsetOf(const ObjectModel3DData& m, const std::vector<int32_t>& keep);

// The values of a per-point attribute by its reference name
// ("point_coord_x", "point_normal_z", "&name"); raises when the model has no
// such attribute.
std::vector<double> PointAttribute(const ObjectModel3DData& m, const std::string& name,
                                   const char* op);

// Runs body(begin, end) over [0, n) split into one block per core (at most
// `max_threads`); the calling thread takes the first block. Exceptions of any
// block are rethrown here.
void ParallelFor(size_t n, const std::function<void(size_t, size_t)>& body,
                 size_t min_block = 2048, unsigned max_threads = 8);

}  // namespace vision::model3d
