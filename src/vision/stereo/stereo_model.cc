#include "vision/stereo/stereo_model.h"

#include <functional>
#include <memory>

#include "vision/calib/camera_setup.h"

namespace vision {
namespace {

using Check = std::function<bool(const HTuple&)>;

struct ParamSpec {
  const char* name;
  HTuple dflt;
  Check valid;
};

bool OneString(const HTuple& v, std::initializer_list<const char*> allowed) {
  if (v.Length() != 1 || !v.IsString(0)) return false;
  for (const char* a : allowed)
    if (v.S(0) == a) return true;
  return false;
}
bool OneNumber(const HTuple& v, double lo, double hi) {
  return v.Length() == 1 && v.IsNumber(0) && v.D(0) >= lo && v.D(0) <= hi;
}
bool OneInt(const HTuple& v, Hlong lo, Hlong hi) {
  return v.Length() == 1 && v.IsInt(0) && v.L(0) >= lo && v.L(0) <= hi;
}
bool OddMask(const HTuple& v) { return OneInt(v, 3, 201) && v.L(0) % 2 == 1; }
bool Box(const HTuple& v) {
  if (v.Length() != 6) return false;
  for (int i = 0; i < 6; ++i)
    if (!v.IsNumber(i)) return false;
  return v.D(0) < v.D(3) && v.D(1) < v.D(4) && v.D(2) < v.D(5);
}

// The one table of the model's settings: name, default, accepted values.
const std::vector<ParamSpec>& Specs() {
  static const std::vector<ParamSpec> specs = {
      {"sub_sampling_step", 2, [](const HTuple& v) { return OneInt(v, 1, 100); }},
      {"rectif_interpolation", "bilinear", [](const HTuple& v) { return OneString(v, {"none", "bilinear"}); }},
      {"rectif_sub_sampling", 1.0, [](const HTuple& v) { return OneNumber(v, 0.01, 100); }},
      {"binocular_method", "binocular",
       [](const HTuple& v) { return OneString(v, {"binocular", "ncc", "sad", "ssd", "binocular_ms", "binocular_mg"}); }},
      {"binocular_num_levels", 1, [](const HTuple& v) { return OneInt(v, 1, 16); }},
      {"binocular_mask_width", 11, OddMask},
      {"binocular_mask_height", 11, OddMask},
      {"binocular_texture_thresh", 0.0, [](const HTuple& v) { return OneNumber(v, 0, 1e30); }},
      {"binocular_score_thresh", 0.5, [](const HTuple& v) { return OneNumber(v, -1e30, 1e30); }},
      {"binocular_filter", "none", [](const HTuple& v) { return OneString(v, {"none", "left_right_check"}); }},
      {"binocular_sub_disparity", "none",
       [](const HTuple& v) { return OneString(v, {"none", "interpolation"}); }},
      {"bounding_box", HTuple::Reals({-1, -1, -1, 1, 1, 1}), Box},
      {"persistence", 0, [](const HTuple& v) { return OneInt(v, 0, 1); }},
  };
  return specs;
}

const ParamSpec* FindSpec(const HTuple& name, Hlong i, const char* op) {
  if (!name.IsString(i)) throw HException(op, "Wrong type of control parameter GenParamName", kErrWrongParamType);
  for (const ParamSpec& s : Specs())
    if (name.S(i) == s.name) return &s;
  throw HException(op, "Unknown parameter name: " + name.S(i), kErrWrongParamValue);
}

StereoModelData* Model(const HTuple& id, const char* op) { return HandleCast<StereoModelData>(id, op); }

void SetParams(StereoModelData* m, const HTuple& names, const HTuple& values, const char* op) {
  // One name with several values (the bounding box) or one value per name.
  if (names.Length() == 1) {
    const ParamSpec* s = FindSpec(names, 0, op);
    if (!s->valid(values)) throw HException(op, std::string("Wrong value of parameter ") + s->name, kErrWrongParamValue);
    m->params[s->name] = values;
    return;
  }
  if (names.Length() != values.Length())
    throw HException(op, "GenParamName and GenParamValue differ in length", kErrWrongParamCount);
  for (Hlong i = 0; i < names.Length(); ++i) {
    const ParamSpec* s = FindSpec(names, i, op);
    HTuple v(values[i]);
    if (!s->valid(v)) throw HException(op, std::string("Wrong value of parameter ") + s->name, kErrWrongParamValue);
    m->params[s->name] = v;
  }
}

}  // namespace

void create_stereo_model(const HTuple& camera_setup_model_id, const HTuple& method,
                         const HTuple& gen_param_name, const HTuple& gen_param_value,
                         HTuple* stereo_model_id) {
  constexpr const char* op = "create_stereo_model";
  if (camera_setup_model_id.Length() != 1 || !camera_setup_model_id.IsHandle(0))
    throw HException(op, "Wrong type of control parameter CameraSetupModelID: handle expected", kErrHandle);
  const CameraSetupModelData* setup = CameraSetupModelCast(camera_setup_model_id, op);
  if (setup->cameras.size() < 2) throw HException(op, "A stereo model needs at least two cameras", kErrWrongParamValue);
  if (method.Length() != 1 || !method.IsString(0) || method.S(0) != "surface_pairwise")
    throw HException(op, "Wrong value of control parameter Method", kErrWrongParamValue);
  auto m = std::make_shared<StereoModelData>();
  m->setup = camera_setup_model_id;
  m->method = method.S(0);
  for (const ParamSpec& s : Specs()) m->params[s.name] = s.dflt;
  if (!gen_param_name.Empty()) SetParams(m.get(), gen_param_name, gen_param_value, op);
  *stereo_model_id = HTuple(HHandle(m));
}

void set_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            const HTuple& gen_param_value) {
  constexpr const char* op = "set_stereo_model_param";
  StereoModelData* m = Model(stereo_model_id, op);
  if (gen_param_name.Empty()) throw HException(op, "No parameter name", kErrWrongParamCount);
  SetParams(m, gen_param_name, gen_param_value, op);
}

void get_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            HTuple* gen_param_value) {
  constexpr const char* op = "get_stereo_model_param";
  StereoModelData* m = Model(stereo_model_id, op);
  HTuple out;
  for (Hlong i = 0; i < gen_param_name.Length(); ++i) out.Append(m->params.at(FindSpec(gen_param_name, i, op)->name));
  *gen_param_value = out;
}

void set_stereo_model_image_pairs(const HTuple& stereo_model_id, const HTuple& from_image_indices,
                                  const HTuple& to_image_indices) {
  constexpr const char* op = "set_stereo_model_image_pairs";
  StereoModelData* m = Model(stereo_model_id, op);
  if (from_image_indices.Length() != to_image_indices.Length() || from_image_indices.Empty())
    throw HException(op, "From and To must have the same, non-zero length", kErrWrongParamCount);
  for (Hlong i = 0; i < from_image_indices.Length(); ++i) {
    if (!from_image_indices.IsInt(i) || !to_image_indices.IsInt(i))
      throw HException(op, "Wrong type of image index", kErrWrongParamType);
    const Hlong cameras = Hlong(CameraSetupModelCast(m->setup, op)->cameras.size());
    if (from_image_indices.L(i) < 0 || to_image_indices.L(i) < 0 || from_image_indices.L(i) >= cameras ||
        to_image_indices.L(i) >= cameras || from_image_indices.L(i) == to_image_indices.L(i))
      throw HException(op, "Wrong image index", kErrWrongParamValue);
  }
  m->from = from_image_indices;
  m->to = to_image_indices;
}

void get_stereo_model_image_pairs(const HTuple& stereo_model_id, HTuple* from_image_indices,
                                  HTuple* to_image_indices) {
  constexpr const char* op = "get_stereo_model_image_pairs";
  StereoModelData* m = Model(stereo_model_id, op);
  *from_image_indices = m->from;
  *to_image_indices = m->to;
}

void clear_stereo_model(const HTuple& stereo_model_id) {
  Model(stereo_model_id, "clear_stereo_model")->Clear();
}

}  // namespace vision
