#pragma once
// HTuple: the library's universal control value, an ordered list of integers,
// reals, strings and handles with element-wise arithmetic.
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "vision/core/exception.h"

namespace vision {

using Hlong = int64_t;

// Base of every resource a handle refers to (classifiers, code models, windows,
// ...). Clearing releases the resource at once; the handle value itself stays
// in any tuple that holds it and is refused by every operator afterwards.
class HandleBase {
 public:
  virtual ~HandleBase() = default;
  virtual const char* TypeName() const = 0;
  virtual void Clear() { cleared_ = true; }
  bool IsCleared() const { return cleared_; }

 protected:
  bool cleared_ = false;
};

using HHandle = std::shared_ptr<HandleBase>;

using HValue = std::variant<Hlong, double, std::string, HHandle>;

// Storage: a tuple whose elements are all reals (or all integers) keeps them
// in one contiguous array, so vectorised operators read and write plain
// arrays; the first element of another type turns it into a list of HValues.
// The representation never shows in the tuple's behaviour: element types,
// values, errors and copies are the same either way.
class HTuple {
 public:
  HTuple() = default;
  HTuple(int v) : s_(std::vector<Hlong>{Hlong(v)}) {}
  HTuple(long v) : s_(std::vector<Hlong>{Hlong(v)}) {}
  HTuple(long long v) : s_(std::vector<Hlong>{Hlong(v)}) {}
  HTuple(unsigned v) : s_(std::vector<Hlong>{Hlong(v)}) {}
  HTuple(double v) : s_(std::vector<double>{v}) {}
  HTuple(float v) : s_(std::vector<double>{double(v)}) {}
  HTuple(bool v) = delete;  // the library has no booleans; say "true" or 1
  HTuple(const char* s) : s_(std::vector<HValue>{HValue(std::string(s))}) {}
  HTuple(std::string s) : s_(std::vector<HValue>{HValue(std::move(s))}) {}
  HTuple(HHandle h) : s_(std::vector<HValue>{HValue(std::move(h))}) {}
  HTuple(HValue v);
  HTuple(std::vector<HValue> v);
  HTuple(std::initializer_list<HTuple> parts) {
    for (const auto& p : parts) Append(p);
  }
  // Packed from the start; an rvalue vector is taken over without copying.
  static HTuple Ints(std::vector<Hlong> v);
  static HTuple Reals(std::vector<double> v);
  static HTuple Strings(const std::vector<std::string>& v);

  Hlong Length() const { return Hlong(std::visit([](const auto& v) { return v.size(); }, s_)); }
  bool Empty() const { return Length() == 0; }

  // Element i by value (const, so that assigning to it does not compile).
  const HValue operator[](Hlong i) const;
  // Writable element i: reads as its HValue, takes an HValue on assignment.
  class ElementRef {
   public:
    operator HValue() const { return std::as_const(t_)[i_]; }
    ElementRef& operator=(HValue v) { t_.Set(i_, std::move(v)); return *this; }
    ElementRef& operator=(const ElementRef& o) { return *this = HValue(o); }

   private:
    friend class HTuple;
    ElementRef(HTuple& t, Hlong i) : t_(t), i_(i) {}
    HTuple& t_;
    Hlong i_;
  };
  ElementRef operator[](Hlong i);
  void Set(Hlong i, HValue v);
  // Copies of the elements, all or [from, to).
  std::vector<HValue> ToValues() const;
  HTuple Slice(Hlong from, Hlong to) const;

  HTuple& Append(const HTuple& t);
  HTuple& Append(HValue v);
  void Clear() { s_ = std::vector<double>(); }

  bool IsInt(Hlong i) const;
  bool IsReal(Hlong i) const;
  bool IsNumber(Hlong i) const;
  bool IsString(Hlong i) const;
  bool IsHandle(Hlong i) const;

  // Packed views: all elements as one array when every element is a real
  // (an integer); an empty span otherwise, and for the empty tuple. The span
  // lives as long as the tuple is not changed.
  bool AllReal() const { return Length() > 0 && s_.index() == kReal; }
  bool AllInt() const { return Length() > 0 && s_.index() == kInt; }
  std::span<const double> RealSpan() const;
  std::span<const Hlong> IntSpan() const;

  // Typed element access; raise an HException when the element is of another
  // type (numbers convert between integer and real, reals truncate).
  Hlong L(Hlong i = 0) const;
  int I(Hlong i = 0) const { return int(L(i)); }
  double D(Hlong i = 0) const;
  const std::string& S(Hlong i = 0) const;
  HHandle H(Hlong i = 0) const;

  std::vector<Hlong> ToLVec() const;
  std::vector<double> ToDVec() const;
  std::vector<std::string> ToSVec() const;

  // Element-wise arithmetic; a one-element operand is broadcast. Integer with
  // integer stays integer (division truncates toward zero); a string operand
  // concatenates for + only.
  friend HTuple operator+(const HTuple& a, const HTuple& b);
  friend HTuple operator-(const HTuple& a, const HTuple& b);
  friend HTuple operator*(const HTuple& a, const HTuple& b);
  friend HTuple operator/(const HTuple& a, const HTuple& b);
  friend HTuple operator-(const HTuple& a);
  // Tuple equality as the library's == compares: same length, equal values.
  friend bool operator==(const HTuple& a, const HTuple& b);

  std::string ToString() const;  // for logs and tests: [1, 2.5, 'a']

 private:
  enum Kind : size_t { kReal = 0, kInt = 1, kMixed = 2 };
  void Check(Hlong i) const;
  std::vector<HValue>& Unpack();  // to the mixed representation
  // An empty tuple counts as real-packed and takes the kind of what comes.
  std::variant<std::vector<double>, std::vector<Hlong>, std::vector<HValue>> s_;
};

// Fetch the handle object of type T from a tuple element; raises the
// operator's exception when the value is not a handle of that type or the
// handle has been cleared.
template <class T>
T* HandleCast(const HTuple& t, const char* op, Hlong i = 0) {
  if (t.Length() <= i || !t.IsHandle(i))
    throw HException(op, "Wrong type of control parameter: handle expected", kErrHandle);
  auto* p = dynamic_cast<T*>(t.H(i).get());
  if (!p) throw HException(op, "Wrong handle type", kErrHandle);
  if (p->IsCleared()) throw HException(op, "Handle has been cleared", kErrHandle);
  return p;
}

}  // namespace vision
