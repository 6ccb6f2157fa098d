#pragma once
// Binocular rectification, image mapping and triangulation of disparities.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Rectification maps of a calibrated camera pair (RelPose: camera 2 in the
// frame of camera 1). SubSampling 1, Method "geometric", MapType "bilinear".
// Map1/Map2 are two-channel real images holding, for every rectified pixel,
// the row (channel 1) and column (channel 2) of the original pixel it shows.
// The rectified cameras have no distortion, square pixels and image sizes
// that frame both original images; their principal points put the point
// both optical axes converge on at disparity 0. CamPoseRect1/2 map the
// rectified camera frames into the original ones; RelPoseRect is camera 2
// rectified in the frame of camera 1 rectified (a pure x translation).
void gen_binocular_rectification_map(HObject* map1, HObject* map2, const HTuple& cam_param1,
                                     const HTuple& cam_param2, const HTuple& rel_pose,
                                     const HTuple& sub_sampling, const HTuple& method,
                                     const HTuple& map_type, HTuple* cam_param_rect1,
                                     HTuple* cam_param_rect2, HTuple* cam_pose_rect1,
                                     HTuple* cam_pose_rect2, HTuple* rel_pose_rect);

// Bilinear resampling of every channel through a map made above; the domain
// of the result holds the pixels whose source lies inside the source image's
// domain.
void map_image(const HObject& image, const HObject& map, HObject* image_mapped);

// Points (X, Y, Z images, real, frame of rectified camera 1) of a disparity
// image: pixel (r, c) of image 1 is seen at (r, c + disparity) in image 2.
// The domain of the results is the disparity's domain.
void disparity_image_to_xyz(const HObject& disparity, HObject* x, HObject* y, HObject* z,
                            const HTuple& cam_param_rect1, const HTuple& cam_param_rect2,
                            const HTuple& rel_pose_rect);

}  // namespace vision
