#pragma once
// 2D data code reading: Data Matrix ECC 200, QR Code and Micro QR Code models
// with the reference library's operators. A model reads only its own symbol
// type; its training pass records what made the symbol readable (polarity,
// mirroring, contrast, the image preparation that succeeded) and its reading
// pass tries that first.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// symbol_type: "Data Matrix ECC 200", "QR Code", "Micro QR Code".
// Generic parameters as for set_data_code_2d_param, "default_parameters"
// first when present.
void create_data_code_2d_model(const HTuple& symbol_type, const HTuple& gen_param_names,
                               const HTuple& gen_param_values, HTuple* data_code_handle);

// Parameters: "default_parameters" ("standard_recognition",
// "enhanced_recognition", "maximum_recognition"), "polarity"
// ("dark_on_light", "light_on_dark", "any"), "mirrored" ("yes", "no", "any"),
// "module_size_min", "module_size_max" (pixels; a minimum of 6 and more skips
// the upscaled preparations), "contrast_min" (grey
// levels), "timeout" (ms; -1 gives the default budget of 2 s in standard and
// 5 s in the other modes, after which no further image preparation starts),
// "stop_after_result_num" (0 = all).
void set_data_code_2d_param(const HTuple& data_code_handle, const HTuple& gen_param_names,
                            const HTuple& gen_param_values);
// Additionally readable: "symbol_type", "trained_preprocessing" (name of the
// preparation the training pass found, "" before training).
void get_data_code_2d_param(const HTuple& data_code_handle, const HTuple& gen_param_names,
                            HTuple* gen_param_values);
// query_name "get_model_params" or "set_model_params".
void query_data_code_2d_params(const HTuple& data_code_handle, const HTuple& query_name,
                               HTuple* gen_param_names);

// Finds and decodes the symbols in the image. gen_param_names may hold "train"
// (values "all" or any of "polarity", "mirrored", "contrast",
// "image_preparation") and "stop_after_result_num". symbol_xlds receives one
// region per symbol: its quadrilateral.
void find_data_code_2d(const HObject& image, HObject* symbol_xlds, const HTuple& data_code_handle,
                       const HTuple& gen_param_names, const HTuple& gen_param_values,
                       HTuple* result_handles, HTuple* decoded_data_strings);

void clear_data_code_2d_model(const HTuple& data_code_handle);

}  // namespace vision
