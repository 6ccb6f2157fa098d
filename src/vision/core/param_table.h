#pragma once
// Generic parameters of a handle (name/value pairs, as code models and stereo
// models take them): one table of names drives the handle's set, get and
// query operators, so that a name set can always be read back and every
// name the query operators list is one the others accept.
//
//   const ParamTable<Model> kTable({
//       {"polarity", [](Model& m, const ParamValue& v) { m.polarity = v.StringIn({"a", "b"}); },
//                    [](const Model& m) { return HTuple(m.polarity); }},
//       ...});
//   kTable.Set(model, names, values, op);        // set_*_param
//   *values = kTable.Get(model, names, op);      // get_*_param
//   *names = kTable.Names(ParamTable<Model>::kSettable);  // query_*_params
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "vision/core/param.h"

namespace vision {

// One value of a name/value pair, read with the library's parameter rules;
// errors name the generic parameter. With index kOneValue the whole value
// tuple belongs to the one name of the call (the readers then take exactly
// one value, Tuple() takes them all).
class ParamValue {
 public:
  ParamValue(const HTuple& values, Hlong index, const char* op, const std::string& name)
      : values_(values), index_(index), op_(op), name_("'" + name + "'") {}

  bool IsString() const { return values_.IsString(index_ == kOneValue ? 0 : index_); }
  bool IsNumber() const { return values_.IsNumber(index_ == kOneValue ? 0 : index_); }
  // Every value of the parameter: the whole tuple for the one name of a
  // call, else this pair's value.
  HTuple Tuple() const { return index_ == kOneValue ? values_ : HTuple(values_[index_]); }
  const std::string& Name() const { return name_; }
  Hlong Int() const { return ParamInt(values_, op_, name_.c_str(), index_); }
  Hlong IntIn(Hlong lo, Hlong hi) const { return ParamIntIn(values_, op_, name_.c_str(), lo, hi, index_); }
  double Real() const { return ParamReal(values_, op_, name_.c_str(), index_); }
  double RealIn(double lo, double hi) const { return ParamRealIn(values_, op_, name_.c_str(), lo, hi, index_); }
  const std::string& String() const { return ParamString(values_, op_, name_.c_str(), index_); }
  const std::string& StringIn(std::initializer_list<std::string_view> allowed) const {
    return ParamStringIn(values_, op_, name_.c_str(), allowed, index_);
  }
  bool Bool() const { return ParamBool(values_, op_, name_.c_str(), index_); }
  [[noreturn]] void Refuse(const std::string& detail = {}) const { ThrowParamValue(op_, name_, detail); }
  const char* Op() const { return op_; }

 private:
  const HTuple& values_;
  Hlong index_;
  const char* op_;
  std::string name_;
};

template <class Model>
class ParamTable {
 public:
  using Setter = std::function<void(Model&, const ParamValue&)>;
  using Getter = std::function<HTuple(const Model&)>;
  // Row flags. kFirst rows are applied before the others of the same call
  // (a preset that the other names then refine); the kGroup bits are the
  // handle's own (e.g. "set by training"), for Names().
  enum : unsigned { kSettable = 1, kGettable = 2, kFirst = 4, kGroup1 = 8, kGroup2 = 16 };

  struct Row {
    std::string name;
    Setter set;  // empty: read only
    Getter get;  // empty: write only
    unsigned groups = 0;
    unsigned Flags() const { return (set ? kSettable : 0u) | (get ? kGettable : 0u) | groups; }
  };

  explicit ParamTable(std::vector<Row> rows) : rows_(std::move(rows)) {}

  // One value per name, applied in order (kFirst rows before the rest); a
  // single name takes all the values (a row that reads one value refuses
  // more as a wrong count, one that reads Tuple() takes them).
  void Set(Model& m, const HTuple& names, const HTuple& values, const char* op) const {
    if (names.Length() == 1 && !values.Empty()) {
      const Row& r = Find(names, 0, op);
      if (!r.set) ThrowParamValue(op, "GenParamName", "'" + r.name + "' cannot be set");
      r.set(m, ParamValue(values, kOneValue, op, r.name));
      return;
    }
    if (names.Length() != values.Length()) ThrowParamCount(op, "GenParamValue");
    std::vector<const Row*> rows;
    for (Hlong i = 0; i < names.Length(); ++i) {
      const Row& r = Find(names, i, op);
      if (!r.set) ThrowParamValue(op, "GenParamName", "'" + r.name + "' cannot be set");
      rows.push_back(&r);
    }
    for (int pass = 0; pass < 2; ++pass)
      for (Hlong i = 0; i < names.Length(); ++i)
        if (bool(rows[size_t(i)]->groups & kFirst) == (pass == 0))
          rows[size_t(i)]->set(m, ParamValue(values, i, op, rows[size_t(i)]->name));
  }

  // The values of the names, in order.
  HTuple Get(const Model& m, const HTuple& names, const char* op) const {
    HTuple out;
    for (Hlong i = 0; i < names.Length(); ++i) {
      const Row& r = Find(names, i, op);
      if (!r.get) ThrowParamValue(op, "GenParamName", "'" + r.name + "' cannot be read");
      out.Append(r.get(m));
    }
    return out;
  }

  // The names whose flags include every bit of `flags`, in table order.
  HTuple Names(unsigned flags) const {
    std::vector<std::string> out;
    for (const Row& r : rows_)
      if ((r.Flags() & flags) == flags) out.push_back(r.name);
    return HTuple::Strings(out);
  }

  bool Has(std::string_view name) const {
    for (const Row& r : rows_)
      if (r.name == name) return true;
    return false;
  }

 private:
  const Row& Find(const HTuple& names, Hlong i, const char* op) const {
    const std::string& n = ParamString(names, op, "GenParamName", i);
    for (const Row& r : rows_)
      if (r.name == n) return r;
    ThrowParamValue(op, "GenParamName", "unknown parameter '" + n + "'");
  }

  std::vector<Row> rows_;
};

}  // namespace vision
