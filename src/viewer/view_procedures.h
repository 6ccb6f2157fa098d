#pragma once
// Procedures of the interactive 3D viewer: the starting view of a model
// (virtual camera, start pose, trackball centre) and the motions that mouse
// drags make of it (rotate about the trackball centre, zoom along the viewing
// axis, move parallel to the image plane), plus the flicker-free redraw.
//
// They work on tuples with the library's element-wise arithmetic, in which a
// division of two integers stays an integer division (the halved window
// sizes rely on it). Inputs are taken by value, outputs by pointer; a motion
// procedure copies its inputs to its outputs first, so a caller may pass the
// same variables for both. Errors of the library are not caught here.
#include "vision/core/tuple.h"

namespace velmora {

using vision::HTuple;

// --- starting view ---
void init_display_parameter(HTuple hv_WindowHandle, HTuple hv_ObjectModel3DID, HTuple* hv_Width,
                            HTuple* hv_Height, HTuple* hv_CamParam, HTuple* hv_LRow,
                            HTuple* hv_LColumn, HTuple* hv_PoseOut, HTuple* hv_TBCenter);
void determine_optimum_pose_distance(HTuple hv_ObjectModel3DID, HTuple hv_CamParam,
                                     HTuple hv_ImageCoverage, HTuple hv_PoseIn,
                                     HTuple* hv_PoseOut);
void get_object_models_center(HTuple hv_ObjectModel3DID, HTuple* hv_Center);

// --- motion ---
void rotate_object(HTuple hv_LastRow, HTuple hv_LastColumn, HTuple hv_Width, HTuple hv_Height,
                   HTuple hv_Row, HTuple hv_Column, HTuple hv_PoseIn, HTuple hv_TBCenter,
                   HTuple* hv_PoseOut, HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut);
void zoom_object(HTuple hv_LastRow, HTuple hv_Row, HTuple hv_Column, HTuple hv_PoseIn,
                 HTuple hv_TBCenterIn, HTuple* hv_PoseOut, HTuple* hv_TBCenterOut,
                 HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut);
void move_object(HTuple hv_LastRow, HTuple hv_LastColumn, HTuple hv_Row, HTuple hv_Column,
                 HTuple hv_CamParam, HTuple hv_PoseIn, HTuple hv_TBCenter, HTuple* hv_PoseOut,
                 HTuple* hv_LastRowOut, HTuple* hv_LastColumnOut);
// Virtual trackball: the rotation that takes the projection of (MX1, MY1)
// onto the ball to that of (MX2, MY2), as a quaternion [w, x, y, z].
void trackball(HTuple hv_MX1, HTuple hv_MY1, HTuple hv_MX2, HTuple hv_MY2,
               HTuple hv_VirtualTrackball, HTuple hv_TrackballSize, HTuple hv_SensFactor,
               HTuple* hv_QuatRotation);
// "shoemake": sphere, points outside pulled onto its rim; any other mode:
// sphere inside, hyperbolic sheet outside.
void project_point_on_trackball(HTuple hv_X, HTuple hv_Y, HTuple hv_VirtualTrackball,
                                HTuple hv_TrackballSize, HTuple* hv_P);
void tuple_vector_cross_product(HTuple hv_V1, HTuple hv_V2, HTuple* hv_VC);

// Clears the window and draws the model with flushing off, then flushes once.
void display_model(HTuple hv_WindowHandle, HTuple hv_ObjectModel3D, HTuple hv_CamParam,
                   HTuple hv_Pose, HTuple hv_GenParamName, HTuple hv_GenParamValue);

}  // namespace velmora
