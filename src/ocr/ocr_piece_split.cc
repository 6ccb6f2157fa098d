#include "ocr/ocr_piece_split.h"

#include <algorithm>
#include <cstdlib>

#include <opencv2/core.hpp>

namespace velmora {

using vision::Region;
using vision::Run;

namespace {

struct Box {
  int r1 = 0, c1 = 0, r2 = -1, c2 = -1;
  int Width() const { return c2 - c1 + 1; }
  int Height() const { return r2 - r1 + 1; }
};

Box BoxOf(const Region& r) {
  Box b;
  if (!r.Empty()) r.BoundingBox(&b.r1, &b.c1, &b.r2, &b.c2);
  return b;
}

// The line's pitch: the median width of the pieces at least half as high as
// the median piece (points, hyphens and colons left out).
double LinePitch(const std::vector<PieceReading>& pieces) {
  std::vector<int> heights;
  for (const auto& p : pieces) heights.push_back(BoxOf(p.region).Height());
  if (heights.empty()) return 0;
  std::vector<int> h = heights;
  std::nth_element(h.begin(), h.begin() + long(h.size() / 2), h.end());
  const int median_h = h[h.size() / 2];
  std::vector<int> widths;
  for (const auto& p : pieces) {
    const Box b = BoxOf(p.region);
    if (2 * b.Height() >= median_h) widths.push_back(b.Width());
  }
  if (widths.empty()) return 0;
  std::nth_element(widths.begin(), widths.begin() + long(widths.size() / 2), widths.end());
  return widths[widths.size() / 2];
}

// The piece as it stands, or its parts where cuts at its narrowest columns
// read every part more surely: two parts, or three (three touching
// characters) where the least sure of three beats the least sure of two.
void SplitPiece(PieceReading piece, double pitch, const PieceClassifier& classify,
                const PieceSplitOptions& o, std::vector<PieceReading>* out) {
  const Box b = BoxOf(piece.region);
  const int w = b.Width();
  const int min_part = std::max(3, int(o.min_part * pitch + 0.5));
  if (pitch <= 0 || w < 2 * min_part || w <= o.wide * pitch || piece.Best() >= o.doubtful) {
    out->push_back(std::move(piece));
    return;
  }
  // Column profile: print pixels per column, and the strokes a column
  // crosses (its vertical runs).
  std::vector<int> profile(size_t(w), 0), strokes(size_t(w), 0);
  {
    const int h = b.Height();
    cv::Mat mask = piece.region.ToMask(h, w, b.r1, b.c1);
    for (int x = 0; x < w; ++x) {
      bool in = false;
      for (int y = 0; y < h; ++y) {
        const bool on = mask.at<uint8_t>(y, x) != 0;
        profile[size_t(x)] += on;
        strokes[size_t(x)] += on && !in;
        in = on;
      }
    }
  }
  // The deepest local minima inside (each part at least min_part wide) where
  // the column crosses few strokes: characters that touch meet at one point
  // (or two), while a column through one character (the bowl of a B, the
  // middle of an 0) crosses its bars.
  std::vector<std::pair<int, int>> minima;  // (count, column offset)
  for (int x = min_part; x <= w - min_part; ++x) {
    const int v = profile[size_t(x)];
    if (strokes[size_t(x)] > o.max_strokes) continue;
    const int left = profile[size_t(x - 1)], right = x + 1 < w ? profile[size_t(x + 1)] : v;
    if (v <= left && v <= right) minima.emplace_back(v, x);
  }
  std::sort(minima.begin(), minima.end());
  std::vector<int> cols;
  for (const auto& [v, x] : minima) {
    if (int(cols.size()) >= o.tries) break;
    bool near = false;
    for (int c : cols) near = near || std::abs(c - x) < 2;
    if (!near) cols.push_back(x);
  }
  if (cols.empty()) {
    out->push_back(std::move(piece));
    return;
  }
  std::sort(cols.begin(), cols.end());
  // Bounds of the parts: the piece's edges and the cut columns; each part
  // between two bounds is classified once.
  std::vector<int> at{0};
  at.insert(at.end(), cols.begin(), cols.end());
  at.push_back(w);
  const size_t n = at.size();
  std::vector<std::vector<PieceReading>> part(n, std::vector<PieceReading>(n));
  std::vector<std::vector<bool>> done(n, std::vector<bool>(n, false));
  auto get = [&](size_t i, size_t j) -> const PieceReading* {
    if (at[j] - at[i] < min_part) return nullptr;
    if (!done[i][j]) {
      done[i][j] = true;
      Region rest, left, mid;
      SplitRegionAtColumn(piece.region, b.c1 + at[i], &left, &rest);
      SplitRegionAtColumn(rest, b.c1 + at[j], &mid, &left);
      part[i][j].region = std::move(mid);
      if (!part[i][j].region.Empty()) classify(&part[i][j]);
    }
    return part[i][j].region.Empty() ? nullptr : &part[i][j];
  };
  // The least sure part of the best cut into two and into three.
  double best2 = -1, best3 = -1;
  size_t a2 = 0, a3 = 0, b3 = 0;
  for (size_t i = 1; i + 1 < n; ++i) {
    const PieceReading *l = get(0, i), *r = l ? get(i, n - 1) : nullptr;
    if (!l || !r) continue;
    const double score = std::min(l->Best(), r->Best());
    if (score > best2) best2 = score, a2 = i;
  }
  if (w > 2 * o.wide * pitch)
    for (size_t i = 1; i + 2 < n; ++i)
      for (size_t j = i + 1; j + 1 < n; ++j) {
        const PieceReading *l = get(0, i), *m = l ? get(i, j) : nullptr;
        const PieceReading* r = m ? get(j, n - 1) : nullptr;
        if (!r) continue;
        const double score = std::min({l->Best(), m->Best(), r->Best()});
        if (score > best3) best3 = score, a3 = i, b3 = j;
      }
  const double needed = std::max(o.sure, piece.Best() + o.gain);
  if (best3 > needed && best3 > best2 + o.gain) {
    out->push_back(std::move(part[0][a3]));
    out->push_back(std::move(part[a3][b3]));
    out->push_back(std::move(part[b3][n - 1]));
  } else if (best2 > needed) {
    out->push_back(std::move(part[0][a2]));
    out->push_back(std::move(part[a2][n - 1]));
  } else {
    out->push_back(std::move(piece));
  }
}

}  // namespace

void SplitRegionAtColumn(const Region& region, int col, Region* left, Region* right) {
  std::vector<Run> l, r;
  for (const Run& run : region.Runs()) {
    if (run.cb < col) l.push_back({run.row, run.cb, std::min(run.ce, col - 1)});
    if (run.ce >= col) r.push_back({run.row, std::max(run.cb, col), run.ce});
  }
  *left = Region::FromSortedRuns(std::move(l));
  *right = Region::FromSortedRuns(std::move(r));
}

char KindByNeighbours(const std::function<char(size_t)>& kind, size_t i, size_t b, size_t e,
                      char* left, char* right) {
  *left = *right = 0;
  for (size_t k = i; k > b && !*left;) *left = kind(--k);
  for (size_t k = i + 1; k < e && !*right; ++k) *right = kind(k);
  if (*left && *right) return *left == *right ? *left : 0;
  if (!*left && !*right) return 0;
  return SharedKind(kind, b, e);
}

void RunAround(const std::function<bool(size_t)>& in_run, size_t n, size_t i, size_t* b, size_t* e) {
  *b = i;
  *e = i + 1;
  while (*b > 0 && in_run(*b - 1)) --*b;
  while (*e < n && in_run(*e)) ++*e;
}

char SharedKind(const std::function<char(size_t)>& kind, size_t from, size_t to) {
  char s = 0;
  for (size_t k = from; k < to; ++k) {
    const char c = kind(k);
    if (!c) continue;
    if (s && s != c) return 0;
    s = c;
  }
  return s;
}

void PutFirst(std::vector<Candidate>* list, char to) {
  const std::string name(1, to);
  auto it = std::find_if(list->begin(), list->end(), [&](const Candidate& c) { return c.klass == name; });
  if (it != list->end()) std::iter_swap(list->begin(), it);
  else if (!list->empty()) list->front().klass = name;
}

void ReadZeroAndOhByNeighbours(std::string* text, std::vector<std::vector<Candidate>>* candidates,
                               double sure) {
  std::string& t = *text;
  const size_t n = t.size();
  if (candidates->size() != n) return;
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
  auto twin = [](char c) { return c == 'O' || c == '0'; };
  // 'D' a digit, 'L' a letter, 0 nothing (an O or 0, a special).
  auto kind = [&](size_t k) -> char {
    if (twin(t[k])) return 0;
    return digit(t[k]) ? 'D' : letter(t[k]) ? 'L' : 0;
  };
  std::string read = t;
  for (size_t i = 0; i < n; ++i) {
    if (!twin(t[i]) || (*candidates)[i].empty() || (*candidates)[i][0].confidence >= sure) continue;
    size_t b, e;
    RunAround([&](size_t k) { return digit(t[k]) || letter(t[k]); }, n, i, &b, &e);
    char left, right;
    const char want = KindByNeighbours(kind, i, b, e, &left, &right);
    if (want) read[i] = want == 'D' ? '0' : 'O';
  }
  for (size_t i = 0; i < n; ++i)
    if (read[i] != t[i]) PutFirst(&(*candidates)[i], read[i]);
  t = read;
}

void ReadElInCodes(std::string* text, std::vector<std::vector<Candidate>>* candidates,
                         double sure) {
  std::string& t = *text;
  const size_t n = t.size();
  if (candidates->size() != n) return;
  auto lower = [](char c) { return c >= 'a' && c <= 'z'; };
  auto code = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); };
  for (size_t b = 0; b < n;) {
    if (!lower(t[b]) && !code(t[b])) {
      ++b;
      continue;
    }
    size_t e = b;
    bool other_lower = false, codes = false, capitals = false;
    for (; e < n && (lower(t[e]) || code(t[e])); ++e) {
      other_lower = other_lower || (lower(t[e]) && t[e] != 'l');
      codes = codes || code(t[e]);
      capitals = capitals || (t[e] >= 'A' && t[e] <= 'Z');
    }
    const char to = capitals ? 'I' : '1';
    if (codes && !other_lower)
      for (size_t i = b; i < e; ++i) {
        auto& list = (*candidates)[i];
        if (t[i] != 'l' || list.empty() || list.front().confidence >= sure) continue;
        t[i] = to;
        PutFirst(&list, to);
      }
    b = e;
  }
}

void ReadLettersAmongDigits(std::vector<PieceReading>* pieces, const PieceClassifier& digits,
                            double sure) {
  auto& p = *pieces;
  auto first = [&](size_t k) { return p[k].classes.empty() || p[k].classes[0].size() != 1 ? '\0' : p[k].classes[0][0]; };
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
  for (size_t i = 0; i < p.size(); ++i) {
    const char c = first(i);
    if (!(c >= 'A' && c <= 'Z') || c == 'O' || c == 'I' || p[i].Best() >= sure) continue;
    size_t b, e;
    RunAround([&](size_t k) { return digit(first(k)) || letter(first(k)); }, p.size(), i, &b, &e);
    bool only_digits = e - b > 1;
    for (size_t k = b; k < e; ++k) only_digits = only_digits && (k == i || digit(first(k)));
    if (!only_digits) continue;
    PieceReading again;
    again.region = p[i].region;
    digits(&again);
    if (!again.classes.empty()) {
      p[i].classes = std::move(again.classes);
      p[i].confidences = std::move(again.confidences);
    }
  }
}

std::vector<PieceReading> SplitPiecesByRecognition(std::vector<PieceReading> pieces,
                                                   const PieceClassifier& classify,
                                                   const PieceSplitOptions& options) {
  const double pitch = LinePitch(pieces);
  std::vector<PieceReading> out;
  out.reserve(pieces.size() + 4);
  for (auto& p : pieces) SplitPiece(std::move(p), pitch, classify, options, &out);
  // A round character whose thin top and bottom the threshold lost (the 0
  // of a high-contrast serif face) comes as two arcs read "(" and ")": an
  // empty pair of brackets, which codes do not hold, is read as one piece
  // when it reads surely so.
  for (size_t i = 0; i + 1 < out.size(); ++i) {
    if (out[i].classes.empty() || out[i + 1].classes.empty() || out[i].classes[0] != "(" ||
        out[i + 1].classes[0] != ")")
      continue;
    // Together no wider than a round letter is high.
    PieceReading both;
    both.region = out[i].region.Union(out[i + 1].region);
    const Box u = BoxOf(both.region);
    if (u.Width() > 1.2 * u.Height()) continue;
    classify(&both);
    if (both.Best() < options.sure) continue;
    out[i] = std::move(both);
    out.erase(out.begin() + long(i) + 1);
  }
  return out;
}

}  // namespace velmora
