#pragma once
// Format rules of the recognition service: which classifier reads a character
// position, which candidates survive, and literal positions.
#include <optional>
#include <string>
#include <vector>

#include "vision/core/tuple.h"

namespace velmora {

enum class CandidateFilter { None, Letters, Specials };

struct FormatRule {
  int slot = 0;                    // classifier slot: 0 full, 1 digits, 2 letters
  CandidateFilter filter = CandidateFilter::None;
  std::optional<char> literal;     // the position's character, whatever is read
};

// Rule for the 0-based character position j of a format string.
FormatRule FormatRuleAt(const std::string& format, size_t j, bool format_flag);

struct Candidate {
  std::string klass;
  double confidence = 0;
};

// The candidate list of one character from the classifier's answer, best
// first: literals replace the first class (confidence 1.0); otherwise classes
// with a high-bit first byte are skipped and the rule's filter is applied,
// and an empty result becomes the single candidate "_" with confidence 0.
std::vector<Candidate> BuildCandidates(const FormatRule& rule, const vision::HTuple& classes,
                                       const vision::HTuple& confidences);

}  // namespace velmora
