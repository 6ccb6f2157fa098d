#pragma once
// Stereo models: a camera setup, the camera pairs to reconstruct from and the
// settings of the reconstruction.
#include <map>
#include <string>

#include "vision/core/tuple.h"

namespace vision {

class StereoModelData : public HandleBase {
 public:
  const char* TypeName() const override { return "stereo_model"; }
  void Clear() override {
    HandleBase::Clear();
    setup = HTuple();
    params.clear();
  }

  HTuple setup;                          // the camera setup model's handle
  std::string method;                    // "surface_pairwise"
  std::map<std::string, HTuple> params;  // every settable parameter, with defaults
  HTuple from, to;                       // image pairs
};

// Method "surface_pairwise" only; GenParamName/GenParamValue are set as by
// set_stereo_model_param after the defaults.
void create_stereo_model(const HTuple& camera_setup_model_id, const HTuple& method,
                         const HTuple& gen_param_name, const HTuple& gen_param_value,
                         HTuple* stereo_model_id);
void set_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            const HTuple& gen_param_value);
void get_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            HTuple* gen_param_value);
void set_stereo_model_image_pairs(const HTuple& stereo_model_id, const HTuple& from_image_indices,
                                  const HTuple& to_image_indices);
void get_stereo_model_image_pairs(const HTuple& stereo_model_id, HTuple* from_image_indices,
                                  HTuple* to_image_indices);
void clear_stereo_model(const HTuple& stereo_model_id);

}  // namespace vision
