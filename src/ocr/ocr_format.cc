#include "ocr/ocr_format.h"

namespace velmora {

namespace {
bool IsLetter(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }
}  // namespace

FormatRule FormatRuleAt(const std::string& format, size_t j, bool format_flag) {
  FormatRule r;
  if (j >= format.size()) return r;
  const char b = format[j];
  switch (b) {
    case '#': break;
    case '$': r.slot = format_flag ? 1 : 0; break;
    case '?':
      r.slot = format_flag ? 2 : 0;
      if (format_flag) r.filter = CandidateFilter::Letters;
      break;
    case '@': r.slot = format_flag ? 2 : 0; break;
    case '+':
      r.slot = format_flag ? 2 : 0;
      if (format_flag) r.filter = CandidateFilter::Specials;
      break;
    default:
      // A literal belongs to the filters, which apply only with the flag set.
      if (format_flag) r.literal = b;
      break;
  }
  return r;
}

std::vector<Candidate> BuildCandidates(const FormatRule& rule, const vision::HTuple& classes,
                                       const vision::HTuple& confidences) {
  std::vector<Candidate> out;
  if (rule.literal) {
    for (vision::Hlong i = 0; i < classes.Length(); ++i)
      out.push_back({classes.S(i), confidences.D(i)});
    const Candidate lit{std::string(1, *rule.literal), 1.0};
    if (out.empty()) out.push_back(lit);
    else out.front() = lit;
    return out;
  }
  for (vision::Hlong i = 0; i < classes.Length(); ++i) {
    const std::string& k = classes.S(i);
    const unsigned char c = k.empty() ? 0 : static_cast<unsigned char>(k[0]);
    if (c & 0x80) continue;
    if (rule.filter == CandidateFilter::Letters && !IsLetter(c)) continue;
    if (rule.filter == CandidateFilter::Specials && (IsLetter(c) || IsDigit(c))) continue;
    out.push_back({k, confidences.D(i)});
  }
  if (out.empty()) out.push_back({"_", 0.0});
  return out;
}

}  // namespace velmora
