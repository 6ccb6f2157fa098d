#include "vision/stereo/stereo_model.h"

#include <functional>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "vision/calib/camera_setup.h"
#include "vision/core/param_table.h"

namespace vision {
namespace {

using Table = ParamTable<StereoModelData>;

// A row storing what its reader accepted under the row's name.
Table::Row Setting(const char* name, std::function<HTuple(const ParamValue&)> read) {
  return {name,
          [name, read](StereoModelData& m, const ParamValue& v) { m.params[name] = read(v); },
          [name](const StereoModelData& m) { return m.params.at(name); }};
}

HTuple OddMask(const ParamValue& v) {
  const Hlong w = v.IntIn(3, 201);
  if (w % 2 == 0) v.Refuse("mask sizes are odd");
  return HTuple(w);
}

// The box (x1, y1, z1, x2, y2, z2): six finite numbers, each minimum below
// its maximum.
HTuple Box(const ParamValue& v) {
  const HTuple t = v.Tuple();
  ParamCount(t, v.Op(), v.Name().c_str(), 6);
  std::vector<double> b(6);
  for (Hlong i = 0; i < 6; ++i) b[size_t(i)] = ParamReal(t, v.Op(), v.Name().c_str(), i);
  if (!(b[0] < b[3] && b[1] < b[4] && b[2] < b[5])) v.Refuse("each minimum must lie below its maximum");
  return HTuple::Reals(std::move(b));
}

// The one table of the model's settings; set, get and the defaults of a new
// model all go through it.
const Table& Settings() {
  static const Table table({
      Setting("sub_sampling_step", [](const ParamValue& v) { return HTuple(v.IntIn(1, 100)); }),
      Setting("rectif_interpolation", [](const ParamValue& v) { return HTuple(v.StringIn({"none", "bilinear"})); }),
      Setting("rectif_sub_sampling", [](const ParamValue& v) { return HTuple(v.RealIn(0.01, 100)); }),
      Setting("binocular_method",
              [](const ParamValue& v) {
                return HTuple(v.StringIn({"binocular", "ncc", "sad", "ssd", "binocular_ms", "binocular_mg"}));
              }),
      Setting("binocular_num_levels", [](const ParamValue& v) { return HTuple(v.IntIn(1, 16)); }),
      Setting("binocular_mask_width", OddMask),
      Setting("binocular_mask_height", OddMask),
      Setting("binocular_texture_thresh", [](const ParamValue& v) { return HTuple(v.RealIn(0, 1e30)); }),
      Setting("binocular_score_thresh", [](const ParamValue& v) { return HTuple(v.Real()); }),
      Setting("binocular_filter", [](const ParamValue& v) { return HTuple(v.StringIn({"none", "left_right_check"})); }),
      Setting("binocular_sub_disparity",
              [](const ParamValue& v) { return HTuple(v.StringIn({"none", "interpolation"})); }),
      Setting("bounding_box", Box),
      Setting("persistence", [](const ParamValue& v) { return HTuple(v.IntIn(0, 1)); }),
  });
  return table;
}

// Defaults of a new model, set through the table like any other value.
const std::pair<const char*, HTuple>* Defaults(size_t* n) {
  static const std::pair<const char*, HTuple> d[] = {
      {"sub_sampling_step", 2}, {"rectif_interpolation", "bilinear"}, {"rectif_sub_sampling", 1.0},
      {"binocular_method", "binocular"}, {"binocular_num_levels", 1}, {"binocular_mask_width", 11},
      {"binocular_mask_height", 11}, {"binocular_texture_thresh", 0.0}, {"binocular_score_thresh", 0.5},
      {"binocular_filter", "none"}, {"binocular_sub_disparity", "none"},
      {"bounding_box", HTuple::Reals({-1, -1, -1, 1, 1, 1})}, {"persistence", 0},
  };
  *n = std::size(d);
  return d;
}

StereoModelData* Model(const HTuple& id, const char* op) { return HandleCast<StereoModelData>(id, op); }

}  // namespace

void create_stereo_model(const HTuple& camera_setup_model_id, const HTuple& method,
                         const HTuple& gen_param_name, const HTuple& gen_param_value,
                         HTuple* stereo_model_id) {
  constexpr const char* op = "create_stereo_model";
  if (camera_setup_model_id.Length() != 1 || !camera_setup_model_id.IsHandle(0))
    throw HException(op, "Wrong type of control parameter CameraSetupModelID: handle expected", kErrHandle);
  const CameraSetupModelData* setup = CameraSetupModelCast(camera_setup_model_id, op);
  if (setup->cameras.size() < 2) ThrowParamValue(op, "CameraSetupModelID", "a stereo model needs at least two cameras");
  auto m = std::make_shared<StereoModelData>();
  m->method = ParamStringIn(method, op, "Method", {"surface_pairwise"});
  m->setup = camera_setup_model_id;
  size_t n = 0;
  const auto* d = Defaults(&n);
  for (size_t i = 0; i < n; ++i) Settings().Set(*m, HTuple(d[i].first), d[i].second, op);
  if (!gen_param_name.Empty()) Settings().Set(*m, gen_param_name, gen_param_value, op);
  *stereo_model_id = HTuple(HHandle(m));
}

void set_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            const HTuple& gen_param_value) {
  constexpr const char* op = "set_stereo_model_param";
  StereoModelData* m = Model(stereo_model_id, op);
  if (gen_param_name.Empty()) ThrowParamCount(op, "GenParamName");
  Settings().Set(*m, gen_param_name, gen_param_value, op);
}

void get_stereo_model_param(const HTuple& stereo_model_id, const HTuple& gen_param_name,
                            HTuple* gen_param_value) {
  constexpr const char* op = "get_stereo_model_param";
  *gen_param_value = Settings().Get(*Model(stereo_model_id, op), gen_param_name, op);
}

void set_stereo_model_image_pairs(const HTuple& stereo_model_id, const HTuple& from_image_indices,
                                  const HTuple& to_image_indices) {
  constexpr const char* op = "set_stereo_model_image_pairs";
  StereoModelData* m = Model(stereo_model_id, op);
  const Hlong n = from_image_indices.Length();
  if (n == 0) ThrowParamCount(op, "FromImageIndices");
  if (to_image_indices.Length() != n) ThrowParamCount(op, "ToImageIndices");
  const Hlong cameras = Hlong(CameraSetupModelCast(m->setup, op)->cameras.size());
  std::vector<Hlong> from(static_cast<size_t>(n)), to(static_cast<size_t>(n));
  for (Hlong i = 0; i < n; ++i) {
    from[size_t(i)] = ParamIntIn(from_image_indices, op, "FromImageIndices", 0, cameras - 1, i);
    to[size_t(i)] = ParamIntIn(to_image_indices, op, "ToImageIndices", 0, cameras - 1, i);
    if (from[size_t(i)] == to[size_t(i)]) ThrowParamValue(op, "ToImageIndices", "a camera paired with itself");
  }
  m->from = HTuple::Ints(std::move(from));
  m->to = HTuple::Ints(std::move(to));
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
