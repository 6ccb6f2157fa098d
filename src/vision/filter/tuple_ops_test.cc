#include "vision/filter/tuple_ops.h"

#include <gtest/gtest.h>

#include <cmath>

namespace vision {
namespace {

constexpr double kPi = 3.14159265358979323846;

TEST(TupleOps, RoundingFamilyKeepsTheReferenceTypes) {
  const HTuple in{2.5, -2.5, -2.7, 3, 0.49};
  HTuple r;
  tuple_round(in, &r);
  EXPECT_EQ(r, HTuple::Ints({3, -3, -3, 3, 0}));
  EXPECT_TRUE(r.IsInt(0));
  tuple_int(in, &r);
  EXPECT_EQ(r, HTuple::Ints({2, -2, -2, 3, 0}));
  tuple_floor(in, &r);
  EXPECT_EQ(r, HTuple::Reals({2, -3, -3, 3, 0}));
  EXPECT_TRUE(r.IsReal(3));
  tuple_ceil(in, &r);
  EXPECT_EQ(r, HTuple::Reals({3, -2, -2, 3, 1}));
  tuple_abs(HTuple{-4, -1.5}, &r);
  EXPECT_TRUE(r.IsInt(0));
  EXPECT_EQ(r, HTuple({4, 1.5}));
  tuple_fabs(HTuple(-4), &r);
  EXPECT_TRUE(r.IsReal(0));
  tuple_sgn(HTuple{-0.1, 0, 7}, &r);
  EXPECT_EQ(r, HTuple::Ints({-1, 0, 1}));
  tuple_deg(HTuple(kPi), &r);
  EXPECT_DOUBLE_EQ(r.D(0), 180.0);
  tuple_rad(HTuple(90), &r);
  EXPECT_DOUBLE_EQ(r.D(0), kPi / 2);
  tuple_sqrt(HTuple(9), &r);
  EXPECT_DOUBLE_EQ(r.D(0), 3.0);
  EXPECT_THROW(tuple_sqrt(HTuple(-1), &r), HException);
  EXPECT_THROW(tuple_round(HTuple("a"), &r), HException);
}

TEST(TupleOps, Aggregates) {
  HTuple r;
  tuple_sum(HTuple::Ints({1, 2, 3}), &r);
  EXPECT_TRUE(r.IsInt(0));
  EXPECT_EQ(r.L(0), 6);
  tuple_sum(HTuple{1, 0.5}, &r);
  EXPECT_DOUBLE_EQ(r.D(0), 1.5);
  tuple_sum(HTuple(), &r);
  EXPECT_EQ(r.L(0), 0);
  tuple_mean(HTuple::Ints({1, 2}), &r);
  EXPECT_DOUBLE_EQ(r.D(0), 1.5);
  EXPECT_THROW(tuple_mean(HTuple(), &r), HException);
  tuple_min(HTuple{3, -1.5, 2}, &r);
  EXPECT_DOUBLE_EQ(r.D(0), -1.5);
  tuple_max(HTuple{3, -1.5, 2}, &r);
  EXPECT_TRUE(r.IsInt(0));
  EXPECT_EQ(r.L(0), 3);
  EXPECT_THROW(tuple_max(HTuple(), &r), HException);
  tuple_length(HTuple{1, "a"}, &r);
  EXPECT_EQ(r.L(0), 2);
}

TEST(TupleOps, SelectionAndSearch) {
  const HTuple t{10, 20, 30, 20, 30};
  HTuple r;
  tuple_select_range(t, 1, 3, &r);
  EXPECT_EQ(r, HTuple::Ints({20, 30, 20}));
  tuple_select_range(t, 1.0, 2.0, &r);  // whole reals serve as indices
  EXPECT_EQ(r, HTuple::Ints({20, 30}));
  EXPECT_THROW(tuple_select_range(t, 1.5, 2, &r), HException);
  tuple_select_range(t, 2, 1, &r);  // empty selection is allowed
  EXPECT_TRUE(r.Empty());
  EXPECT_THROW(tuple_select_range(t, 3, 5, &r), HException);
  EXPECT_THROW(tuple_select_range(t, 3, 1, &r), HException);
  tuple_select(t, HTuple::Ints({4, 0}), &r);
  EXPECT_EQ(r, HTuple::Ints({30, 10}));
  EXPECT_THROW(tuple_select(t, 5, &r), HException);
  tuple_find(t, HTuple::Ints({20, 30}), &r);
  EXPECT_EQ(r, HTuple::Ints({1, 3}));
  tuple_find(t, 20.0, &r);  // numbers compare by value
  EXPECT_EQ(r, HTuple::Ints({1, 3}));
  tuple_find(t, 99, &r);
  EXPECT_EQ(r, HTuple(-1));
  tuple_concat(HTuple(1), HTuple{"a", 2.5}, &r);
  EXPECT_EQ(r, HTuple({1, "a", 2.5}));
  tuple_gen_const(3, "x", &r);
  EXPECT_EQ(r, HTuple({"x", "x", "x"}));
  tuple_gen_const(0, 1, &r);
  EXPECT_TRUE(r.Empty());
}

TEST(TupleOps, Strings) {
  HTuple r;
  tuple_strlen(HTuple{"abc", ""}, &r);
  EXPECT_EQ(r, HTuple::Ints({3, 0}));
  tuple_split(HTuple("a,,b;c"), ",;", &r);
  EXPECT_EQ(r, HTuple({"a", "b", "c"}));
  tuple_regexp_select(HTuple{"Industrial_0-9.omc", "OCRA_A-Z+.omc", "readme"}, "\\.omc$", &r);
  EXPECT_EQ(r, HTuple({"Industrial_0-9.omc", "OCRA_A-Z+.omc"}));
  tuple_regexp_select(HTuple{"ABC", "abc", "x"}, HTuple{"^abc", "ignore_case"}, &r);
  EXPECT_EQ(r.Length(), 2);
  tuple_regexp_select(HTuple{"ABC", "x"}, HTuple{"^abc", "invert_match"}, &r);
  EXPECT_EQ(r, HTuple({"ABC", "x"}));
  EXPECT_THROW(tuple_regexp_select(HTuple("a"), "(", &r), HException);
  tuple_sort(HTuple{"b", 3, "a", -1.5, 2}, &r);
  EXPECT_EQ(r, HTuple({-1.5, 2, 3, "a", "b"}));
}

}  // namespace
}  // namespace vision
