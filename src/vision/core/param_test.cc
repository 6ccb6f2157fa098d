#include <cmath>
#include <functional>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include "vision/core/param.h"
#include "vision/core/param_table.h"

namespace vision {
namespace {

// The whole rule in one table: each reader on each kind of input, with the
// value it answers or the error family it raises.
TEST(ParamTest, ReadersAnswerOneRule) {
  using Read = std::function<HTuple(const HTuple&)>;
  const Read int0 = [](const HTuple& t) { return HTuple(ParamInt(t, "op", "P")); };
  const Read int1 = [](const HTuple& t) { return HTuple(ParamInt(t, "op", "P", 1)); };
  const Read int2 = [](const HTuple& t) { return HTuple(ParamInt(t, "op", "P", 2)); };
  const Read int_in = [](const HTuple& t) { return HTuple(ParamIntIn(t, "op", "P", 1, 9)); };
  const Read real0 = [](const HTuple& t) { return HTuple(ParamReal(t, "op", "P")); };
  const Read real_in = [](const HTuple& t) { return HTuple(ParamRealIn(t, "op", "P", 0.5, 2.0)); };
  const Read str0 = [](const HTuple& t) { return HTuple(ParamString(t, "op", "P")); };
  const Read str_in = [](const HTuple& t) { return HTuple(ParamStringIn(t, "op", "P", {"a", "b"})); };
  const Read boolean = [](const HTuple& t) { return HTuple(Hlong(ParamBool(t, "op", "P"))); };
  const Read reals = [](const HTuple& t) {
    std::vector<double> scratch;
    const std::span<const double> v = ParamReals(t, "op", "P", &scratch);
    // A tuple of reals is read in place, anything else through the scratch.
    if (!t.Empty()) EXPECT_EQ(v.data() == t.RealSpan().data(), t.AllReal()) << t.ToString();
    return HTuple::Reals(std::vector<double>(v.begin(), v.end()));
  };
  const Read finite_reals = [](const HTuple& t) {
    std::vector<double> scratch;
    const std::span<const double> v = ParamReals(t, "op", "P", &scratch, true);
    return HTuple::Reals(std::vector<double>(v.begin(), v.end()));
  };
  const Read pairs = [](const HTuple& t) {
    return HTuple(ParamItems("op", {{HTuple::Reals({0, 0}), "Q", 2}, {t, "P", 2}}));
  };
  const Read beside_three = [](const HTuple& t) {
    return HTuple(ParamItems("op", {{HTuple::Ints({1, 2, 3}), "Q"}, {t, "P"}}));
  };
  const double nan = std::nan(""), inf = HUGE_VAL;
  struct Case {
    const char* what;
    Read read;
    HTuple in;
    HTuple want;  // empty when an error is expected
    int error;
  } cases[] = {
      {"integer", int0, HTuple(3), HTuple(3), 0},
      {"real without fraction", int0, HTuple(3.0), HTuple(3), 0},
      {"real with fraction", int0, HTuple(3.6), {}, kErrWrongParamType},
      {"negative fraction", int0, HTuple(-2.5), {}, kErrWrongParamType},
      {"string for integer", int0, HTuple("3"), {}, kErrWrongParamType},
      {"missing integer", int0, HTuple(), {}, kErrWrongParamCount},
      {"not finite for integer", int0, HTuple(nan), {}, kErrWrongParamValue},
      {"element 1", int1, HTuple{4, 5}, HTuple(5), 0},
      {"one value serves all", int1, HTuple(4), HTuple(4), 0},
      {"element beyond the values", int2, HTuple{4, 5}, {}, kErrWrongParamCount},
      {"integer in range", int_in, HTuple(9), HTuple(9), 0},
      {"integer out of range", int_in, HTuple(10), {}, kErrWrongParamValue},
      {"fraction before range", int_in, HTuple(9.5), {}, kErrWrongParamType},
      {"integer for real", real0, HTuple(2), HTuple(2.0), 0},
      {"real", real0, HTuple(2.5), HTuple(2.5), 0},
      {"not finite real", real0, HTuple(nan), {}, kErrWrongParamValue},
      {"string for real", real0, HTuple("x"), {}, kErrWrongParamType},
      {"real out of range", real_in, HTuple(2.01), {}, kErrWrongParamValue},
      {"string", str0, HTuple("x"), HTuple("x"), 0},
      {"number for string", str0, HTuple(1), {}, kErrWrongParamType},
      {"word in set", str_in, HTuple("b"), HTuple("b"), 0},
      {"word not in set", str_in, HTuple("c"), {}, kErrWrongParamValue},
      {"true", boolean, HTuple("true"), HTuple(1), 0},
      {"0", boolean, HTuple(0), HTuple(0), 0},
      {"2 as boolean", boolean, HTuple(2), {}, kErrWrongParamValue},
      {"yes as boolean", boolean, HTuple("yes"), {}, kErrWrongParamValue},
      {"reals", reals, HTuple::Reals({1, 2}), HTuple::Reals({1, 2}), 0},
      {"integers as reals", reals, HTuple::Ints({1, 2}), HTuple::Reals({1, 2}), 0},
      {"mixed numbers as reals", reals, HTuple{1, 2.5}, HTuple::Reals({1, 2.5}), 0},
      {"no reals", reals, HTuple(), HTuple(), 0},
      {"infinity taken as it is", reals, HTuple::Reals({1, inf}), HTuple::Reals({1, inf}), 0},
      {"string among reals", reals, HTuple{1.0, "a"}, {}, kErrWrongParamType},
      {"infinity where finite", finite_reals, HTuple::Reals({1, inf}), {}, kErrWrongParamValue},
      {"one pair", pairs, HTuple{1, 2}, HTuple(1), 0},
      {"three pairs", pairs, HTuple::Reals({1, 2, 3, 4, 5, 6}), HTuple(3), 0},
      {"broken pair", pairs, HTuple::Reals({1, 2, 3}), {}, kErrWrongParamCount},
      {"no pair", pairs, HTuple(), {}, kErrWrongParamCount},
      {"one item beside three", beside_three, HTuple(7), HTuple(3), 0},
      {"three beside three", beside_three, HTuple{7, 8, 9}, HTuple(3), 0},
      {"two beside three", beside_three, HTuple{7, 8}, {}, kErrWrongParamCount},
  };
  for (const auto& c : cases) {
    try {
      HTuple got = c.read(c.in);
      EXPECT_EQ(c.error, 0) << c.what << ": answered " << got.ToString();
      EXPECT_EQ(got, c.want) << c.what;
      if (!c.want.Empty()) EXPECT_EQ(got.IsInt(0), c.want.IsInt(0)) << c.what;
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), c.error) << c.what << ": " << e.what();
      EXPECT_EQ(e.ProcName(), "op") << c.what;
      EXPECT_NE(e.ErrorMessage().find('P'), std::string::npos) << c.what;
    }
  }
  EXPECT_NO_THROW(ParamCount(HTuple{1, 2}, "op", "P", 1, 2));
  EXPECT_NO_THROW(ParamCount(HTuple{1, 2, 3}, "op", "P", 1, -1));
  EXPECT_NO_THROW(ParamCountPer(HTuple(1), "op", "P", 5));
  for (auto fn : {+[] { ParamCount(HTuple{1, 2, 3}, "op", "P", 1, 2); }, +[] { ParamCount(HTuple(), "op", "P", 1); },
                  +[] { ParamCountPer(HTuple{1, 2}, "op", "P", 3); }}) {
    try {
      fn();
      ADD_FAILURE() << "count accepted";
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), kErrWrongParamCount);
    }
  }
}

struct Model {
  std::string preset = "standard";
  Hlong size = 2;
  double gain = 1;
  std::string trained = "";
  HTuple box;
};

const ParamTable<Model> kTable({
    {"preset",
     [](Model& m, const ParamValue& v) {
       m.preset = v.StringIn({"standard", "enhanced"});
       m.size = m.preset == "standard" ? 2 : 1;
     },
     [](const Model& m) { return HTuple(m.preset); }, ParamTable<Model>::kFirst},
    {"size", [](Model& m, const ParamValue& v) { m.size = v.IntIn(1, 100); },
     [](const Model& m) { return HTuple(m.size); }},
    {"gain", [](Model& m, const ParamValue& v) { m.gain = v.Real(); }, nullptr},
    {"trained", nullptr, [](const Model& m) { return HTuple(m.trained); }, ParamTable<Model>::kGroup1},
    {"box",
     [](Model& m, const ParamValue& v) {
       const HTuple t = v.Tuple();
       ParamCount(t, v.Op(), v.Name().c_str(), 2);
       m.box = HTuple::Reals({ParamReal(t, v.Op(), "box", 0), ParamReal(t, v.Op(), "box", 1)});
     },
     [](const Model& m) { return m.box; }},
});

TEST(ParamTest, TableDrivesSetGetAndQuery) {
  Model m;
  // The preset is applied first, so "size" given before it still refines it.
  kTable.Set(m, HTuple{"size", "preset"}, HTuple{7, "enhanced"}, "set_p");
  EXPECT_EQ(m.preset, "enhanced");
  EXPECT_EQ(m.size, 7);
  EXPECT_EQ(kTable.Get(m, HTuple{"preset", "size", "trained"}, "get_p"), (HTuple{"enhanced", 7, ""}));
  // The one name of a call takes all the values.
  kTable.Set(m, HTuple("box"), HTuple{1, 2.5}, "set_p");
  EXPECT_EQ(kTable.Get(m, HTuple{"box", "size"}, "get_p"), (HTuple{1.0, 2.5, 7}));
  EXPECT_EQ(kTable.Names(ParamTable<Model>::kSettable), (HTuple{"preset", "size", "gain", "box"}));
  EXPECT_EQ(kTable.Names(ParamTable<Model>::kGettable), (HTuple{"preset", "size", "trained", "box"}));
  EXPECT_EQ(kTable.Names(ParamTable<Model>::kGroup1), HTuple("trained"));

  struct Bad {
    HTuple names, values;
    int error;
  } bad[] = {
      {HTuple{"size", "gain"}, HTuple(3), kErrWrongParamCount},
      {HTuple("size"), HTuple(3.5), kErrWrongParamType},
      {HTuple("size"), HTuple(0), kErrWrongParamValue},
      {HTuple("nonesuch"), HTuple(1), kErrWrongParamValue},
      {HTuple(1), HTuple(1), kErrWrongParamType},
      {HTuple("trained"), HTuple("x"), kErrWrongParamValue},  // read only
      {HTuple("size"), HTuple{3, 4}, kErrWrongParamCount},      // one value only
      {HTuple{"box", "size"}, HTuple{1, 2}, kErrWrongParamCount},  // a pair takes one value
      {HTuple("box"), HTuple{1, "x"}, kErrWrongParamType},
  };
  for (const auto& b : bad) {
    try {
      kTable.Set(m, b.names, b.values, "set_p");
      ADD_FAILURE() << b.names.ToString() << " accepted";
    } catch (const HException& e) {
      EXPECT_EQ(e.ErrorCode(), b.error) << b.names.ToString() << ": " << e.what();
    }
  }
  EXPECT_THROW(kTable.Get(m, HTuple("gain"), "get_p"), HException);  // write only
}

}  // namespace
}  // namespace vision
