#pragma once
// Tuple operators used by the exported procedures. Element-wise operators
// accept tuples of any length; numeric ones raise on strings and handles.
#include "vision/core/tuple.h"

namespace vision {

void tuple_int(const HTuple& t, HTuple* out);      // truncate toward zero, integer result
void tuple_real(const HTuple& t, HTuple* out);     // real result
void tuple_round(const HTuple& t, HTuple* out);    // nearest, halves away from zero, integer
void tuple_floor(const HTuple& t, HTuple* out);    // real result
void tuple_ceil(const HTuple& t, HTuple* out);     // real result
void tuple_abs(const HTuple& t, HTuple* out);      // keeps integers integer
void tuple_fabs(const HTuple& t, HTuple* out);     // real result
void tuple_sqrt(const HTuple& t, HTuple* out);     // real; negative values raise
void tuple_deg(const HTuple& t, HTuple* out);
void tuple_rad(const HTuple& t, HTuple* out);
void tuple_sgn(const HTuple& t, HTuple* out);      // integer -1, 0 or 1
void tuple_sum(const HTuple& t, HTuple* sum);      // integer when all are integers; [] gives 0
void tuple_mean(const HTuple& t, HTuple* mean);    // real; [] raises
void tuple_min(const HTuple& t, HTuple* min);      // [] raises
void tuple_max(const HTuple& t, HTuple* max);
void tuple_length(const HTuple& t, HTuple* length);
// Elements left..right inclusive (0-based); right = left - 1 gives [].
void tuple_select_range(const HTuple& t, const HTuple& left, const HTuple& right, HTuple* selected);
void tuple_select(const HTuple& t, const HTuple& index, HTuple* selected);
void tuple_concat(const HTuple& t1, const HTuple& t2, HTuple* concat);
void tuple_gen_const(const HTuple& length, const HTuple& value, HTuple* out);
// Start indices of every occurrence of the sequence `to_find` in t; -1 when
// there is none.
void tuple_find(const HTuple& t, const HTuple& to_find, HTuple* index);
void tuple_strlen(const HTuple& t, HTuple* length);
// Splits at any of the separator characters; empty pieces are dropped.
void tuple_split(const HTuple& strings, const HTuple& separator, HTuple* substrings);
// Strings matching the regular expression; expression may be
// [regex, option...] with "ignore_case" and "invert_match".
void tuple_regexp_select(const HTuple& data, const HTuple& expression, HTuple* selection);
// Ascending; numbers before strings.
void tuple_sort(const HTuple& t, HTuple* sorted);

}  // namespace vision
