#pragma once
// Camera setup models: the cameras of a multi-camera rig, each with its
// internal parameters and its pose (camera frame to the setup's world frame),
// and their serialization in the library's own format (CAMERA_SETUP_FORMAT.md
// beside this file).
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Geometry>

#include "vision/calib/camera_params.h"
#include "vision/core/tuple.h"

namespace vision {

// The one camera type this library models.
inline constexpr const char* kAreaScanDivision = "area_scan_division";

struct SetupCamera {
  bool has_params = false, has_pose = false;
  std::string type = kAreaScanDivision;
  CamParams params;
  HTuple pose;  // 7 values, camera to world, of the type code it was given in

  bool Defined() const { return has_params && has_pose; }
  // The pose as a transform taking camera coordinates to world coordinates.
  Eigen::Isometry3d WorldFromCamera() const;
};

class CameraSetupModelData : public HandleBase {
 public:
  const char* TypeName() const override { return "camera_setup_model"; }
  void Clear() override {
    HandleBase::Clear();
    cameras.clear();
  }

  std::vector<SetupCamera> cameras;  // index = camera index of the operators
  Hlong reference_camera = -1;       // camera whose frame became the world frame, or -1
  // The pose of the current world frame in the frame the poses were first
  // given in: what set_camera_setup_param "coord_transf_pose" accumulated.
  HTuple coord_transf_pose = HTuple::Reals({0, 0, 0, 0, 0, 0}).Append(HTuple(0));

  // Camera `index` (an integer tuple element or a number), checked: raises
  // HException(op, ...) when it is out of range or has no parameters and pose.
  const SetupCamera& Camera(Hlong index, const char* op) const;
};

using CameraSetupModelPtr = std::shared_ptr<CameraSetupModelData>;

// A new model of n undefined cameras and the handle tuple of a model.
inline CameraSetupModelPtr NewCameraSetupModel(size_t n) {
  auto m = std::make_shared<CameraSetupModelData>();
  m->cameras.resize(n);
  return m;
}
inline HTuple CameraSetupModelHandle(const CameraSetupModelPtr& m) { return HTuple(HHandle(m)); }

inline CameraSetupModelData* CameraSetupModelCast(const HTuple& t, const char* op, Hlong i = 0) {
  return HandleCast<CameraSetupModelData>(t, op, i);
}

// The bytes of a model in the library's format, and back. Deserializing
// raises HException(op, ..., kErrFileFormat) for anything but complete,
// undamaged bytes of a known version.
std::vector<uint8_t> SerializeCameraSetup(const CameraSetupModelData& model);
CameraSetupModelPtr DeserializeCameraSetup(const uint8_t* data, size_t size, const char* op);

void create_camera_setup_model(const HTuple& num_cameras, HTuple* camera_setup_model_id);
// camera_type "area_scan_division" or [] (taken from the number of values);
// camera_pose: camera to world, any pose type code.
void set_camera_setup_cam_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                                const HTuple& camera_type, const HTuple& camera_param,
                                const HTuple& camera_pose);
// Per camera: "params", "pose", "type" (or "camera_type"). Setup-wide (index
// "general"): "coord_transf_pose" (moves the world frame: every camera pose
// becomes inverse(CoordTransfPose) * pose), "reference_camera" (the world
// frame becomes that camera's frame).
void set_camera_setup_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                            const HTuple& gen_param_name, const HTuple& gen_param_value);
// As set_camera_setup_param, and "num_cameras" (index "general").
void get_camera_setup_param(const HTuple& camera_setup_model_id, const HTuple& camera_idx,
                            const HTuple& gen_param_name, HTuple* gen_param_value);
void clear_camera_setup_model(const HTuple& camera_setup_model_id);

void serialize_camera_setup_model(const HTuple& camera_setup_model_id, HTuple* serialized_item_handle);
void deserialize_camera_setup_model(const HTuple& serialized_item_handle, HTuple* camera_setup_model_id);
void write_camera_setup_model(const HTuple& camera_setup_model_id, const HTuple& file_name);
void read_camera_setup_model(const HTuple& file_name, HTuple* camera_setup_model_id);

}  // namespace vision
