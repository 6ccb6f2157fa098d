#pragma once
// The one reader of operator control parameters. Every operator reads its
// control values through these functions, so that one input gets one answer
// whichever operator receives it.
//
// The rule, following the reference library's error families:
// - missing values, or more or fewer values than the parameter takes:
//   kErrWrongParamCount (1401 family);
// - a value of the wrong type: kErrWrongParamType (1201 family). That is a
//   string where a number is expected, a number where a string is expected,
//   and a real with a fraction where an integer is expected: 3.6 is refused,
//   never rounded or truncated. A real without a fraction (3.0, what tuple
//   arithmetic such as a division or tuple_floor hands on) counts as that
//   integer; an integer is accepted wherever a real is expected;
// - a value of the right type that the parameter does not allow (out of its
//   range, not one of its words, not finite): kErrWrongParamValue (1301
//   family).
// Errors carry the family's first number (the library numbers by parameter
// position; operators here name the parameter in the message instead).
// Without an index a parameter takes exactly one value. With index i it is a
// per-element parameter: element i, and a one-value tuple serves every
// element.
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vision/core/exception.h"
#include "vision/core/tuple.h"

namespace vision {

// The index argument's default: the parameter takes exactly one value.
inline constexpr Hlong kOneValue = -1;

// The one value, or element i (or the single element), as an integer.
Hlong ParamInt(const HTuple& t, const char* op, const char* name, Hlong i = kOneValue);
// The same, refused as a wrong value outside [lo, hi].
Hlong ParamIntIn(const HTuple& t, const char* op, const char* name, Hlong lo, Hlong hi, Hlong i = kOneValue);
// Element i as a finite real.
double ParamReal(const HTuple& t, const char* op, const char* name, Hlong i = kOneValue);
double ParamRealIn(const HTuple& t, const char* op, const char* name, double lo, double hi, Hlong i = kOneValue);
// Element i as a string.
const std::string& ParamString(const HTuple& t, const char* op, const char* name, Hlong i = kOneValue);
// The same, refused as a wrong value unless it is one of `allowed`.
const std::string& ParamStringIn(const HTuple& t, const char* op, const char* name,
                                 std::initializer_list<std::string_view> allowed, Hlong i = kOneValue);
// Element i as a boolean given as "true"/"false" or as an integer 1/0.
bool ParamBool(const HTuple& t, const char* op, const char* name, Hlong i = kOneValue);

// Number of values in [min_count, max_count]; max_count < 0: no upper bound.
void ParamCount(const HTuple& t, const char* op, const char* name, Hlong min_count, Hlong max_count);
// Exactly `count` values.
inline void ParamCount(const HTuple& t, const char* op, const char* name, Hlong count) {
  ParamCount(t, op, name, count, count);
}
// One value for all n elements or one per element.
void ParamCountPer(const HTuple& t, const char* op, const char* name, Hlong n);

// A parameter of many numbers (coordinates, matrices, poses) as reals, read
// in one pass: a view of the tuple's own storage when it holds only reals,
// otherwise converted into *scratch. A non-number is a wrong type; with
// `finite`, a non-finite value is a wrong value, else values are taken as
// they are (a missing point given as NaN stays NaN). The view lives as long
// as the tuple and *scratch are unchanged.
std::span<const double> ParamReals(const HTuple& t, const char* op, const char* name,
                                   std::vector<double>* scratch, bool finite = false);

// One input of a vectorised call: `stride` values per item.
struct ParamItemsOf {
  const HTuple& t;
  const char* name;
  Hlong stride = 1;
};
// The number of items of a vectorised call: each input holds a whole number
// of items, either one (serving every item) or as many as the others. An
// empty input or a broken item is a wrong count.
Hlong ParamItems(const char* op, std::initializer_list<ParamItemsOf> inputs);

// The errors themselves, for checks the readers above cannot express.
[[noreturn]] void ThrowParamCount(const char* op, const std::string& name);
[[noreturn]] void ThrowParamType(const char* op, const std::string& name, const char* expected);
[[noreturn]] void ThrowParamValue(const char* op, const std::string& name, const std::string& detail = {});

}  // namespace vision
