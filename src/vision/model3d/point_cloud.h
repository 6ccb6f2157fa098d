#pragma once
// Point-cloud processing of 3D object models: selection, connected parts,
// thinning, smoothing and surface triangulation. Extended point attributes
// ("&coord_r", ...) follow their points through every operator. All of them
// are reentrant: the reconstruction runs them on a worker thread.
#include "vision/core/tuple.h"

namespace vision {

// Splits each model into its connected parts. "distance_3d": points closer
// than Value (radius search on a hashed grid) belong together, and so do the corners
// of a triangle; "mesh": points joined by triangles. Parts come in the order
// of their first point; points keep their order.
void connection_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Feature,
                                const HTuple& Value, HTuple* ObjectModel3DConnected);

// Copies of the models whose features lie within [MinValue, MaxValue]
// ("num_points", "num_triangles", "diameter_axis_aligned_bounding_box"),
// all features ("and") or any ("or"). MaxValue may be a 64-bit integer.
void select_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Feature,
                            const HTuple& Operation, const HTuple& MinValue,
                            const HTuple& MaxValue, HTuple* ObjectModel3DSelected);

// The points whose attributes ("point_coord_x/y/z", "point_normal_x/y/z",
// "&name") lie within [MinValue, MaxValue], bounds included; with several
// attributes every one must. Triangles survive if all their corners do.
void select_points_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Attrib,
                                   const HTuple& MinValue, const HTuple& MaxValue,
                                   HTuple* ObjectModel3DThresholded);

// Method "fast": a voxel grid of edge SampleDistance; the points of each
// voxel become one point at their mean, with the mean of their normals and
// extended attributes. GenParam "min_num_points" (default 1) drops voxels
// holding fewer points.
void sample_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                            const HTuple& SampleDistance, const HTuple& GenParamName,
                            const HTuple& GenParamValue, HTuple* SampledObjectModel3D);

// Method "mls": moving least squares over the mls_kNN (60) nearest
// neighbours with Gaussian weights of width mls_relative_sigma (1.0) times
// the distance of the farthest of them (or mls_abs_sigma), fitting a
// polynomial of mls_order (2; 0 or 1 projects onto the plane). Each point
// moves onto its fitted surface and gets that surface's normal, facing the
// origin with mls_force_inwards "true", else facing negative z (the viewer's
// side in camera frames and in the rig's world frame).
void smooth_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                            const HTuple& GenParamName, const HTuple& GenParamValue,
                            HTuple* SmoothObjectModel3D);

// Method "greedy": greedy projection triangulation over the greedy_kNN (40)
// nearest neighbours. greedy_radius_type "auto" (edge length up to
// greedy_radius_value (2.0) times the local point spacing) or "fixed"
// (greedy_radius_value as the edge length limit); greedy_neigh_orient_tol
// (30 degrees) between neighbouring normals; greedy_neigh_orient_consistent
// ("false"); greedy_fix_flips ("true": consistent triangle orientation);
// greedy_output_all_points ("false": points in no triangle are dropped).
// Uses the model's normals, or estimates them from the greedy_kNN
// neighbourhood facing negative z. Information: the number of triangles.
void triangulate_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                                 const HTuple& GenParamName, const HTuple& GenParamValue,
                                 HTuple* TriangulatedObjectModel3D, HTuple* Information);

}  // namespace vision
