#include "vision/core/tuple.h"

#include <cmath>
#include <sstream>

namespace vision {

HTuple HTuple::Ints(const std::vector<Hlong>& v) {
  HTuple t;
  t.v_.reserve(v.size());
  for (Hlong x : v) t.v_.emplace_back(x);
  return t;
}
HTuple HTuple::Reals(const std::vector<double>& v) {
  HTuple t;
  t.v_.reserve(v.size());
  for (double x : v) t.v_.emplace_back(x);
  return t;
}
HTuple HTuple::Strings(const std::vector<std::string>& v) {
  HTuple t;
  t.v_.reserve(v.size());
  for (const auto& x : v) t.v_.emplace_back(x);
  return t;
}

const HValue& HTuple::at(Hlong i) const {
  if (i < 0 || i >= Length())
    throw HException("HTuple", "Index " + std::to_string(i) + " out of range (length " +
                                   std::to_string(Length()) + ")", kErrWrongParamCount);
  return v_[size_t(i)];
}
const HValue& HTuple::operator[](Hlong i) const { return at(i); }
HValue& HTuple::operator[](Hlong i) { return const_cast<HValue&>(at(i)); }

HTuple& HTuple::Append(const HTuple& t) {
  v_.insert(v_.end(), t.v_.begin(), t.v_.end());
  return *this;
}

Hlong HTuple::L(Hlong i) const {
  const HValue& v = at(i);
  if (auto* p = std::get_if<Hlong>(&v)) return *p;
  if (auto* p = std::get_if<double>(&v)) return Hlong(*p);
  throw HException("HTuple", "Wrong type of tuple element: number expected", kErrWrongParamType);
}
double HTuple::D(Hlong i) const {
  const HValue& v = at(i);
  if (auto* p = std::get_if<double>(&v)) return *p;
  if (auto* p = std::get_if<Hlong>(&v)) return double(*p);
  throw HException("HTuple", "Wrong type of tuple element: number expected", kErrWrongParamType);
}
const std::string& HTuple::S(Hlong i) const {
  const HValue& v = at(i);
  if (auto* p = std::get_if<std::string>(&v)) return *p;
  throw HException("HTuple", "Wrong type of tuple element: string expected", kErrWrongParamType);
}
HHandle HTuple::H(Hlong i) const {
  const HValue& v = at(i);
  if (auto* p = std::get_if<HHandle>(&v)) return *p;
  throw HException("HTuple", "Wrong type of tuple element: handle expected", kErrWrongParamType);
}

std::vector<Hlong> HTuple::ToLVec() const {
  std::vector<Hlong> r;
  r.reserve(size_t(Length()));
  for (Hlong i = 0; i < Length(); ++i) r.push_back(L(i));
  return r;
}
std::vector<double> HTuple::ToDVec() const {
  std::vector<double> r;
  r.reserve(size_t(Length()));
  for (Hlong i = 0; i < Length(); ++i) r.push_back(D(i));
  return r;
}
std::vector<std::string> HTuple::ToSVec() const {
  std::vector<std::string> r;
  r.reserve(size_t(Length()));
  for (Hlong i = 0; i < Length(); ++i) r.push_back(S(i));
  return r;
}

namespace {

std::string ValueText(const HValue& v) {
  std::ostringstream o;
  if (auto* p = std::get_if<Hlong>(&v)) o << *p;
  else if (auto* d = std::get_if<double>(&v)) o << *d;
  else if (auto* s = std::get_if<std::string>(&v)) o << *s;
  else o << "<handle>";
  return o.str();
}

enum class Op { Add, Sub, Mul, Div };

HValue Apply(Op op, const HValue& a, const HValue& b) {
  const bool as = std::holds_alternative<std::string>(a), bs = std::holds_alternative<std::string>(b);
  if (as || bs) {
    if (op != Op::Add) throw HException("HTuple", "Arithmetic on a string", kErrWrongParamType);
    return ValueText(a) + ValueText(b);
  }
  if (std::holds_alternative<HHandle>(a) || std::holds_alternative<HHandle>(b))
    throw HException("HTuple", "Arithmetic on a handle", kErrWrongParamType);
  if (std::holds_alternative<Hlong>(a) && std::holds_alternative<Hlong>(b)) {
    Hlong x = std::get<Hlong>(a), y = std::get<Hlong>(b);
    switch (op) {
      case Op::Add: return x + y;
      case Op::Sub: return x - y;
      case Op::Mul: return x * y;
      case Op::Div:
        if (y == 0) throw HException("HTuple", "Division by zero", kErrWrongParamValue);
        return x / y;
    }
  }
  double x = std::holds_alternative<Hlong>(a) ? double(std::get<Hlong>(a)) : std::get<double>(a);
  double y = std::holds_alternative<Hlong>(b) ? double(std::get<Hlong>(b)) : std::get<double>(b);
  switch (op) {
    case Op::Add: return x + y;
    case Op::Sub: return x - y;
    case Op::Mul: return x * y;
    case Op::Div:
      if (y == 0.0) throw HException("HTuple", "Division by zero", kErrWrongParamValue);
      return x / y;
  }
  return 0.0;
}

HTuple Elementwise(Op op, const HTuple& a, const HTuple& b) {
  const Hlong na = a.Length(), nb = b.Length();
  if (na == 0 || nb == 0) return HTuple();
  if (na != nb && na != 1 && nb != 1)
    throw HException("HTuple", "Tuples of different lengths", kErrWrongParamCount);
  const Hlong n = std::max(na, nb);
  std::vector<HValue> out;
  out.reserve(size_t(n));
  for (Hlong i = 0; i < n; ++i) out.push_back(Apply(op, a[na == 1 ? 0 : i], b[nb == 1 ? 0 : i]));
  return HTuple(std::move(out));
}

}  // namespace

HTuple operator+(const HTuple& a, const HTuple& b) { return Elementwise(Op::Add, a, b); }
HTuple operator-(const HTuple& a, const HTuple& b) { return Elementwise(Op::Sub, a, b); }
HTuple operator*(const HTuple& a, const HTuple& b) { return Elementwise(Op::Mul, a, b); }
HTuple operator/(const HTuple& a, const HTuple& b) { return Elementwise(Op::Div, a, b); }
HTuple operator-(const HTuple& a) { return Elementwise(Op::Mul, a, HTuple(-1)); }

bool operator==(const HTuple& a, const HTuple& b) {
  if (a.Length() != b.Length()) return false;
  for (Hlong i = 0; i < a.Length(); ++i) {
    const HValue &x = a[i], &y = b[i];
    if (a.IsNumber(i) && b.IsNumber(i)) {
      if (a.D(i) != b.D(i)) return false;
    } else if (x != y) {
      return false;
    }
  }
  return true;
}

std::string HTuple::ToString() const {
  std::string s = "[";
  for (Hlong i = 0; i < Length(); ++i) {
    if (i) s += ", ";
    s += IsString(i) ? "'" + S(i) + "'" : ValueText(v_[size_t(i)]);
  }
  return s + "]";
}

}  // namespace vision
