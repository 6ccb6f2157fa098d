#pragma once
// HTuple: the library's universal control value, an ordered list of integers,
// reals, strings and handles with element-wise arithmetic.
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
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

class HTuple {
 public:
  HTuple() = default;
  HTuple(int v) : v_{Hlong(v)} {}
  HTuple(long v) : v_{Hlong(v)} {}
  HTuple(long long v) : v_{Hlong(v)} {}
  HTuple(unsigned v) : v_{Hlong(v)} {}
  HTuple(double v) : v_{v} {}
  HTuple(float v) : v_{double(v)} {}
  HTuple(bool v) = delete;  // the library has no booleans; say "true" or 1
  HTuple(const char* s) : v_{std::string(s)} {}
  HTuple(std::string s) : v_{std::move(s)} {}
  HTuple(HHandle h) : v_{std::move(h)} {}
  HTuple(HValue v) : v_{std::move(v)} {}
  HTuple(std::vector<HValue> v) : v_(std::move(v)) {}
  HTuple(std::initializer_list<HTuple> parts) {
    for (const auto& p : parts) Append(p);
  }
  static HTuple Ints(const std::vector<Hlong>& v);
  static HTuple Reals(const std::vector<double>& v);
  static HTuple Strings(const std::vector<std::string>& v);

  Hlong Length() const { return Hlong(v_.size()); }
  bool Empty() const { return v_.empty(); }
  const HValue& operator[](Hlong i) const;
  HValue& operator[](Hlong i);
  const std::vector<HValue>& Values() const { return v_; }

  HTuple& Append(const HTuple& t);
  HTuple& Append(HValue v) { v_.push_back(std::move(v)); return *this; }
  void Clear() { v_.clear(); }

  bool IsInt(Hlong i) const { return std::holds_alternative<Hlong>(at(i)); }
  bool IsReal(Hlong i) const { return std::holds_alternative<double>(at(i)); }
  bool IsNumber(Hlong i) const { return IsInt(i) || IsReal(i); }
  bool IsString(Hlong i) const { return std::holds_alternative<std::string>(at(i)); }
  bool IsHandle(Hlong i) const { return std::holds_alternative<HHandle>(at(i)); }

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
  const HValue& at(Hlong i) const;
  std::vector<HValue> v_;
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
