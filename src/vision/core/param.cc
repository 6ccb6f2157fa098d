#include "vision/core/param.h"

#include <cmath>
#include <cstdio>

namespace vision {

void ThrowParamCount(const char* op, const std::string& name) {
  throw HException(op, "Wrong number of values of control parameter " + name, kErrWrongParamCount);
}

void ThrowParamType(const char* op, const std::string& name, const char* expected) {
  throw HException(op, "Wrong type of control parameter " + name + ": " + expected + " expected",
                   kErrWrongParamType);
}

void ThrowParamValue(const char* op, const std::string& name, const std::string& detail) {
  throw HException(op, "Wrong value of control parameter " + name + (detail.empty() ? "" : ": " + detail),
                   kErrWrongParamValue);
}

namespace {

// The index actually read: a single value stands for every element.
Hlong Element(const HTuple& t, const char* op, const char* name, Hlong i) {
  if (t.Length() == 1) return 0;
  if (i == kOneValue) ThrowParamCount(op, name);
  if (i < 0 || i >= t.Length()) ThrowParamCount(op, name);
  return i;
}

std::string Number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

}  // namespace

Hlong ParamInt(const HTuple& t, const char* op, const char* name, Hlong i) {
  const Hlong k = Element(t, op, name, i);
  if (t.IsInt(k)) return t.L(k);
  if (!t.IsReal(k)) ThrowParamType(op, name, "integer");
  const double v = t.D(k);
  if (!std::isfinite(v)) ThrowParamValue(op, name, Number(v));
  if (std::trunc(v) != v) ThrowParamType(op, name, "integer");
  if (std::fabs(v) > 9.0e15) ThrowParamValue(op, name, Number(v));
  return Hlong(v);
}

Hlong ParamIntIn(const HTuple& t, const char* op, const char* name, Hlong lo, Hlong hi, Hlong i) {
  const Hlong v = ParamInt(t, op, name, i);
  if (v < lo || v > hi)
    ThrowParamValue(op, name, std::to_string(v) + " outside " + std::to_string(lo) + ".." + std::to_string(hi));
  return v;
}

double ParamReal(const HTuple& t, const char* op, const char* name, Hlong i) {
  const Hlong k = Element(t, op, name, i);
  if (!t.IsNumber(k)) ThrowParamType(op, name, "number");
  const double v = t.D(k);
  if (!std::isfinite(v)) ThrowParamValue(op, name, Number(v));
  return v;
}

double ParamRealIn(const HTuple& t, const char* op, const char* name, double lo, double hi, Hlong i) {
  const double v = ParamReal(t, op, name, i);
  if (v < lo || v > hi) ThrowParamValue(op, name, Number(v) + " outside " + Number(lo) + ".." + Number(hi));
  return v;
}

const std::string& ParamString(const HTuple& t, const char* op, const char* name, Hlong i) {
  const Hlong k = Element(t, op, name, i);
  if (!t.IsString(k)) ThrowParamType(op, name, "string");
  return t.S(k);
}

const std::string& ParamStringIn(const HTuple& t, const char* op, const char* name,
                                 std::initializer_list<std::string_view> allowed, Hlong i) {
  const std::string& s = ParamString(t, op, name, i);
  for (std::string_view a : allowed)
    if (s == a) return s;
  ThrowParamValue(op, name, "'" + s + "'");
}

bool ParamBool(const HTuple& t, const char* op, const char* name, Hlong i) {
  const Hlong k = Element(t, op, name, i);
  if (t.IsString(k)) return ParamStringIn(t, op, name, {"true", "false"}, k) == "true";
  return ParamIntIn(t, op, name, 0, 1, k) == 1;
}

void ParamCount(const HTuple& t, const char* op, const char* name, Hlong min_count, Hlong max_count) {
  if (t.Length() < min_count || (max_count >= 0 && t.Length() > max_count)) ThrowParamCount(op, name);
}

void ParamCountPer(const HTuple& t, const char* op, const char* name, Hlong n) {
  if (t.Length() != 1 && t.Length() != n) ThrowParamCount(op, name);
}

std::span<const double> ParamReals(const HTuple& t, const char* op, const char* name,
                                   std::vector<double>* scratch, bool finite) {
  std::span<const double> out = t.RealSpan();
  if (out.size() != size_t(t.Length())) {
    scratch->resize(size_t(t.Length()));
    if (t.AllInt()) {
      std::span<const Hlong> l = t.IntSpan();
      for (size_t i = 0; i < l.size(); ++i) (*scratch)[i] = double(l[i]);
    } else {
      for (Hlong i = 0; i < t.Length(); ++i) {
        if (!t.IsNumber(i)) ThrowParamType(op, name, "number");
        (*scratch)[size_t(i)] = t.D(i);
      }
    }
    out = *scratch;
  }
  if (finite) {
    bool ok = true;
    for (double v : out) ok &= std::isfinite(v);
    if (!ok)
      for (double v : out)
        if (!std::isfinite(v)) ThrowParamValue(op, name, Number(v));
  }
  return out;
}

Hlong ParamItems(const char* op, std::initializer_list<ParamItemsOf> inputs) {
  Hlong n = 1;
  const char* first = nullptr;
  for (const ParamItemsOf& in : inputs) {
    const Hlong len = in.t.Length();
    if (len == 0 || len % in.stride != 0) ThrowParamCount(op, in.name);
    const Hlong k = len / in.stride;
    if (k == 1) continue;
    if (first && n != k) ThrowParamCount(op, in.name);
    n = k;
    first = in.name;
  }
  return n;
}

}  // namespace vision
