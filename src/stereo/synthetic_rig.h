#pragma once
// The synthetic side-camera rig: a board with a few raised parts of known
// shape, textured for stereo matching, seen by eight cameras with division
// lenses. Used by the side-camera server's demo mode, `velmora-3d synth`, and
// the stereo tests and benchmarks, which compare a reconstruction with the
// true surface kept here.
//
// World frame as the rig's calibration: the board is z = 0 and z points into
// the board, so raised parts have negative z. Lengths in metres.
//
// Variants are different rigs, not reseeds: 0 is the demo rig; 1, 2 and 3
// differ in part shapes, surface texture, lighting, camera placement and
// lenses (3 was added as a held-out check: nothing was tuned on it). The
// variant fixes the geometry (parts and cameras); the seed fixes the texture
// and the camera noise.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <Eigen/Geometry>
#include <opencv2/core.hpp>

#include "vision/calib/camera_params.h"
#include "vision/core/tuple.h"

namespace velmora::synth {

inline constexpr int kCameraCount = 8;
inline constexpr int kVariantCount = 4;
inline constexpr int kImageWidth = 640;
inline constexpr int kImageHeight = 480;

struct RigCamera {
  vision::CamParams params;
  Eigen::Isometry3d camera_to_world = Eigen::Isometry3d::Identity();
  vision::HTuple ParamTuple() const { return params.ToTuple(); }
  vision::HTuple PoseTuple() const;  // camera-to-world, type 0
};

// A height field: world z (<= 0) sampled on a regular grid; z = 0 outside it.
// Sample (r, c) lies at x = x0 + c * step, y = y0 + r * step.
struct Surface {
  double x0 = 0, y0 = 0, step = 0;
  int rows = 0, cols = 0;
  std::vector<float> z;

  float At(int r, int c) const { return z[static_cast<size_t>(r) * cols + c]; }
  // Bilinear world z at (x, y); 0 off the grid.
  double ZAt(double x, double y) const;
};

// One raised part, for tests that check what the cameras see.
struct Part {
  std::string kind;  // "box", "dome", "cylinder", "cone", "ridge", "wedge"
  double cx = 0, cy = 0;       // centre on the board
  double half_x = 0, half_y = 0;  // half extents before rotation (radius for round parts)
  double angle = 0;            // radians, about the board normal
  double height = 0;           // above the board (positive metres)
  double bevel = 0;            // width of the sloped rim
  // Corners of the part's bounding box on top (z = -height) and on the board.
  std::vector<Eigen::Vector3d> Corners() const;
};

struct Rig {
  int variant = 0;
  uint32_t seed = 1;
  std::vector<RigCamera> cameras;  // kCameraCount
  std::vector<Part> parts;
  Surface surface;

  // Scene appearance, fixed by the variant and the seed.
  cv::Mat board_texture;  // CV_8UC3 (BGR), tiled over the board
  cv::Mat part_texture;   // CV_8UC1 speckle for the parts' surfaces
  std::vector<uint8_t> part_of_sample;  // 0 board, i + 1 for parts[i], per surface sample
  double texture_step = 0;              // metres per texel
  std::vector<cv::Vec3f> part_colors;   // BGR albedo in 0..1 per part
  Eigen::Vector3d light = Eigen::Vector3d(0, 0, -1);  // towards the light, unit
  cv::Vec3f light_color{1, 1, 1};
  double ambient = 0.35;
  double noise_sigma = 3;  // grey levels
};

// The rig of `variant` (0 to kVariantCount - 1); throws std::invalid_argument
// for another variant.
Rig MakeRig(int variant, uint32_t seed = 1);

// The eight views (CV_8UC3, BGR, 640 x 480), rendered on every core.
std::vector<cv::Mat> RenderViews(const Rig& rig);
// One view, for callers that parallelise themselves.
cv::Mat RenderView(const Rig& rig, int camera);

// The first scene point on the line of sight of `camera` through pixel
// (row, column), or nullopt when the ray misses the board.
std::optional<Eigen::Vector3d> FirstHit(const Rig& rig, int camera, double row, double column);

// The true surface as files: a NumPy .npy of float32 world z (rows x cols,
// little-endian, C order) and a JSON sidecar with origin, step and size.
bool WriteSurface(const Surface& surface, const std::string& npy_path,
                  const std::string& json_path, std::string* error);
std::optional<Surface> ReadSurface(const std::string& npy_path, const std::string& json_path,
                                   std::string* error);

}  // namespace velmora::synth
