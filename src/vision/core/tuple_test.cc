// Tuples keep all-real and all-integer contents in packed arrays and switch
// to a list of values on the first element of another type. Each case below
// drives one transition and checks the result against the values it must
// hold, element by element and type by type, plus which packed view it offers.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vision/core/tuple.h"

namespace vision {
namespace {

struct Dummy : HandleBase {
  const char* TypeName() const override { return "dummy"; }
};

enum class Packed { None, Real, Int };

void ExpectHolds(const HTuple& t, const std::vector<HValue>& want, Packed packed, const std::string& what) {
  ASSERT_EQ(t.Length(), Hlong(want.size())) << what;
  for (size_t i = 0; i < want.size(); ++i) {
    const Hlong k = Hlong(i);
    EXPECT_EQ(t[k], want[i]) << what << " element " << i;  // type and value
    EXPECT_EQ(t.IsInt(k), want[i].index() == 0) << what << " element " << i;
    EXPECT_EQ(t.IsReal(k), want[i].index() == 1) << what << " element " << i;
    EXPECT_EQ(t.IsString(k), want[i].index() == 2) << what << " element " << i;
    EXPECT_EQ(t.IsHandle(k), want[i].index() == 3) << what << " element " << i;
  }
  EXPECT_EQ(t.ToValues(), want) << what;
  EXPECT_EQ(t.AllReal(), packed == Packed::Real) << what;
  EXPECT_EQ(t.AllInt(), packed == Packed::Int) << what;
  EXPECT_EQ(t.RealSpan().size(), packed == Packed::Real ? want.size() : 0u) << what;
  EXPECT_EQ(t.IntSpan().size(), packed == Packed::Int ? want.size() : 0u) << what;
  if (packed == Packed::Real)
    for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(t.RealSpan()[i], std::get<double>(want[i])) << what;
  if (packed == Packed::Int)
    for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(t.IntSpan()[i], std::get<Hlong>(want[i])) << what;
}

TEST(TupleStorageTest, PackedAndMixedTransitions) {
  const HHandle h = std::make_shared<Dummy>();
  using V = std::vector<HValue>;
  struct Case {
    const char* what;
    std::function<HTuple()> make;
    V want;
    Packed packed;
  } cases[] = {
      {"empty", [] { return HTuple(); }, V{}, Packed::None},
      {"one real", [] { return HTuple(2.5); }, V{2.5}, Packed::Real},
      {"one integer", [] { return HTuple(7); }, V{Hlong(7)}, Packed::Int},
      {"empty takes a real", [] { return HTuple().Append(HValue(1.5)); }, V{1.5}, Packed::Real},
      {"empty takes an integer", [] { return HTuple().Append(HValue(Hlong(3))); }, V{Hlong(3)}, Packed::Int},
      {"empty takes a string", [] { return HTuple().Append(HValue(std::string("s"))); }, V{std::string("s")},
       Packed::None},
      {"reals grow", [] { return HTuple::Reals({1, 2}).Append(HValue(3.0)); }, V{1.0, 2.0, 3.0}, Packed::Real},
      {"reals take an integer", [] { return HTuple::Reals({1, 2}).Append(HValue(Hlong(3))); },
       V{1.0, 2.0, Hlong(3)}, Packed::None},
      {"integers take a real", [] { return HTuple::Ints({1, 2}).Append(HValue(0.5)); },
       V{Hlong(1), Hlong(2), 0.5}, Packed::None},
      {"reals take a string", [] { return HTuple::Reals({1}).Append(HTuple("a")); }, V{1.0, std::string("a")},
       Packed::None},
      {"integers take a handle", [h] { return HTuple::Ints({4}).Append(HTuple(h)); }, V{Hlong(4), h}, Packed::None},
      {"reals append reals", [] { return HTuple::Reals({1}).Append(HTuple::Reals({2, 3})); }, V{1.0, 2.0, 3.0},
       Packed::Real},
      {"reals append integers", [] { return HTuple::Reals({1}).Append(HTuple::Ints({2})); }, V{1.0, Hlong(2)},
       Packed::None},
      {"integers append empty", [] { return HTuple::Ints({1}).Append(HTuple()); }, V{Hlong(1)}, Packed::Int},
      {"empty appends integers", [] { return HTuple().Append(HTuple::Ints({5, 6})); }, V{Hlong(5), Hlong(6)},
       Packed::Int},
      {"mixed appends reals", [] { return HTuple("a").Append(HTuple::Reals({1})); }, V{std::string("a"), 1.0},
       Packed::None},
      {"list braces, all reals", [] { return HTuple{1.0, 2.0}; }, V{1.0, 2.0}, Packed::Real},
      {"list braces, mixed numbers", [] { return HTuple{1, 2.0}; }, V{Hlong(1), 2.0}, Packed::None},
      {"values, all reals", [] { return HTuple(V{1.0, 2.0}); }, V{1.0, 2.0}, Packed::Real},
      {"values, all integers", [] { return HTuple(V{Hlong(1), Hlong(2)}); }, V{Hlong(1), Hlong(2)}, Packed::Int},
      {"values, mixed", [] { return HTuple(V{Hlong(1), std::string("x")}); }, V{Hlong(1), std::string("x")},
       Packed::None},
      {"set a real in reals",
       [] {
         HTuple t = HTuple::Reals({1, 2});
         t.Set(1, 9.0);
         return t;
       },
       V{1.0, 9.0}, Packed::Real},
      {"set an integer in reals",
       [] {
         HTuple t = HTuple::Reals({1, 2});
         t.Set(0, Hlong(9));
         return t;
       },
       V{Hlong(9), 2.0}, Packed::None},
      {"assign a string into integers",
       [] {
         HTuple t = HTuple::Ints({1, 2});
         t[1] = HValue(std::string("z"));
         return t;
       },
       V{Hlong(1), std::string("z")}, Packed::None},
      {"assign element to element",
       [] {
         HTuple t = HTuple::Ints({1, 2});
         HTuple u = HTuple::Reals({0.5});
         t[0] = u[0];
         return t;
       },
       V{0.5, Hlong(2)}, Packed::None},
      {"cleared, then an integer",
       [] {
         HTuple t{1.5, "a"};
         t.Clear();
         return t.Append(HValue(Hlong(2)));
       },
       V{Hlong(2)}, Packed::Int},
      {"slice of reals", [] { return HTuple::Reals({1, 2, 3}).Slice(1, 3); }, V{2.0, 3.0}, Packed::Real},
      {"real slice of mixed", [] { return HTuple{1.0, 2.0, "a"}.Slice(0, 2); }, V{1.0, 2.0}, Packed::Real},
      {"empty slice", [] { return HTuple::Ints({1}).Slice(1, 1); }, V{}, Packed::None},
      {"reals times integers", [] { return HTuple::Reals({1.5, 2}) * HTuple::Ints({2, 3}); }, V{3.0, 6.0},
       Packed::Real},
      {"integers divided", [] { return HTuple::Ints({7, -7}) / HTuple(2); }, V{Hlong(3), Hlong(-3)}, Packed::Int},
      {"integer minus real broadcast", [] { return HTuple(1) - HTuple::Reals({0.5, 2}); }, V{0.5, -1.0},
       Packed::Real},
      {"negated integers", [] { return -HTuple::Ints({1, -2}); }, V{Hlong(-1), Hlong(2)}, Packed::Int},
      {"mixed arithmetic that ends all real", [] { return HTuple{1, 2.0} * HTuple(0.5); }, V{0.5, 1.0},
       Packed::Real},
      {"integers plus a string", [] { return HTuple::Ints({1, 2}) + HTuple("a"); },
       V{std::string("1a"), std::string("2a")}, Packed::None},
      {"string plus an integer", [] { return HTuple("a") + HTuple(1); }, V{std::string("a1")}, Packed::None},
      {"integers plus one integer", [] { return HTuple::Ints({1, 2, 3}) + HTuple(2); },
       V{Hlong(3), Hlong(4), Hlong(5)}, Packed::Int},
      {"real divided by an integer", [] { return HTuple(7.0) / HTuple(2); }, V{3.5}, Packed::Real},
      {"nothing plus one", [] { return HTuple() + HTuple(1); }, V{}, Packed::None},
  };
  for (const Case& c : cases) ExpectHolds(c.make(), c.want, c.packed, c.what);
}

TEST(TupleStorageTest, CopiesErrorsAndComparisonAgreeAcrossStorage) {
  // A copy is independent, whichever storage either side ends up in.
  const HTuple reals = HTuple::Reals({1, 2, 3});
  HTuple copy = reals;
  copy.Set(0, 5.0);
  copy.Append(HTuple("x"));
  EXPECT_EQ(reals, HTuple::Reals({1, 2, 3}));
  EXPECT_TRUE(reals.AllReal());
  EXPECT_EQ(copy.ToString(), "[5, 2, 3, 'x']");

  // The same contents packed and unpacked: equal, same text, same errors.
  HTuple unpacked = HTuple{1.0, "a"};
  unpacked.Set(1, 2.0);  // all reals again, kept as a list of values
  const HTuple packed = HTuple::Reals({1, 2});
  ASSERT_FALSE(unpacked.AllReal());
  ASSERT_TRUE(packed.AllReal());
  EXPECT_EQ(unpacked, packed);
  EXPECT_EQ(packed, HTuple::Ints({1, 2}));  // numbers compare by value
  EXPECT_FALSE(packed == HTuple::Reals({1, 2, 3}));
  EXPECT_EQ(unpacked.ToString(), packed.ToString());
  EXPECT_EQ((unpacked * HTuple(2)).ToString(), (packed * HTuple(2)).ToString());
  for (const HTuple* t : {static_cast<const HTuple*>(&unpacked), &packed}) {
    auto code = [](const std::function<void()>& f) {
      try {
        f();
      } catch (const HException& e) {
        return e.ErrorCode();
      }
      return 0;
    };
    const std::string what = t == &packed ? "packed" : "unpacked";
    EXPECT_EQ(code([&] { t->D(2); }), kErrWrongParamCount) << what;  // past the end
    EXPECT_EQ(code([&] { (void)(*t)[-1]; }), kErrWrongParamCount) << what;
    EXPECT_EQ(code([&] { t->IsReal(2); }), kErrWrongParamCount) << what;
    EXPECT_EQ(code([&] { t->S(0); }), kErrWrongParamType) << what;
    EXPECT_EQ(code([&] { t->H(1); }), kErrWrongParamType) << what;
    EXPECT_EQ(code([&] { *t / HTuple(0.0); }), kErrWrongParamValue) << what;
    EXPECT_EQ(code([&] { t->Slice(1, 3); }), kErrWrongParamCount) << what;
    EXPECT_EQ(t->L(1), 2);
    EXPECT_EQ(t->ToLVec(), (std::vector<Hlong>{1, 2}));
  }
  HTuple ints = HTuple::Ints({1});
  EXPECT_THROW(ints.Set(1, Hlong(2)), HException);
  EXPECT_THROW(ints[1] = HValue(2.0), HException);
  EXPECT_THROW(HTuple::Ints({1, 2}) / HTuple::Ints({1, 0}), HException);
  EXPECT_THROW((HTuple{1, 2} + HTuple{1, 2, 3}), HException);  // lengths neither equal nor one
  EXPECT_THROW(HTuple("x").D(), HException);
}

TEST(TupleStorageTest, ClearedHandlesAreRefused) {
  auto h = std::make_shared<Dummy>();
  HTuple t{HHandle(h)};
  EXPECT_EQ(HandleCast<Dummy>(t, "op"), h.get());
  h->Clear();
  EXPECT_THROW(HandleCast<Dummy>(t, "op"), HException);
  EXPECT_THROW(HandleCast<Dummy>(HTuple(3), "op"), HException);
}

}  // namespace
}  // namespace vision
