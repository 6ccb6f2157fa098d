#pragma once
// Display of 3D object models: a software rasteriser with a depth buffer
// behind disp_object_model_3d (into a graphics window), render_object_model_3d
// (into an image) and object_model_3d_to_xyz (per-pixel camera coordinates).
//
// Triangles are filled with the colours of their corners interpolated across
// the face and lit by one light (ambient plus two-sided diffuse term, so that
// surfaces of either winding look alike). Models without triangles are drawn
// as squares of "point_size" pixels, lit only when they carry normals.
//
// Generic display parameters (names and values as pairs):
//   "color"            colour name for every model ("white" by default)
//   "colored"          3, 6 or 12: models in that many distinct colours
//   "intensity"        attribute name ("&name"): grey value per point
//   "intensity_red", "intensity_green", "intensity_blue"
//                      attribute names of the three channels (values 0..255)
//   "point_size"       side of a drawn point in pixels (default 3)
//   "alpha"            0..1, opacity of the drawing over the window
//   "disp_pose"        "true": the model frame's axes (x red, y green, z blue)
//   "light_position"   "x y z w" in the camera frame; w = 1 a point light,
//                      w = 0 a direction towards the light
//                      (default "-100.0 -100.0 -100.0 1.0": above left,
//                      behind the camera)
//   "light_ambient"    "r g b", 0..1 (default "0.2 0.2 0.2")
//   "light_diffuse"    "r g b", 0..1 (default "0.8 0.8 0.8")
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Draws the models into the window's current image part; CamParam's image
// coordinates are the part's. Pose holds one pose for all models or one per
// model.
void disp_object_model_3d(const HTuple& window_handle, const HTuple& object_model_3d,
                          const HTuple& cam_param, const HTuple& pose,
                          const HTuple& gen_param_name, const HTuple& gen_param_value);

// The same picture as a three-channel byte image of the camera's size on black.
void render_object_model_3d(HObject* image, const HTuple& object_model_3d,
                            const HTuple& cam_param, const HTuple& pose,
                            const HTuple& gen_param_name, const HTuple& gen_param_value);

// Type "cartesian": X, Y and Z of the nearest model surface in the camera
// frame, as real images of the camera's size whose domain is where a model is
// seen.
void object_model_3d_to_xyz(HObject* x, HObject* y, HObject* z, const HTuple& object_model_3d,
                            const HTuple& type, const HTuple& cam_param, const HTuple& pose);

}  // namespace vision
