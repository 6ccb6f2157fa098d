#pragma once
// 3D object model files: PLY.
#include "vision/core/tuple.h"

namespace vision {

// FileType "ply": binary little-endian; vertex x y z as float, nx ny nz as
// float when the model has normals, red green blue as uchar when it carries
// "&coord_r", "&coord_g" and "&coord_b" (0-255), faces as a `vertex_indices`
// list (uchar count, int indices). GenParam "binary" "false" writes the same
// content as ASCII.
void write_object_model_3d(const HTuple& ObjectModel3D, const HTuple& FileType,
                           const HTuple& FileName, const HTuple& GenParamName,
                           const HTuple& GenParamValue);

// Reads ASCII and binary little-endian PLY: x y z, optional nx ny nz, colours
// (red green blue, kept as "&coord_r/g/b"), other vertex properties as "&name",
// faces (polygons split into triangles). Scale: "m", "cm", "mm", "um", "nm"
// or a factor applied to the coordinates. A damaged file raises the library's
// exception.
void read_object_model_3d(const HTuple& FileName, const HTuple& Scale,
                          const HTuple& GenParamName, const HTuple& GenParamValue,
                          HTuple* ObjectModel3D, HTuple* Status);

}  // namespace vision
