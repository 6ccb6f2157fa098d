#include "vision/core/tuple.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <type_traits>

namespace vision {

namespace {

[[noreturn]] void ThrowType(const char* expected) {
  throw HException("HTuple", std::string("Wrong type of tuple element: ") + expected + " expected",
                   kErrWrongParamType);
}

}  // namespace

HTuple::HTuple(HValue v) {
  if (auto* d = std::get_if<double>(&v)) s_ = std::vector<double>{*d};
  else if (auto* l = std::get_if<Hlong>(&v)) s_ = std::vector<Hlong>{*l};
  else s_ = std::vector<HValue>{std::move(v)};
}

// Packed when every value has one numeric type.
HTuple::HTuple(std::vector<HValue> v) {
  if (v.empty()) return;
  const bool all_real = std::all_of(v.begin(), v.end(), [](const HValue& x) { return x.index() == 1; });
  const bool all_int = !all_real && std::all_of(v.begin(), v.end(), [](const HValue& x) { return x.index() == 0; });
  if (all_real) {
    std::vector<double> d(v.size());
    for (size_t i = 0; i < v.size(); ++i) d[i] = *std::get_if<double>(&v[i]);
    s_ = std::move(d);
  } else if (all_int) {
    std::vector<Hlong> l(v.size());
    for (size_t i = 0; i < v.size(); ++i) l[i] = *std::get_if<Hlong>(&v[i]);
    s_ = std::move(l);
  } else {
    s_ = std::move(v);
  }
}

HTuple HTuple::Ints(std::vector<Hlong> v) {
  HTuple t;
  if (!v.empty()) t.s_ = std::move(v);
  return t;
}
HTuple HTuple::Reals(std::vector<double> v) {
  HTuple t;
  t.s_ = std::move(v);
  return t;
}
HTuple HTuple::Strings(const std::vector<std::string>& v) {
  HTuple t;
  if (v.empty()) return t;
  std::vector<HValue> out;
  out.reserve(v.size());
  for (const auto& x : v) out.emplace_back(x);
  t.s_ = std::move(out);
  return t;
}

void HTuple::Check(Hlong i) const {
  if (i < 0 || i >= Length())
    throw HException("HTuple", "Index " + std::to_string(i) + " out of range (length " +
                                   std::to_string(Length()) + ")", kErrWrongParamCount);
}

const HValue HTuple::operator[](Hlong i) const {
  Check(i);
  switch (s_.index()) {
    case kReal: return std::get<kReal>(s_)[size_t(i)];
    case kInt: return std::get<kInt>(s_)[size_t(i)];
    default: return std::get<kMixed>(s_)[size_t(i)];
  }
}

HTuple::ElementRef HTuple::operator[](Hlong i) {
  Check(i);
  return ElementRef(*this, i);
}

void HTuple::Set(Hlong i, HValue v) {
  Check(i);
  if (auto* d = std::get_if<kReal>(&s_); d && v.index() == 1) {
    (*d)[size_t(i)] = std::get<double>(v);
  } else if (auto* l = std::get_if<kInt>(&s_); l && v.index() == 0) {
    (*l)[size_t(i)] = std::get<Hlong>(v);
  } else {
    Unpack()[size_t(i)] = std::move(v);
  }
}

std::vector<HValue>& HTuple::Unpack() {
  if (auto* d = std::get_if<kReal>(&s_)) {
    std::vector<HValue> v(d->begin(), d->end());
    s_ = std::move(v);
  } else if (auto* l = std::get_if<kInt>(&s_)) {
    std::vector<HValue> v(l->begin(), l->end());
    s_ = std::move(v);
  }
  return std::get<kMixed>(s_);
}

std::vector<HValue> HTuple::ToValues() const {
  return std::visit([](const auto& v) { return std::vector<HValue>(v.begin(), v.end()); }, s_);
}

HTuple HTuple::Slice(Hlong from, Hlong to) const {
  if (from < 0 || to < from || to > Length())
    throw HException("HTuple", "Range " + std::to_string(from) + ".." + std::to_string(to) +
                                   " out of range (length " + std::to_string(Length()) + ")",
                     kErrWrongParamCount);
  if (from == to) return HTuple();
  // A part of a mixed tuple may be all of one type: packed again then.
  if (auto* m = std::get_if<kMixed>(&s_)) return HTuple(std::vector<HValue>(m->begin() + from, m->begin() + to));
  HTuple t;
  std::visit([&](const auto& v) { t.s_ = std::decay_t<decltype(v)>(v.begin() + from, v.begin() + to); }, s_);
  return t;
}

HTuple& HTuple::Append(const HTuple& t) {
  if (t.Empty()) return *this;
  if (Empty()) {
    s_ = t.s_;
    return *this;
  }
  if (s_.index() == t.s_.index()) {
    std::visit(
        [&](auto& v) {
          const auto& w = std::get<std::decay_t<decltype(v)>>(t.s_);
          v.insert(v.end(), w.begin(), w.end());
        },
        s_);
    return *this;
  }
  std::vector<HValue>& v = Unpack();
  std::visit([&](const auto& w) { v.insert(v.end(), w.begin(), w.end()); }, t.s_);
  return *this;
}

HTuple& HTuple::Append(HValue v) {
  if (Empty()) {
    *this = HTuple(std::move(v));
  } else if (auto* d = std::get_if<kReal>(&s_); d && v.index() == 1) {
    d->push_back(std::get<double>(v));
  } else if (auto* l = std::get_if<kInt>(&s_); l && v.index() == 0) {
    l->push_back(std::get<Hlong>(v));
  } else {
    Unpack().push_back(std::move(v));
  }
  return *this;
}

bool HTuple::IsInt(Hlong i) const {
  Check(i);
  if (s_.index() == kMixed) return std::get<kMixed>(s_)[size_t(i)].index() == 0;
  return s_.index() == kInt;
}
bool HTuple::IsReal(Hlong i) const {
  Check(i);
  if (s_.index() == kMixed) return std::get<kMixed>(s_)[size_t(i)].index() == 1;
  return s_.index() == kReal;
}
bool HTuple::IsNumber(Hlong i) const {
  Check(i);
  if (s_.index() == kMixed) return std::get<kMixed>(s_)[size_t(i)].index() <= 1;
  return true;
}
bool HTuple::IsString(Hlong i) const {
  Check(i);
  return s_.index() == kMixed && std::holds_alternative<std::string>(std::get<kMixed>(s_)[size_t(i)]);
}
bool HTuple::IsHandle(Hlong i) const {
  Check(i);
  return s_.index() == kMixed && std::holds_alternative<HHandle>(std::get<kMixed>(s_)[size_t(i)]);
}

std::span<const double> HTuple::RealSpan() const {
  if (auto* d = std::get_if<kReal>(&s_)) return *d;
  return {};
}
std::span<const Hlong> HTuple::IntSpan() const {
  if (auto* l = std::get_if<kInt>(&s_)) return *l;
  return {};
}

Hlong HTuple::L(Hlong i) const {
  Check(i);
  switch (s_.index()) {
    case kReal: return Hlong(std::get<kReal>(s_)[size_t(i)]);
    case kInt: return std::get<kInt>(s_)[size_t(i)];
  }
  const HValue& v = std::get<kMixed>(s_)[size_t(i)];
  if (auto* p = std::get_if<Hlong>(&v)) return *p;
  if (auto* p = std::get_if<double>(&v)) return Hlong(*p);
  ThrowType("number");
}
double HTuple::D(Hlong i) const {
  Check(i);
  switch (s_.index()) {
    case kReal: return std::get<kReal>(s_)[size_t(i)];
    case kInt: return double(std::get<kInt>(s_)[size_t(i)]);
  }
  const HValue& v = std::get<kMixed>(s_)[size_t(i)];
  if (auto* p = std::get_if<double>(&v)) return *p;
  if (auto* p = std::get_if<Hlong>(&v)) return double(*p);
  ThrowType("number");
}
const std::string& HTuple::S(Hlong i) const {
  Check(i);
  if (auto* m = std::get_if<kMixed>(&s_))
    if (auto* p = std::get_if<std::string>(&(*m)[size_t(i)])) return *p;
  ThrowType("string");
}
HHandle HTuple::H(Hlong i) const {
  Check(i);
  if (auto* m = std::get_if<kMixed>(&s_))
    if (auto* p = std::get_if<HHandle>(&(*m)[size_t(i)])) return *p;
  ThrowType("handle");
}

std::vector<Hlong> HTuple::ToLVec() const {
  if (auto* l = std::get_if<kInt>(&s_)) return *l;
  std::vector<Hlong> r;
  r.reserve(size_t(Length()));
  for (Hlong i = 0; i < Length(); ++i) r.push_back(L(i));
  return r;
}
std::vector<double> HTuple::ToDVec() const {
  if (auto* d = std::get_if<kReal>(&s_)) return *d;
  if (auto* l = std::get_if<kInt>(&s_)) return std::vector<double>(l->begin(), l->end());
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

// Both operands packed numbers: one loop over plain arrays, integer with
// integer staying integer, exactly as Apply decides per element.
template <class A, class B>
HTuple PackedElementwise(Op op, std::span<const A> a, std::span<const B> b) {
  using R = std::conditional_t<std::is_same_v<A, Hlong> && std::is_same_v<B, Hlong>, Hlong, double>;
  const size_t n = std::max(a.size(), b.size());
  const size_t sa = a.size() == 1 ? 0 : 1, sb = b.size() == 1 ? 0 : 1;
  std::vector<R> out(n);
  auto run = [&](auto f) {
    for (size_t i = 0; i < n; ++i) out[i] = f(R(a[i * sa]), R(b[i * sb]));
  };
  switch (op) {
    case Op::Add: run([](R x, R y) { return x + y; }); break;
    case Op::Sub: run([](R x, R y) { return x - y; }); break;
    case Op::Mul: run([](R x, R y) { return x * y; }); break;
    case Op::Div:
      for (B y : b)
        if (R(y) == R(0)) throw HException("HTuple", "Division by zero", kErrWrongParamValue);
      run([](R x, R y) { return x / y; });
      break;
  }
  if constexpr (std::is_same_v<R, Hlong>) return HTuple::Ints(std::move(out));
  else return HTuple::Reals(std::move(out));
}

template <class A>
HTuple PackedWith(Op op, std::span<const A> a, const HTuple& b) {
  if (b.AllReal()) return PackedElementwise<A, double>(op, a, b.RealSpan());
  return PackedElementwise<A, Hlong>(op, a, b.IntSpan());
}

HTuple Elementwise(Op op, const HTuple& a, const HTuple& b) {
  const Hlong na = a.Length(), nb = b.Length();
  if (na == 0 || nb == 0) return HTuple();
  if (na != nb && na != 1 && nb != 1)
    throw HException("HTuple", "Tuples of different lengths", kErrWrongParamCount);
  if ((a.AllReal() || a.AllInt()) && (b.AllReal() || b.AllInt()))
    return a.AllReal() ? PackedWith<double>(op, a.RealSpan(), b) : PackedWith<Hlong>(op, a.IntSpan(), b);
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
    if (a.IsNumber(i) && b.IsNumber(i)) {
      if (a.D(i) != b.D(i)) return false;
    } else if (a[i] != b[i]) {
      return false;
    }
  }
  return true;
}

std::string HTuple::ToString() const {
  std::string s = "[";
  for (Hlong i = 0; i < Length(); ++i) {
    if (i) s += ", ";
    s += IsString(i) ? "'" + S(i) + "'" : ValueText((*this)[i]);
  }
  return s + "]";
}

}  // namespace vision
