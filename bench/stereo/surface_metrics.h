#pragma once
// Compares reconstructed points with a synthetic rig's true height field.
#include <string>
#include <vector>

#include <Eigen/Core>

#include "stereo/synthetic_rig.h"
#include "vision/calib/camera_params.h"

namespace velmora::bench {

struct SurfaceFigures {
  size_t points = 0;
  double rms_um = 0, p95_um = 0, far_pct = 0;  // distances to the true surface
  double top_coverage_pct = 0;  // top-surface samples with a point within 60 um
};

// Distance of a point to the height field: the vertical offset taken along
// the local normal, or the distance to the nearest sample of a finely
// resampled surface near steep walls, whichever is smaller.
double DistanceToSurface(const synth::Surface& s, const Eigen::Vector3d& p);

// One sample of the top surfaces: at least 0.4 mm above the board, slope
// under 45 degrees, no wall within its 3 x 3 neighbourhood.
struct TopSample {
  int r = 0, c = 0;
  Eigen::Vector3d p;
};
std::vector<TopSample> TopSurface(const synth::Surface& s);
// The same, keeping only samples that both cameras of at least one of the
// pairs (0,1) (2,3) (4,5) (6,7) see: inside both images, facing both
// cameras and hidden from neither by the surface. A surface no pair sees
// cannot be asked of the reconstruction.
std::vector<TopSample> TopSurface(const synth::Rig& rig);
// Whether camera `cam` of the rig sees surface point p (inside the image,
// facing the camera, not hidden by the surface).
bool SeenBy(const synth::Rig& rig, int cam, const Eigen::Vector3d& p);

// Per top sample: whether a point lies within `radius` of it.
std::vector<bool> CoveredTops(const std::vector<TopSample>& tops, const std::vector<Eigen::Vector3d>& pts,
                              double radius = 60e-6);

// Distances to the rig's surface; coverage of the top surface its pairs see.
SurfaceFigures Evaluate(const synth::Rig& rig, const std::vector<Eigen::Vector3d>& pts);

std::string Format(const SurfaceFigures& f);

// Unit normal of the height field at (p.x, p.y), facing the cameras (-z).
Eigen::Vector3d SurfaceNormal(const synth::Surface& s, const Eigen::Vector3d& p);

// Footprint of one pixel of a distortion-free (rectified) camera on the plane
// through p with the given normal: how far apart the points of neighbouring
// pixels lie there, along the image rows (x) and across them (y). One pair's
// points lie this far apart on that surface.
Eigen::Vector2d PixelFootprint(const vision::CamParams& cam, const Eigen::Isometry3d& cam_to_world,
                               const Eigen::Vector3d& p, const Eigen::Vector3d& normal);

// The point where the line of sight from `eye` through p meets the height
// field within 2 mm of p: p with the exact depth. p itself where the line
// meets nothing there.
Eigen::Vector3d ExactDepth(const synth::Surface& s, const Eigen::Vector3d& eye, const Eigen::Vector3d& p);

// The first point where the line of sight from `eye` through p enters the
// height field within `reach` of p, in *hit; false where the line starts
// inside or meets nothing there.
bool MarchToSurface(const synth::Surface& s, const Eigen::Vector3d& eye, const Eigen::Vector3d& p, double reach,
                    Eigen::Vector3d* hit);

// The rig variants named by `--variants 0,1,3` on the command line; every
// variant without it.
std::vector<int> VariantsArg(int argc, char** argv);

}  // namespace velmora::bench
