#include "ocr/ocr_text_window.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

// Look-alikes read by their neighbours: each text as read, then as answered.
TEST(TextWindowLookAlikes, AreReadAsTheirNeighbours) {
  const struct {
    const char* read;
    const char* want;
  } cases[] = {
      {"3O4", "304"},                // a letter between digits
      {"8U1", "801"},
      {"REF#O185", "REF#0185"},      // at a run's end, the run all digits
      {"2026.1O.O5", "2026.10.05"},  // look-alike letters beside look-alike digits
      {"3718.OO.96", "3718.00.96"},  // a run of look-alikes goes with the line
      {"EXP42/17OG", "EXP42/1706"},
      {"2O2B", "2028"},
      {"L0T", "LOT"},                // a zero between letters
      {"LOT", "LOT"},
      {"EXPI2/5342", "EXPI2/5342"},  // a letter and a digit beside it: kept
      {"EXP12/5342", "EXP12/5342"},  // digits never become letters ...
      {"MN6M1", "MN6M1"},
      {"AC8FIJQ3", "AC8FIJQ3"},
      {"X0", "X0"},                  // ... and a zero only between two letters
      {"AOB", "AOB"},                // look-alike letters tell nothing
      {"O", "O"},
      {"O=253*58", "O=253*58"},      // a run of one: no run, no line to go with
      {"OB.S", "OB.S"},              // the line tells nothing either
      {"LOT4B-0O12", "LOT4B-0012"},  // a run of both kinds: its end kept
      {"_O5", "_05"},
  };
  for (const auto& c : cases) {
    std::string text = c.read;
    std::vector<std::vector<Candidate>> cands;
    for (char ch : text) cands.push_back({{std::string(1, ch), 0.8}, {"Q", 0.1}});
    ReadLookAlikesByNeighbours(&text, &cands);
    EXPECT_EQ(text, c.want) << c.read;
    for (size_t i = 0; i < text.size(); ++i) {
      EXPECT_EQ(cands[i].front().klass, std::string(1, text[i])) << c.read << " " << i;
      EXPECT_DOUBLE_EQ(cands[i].front().confidence, 0.8) << c.read << " " << i;
    }
  }
}

// A twin among the lower candidates moves up with its own confidence; a
// list of another size than the text leaves both alone.
TEST(TextWindowLookAlikes, CandidatesFollowTheText) {
  std::string text = "3O4";
  std::vector<std::vector<Candidate>> cands = {{{"3", 0.9}}, {{"O", 0.6}, {"0", 0.3}}, {{"4", 0.9}}};
  ReadLookAlikesByNeighbours(&text, &cands);
  EXPECT_EQ(text, "304");
  ASSERT_EQ(cands[1].size(), 2u);
  EXPECT_EQ(cands[1][0].klass, "0");
  EXPECT_DOUBLE_EQ(cands[1][0].confidence, 0.3);
  EXPECT_EQ(cands[1][1].klass, "O");
  cands.pop_back();
  text = "3O4";
  ReadLookAlikesByNeighbours(&text, &cands);
  EXPECT_EQ(text, "3O4");
  EXPECT_TRUE(ReadsLookAlikesByNeighbours("DotPrint"));
  EXPECT_FALSE(ReadsLookAlikesByNeighbours("Industrial"));
}

}  // namespace
}  // namespace velmora
