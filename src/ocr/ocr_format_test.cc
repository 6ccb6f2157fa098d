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
  };
  for (const auto& c : cases) {
    const FormatRule r = FormatRuleAt(c.format, c.j, c.flag);
    SCOPED_TRACE(c.format + " at " + std::to_string(c.j) + (c.flag ? " flag" : " no flag"));
    EXPECT_EQ(r.slot, c.slot);
    EXPECT_EQ(r.filter, c.filter);
    EXPECT_EQ(r.literal, c.literal);
  }
}

// Each candidate list as (class, confidence), best first.
TEST(OcrFormat, CandidatesUnderEachRule) {
  const HTuple classes = HTuple::Strings({"8", "B", "-", "\x80x", "b", "/"});
  const HTuple conf = HTuple::Reals({0.5, 0.2, 0.1, 0.09, 0.06, 0.05});
  const HTuple two = HTuple::Strings({"A", "7"}), two_conf = HTuple::Reals({0.7, 0.3});
  using List = std::vector<std::pair<std::string, double>>;
  struct Case {
    const char* name;
    FormatRule rule;
    const HTuple *classes, *conf;
    List expect;
  };
  const Case cases[] = {
      {"none drops high-bit classes", {}, &classes, &conf, {{"8", 0.5}, {"B", 0.2}, {"-", 0.1}, {"b", 0.06}, {"/", 0.05}}},
      {"letters", {2, CandidateFilter::Letters, {}}, &classes, &conf, {{"B", 0.2}, {"b", 0.06}}},
      {"specials", {2, CandidateFilter::Specials, {}}, &classes, &conf, {{"-", 0.1}, {"/", 0.05}}},
      {"nothing left: underscore", {2, CandidateFilter::Specials, {}}, &two, &two_conf, {{"_", 0.0}}},
      // The rest of the classifier's list stays behind the literal.
      {"literal replaces the first", {0, CandidateFilter::None, '-'}, &two, &two_conf, {{"-", 1.0}, {"7", 0.3}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    List got;
    for (const Candidate& k : BuildCandidates(c.rule, *c.classes, *c.conf)) got.emplace_back(k.klass, k.confidence);
    EXPECT_EQ(got, c.expect);
  }
}

}  // namespace
}  // namespace velmora
