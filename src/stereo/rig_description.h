#pragma once
// The rig description in JSON, as `velmora-3d rig import` reads it and
// `rig show` prints it:
//   {"cameras": [{"params": [f, kappa, sx, sy, cx, cy, width, height],
//                 "pose":   [x, y, z, alpha, beta, gamma, type]}, ... eight]}
// The camera index is the position in the list; "pose" is camera-to-world.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vision/core/tuple.h"

namespace velmora {

inline constexpr int kRigCameraCount = 8;

struct RigCameraEntry {
  vision::HTuple params;  // 8 numbers; width and height as integers
  vision::HTuple pose;    // 7 numbers; the type code as an integer
};

struct RigDescription {
  std::vector<RigCameraEntry> cameras;
};

// Parses and checks the JSON: an object with "cameras", a list of exactly
// eight objects, each with "params" of 8 numbers and "pose" of 7 numbers.
// On failure: nullopt and a one-line reason in `error`.
std::optional<RigDescription> ParseRigJson(const std::string& text, std::string* error);

// The JSON text (two-space indentation, one camera per entry, numbers that
// read back to the same doubles).
std::string RigJson(const RigDescription& rig);

// The bytes of a serialized camera setup model of the rig (what the
// calibration file keeps under "hCameraModelData"), built with the vision
// library's camera setup operators. Raises vision::HException for camera
// parameters or poses the library refuses.
std::vector<uint8_t> SerializeRigModel(const RigDescription& rig);
// The cameras of a serialized camera setup model, as the model holds them.
// Raises vision::HException for damaged bytes or a camera without parameters
// or pose.
RigDescription DeserializeRigModel(const std::vector<uint8_t>& bytes);

}  // namespace velmora
