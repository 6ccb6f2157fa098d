#pragma once
// The stereo reconstruction procedure: eight side views and the rig's camera
// setup become one coloured, triangulated surface.
#include <cstdint>
#include <string>
#include <vector>

#include "vision/core/tuple.h"

namespace velmora {

// The raw side views: each 640 x 480 pixels of four bytes, alpha first.
using SideViews = std::vector<std::vector<uint8_t>>;

// Returns the handle of the final 3D object model, which the caller owns.
// Draws the views and progress texts into WindowHandle; logs the seconds of
// each pair's rectification maps and of the whole pairwise phase. Vision
// errors propagate (a damaged setup fails where it is first used).
vision::HTuple action(const vision::HTuple& hv_WindowHandle, const vision::HTuple& hv_SerializedItemHandle,
                      const SideViews& Images);

// RelPose = inverse(Pose1) * Pose2: camera 2's frame in camera 1's.
void calc_rel_pose(vision::HTuple hv_Pose1, vision::HTuple hv_Pose2, vision::HTuple* hv_RelPose);

// The camera pairs of a quality preset ("very fast", "fast", "Default",
// "accurate", "very accurate"); false for another name.
bool QualityPairs(const std::string& quality, vision::HTuple* from, vision::HTuple* to);

// Seconds spent in each stage of one run.
struct ReconstructionTimes {
  double views = 0;           // decoding and drawing the eight views
  // Per-pair stages summed over the pairs (two pairs run at a time).
  double rectification = 0;   // rectification maps
  double mapping = 0;         // map_image
  double disparity = 0;       // binocular_disparity_ms
  double points = 0;          // points, score threshold, colours, the pair's model
  double pair_components = 0; // the pair's connected parts, their union, transform
  double pairwise = 0;        // the whole pairwise phase (logged)
  double pairwise_cpu = 0;    // processor seconds of the pairwise phase, all threads
  double merge = 0;           // union and height crop
  double components = 0;      // connected parts of the merged cloud
  double sampling = 0;
  double smoothing = 0;
  double triangulation = 0;
  double surface_cpu = 0;     // processor seconds from the merge to the surface, all threads
  double total = 0;
};
std::string FormatTimes(const ReconstructionTimes& t);

// `action` with any quality preset (the tool and the benchmarks choose one;
// the add-in always runs "Default"). Raises the library's exception for an
// unknown preset name. `times` may be null.
vision::HTuple ReconstructSurface(const vision::HTuple& hv_WindowHandle,
                                  const vision::HTuple& hv_SerializedItemHandle, const SideViews& Images,
                                  const std::string& quality, ReconstructionTimes* times);

}  // namespace velmora
