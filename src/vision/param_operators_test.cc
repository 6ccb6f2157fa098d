// One input, one answer: integer parameters of operators from every area,
// each given the same values, answer with the same error family.
#include <functional>

#include <gtest/gtest.h>

#include "vision/code/bar_code.h"
#include "vision/code/data_code_2d.h"
#include "vision/core/system.h"
#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/tuple_ops.h"
#include "vision/ocr/ocr_mlp.h"
#include "vision/region/region_ops.h"
#include "vision/window/window.h"

namespace vision {
namespace {

TEST(ParamOperatorsTest, IntegerParametersAnswerAlike) {
  HObject image;
  gen_image_const(&image, "byte", 32, 32);
  HTuple bar, dc;
  create_bar_code_model(HTuple(), HTuple(), &bar);
  create_data_code_2d_model("QR Code", HTuple(), HTuple(), &dc);
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
}

// What the query operators list, get reads and set takes back unchanged.
TEST(ParamOperatorsTest, CodeModelParametersRoundTrip) {
  HTuple bar, dc, names, values, again;
  create_bar_code_model(HTuple(), HTuple(), &bar);
  query_bar_code_params(bar, "get_general", &names);
  get_bar_code_param(bar, names, &values);
  EXPECT_EQ(values.Length(), names.Length());
  query_bar_code_params(bar, "set_general", &names);
  get_bar_code_param(bar, names, &values);
  set_bar_code_param(bar, names, values);
  get_bar_code_param(bar, names, &again);
  EXPECT_EQ(again, values);
  clear_bar_code_model(bar);

  create_data_code_2d_model("Data Matrix ECC 200", HTuple(), HTuple(), &dc);
  query_data_code_2d_params(dc, "get_model_params", &names);
  get_data_code_2d_param(dc, names, &values);
  EXPECT_EQ(values.Length(), names.Length());
  query_data_code_2d_params(dc, "set_model_params", &names);
  get_data_code_2d_param(dc, names, &values);
  set_data_code_2d_param(dc, names, values);
  get_data_code_2d_param(dc, names, &again);
  EXPECT_EQ(again, values);
  clear_data_code_2d_model(dc);
}

}  // namespace
}  // namespace vision
