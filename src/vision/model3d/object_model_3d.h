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

#include "vision/core/object.h"
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

// ---- Operators. Every operator that takes a tuple of models handles each
// of them and returns one result per model, in order.

// A point cloud from coordinate tuples of equal length.
void gen_object_model_3d_from_points(const HTuple& X, const HTuple& Y, const HTuple& Z,
                                     HTuple* ObjectModel3D);

// One point per pixel of the common domain of the three coordinate images,
// in the order of the domain's runs (row by row, column ascending): the
// order get_region_points returns, so per-point values fetched at those
// pixels line up with the points.
void xyz_to_object_model_3d(const HObject& X, const HObject& Y, const HObject& Z,
                            HTuple* ObjectModel3D);

// Sets per-point attributes in place: extended attributes ("&name") and the
// standard "point_coord_x/y/z", "point_normal_x/y/z". AttribValues holds all
// values of the first attribute, then all of the second, ... (or a single
// value for every point).
void set_object_model_3d_attrib_mod(const HTuple& ObjectModel3D, const HTuple& AttribName,
                                    const HTuple& AttachExtAttribTo,
                                    const HTuple& AttribValues);

// "num_points", "num_triangles", "center", "bounding_box1",
// "diameter_axis_aligned_bounding_box", "point_coord_x/y/z",
// "point_normal_x/y/z", "triangles", "has_points", "has_triangles",
// "has_point_normals", "num_extended_attribute", "extended_attribute_names",
// and any extended attribute by its name.
void get_object_model_3d_params(const HTuple& ObjectModel3D, const HTuple& GenParamName,
                                HTuple* GenParamValue);

// p' = Pose * p for every point; normals turn with the rotation. One pose for
// all models or one per model.
void rigid_trans_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Pose,
                                 HTuple* ObjectModel3DRigidTrans);

// One model holding the points (and triangles) of all; normals and extended
// attributes survive where every input model has them. Method "points_surface".
void union_object_model_3d(const HTuple& ObjectModels3D, const HTuple& Method,
                           HTuple* UnionObjectModel3D);

// Deep copies; Attributes "all" (or a list of "point_coord", "point_normal",
// "triangles", "extended_attribute").
void copy_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Attributes,
                          HTuple* CopiedObjectModel3D);

// Releases the models at once; clearing a handle twice is harmless.
void clear_object_model_3d(const HTuple& ObjectModel3D);

}  // namespace vision
