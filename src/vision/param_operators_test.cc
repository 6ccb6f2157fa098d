// One input, one answer: integer parameters of operators from every area,
// each given the same values, answer with the same error family.
#include <functional>

#include <gtest/gtest.h>

#include "vision/calib/camera_setup.h"
#include "vision/code/bar_code.h"
#include "vision/code/data_code_2d.h"
#include "vision/core/system.h"
#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/tuple_ops.h"
#include "vision/geometry/pose.h"
#include "vision/ocr/ocr_mlp.h"
#include "vision/region/region_ops.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/stereo_model.h"
#include "vision/window/window.h"

namespace vision {
namespace {

TEST(ParamOperatorsTest, IntegerParametersAnswerAlike) {
  HObject image;
  gen_image_const(&image, "byte", 32, 32);
  HTuple bar, dc, setup, stereo;
  create_bar_code_model(HTuple(), HTuple(), &bar);
  create_data_code_2d_model("QR Code", HTuple(), HTuple(), &dc);
  create_camera_setup_model(2, &setup);
  create_stereo_model(setup, "surface_pairwise", HTuple(), HTuple(), &stereo);
  // Each takes an integer that 3 satisfies and 100000 does not.
  const std::pair<const char*, std::function<void(const HTuple&)>> ops[] = {
      {"mean_image", [&](const HTuple& v) { HObject o; mean_image(image, &o, v, 3); }},
      {"gen_image_const", [&](const HTuple& v) { HObject o; gen_image_const(&o, "byte", v, 3); }},
      {"dilation_rectangle1",
       [&](const HTuple& v) {
         HObject r, o;
         gen_rectangle1(&r, 5, 5, 10, 10);
         dilation_rectangle1(r, &o, v, 3);
       }},
      {"tuple_select_range", [&](const HTuple& v) { HTuple o; tuple_select_range(HTuple{0, 1, 2, 3}, v, 3, &o); }},
      {"set_system", [&](const HTuple& v) { set_system("width", v); }},
      {"set_bar_code_param", [&](const HTuple& v) { set_bar_code_param(bar, "stop_after_result_num", v); }},
      {"set_data_code_2d_param", [&](const HTuple& v) { set_data_code_2d_param(dc, "contrast_min", v); }},
      {"create_ocr_class_mlp",
       [&](const HTuple& v) {
         HTuple h;
         create_ocr_class_mlp(8, 10, "constant", "default", HTuple{"a", "b"}, v, "none", 10, 42, &h);
       }},
      {"create_camera_setup_model", [&](const HTuple& v) { HTuple h; create_camera_setup_model(v, &h); }},
      {"set_stereo_model_param", [&](const HTuple& v) { set_stereo_model_param(stereo, "binocular_num_levels", v); }},
      {"binocular_disparity_ms",
       [&](const HTuple& v) {
         HObject d, s;
         binocular_disparity_ms(image, image, &d, &s, v, 3, 0, 0, HTuple(), HTuple());
       }},
      {"pose_invert (type code)",
       [&](const HTuple& v) {
         HTuple p;
         pose_invert(HTuple{0, 0, 0, 0, 0, 0}.Append(v), &p);
       }},
  };
  struct Input {
    HTuple v;
    int error;
  } inputs[] = {
      {HTuple(3), 0},
      {HTuple(3.0), 0},
      {HTuple(3.6), kErrWrongParamType},
      {HTuple("3"), kErrWrongParamType},
      {HTuple(), kErrWrongParamCount},
      {HTuple{3, 3}, kErrWrongParamCount},
      {HTuple(100000000), kErrWrongParamValue},
  };
  for (const auto& [name, call] : ops) {
    for (const auto& in : inputs) {
      int got = 0;
      try {
        call(in.v);
      } catch (const HException& e) {
        got = e.ErrorCode();
      }
      EXPECT_EQ(got, in.error) << name << " given " << in.v.ToString();
    }
  }
  set_system("width", 512);
  clear_bar_code_model(bar);
  clear_data_code_2d_model(dc);
  clear_stereo_model(stereo);
}

// The stereo model's settings come from one table: a single name takes all
// the values (the bounding box), a pair of lists one value each.
TEST(ParamOperatorsTest, StereoModelSettingsFollowTheReader) {
  HTuple setup, model, back;
  create_camera_setup_model(2, &setup);
  create_stereo_model(setup, "surface_pairwise", HTuple{"binocular_mask_width", "persistence"}, HTuple{15, 1},
                      &model);
  get_stereo_model_param(model, HTuple{"binocular_mask_width", "persistence", "bounding_box"}, &back);
  EXPECT_EQ(back, (HTuple{15, 1, -1.0, -1.0, -1.0, 1.0, 1.0, 1.0}));
  set_stereo_model_param(model, "bounding_box", HTuple{-0.5, -0.5, 0, 0.5, 0.5, 1});
  set_stereo_model_param(model, "sub_sampling_step", 3.0);  // an integral real counts as the integer
  get_stereo_model_param(model, HTuple{"sub_sampling_step", "bounding_box"}, &back);
  EXPECT_EQ(back, (HTuple{3, -0.5, -0.5, 0.0, 0.5, 0.5, 1.0}));
  EXPECT_TRUE(back.IsInt(0));
  struct Bad {
    HTuple names, values;
    int error;
  } bad[] = {
      {HTuple("sub_sampling_step"), HTuple(2.5), kErrWrongParamType},
      {HTuple("binocular_mask_width"), HTuple(12), kErrWrongParamValue},  // even
      {HTuple("binocular_method"), HTuple(1), kErrWrongParamType},
      {HTuple("bounding_box"), HTuple{-1, -1, -1, 1, 1}, kErrWrongParamCount},
      {HTuple("bounding_box"), HTuple{1, -1, -1, -1, 1, 1}, kErrWrongParamValue},
      {HTuple{"persistence", "bounding_box"}, HTuple{0, 1}, kErrWrongParamCount},
      {HTuple{"persistence", "sub_sampling_step"}, HTuple(1), kErrWrongParamCount},
      {HTuple(7), HTuple(1), kErrWrongParamType},
      {HTuple("no_such_param"), HTuple(1), kErrWrongParamValue},
  };
  for (const auto& b : bad) {
    try {
      set_stereo_model_param(model, b.names, b.values);
      ADD_FAILURE() << b.names.ToString() << " " << b.values.ToString() << " accepted";
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), b.error) << b.names.ToString() << " " << b.values.ToString() << ": " << e.what();
    }
  }
  EXPECT_THROW(get_stereo_model_param(model, "no_such_param", &back), HException);
  clear_stereo_model(model);
}

// What the query operators list, get reads and set takes back unchanged.
template <class Query, class Get, class Set>
void ExpectRoundTrip(const HTuple& model, const char* get_group, const char* set_group, Query query, Get get,
                     Set set) {
  HTuple names, values, again;
  query(model, get_group, &names);
  get(model, names, &values);
  EXPECT_EQ(values.Length(), names.Length()) << get_group;
  query(model, set_group, &names);
  get(model, names, &values);
  set(model, names, values);
  get(model, names, &again);
  EXPECT_EQ(again, values) << set_group;
}

TEST(ParamOperatorsTest, CodeModelParametersRoundTrip) {
  HTuple bar, dc;
  create_bar_code_model(HTuple(), HTuple(), &bar);
  ExpectRoundTrip(bar, "get_general", "set_general", query_bar_code_params, get_bar_code_param,
                  set_bar_code_param);
  clear_bar_code_model(bar);

  create_data_code_2d_model("Data Matrix ECC 200", HTuple(), HTuple(), &dc);
  ExpectRoundTrip(dc, "get_model_params", "set_model_params", query_data_code_2d_params,
                  get_data_code_2d_param, set_data_code_2d_param);
  clear_data_code_2d_model(dc);
}

}  // namespace
}  // namespace vision
