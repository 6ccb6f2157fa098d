#include "vision/filter/tuple_ops.h"

#include <algorithm>
#include <cmath>
#include <regex>

#include "vision/core/param.h"

namespace vision {

namespace {

// Tuple arithmetic takes every number as it is (infinities included), so
// only the type is checked here.
double Number(const HTuple& t, Hlong i, const char* op) {
  if (!t.IsNumber(i)) ThrowParamType(op, "T", "number");
  return t.D(i);
}

template <class Fn>
HTuple MapReal(const HTuple& t, const char* op, Fn fn) {
  if (t.AllReal()) {  // straight over the packed values
    std::vector<double> out(t.RealSpan().size());
    for (size_t i = 0; i < out.size(); ++i) out[i] = double(fn(t.RealSpan()[i]));
    return HTuple::Reals(std::move(out));
  }
  std::vector<HValue> v;
  v.reserve(size_t(t.Length()));
  for (Hlong i = 0; i < t.Length(); ++i) v.emplace_back(double(fn(Number(t, i, op))));
  return HTuple(std::move(v));
}

Hlong ToInt(double x, const char* op) {
  if (!(x > -9.2e18 && x < 9.2e18)) throw HException(op, "Value out of the integer range", kErrWrongParamValue);
  return Hlong(x);
}

template <class Fn>
HTuple MapInt(const HTuple& t, const char* op, Fn fn) {
  std::vector<HValue> v;
  v.reserve(size_t(t.Length()));
  for (Hlong i = 0; i < t.Length(); ++i) {
    if (t.IsInt(i)) v.emplace_back(t.L(i));
    else v.emplace_back(ToInt(fn(Number(t, i, op)), op));
  }
  return HTuple(std::move(v));
}

// Library ordering of values: numbers by value, before strings.
bool Less(const HValue& a, const HValue& b) {
  const bool as = std::holds_alternative<std::string>(a), bs = std::holds_alternative<std::string>(b);
  if (as != bs) return bs;
  if (as) return std::get<std::string>(a) < std::get<std::string>(b);
  auto num = [](const HValue& v) {
    return std::holds_alternative<Hlong>(v) ? double(std::get<Hlong>(v)) : std::get<double>(v);
  };
  return num(a) < num(b);
}

bool Equal(const HValue& a, const HValue& b) {
  const bool an = !std::holds_alternative<std::string>(a) && !std::holds_alternative<HHandle>(a);
  const bool bn = !std::holds_alternative<std::string>(b) && !std::holds_alternative<HHandle>(b);
  if (an && bn) return !Less(a, b) && !Less(b, a);
  return a == b;
}

HValue Extreme(const HTuple& t, const char* op, bool want_max) {
  if (t.Empty()) throw HException(op, "Empty input tuple", kErrWrongParamCount);
  HValue best = t[0];
  for (Hlong i = 0; i < t.Length(); ++i) {
    if (std::holds_alternative<HHandle>(t[i]))
      throw HException(op, "Wrong type of tuple element", kErrWrongParamType);
    if (want_max ? Less(best, t[i]) : Less(t[i], best)) best = t[i];
  }
  return best;
}

}  // namespace

void tuple_int(const HTuple& t, HTuple* out) {
  *out = MapInt(t, "tuple_int", [](double x) { return std::trunc(x); });
}
void tuple_real(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_real", [](double x) { return x; });
}
void tuple_round(const HTuple& t, HTuple* out) {
  *out = MapInt(t, "tuple_round", [](double x) { return std::round(x); });
}
void tuple_floor(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_floor", [](double x) { return std::floor(x); });
}
void tuple_ceil(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_ceil", [](double x) { return std::ceil(x); });
}
void tuple_abs(const HTuple& t, HTuple* out) {
  std::vector<HValue> v;
  for (Hlong i = 0; i < t.Length(); ++i) {
    if (t.IsInt(i)) v.emplace_back(Hlong(std::llabs(t.L(i))));
    else v.emplace_back(std::fabs(Number(t, i, "tuple_abs")));
  }
  *out = HTuple(std::move(v));
}
void tuple_fabs(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_fabs", [](double x) { return std::fabs(x); });
}
void tuple_sqrt(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_sqrt", [](double x) {
    if (x < 0) throw HException("tuple_sqrt", "Square root of a negative value", kErrWrongParamValue);
    return std::sqrt(x);
  });
}
void tuple_deg(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_deg", [](double x) { return x * 180.0 / M_PI; });
}
void tuple_rad(const HTuple& t, HTuple* out) {
  *out = MapReal(t, "tuple_rad", [](double x) { return x * M_PI / 180.0; });
}
void tuple_sgn(const HTuple& t, HTuple* out) {
  std::vector<HValue> v;
  for (Hlong i = 0; i < t.Length(); ++i) {
    const double x = Number(t, i, "tuple_sgn");
    v.emplace_back(Hlong(x > 0 ? 1 : (x < 0 ? -1 : 0)));
  }
  *out = HTuple(std::move(v));
}

void tuple_sum(const HTuple& t, HTuple* sum) {
  if (t.AllReal()) {  // the same order of additions as below
    double ds = 0;
    for (double x : t.RealSpan()) ds += x;
    *sum = HTuple(ds);
    return;
  }
  bool all_int = true;
  Hlong is = 0;
  double ds = 0;
  for (Hlong i = 0; i < t.Length(); ++i) {
    const double x = Number(t, i, "tuple_sum");
    if (t.IsInt(i)) is += t.L(i);
    else all_int = false;
    ds += x;
  }
  *sum = all_int ? HTuple(is) : HTuple(ds);
}

void tuple_mean(const HTuple& t, HTuple* mean) {
  if (t.Empty()) throw HException("tuple_mean", "Empty input tuple", kErrWrongParamCount);
  double s = 0;
  for (Hlong i = 0; i < t.Length(); ++i) s += Number(t, i, "tuple_mean");
  *mean = HTuple(s / double(t.Length()));
}

void tuple_min(const HTuple& t, HTuple* min) { *min = HTuple(Extreme(t, "tuple_min", false)); }
void tuple_max(const HTuple& t, HTuple* max) { *max = HTuple(Extreme(t, "tuple_max", true)); }

void tuple_length(const HTuple& t, HTuple* length) { *length = HTuple(t.Length()); }

void tuple_select_range(const HTuple& t, const HTuple& left, const HTuple& right, HTuple* selected) {
  const char* op = "tuple_select_range";
  const Hlong l = ParamInt(left, op, "Leftindex"), r = ParamInt(right, op, "Rightindex");
  if (r == l - 1 && l >= 0 && l <= t.Length()) {
    *selected = HTuple();
    return;
  }
  if (l < 0 || r >= t.Length() || l > r) throw HException(op, "Index out of range", kErrWrongParamValue);
  *selected = t.Slice(l, r + 1);
}

void tuple_select(const HTuple& t, const HTuple& index, HTuple* selected) {
  const char* op = "tuple_select";
  std::vector<HValue> v;
  for (Hlong i = 0; i < index.Length(); ++i) {
    const Hlong k = ParamInt(index, op, "Index", i);
    if (k < 0 || k >= t.Length()) throw HException(op, "Index out of range", kErrWrongParamValue);
    v.push_back(t[k]);
  }
  *selected = HTuple(std::move(v));
}

void tuple_concat(const HTuple& t1, const HTuple& t2, HTuple* concat) {
  HTuple c = t1;
  c.Append(t2);
  *concat = c;
}

void tuple_gen_const(const HTuple& length, const HTuple& value, HTuple* out) {
  const char* op = "tuple_gen_const";
  const Hlong n = ParamIntIn(length, op, "Length", 0, Hlong(1) << 31);
  ParamCount(value, op, "Const", 1);
  *out = HTuple(std::vector<HValue>(size_t(n), value[0]));
}

void tuple_find(const HTuple& t, const HTuple& to_find, HTuple* index) {
  HTuple r;
  const Hlong n = t.Length(), m = to_find.Length();
  if (m > 0) {
    for (Hlong i = 0; i + m <= n; ++i) {
      bool hit = true;
      for (Hlong j = 0; j < m && hit; ++j) hit = Equal(t[i + j], to_find[j]);
      if (hit) r.Append(HTuple(i));
    }
  }
  *index = r.Empty() ? HTuple(-1) : r;
}

void tuple_strlen(const HTuple& t, HTuple* length) {
  std::vector<HValue> v;
  for (Hlong i = 0; i < t.Length(); ++i) {
    v.emplace_back(Hlong(ParamString(t, "tuple_strlen", "T", i).size()));
  }
  *length = HTuple(std::move(v));
}

void tuple_split(const HTuple& strings, const HTuple& separator, HTuple* substrings) {
  const char* op = "tuple_split";
  ParamCountPer(separator, op, "Separator", strings.Length());
  HTuple out;
  for (Hlong i = 0; i < strings.Length(); ++i) {
    const std::string& s = ParamString(strings, op, "String", i);
    const std::string& sep = ParamString(separator, op, "Separator", i);
    std::string piece;
    for (char ch : s) {
      if (sep.find(ch) != std::string::npos) {
        if (!piece.empty()) out.Append(HTuple(piece));
        piece.clear();
      } else {
        piece += ch;
      }
    }
    if (!piece.empty()) out.Append(HTuple(piece));
  }
  *substrings = out;
}

void tuple_regexp_select(const HTuple& data, const HTuple& expression, HTuple* selection) {
  const char* op = "tuple_regexp_select";
  ParamCount(expression, op, "Expression", 1, -1);
  ParamString(expression, op, "Expression", 0);
  auto flags = std::regex::ECMAScript;
  bool invert = false;
  for (Hlong i = 1; i < expression.Length(); ++i) {
    const std::string& o = expression.IsString(i) ? expression.S(i) : std::string();
    if (o == "ignore_case") flags |= std::regex::icase;
    else if (o == "invert_match") invert = true;
    else if (o != "multiline" && o != "dot_matches_all" && o != "newline_lf")
      throw HException(op, "Unknown regular expression option '" + o + "'", kErrWrongParamValue);
  }
  std::regex re;
  try {
    re = std::regex(expression.S(0), flags);
  } catch (const std::regex_error& e) {
    throw HException(op, std::string("Invalid regular expression: ") + e.what(), kErrWrongParamValue);
  }
  HTuple out;
  for (Hlong i = 0; i < data.Length(); ++i) {
    const std::string& d = ParamString(data, op, "Data", i);
    if (std::regex_search(d, re) != invert) out.Append(HTuple(d));
  }
  *selection = out;
}

void tuple_sort(const HTuple& t, HTuple* sorted) {
  // Stable, so that equal values (0.0 and -0.0) keep their order either way.
  if (t.AllReal()) {
    std::vector<double> d(t.RealSpan().begin(), t.RealSpan().end());
    std::stable_sort(d.begin(), d.end());
    *sorted = HTuple::Reals(std::move(d));
    return;
  }
  if (t.AllInt()) {
    std::vector<Hlong> l(t.IntSpan().begin(), t.IntSpan().end());
    std::stable_sort(l.begin(), l.end());
    *sorted = HTuple::Ints(std::move(l));
    return;
  }
  std::vector<HValue> v = t.ToValues();
  for (const HValue& x : v)
    if (std::holds_alternative<HHandle>(x)) throw HException("tuple_sort", "Cannot sort handles", kErrWrongParamType);
  std::stable_sort(v.begin(), v.end(), Less);
  *sorted = HTuple(std::move(v));
}

}  // namespace vision
