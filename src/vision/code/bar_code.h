#pragma once
// Linear bar code reading with the reference library's operators. A model in
// training mode ("train" set) records, on each find_bar_code, the element
// size, orientation, contrast and image preparation of the symbol it read;
// "~all" ends training, and the reading pass tries the trained preparation
// first.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Generic parameters as for set_bar_code_param.
void create_bar_code_model(const HTuple& gen_param_names, const HTuple& gen_param_values, HTuple* bar_code_handle);

// Parameters: "train" ("all", or "~all" to end training), "quiet_zone"
// (integer modules that must be free beside the symbol, "true" = 10,
// "false" = 0), "stop_after_result_num" (0 = all), "timeout" (ms; -1 gives
// the default budget of 2 s, after which no further image preparation starts),
// "element_size_min", "element_size_max" (pixels), "check_char" ("absent",
// "present": a Code 39 check character is verified and kept).
void set_bar_code_param(const HTuple& bar_code_handle, const HTuple& gen_param_names, const HTuple& gen_param_values);
// Additionally readable: "orientation" (degrees), "meas_thresh_abs" (trained
// grey-level contrast), "trained_preprocessing".
void get_bar_code_param(const HTuple& bar_code_handle, const HTuple& gen_param_names, HTuple* gen_param_values);
// query_name "trained_general" (parameters a training pass has set),
// "get_general", "set_general".
void query_bar_code_params(const HTuple& bar_code_handle, const HTuple& query_name, HTuple* gen_param_names);

// code_type: one or more of "Code 39", "Code 93", "Code 128", "Codabar",
// "2/5 Interleaved", "EAN-8", "EAN-13", "UPC-A", "UPC-E", "GS1 DataBar
// Omnidir", "GS1 DataBar Expanded", or "auto" for all of them.
void find_bar_code(const HObject& image, HObject* symbol_regions, const HTuple& bar_code_handle,
                   const HTuple& code_type, HTuple* decoded_data_strings);

void clear_bar_code_model(const HTuple& bar_code_handle);

}  // namespace vision
