#include "vision/filter/tuple_ops.h"

#include <gtest/gtest.h>

#include <cmath>

namespace vision {
namespace {

constexpr double kPi = 3.14159265358979323846;

using Unary = void (*)(const HTuple&, HTuple*);

// The result of a tuple operator whose last parameter is its only output.
template <class Op, class... In>
HTuple Out(Op op, const In&... in) {
  HTuple r;
  op(HTuple(in)..., &r);
  return r;
}

// The values and, element by element, integer or real as in `want`.
void ExpectTyped(const HTuple& got, const HTuple& want) {
  ASSERT_EQ(got, want);
  for (Hlong i = 0; i < got.Length(); ++i)
    EXPECT_EQ(got.IsInt(i), want.IsInt(i)) << "element " << i;
}

TEST(TupleOps, ElementwiseAndAggregatesKeepTheReferenceTypes) {
  const HTuple in{2.5, -2.5, -2.7, 3, 0.49};
  struct Case { const char* name; Unary op; HTuple in, want; } cases[] = {
      {"round", tuple_round, in, HTuple::Ints({3, -3, -3, 3, 0})},  // halves away from zero
      {"int", tuple_int, in, HTuple::Ints({2, -2, -2, 3, 0})},
      {"floor", tuple_floor, in, HTuple::Reals({2, -3, -3, 3, 0})},
      {"ceil", tuple_ceil, in, HTuple::Reals({3, -2, -2, 3, 1})},
      {"abs", tuple_abs, {-4, -1.5}, {4, 1.5}},
      {"fabs", tuple_fabs, -4, 4.0},
      {"sgn", tuple_sgn, {-0.1, 0, 7}, HTuple::Ints({-1, 0, 1})},
      {"deg", tuple_deg, kPi, 180.0},
      {"rad", tuple_rad, 90, kPi / 2},
      {"sqrt", tuple_sqrt, 9, 3.0},
      {"sum", tuple_sum, HTuple::Ints({1, 2, 3}), 6},
      {"sum", tuple_sum, {1, 0.5}, 1.5},
      {"sum", tuple_sum, HTuple(), 0},
      {"mean", tuple_mean, HTuple::Ints({1, 2}), 1.5},
      {"min", tuple_min, {3, -1.5, 2}, -1.5},
      {"max", tuple_max, {3, -1.5, 2}, 3},
      {"length", tuple_length, {1, "a"}, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectTyped(Out(c.op, c.in), c.want);
  }
  EXPECT_THROW(Out(tuple_sqrt, -1), HException);
  EXPECT_THROW(Out(tuple_round, "a"), HException);
  EXPECT_THROW(Out(tuple_mean, HTuple()), HException);
  EXPECT_THROW(Out(tuple_max, HTuple()), HException);
}

TEST(TupleOps, SelectionAndSearch) {
  const HTuple t{10, 20, 30, 20, 30};
  EXPECT_EQ(Out(tuple_select_range, t, 1, 3), HTuple::Ints({20, 30, 20}));
  EXPECT_EQ(Out(tuple_select_range, t, 1.0, 2.0), HTuple::Ints({20, 30}));  // whole reals index
  EXPECT_TRUE(Out(tuple_select_range, t, 2, 1).Empty());  // empty selection is allowed
  EXPECT_THROW(Out(tuple_select_range, t, 1.5, 2), HException);
  EXPECT_THROW(Out(tuple_select_range, t, 3, 5), HException);
  EXPECT_THROW(Out(tuple_select_range, t, 3, 1), HException);
  EXPECT_EQ(Out(tuple_select, t, HTuple::Ints({4, 0})), HTuple::Ints({30, 10}));
  EXPECT_THROW(Out(tuple_select, t, 5), HException);
  EXPECT_EQ(Out(tuple_find, t, HTuple::Ints({20, 30})), HTuple::Ints({1, 3}));
  EXPECT_EQ(Out(tuple_find, t, 20.0), HTuple::Ints({1, 3}));  // numbers compare by value
  EXPECT_EQ(Out(tuple_find, t, 99), HTuple(-1));
  EXPECT_EQ(Out(tuple_concat, 1, HTuple{"a", 2.5}), HTuple({1, "a", 2.5}));
  EXPECT_EQ(Out(tuple_gen_const, 3, "x"), HTuple({"x", "x", "x"}));
  EXPECT_TRUE(Out(tuple_gen_const, 0, 1).Empty());
}

TEST(TupleOps, Strings) {
  EXPECT_EQ(Out(tuple_strlen, HTuple{"abc", ""}), HTuple::Ints({3, 0}));
  EXPECT_EQ(Out(tuple_split, "a,,b;c", ",;"), HTuple({"a", "b", "c"}));
  EXPECT_EQ(Out(tuple_regexp_select, HTuple{"Industrial_0-9.omc", "OCRA_A-Z+.omc", "readme"},
                "\\.omc$"),
            HTuple({"Industrial_0-9.omc", "OCRA_A-Z+.omc"}));
  EXPECT_EQ(Out(tuple_regexp_select, HTuple{"ABC", "abc", "x"}, HTuple{"^abc", "ignore_case"}),
            HTuple({"ABC", "abc"}));
  EXPECT_EQ(Out(tuple_regexp_select, HTuple{"ABC", "x"}, HTuple{"^abc", "invert_match"}),
            HTuple({"ABC", "x"}));
  EXPECT_THROW(Out(tuple_regexp_select, "a", "("), HException);
  EXPECT_EQ(Out(tuple_sort, HTuple{"b", 3, "a", -1.5, 2}), HTuple({-1.5, 2, 3, "a", "b"}));
}

}  // namespace
}  // namespace vision
