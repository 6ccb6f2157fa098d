#include "ocr/ocr_format.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using vision::HTuple;

TEST(OcrFormat, RuleOfEachFormatByte) {
  struct Case {
    std::string format;
    size_t j;
    bool flag;
    int slot;
    CandidateFilter filter;
    std::optional<char> literal;
  };
  const Case cases[] = {
      {"#", 0, true, 0, CandidateFilter::None, {}},
      {"$", 0, true, 1, CandidateFilter::None, {}},
      {"$", 0, false, 0, CandidateFilter::None, {}},
      {"?", 0, true, 2, CandidateFilter::Letters, {}},
      {"?", 0, false, 0, CandidateFilter::None, {}},
      {"@", 0, true, 2, CandidateFilter::None, {}},
      {"@", 0, false, 0, CandidateFilter::None, {}},
      {"+", 0, true, 2, CandidateFilter::Specials, {}},
      {"+", 0, false, 0, CandidateFilter::None, {}},
      {"$$-$$", 2, true, 0, CandidateFilter::None, '-'},
      {"$$-$$", 3, true, 1, CandidateFilter::None, {}},
      {"$$", 2, true, 0, CandidateFilter::None, {}},  // beyond the string
      {"", 0, true, 0, CandidateFilter::None, {}},
  };
  for (const auto& c : cases) {
    const FormatRule r = FormatRuleAt(c.format, c.j, c.flag);
    SCOPED_TRACE(c.format + " at " + std::to_string(c.j) + (c.flag ? " flag" : " no flag"));
    EXPECT_EQ(r.slot, c.slot);
    EXPECT_EQ(r.filter, c.filter);
    EXPECT_EQ(r.literal, c.literal);
  }
}

TEST(OcrFormat, CandidateFilters) {
  const HTuple classes = HTuple::Strings({"8", "B", "-", "\x80x", "b", "/"});
  const HTuple conf = HTuple::Reals({0.5, 0.2, 0.1, 0.09, 0.06, 0.05});
  struct Case {
    const char* name;
    FormatRule rule;
    std::vector<std::string> expect;
  };
  const Case cases[] = {
      {"none drops high-bit classes", {}, {"8", "B", "-", "b", "/"}},
      {"letters", {2, CandidateFilter::Letters, {}}, {"B", "b"}},
      {"specials", {2, CandidateFilter::Specials, {}}, {"-", "/"}},
  };
  for (const auto& c : cases) {
    const auto got = BuildCandidates(c.rule, classes, conf);
    std::vector<std::string> names;
    for (const auto& g : got) names.push_back(g.klass);
    EXPECT_EQ(names, c.expect) << c.name;
  }
  // Confidences travel with their classes.
  const auto letters = BuildCandidates({2, CandidateFilter::Letters, {}}, classes, conf);
  EXPECT_DOUBLE_EQ(letters[1].confidence, 0.06);
}

TEST(OcrFormat, NothingLeftGivesUnderscoreAndLiteralReplacesFirst) {
  const HTuple classes = HTuple::Strings({"A", "7"});
  const HTuple conf = HTuple::Reals({0.7, 0.3});
  const auto none = BuildCandidates({2, CandidateFilter::Specials, {}}, classes, conf);
  ASSERT_EQ(none.size(), 1u);
  EXPECT_EQ(none[0].klass, "_");
  EXPECT_EQ(none[0].confidence, 0.0);

  const auto lit = BuildCandidates({0, CandidateFilter::None, '-'}, classes, conf);
  ASSERT_EQ(lit.size(), 2u);
  EXPECT_EQ(lit[0].klass, "-");
  EXPECT_EQ(lit[0].confidence, 1.0);
  EXPECT_EQ(lit[1].klass, "7");  // the rest of the classifier's list stays
}

}  // namespace
}  // namespace velmora
