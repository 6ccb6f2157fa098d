#pragma once
// 3D poses, homogeneous 3D matrices and quaternions with the reference
// library's operator names.
//
// A hom_mat3d is the upper 3 x 4 part of a homogeneous 4 x 4 matrix as 12
// values in row-major order (the last row is always 0 0 0 1). A quaternion is
// [w, x, y, z]. Rotation angles of poses are in degrees, those of the matrix
// and quaternion operators in radians.
//
// Tuples of several poses (7 values each), matrices (12) or quaternions (4)
// are processed element by element where marked "vectorised"; an input of one
// element is then paired with every element of the other inputs.
#include "vision/core/tuple.h"

namespace vision {

// Poses. Vectorised: each numeric input holds one value or n values; the
// result is n poses concatenated. The three strings choose the type code (see
// pose_types.h): "Rp+T" / "R(p-T)", "gba" / "abg" / "rodriguez",
// "point" / "coordinate_system".
void create_pose(const HTuple& trans_x, const HTuple& trans_y, const HTuple& trans_z,
                 const HTuple& rot_x, const HTuple& rot_y, const HTuple& rot_z,
                 const HTuple& order_of_transform, const HTuple& order_of_rotation,
                 const HTuple& view_of_transform, HTuple* pose);
// The same rigid transformation in another representation. Vectorised.
void convert_pose_type(const HTuple& pose_in, const HTuple& order_of_transform,
                       const HTuple& order_of_rotation, const HTuple& view_of_transform,
                       HTuple* pose_out);
void get_pose_type(const HTuple& pose, HTuple* order_of_transform, HTuple* order_of_rotation,
                   HTuple* view_of_transform);
// Vectorised (n poses to n matrices and back). hom_mat3d_to_pose returns type
// code 0 with every angle in [0, 360).
void pose_to_hom_mat3d(const HTuple& pose, HTuple* hom_mat3d);
void hom_mat3d_to_pose(const HTuple& hom_mat3d, HTuple* pose);
// Vectorised; each result keeps the type code of its (left) input.
void pose_invert(const HTuple& pose, HTuple* pose_invert);
// PoseLeft * PoseRight as homogeneous matrices. Vectorised with broadcast.
void pose_compose(const HTuple& pose_left, const HTuple& pose_right, HTuple* pose_compose);

// Homogeneous 3D matrices.
void hom_mat3d_identity(HTuple* hom_mat3d_identity);
// Translation after the transformation (in the target frame): T * H.
void hom_mat3d_translate(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                         const HTuple& tz, HTuple* hom_mat3d_translate);
// Translation before the transformation (in the local frame): H * T.
void hom_mat3d_translate_local(const HTuple& hom_mat3d, const HTuple& tx, const HTuple& ty,
                               const HTuple& tz, HTuple* hom_mat3d_translate);
// Rotation by phi (radians) about axis "x", "y", "z" or a 3-vector, through
// the fixed point (px, py, pz), after the transformation:
// T(p) * R * T(-p) * H.
void hom_mat3d_rotate(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                      const HTuple& px, const HTuple& py, const HTuple& pz,
                      HTuple* hom_mat3d_rotate);
// Rotation about an axis of the local frame: H * R.
void hom_mat3d_rotate_local(const HTuple& hom_mat3d, const HTuple& phi, const HTuple& axis,
                            HTuple* hom_mat3d_rotate);
// Left * Right. Vectorised with broadcast.
void hom_mat3d_compose(const HTuple& hom_mat3d_left, const HTuple& hom_mat3d_right,
                       HTuple* hom_mat3d_compose);
// Vectorised. A singular matrix raises.
void hom_mat3d_invert(const HTuple& hom_mat3d, HTuple* hom_mat3d_invert);
// Transforms points (px[i], py[i], pz[i]); one-value coordinates broadcast.
void affine_trans_point_3d(const HTuple& hom_mat3d, const HTuple& px, const HTuple& py,
                           const HTuple& pz, HTuple* qx, HTuple* qy, HTuple* qz);

// Quaternions. axis_angle_to_quat normalises a non-zero axis; angle in
// radians; vectorised with broadcast. A zero axis (a trackball drag between
// opposite points) gives the identity [1, 0, 0, 0] whatever the angle.
void axis_angle_to_quat(const HTuple& axis_x, const HTuple& axis_y, const HTuple& axis_z,
                        const HTuple& angle, HTuple* quaternion);
// The rotation matrix of a quaternion (normalised first). Vectorised.
void quat_to_hom_mat3d(const HTuple& quaternion, HTuple* rot_matrix);
// Left * Right (Hamilton product). Vectorised with broadcast.
void quat_compose(const HTuple& quaternion_left, const HTuple& quaternion_right,
                  HTuple* quaternion_composed);
// Pose (rotation part only, translation ignored) to quaternion and back
// (quat_to_pose gives a type-0 pose with zero translation). Vectorised.
void pose_to_quat(const HTuple& pose, HTuple* quaternion);
void quat_to_pose(const HTuple& quaternion, HTuple* pose);

}  // namespace vision
