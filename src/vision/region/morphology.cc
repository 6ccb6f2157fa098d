// Morphology on runs (rectangles and discs), skeleton and distance transform.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <optional>

#include <opencv2/imgproc.hpp>

#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace vision {

using detail::GrowRuns;
using detail::RegionRefs;
using detail::RegionsOf;
using detail::ShiftRows;

namespace {

// Union of the region shifted down by 0..n-1 rows, by doubling: O(runs log n).
Region UnionOfShifts(const Region& r, int n) {
  Region y = r;
  int covered = 1;
  while (covered * 2 <= n) {
    y = y.Union(ShiftRows(y, covered));
    covered *= 2;
  }
  if (covered < n) y = y.Union(ShiftRows(y, n - covered));
  return y;
}

// Intersection of the region shifted up by 0..n-1 rows.
Region IntersectionOfShifts(const Region& r, int n) {
  Region y = r;
  int covered = 1;
  while (covered * 2 <= n && !y.Empty()) {
    y = y.Intersection(ShiftRows(y, -covered));
    covered *= 2;
  }
  if (covered < n && !y.Empty()) y = y.Intersection(ShiftRows(y, -(n - covered)));
  return y;
}

// The rectangle reaches (w-1)/2 columns left and w/2 right of its reference
// point, and (h-1)/2 rows up and h/2 down.
Region DilateRect(const Region& r, int w, int h) {
  if (r.Empty()) return r;
  Region g = GrowRuns(r, (w - 1) / 2, w / 2);
  return ShiftRows(UnionOfShifts(g, h), -((h - 1) / 2));
}

Region ErodeRect(const Region& r, int w, int h) {
  if (r.Empty()) return r;
  Region g = GrowRuns(r, -((w - 1) / 2), -(w / 2));
  return ShiftRows(IntersectionOfShifts(g, h), (h - 1) / 2);
}

// ---- Line elements (one row or one column): openings and closings act on
// each row or column alone. A closing fills the gaps shorter than the line
// between two pixels; an opening keeps the stretches at least as long.

Region CloseRows(const Region& r, int w) {
  std::vector<Run> runs;
  runs.reserve(r.Runs().size());
  for (const Run& x : r.Runs()) {
    if (!runs.empty() && runs.back().row == x.row && int64_t(x.cb) - runs.back().ce - 1 <= w - 1)
      runs.back().ce = x.ce;
    else
      runs.push_back(x);
  }
  return Region::FromSortedRuns(std::move(runs));
}

Region OpenRows(const Region& r, int w) {
  std::vector<Run> runs;
  for (const Run& x : r.Runs())
    if (int64_t(x.ce) - x.cb + 1 >= w) runs.push_back(x);
  return Region::FromSortedRuns(std::move(runs));
}

// Columns on a raster of the region's box (both results stay inside it):
// the rows are swept once, and only where a column's stretch starts or ends
// is anything looked up, 64 columns at a time.
std::optional<Region> ColumnLineOp(const Region& r, int h, bool close) {
  if (r.Empty()) return r;
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  const int64_t rows = int64_t(r2) - r1 + 1, cols = int64_t(c2) - c1 + 1;
  if (rows * cols > (int64_t(1) << 26)) return std::nullopt;  // sparse: runs do it
  detail::BitRaster img = detail::BitRaster::Of(r, int(rows), int(cols), r1, c1);
  const int nw = img.words;
  // Per column: the first row of the current stretch (opening) or of the
  // current gap after a pixel (closing); -1 before the column's first pixel.
  std::vector<int> mark(size_t(nw) * 64, -1);
  std::vector<uint64_t> prev(size_t(nw), 0), cur(size_t(nw), 0);
  for (int y = 0; y <= int(rows); ++y) {
    for (int k = 0; k < nw; ++k) cur[size_t(k)] = y < rows ? img.Row(y)[k] : 0;
    for (int k = 0; k < nw; ++k) {
      const uint64_t p = prev[size_t(k)], c = cur[size_t(k)];
      if (p == c) continue;
      for (uint64_t starts = c & ~p; starts; starts &= starts - 1) {
        const int x = 64 * k + std::countr_zero(starts);
        int& m = mark[size_t(x)];
        if (close) {
          // A gap of y - m rows closes here; fill it when shorter than h.
          if (m >= 0 && y - m <= h - 1)
            for (int g = m; g < y; ++g) img.Row(g)[k] |= uint64_t(1) << (x % 64);
        } else {
          m = y;
        }
      }
      for (uint64_t ends = p & ~c; ends; ends &= ends - 1) {
        const int x = 64 * k + std::countr_zero(ends);
        int& m = mark[size_t(x)];
        if (close) {
          m = y;
        } else if (y - m < h) {
          for (int g = m; g < y; ++g) img.Row(g)[k] &= ~(uint64_t(1) << (x % 64));
        }
      }
    }
    prev.swap(cur);
  }
  return img.ToRegion();
}

void RectSize(const HTuple& width, const HTuple& height, const char* op, int* w, int* h) {
  Hlong ww = ParamInt(width, op, "Width"), hh = ParamInt(height, op, "Height");
  if (ww < 1 || hh < 1 || ww > (1 << 16) || hh > (1 << 16))
    throw HException(op, "Wrong size of the structuring rectangle", kErrWrongParamValue);
  *w = int(ww);
  *h = int(hh);
}

// One row of a structuring element: columns lo..hi at row offset dr.
struct ElementRow { int dr, lo, hi; };

// The disc's rows. A radius like 1.5 or 3.5 gives an odd diameter centred on
// the reference point (pixel centres within the radius); an integer radius
// gives an even diameter whose centre lies half a pixel right of and below the
// reference point, the translation the reference warns about for such radii.
std::vector<ElementRow> DiscRows(const HTuple& radius, const char* op) {
  double r = ParamReal(radius, op, "Radius");
  if (r < 0.5 || r > 4096)
    throw HException(op, "Wrong value of Radius: 0.5 or more expected", kErrWrongParamValue);
  const bool even = std::fabs(r - std::round(r)) < 1e-9;
  const double c = even ? 0.5 : 0.0;
  const int k = int(std::ceil(r + 1));
  std::vector<ElementRow> rows;
  for (int dr = -k; dr <= k; ++dr) {
    double y = dr - c, rest = r * r - y * y + 1e-9;
    if (rest < 0) continue;
    double half = std::sqrt(rest);
    int lo = int(std::ceil(c - half)), hi = int(std::floor(c + half));
    if (lo <= hi) rows.push_back({dr, lo, hi});
  }
  return rows;
}

Region DilateDisc(const Region& r, const std::vector<ElementRow>& disc) {
  if (r.Empty()) return r;
  // Union of the region's rows widened by each element row, merged pairwise.
  std::vector<Region> parts;
  for (const ElementRow& e : disc) parts.push_back(ShiftRows(GrowRuns(r, -e.lo, e.hi), e.dr));
  while (parts.size() > 1) {
    std::vector<Region> next;
    for (size_t i = 0; i + 1 < parts.size(); i += 2) next.push_back(parts[i].Union(parts[i + 1]));
    if (parts.size() % 2) next.push_back(std::move(parts.back()));
    parts = std::move(next);
  }
  return std::move(parts[0]);
}

Region ErodeDisc(const Region& r, const std::vector<ElementRow>& disc) {
  if (r.Empty()) return r;
  // A pixel stays when, for every element row, row + dr holds columns
  // col + lo .. col + hi.
  std::optional<Region> y;
  for (const ElementRow& e : disc) {
    Region part = ShiftRows(GrowRuns(r, e.lo, -e.hi), -e.dr);
    y = y ? y->Intersection(part) : std::move(part);
    if (y->Empty()) break;
  }
  return y ? std::move(*y) : Region();
}

// ---- Discs on 64-pixel words, for regions that fill their box densely.

// Bit x of the result is bit x + j of the row (j in -63..63), zeros shifted in.
inline uint64_t ShiftedWord(const uint64_t* row, int k, int nw, int j) {
  if (j == 0) return row[k];
  if (j > 0) return (row[k] >> j) | (k + 1 < nw ? row[k + 1] << (64 - j) : 0);
  return (row[k] << -j) | (k > 0 ? row[k - 1] >> (64 + j) : 0);
}

// Every row with pixel x replaced by the AND (erode) or the OR of its pixels
// x + lo .. x + hi.
void HorizontalPass(const detail::BitRaster& in, int lo, int hi, bool erode,
                    std::vector<uint64_t>* out) {
  const int nw = in.words;
  out->assign(in.bits.size(), 0);
  for (int y = 0; y < in.rows; ++y) {
    const uint64_t* row = in.Row(y);
    uint64_t* o = out->data() + size_t(y) * size_t(nw);
    for (int k = 0; k < nw; ++k) {
      uint64_t v = ShiftedWord(row, k, nw, lo);
      for (int j = lo + 1; j <= hi; ++j) {
        const uint64_t w = ShiftedWord(row, k, nw, j);
        v = erode ? (v & w) : (v | w);
      }
      o[k] = v;
    }
  }
}

// Erosion keeps a pixel when, for every element row, row + dr holds columns
// col + lo .. col + hi; dilation sets it when some element row finds a pixel
// at row - dr in col - hi .. col - lo. The raster must have room for the
// result: outside it the picture counts as empty.
void DiscOnBits(detail::BitRaster* img, const std::vector<ElementRow>& disc, bool erode) {
  const int nw = img->words, rows = img->rows;
  // One horizontal pass per distinct column span of the disc.
  std::vector<std::pair<int, int>> spans;
  std::vector<std::vector<uint64_t>> passes;
  std::vector<size_t> pass_of;
  for (const ElementRow& e : disc) {
    const std::pair<int, int> span = erode ? std::pair{e.lo, e.hi} : std::pair{-e.hi, -e.lo};
    auto it = std::find(spans.begin(), spans.end(), span);
    if (it == spans.end()) {
      spans.push_back(span);
      passes.emplace_back();
      HorizontalPass(*img, span.first, span.second, erode, &passes.back());
      it = spans.end() - 1;
    }
    pass_of.push_back(size_t(it - spans.begin()));
  }
  std::vector<uint64_t> out(img->bits.size(), erode ? ~uint64_t(0) : 0);
  for (int y = 0; y < rows; ++y) {
    uint64_t* o = out.data() + size_t(y) * size_t(nw);
    for (size_t i = 0; i < disc.size(); ++i) {
      const int src = erode ? y + disc[i].dr : y - disc[i].dr;
      if (src < 0 || src >= rows) {
        if (erode) std::fill(o, o + nw, 0);  // that element row finds nothing
        continue;
      }
      const uint64_t* h = passes[pass_of[i]].data() + size_t(src) * size_t(nw);
      for (int k = 0; k < nw; ++k) o[k] = erode ? (o[k] & h[k]) : (o[k] | h[k]);
    }
  }
  // Bits past the last column may have been set by the fill; clear them.
  if (img->cols % 64)
    for (int y = 0; y < rows; ++y) out[size_t(y) * size_t(nw) + size_t(nw - 1)] &= ~uint64_t(0) >> (64 - img->cols % 64);
  img->bits.swap(out);
}

// Disc operations on a raster when the region fills enough of its box (grown
// by `margin`) and the disc reaches less than a word; none otherwise.
std::optional<detail::BitRaster> DiscRaster(const Region& r, const std::vector<ElementRow>& disc,
                                            int margin) {
  int reach = 0;
  for (const ElementRow& e : disc) reach = std::max({reach, std::abs(e.lo), std::abs(e.hi)});
  if (r.Empty() || reach > 32) return std::nullopt;
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  const int64_t rows = int64_t(r2) - r1 + 1 + 2 * int64_t(margin),
                cols = int64_t(c2) - c1 + 1 + 2 * int64_t(margin);
  const int64_t words = rows * ((cols + 63) / 64);
  // The raster's cost grows with its words, the runs' with their number.
  if (rows * cols > (int64_t(1) << 24) || words > 4 * int64_t(r.Runs().size()) + 256)
    return std::nullopt;
  return detail::BitRaster::Of(r, int(rows), int(cols), r1 - margin, c1 - margin);
}

// The margin that holds a dilation by the disc.
int DiscMargin(const std::vector<ElementRow>& disc) {
  int m = 0;
  for (const ElementRow& e : disc) m = std::max({m, std::abs(e.dr), std::abs(e.lo), std::abs(e.hi)});
  return m;
}

template <class F>
void ForEach(const HObject& in, HObject* out, const char* op, F f) {
  HObject res;
  for (const Region& r : RegionRefs(in, op)) res.Push(f(r));
  *out = std::move(res);
}

}  // namespace

void dilation_rectangle1(const HObject& region, HObject* region_dilation, const HTuple& width,
                         const HTuple& height) {
  int w, h;
  RectSize(width, height, "dilation_rectangle1", &w, &h);
  ForEach(region, region_dilation, "dilation_rectangle1", [&](const Region& r) { return DilateRect(r, w, h); });
}

void erosion_rectangle1(const HObject& region, HObject* region_erosion, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "erosion_rectangle1", &w, &h);
  ForEach(region, region_erosion, "erosion_rectangle1", [&](const Region& r) { return ErodeRect(r, w, h); });
}

void opening_rectangle1(const HObject& region, HObject* region_opening, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "opening_rectangle1", &w, &h);
  ForEach(region, region_opening, "opening_rectangle1", [&](const Region& r) {
    if (h == 1) return OpenRows(r, w);
    if (w == 1)
      if (auto y = ColumnLineOp(r, h, false)) return std::move(*y);
    return DilateRect(ErodeRect(r, w, h), w, h);
  });
}

void closing_rectangle1(const HObject& region, HObject* region_closing, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "closing_rectangle1", &w, &h);
  ForEach(region, region_closing, "closing_rectangle1", [&](const Region& r) {
    if (h == 1) return CloseRows(r, w);
    if (w == 1)
      if (auto y = ColumnLineOp(r, h, true)) return std::move(*y);
    return ErodeRect(DilateRect(r, w, h), w, h);
  });
}

// The disc steps (true: erosion) applied in order, on a raster when the
// region suits one. Every step's result fits a margin of one disc reach
// around the region's box: the disc holds its reference point, so an erosion
// stays inside its input, and openings and closings stay inside one dilation.
Region DiscSequence(const Region& r, const std::vector<ElementRow>& disc,
                    std::initializer_list<bool> steps) {
  if (auto img = DiscRaster(r, disc, DiscMargin(disc))) {
    for (bool erode : steps) DiscOnBits(&*img, disc, erode);
    return img->ToRegion();
  }
  Region y = r;
  for (bool erode : steps) y = erode ? ErodeDisc(y, disc) : DilateDisc(y, disc);
  return y;
}

void dilation_circle(const HObject& region, HObject* region_dilation, const HTuple& radius) {
  auto disc = DiscRows(radius, "dilation_circle");
  ForEach(region, region_dilation, "dilation_circle",
          [&](const Region& r) { return DiscSequence(r, disc, {false}); });
}

void erosion_circle(const HObject& region, HObject* region_erosion, const HTuple& radius) {
  auto disc = DiscRows(radius, "erosion_circle");
  ForEach(region, region_erosion, "erosion_circle",
          [&](const Region& r) { return DiscSequence(r, disc, {true}); });
}

void opening_circle(const HObject& region, HObject* region_opening, const HTuple& radius) {
  auto disc = DiscRows(radius, "opening_circle");
  ForEach(region, region_opening, "opening_circle",
          [&](const Region& r) { return DiscSequence(r, disc, {true, false}); });
}

void closing_circle(const HObject& region, HObject* region_closing, const HTuple& radius) {
  auto disc = DiscRows(radius, "closing_circle");
  ForEach(region, region_closing, "closing_circle",
          [&](const Region& r) { return DiscSequence(r, disc, {false, true}); });
}

namespace {

// Zhang-Suen thinning, 64 pixels at a time: every pass decides on the
// picture as it was before the pass, from the eight neighbours p2..p9
// (clockwise from the pixel above). A pixel goes when 2 <= B <= 6 neighbours
// are set, the cyclic sequence p2..p9 has exactly one 0-1 step (A = 1), and
// p2 p4 p6 = p4 p6 p8 = 0 (first pass) or p2 p4 p8 = p2 p6 p8 = 0 (second).
// Rounds of both passes repeat until one removes nothing. The raster needs
// a clear border row and column all round.
//
// A word's decisions can only differ from those of the pass before last
// (the same kind) when it or one of the eight words around it lost pixels
// since; a pass therefore looks only at the words around those that changed
// in the two passes before it (every word in the first two), and a blob
// hundreds of pixels thick costs its boundary per round, not its area.
// Deletions are applied after each pass, which decides on the picture as it
// was before.
void Thin(detail::BitRaster* img) {
  const int nw = img->words, rows = img->rows;
  if (rows < 3 || nw < 1) return;
  uint64_t* bits = img->bits.data();
  // The deletions of word (y, k) in a pass of the given kind.
  auto decide = [&](int y, int k, int which) -> uint64_t {
    const uint64_t *u = bits + size_t(y - 1) * size_t(nw), *c = bits + size_t(y) * size_t(nw),
                   *d = bits + size_t(y + 1) * size_t(nw);
    const uint64_t p1 = c[k];
    if (!p1) return 0;
    // Neighbours across the word edges: bit 63 of the word before, bit 0 of
    // the word after.
    const uint64_t ul = k ? u[k - 1] : 0, cl = k ? c[k - 1] : 0, dl = k ? d[k - 1] : 0;
    const uint64_t ur = k + 1 < nw ? u[k + 1] : 0, cr = k + 1 < nw ? c[k + 1] : 0,
                   dr = k + 1 < nw ? d[k + 1] : 0;
    const uint64_t p2 = u[k], p3 = (u[k] >> 1) | (ur << 63), p4 = (c[k] >> 1) | (cr << 63),
                   p5 = (d[k] >> 1) | (dr << 63), p6 = d[k], p7 = (d[k] << 1) | (dl >> 63),
                   p8 = (c[k] << 1) | (cl >> 63), p9 = (u[k] << 1) | (ul >> 63);
    // B in binary, one bit plane per weight, by carry-save adders.
    auto add3 = [](uint64_t a, uint64_t b, uint64_t e, uint64_t* sum, uint64_t* carry) {
      const uint64_t t = a ^ b;
      *sum = t ^ e;
      *carry = (a & b) | (t & e);
    };
    uint64_t s0, c0, s1, c1, s2, c2, t0, t1;
    add3(p2, p3, p4, &s0, &c0);
    add3(p5, p6, p7, &s1, &c1);
    add3(s0, s1, p8, &s2, &c2);
    const uint64_t ones = s2 ^ p9, c3 = s2 & p9;
    add3(c0, c1, c2, &t0, &t1);
    const uint64_t twos = t0 ^ c3, c4 = t0 & c3;
    const uint64_t fours = t1 ^ c4, eights = t1 & c4;
    const uint64_t b_ok = (twos | fours | eights) & ~(eights | (fours & twos & ones));
    // A = 1: exactly one of the eight 0-1 steps.
    uint64_t one = 0, many = 0;
    for (uint64_t step : {~p2 & p3, ~p3 & p4, ~p4 & p5, ~p5 & p6, ~p6 & p7, ~p7 & p8, ~p8 & p9,
                          ~p9 & p2}) {
      many |= one & step;
      one |= step;
    }
    const uint64_t side = which == 0 ? ~(p2 & p4 & p6) & ~(p4 & p6 & p8) : ~(p2 & p4 & p8) & ~(p2 & p6 & p8);
    return p1 & b_ok & one & ~many & side;
  };
  // Words changed in the last pass and in the one before.
  struct Word {
    int y, k;
  };
  std::vector<Word> changed1, changed2, candidates;
  std::vector<std::pair<Word, uint64_t>> deletions;
  std::vector<uint32_t> stamp(size_t(rows) * size_t(nw), 0);
  uint32_t pass_no = 0;
  auto pass = [&](int which) {
    ++pass_no;
    deletions.clear();
    auto visit = [&](Word w) {
      if (const uint64_t del = decide(w.y, w.k, which)) deletions.push_back({w, del});
    };
    if (pass_no <= 2) {
      for (int y = 1; y + 1 < rows; ++y)
        for (int k = 0; k < nw; ++k) visit({y, k});
    } else {
      candidates.clear();
      for (const auto* list : {&changed1, &changed2})
        for (const Word& w : *list) {
          for (int yy = std::max(1, w.y - 1); yy <= std::min(rows - 2, w.y + 1); ++yy) {
            uint32_t* row_stamp = stamp.data() + size_t(yy) * size_t(nw);
            for (int kk = std::max(0, w.k - 1); kk <= std::min(nw - 1, w.k + 1); ++kk)
              if (row_stamp[kk] != pass_no) {
                row_stamp[kk] = pass_no;
                candidates.push_back({yy, kk});
              }
          }
        }
      for (const Word& w : candidates) visit(w);
    }
    changed2.swap(changed1);
    changed1.clear();
    for (const auto& [w, del] : deletions) {
      bits[size_t(w.y) * size_t(nw) + size_t(w.k)] &= ~del;
      changed1.push_back(w);
    }
    return !deletions.empty();
  };
  for (bool changed = true; changed;) {
    const bool first = pass(0);
    const bool second = pass(1);
    changed = first || second;
  }
}

// City-block (4-neighbourhood) or chessboard (8) distance of every measured
// (non-zero) pixel to the nearest source pixel (zero), outside the image
// counting as a source when `outside_source`.
void ChamferDistance(const cv::Mat& inside, bool eight, bool outside_source, cv::Mat* dist) {
  const int h = inside.rows, w = inside.cols;
  const int32_t inf = std::numeric_limits<int32_t>::max() / 2;
  const int32_t border = outside_source ? 0 : inf;
  cv::Mat d(h, w, CV_32S);
  for (int y = 0; y < h; ++y) {
    const uint8_t* in = inside.ptr<uint8_t>(y);
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) p[x] = in[x] ? inf : 0;
  }
  auto at = [&](int y, int x) -> int32_t {
    return (y < 0 || y >= h || x < 0 || x >= w) ? border : d.at<int32_t>(y, x);
  };
  for (int y = 0; y < h; ++y) {
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) {
      if (!p[x]) continue;
      int32_t m = std::min(at(y, x - 1), at(y - 1, x));
      if (eight) m = std::min({m, at(y - 1, x - 1), at(y - 1, x + 1)});
      p[x] = std::min(p[x], m + 1);
    }
  }
  for (int y = h - 1; y >= 0; --y) {
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = w - 1; x >= 0; --x) {
      if (!p[x]) continue;
      int32_t m = std::min(at(y, x + 1), at(y + 1, x));
      if (eight) m = std::min({m, at(y + 1, x + 1), at(y + 1, x - 1)});
      p[x] = std::min(p[x], m + 1);
    }
  }
  d.setTo(0, d >= inf);  // no source at all
  *dist = d;
}

// City-block distance, separably: first the distance to the nearest source
// in the same column (two sweeps over whole rows), then along each row the
// least column distance plus that (two sweeps over each measured stretch).
// Exact like the two chamfer passes, and without a bounds test per
// neighbour. The region is written straight into
// the distance plane; outside the image counts as a source when
// `outside_source`.
cv::Mat CityBlockDistance(const Region& r, int h, int w, bool foreground, bool outside_source) {
  const int32_t inf = std::numeric_limits<int32_t>::max() / 2;
  const int32_t border = outside_source ? 0 : inf;
  const int32_t in = foreground ? inf : 0, out = foreground ? 0 : inf;
  cv::Mat d(h, w, CV_32S, cv::Scalar(out));
  for (const Run& x : r.Runs()) {
    if (x.row < 0 || x.row >= h) continue;
    const int a = std::max(x.cb, 0), b = std::min(x.ce, w - 1);
    if (a <= b) std::fill(d.ptr<int32_t>(x.row) + a, d.ptr<int32_t>(x.row) + b + 1, in);
  }
  std::vector<int32_t> edge(size_t(w), border);  // the row outside, above and below
  for (int y = 0; y < h; ++y) {
    const int32_t* up = y > 0 ? d.ptr<int32_t>(y - 1) : edge.data();
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) p[x] = std::min(p[x], up[x] + 1);
  }
  for (int y = h - 1; y >= 0; --y) {
    const int32_t* down = y + 1 < h ? d.ptr<int32_t>(y + 1) : edge.data();
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) p[x] = std::min(p[x], down[x] + 1);
  }
  // Along the rows only the measured stretches change: every other pixel is
  // a source and stays 0, so a stretch starts from 0 (or the outside at the
  // image border) on either side.
  const Region c = r.Clipped(h, w);
  const Run* k = c.Runs().data();
  const Run* end = k + c.Runs().size();
  std::vector<std::pair<int, int>> spans;
  for (int y = 0; y < h; ++y) {
    spans.clear();
    int next = 0;  // first column after the last region run of the row
    for (; k < end && k->row == y; ++k) {
      if (foreground) spans.emplace_back(k->cb, k->ce);
      else if (k->cb > next) spans.emplace_back(next, k->cb - 1);
      next = k->ce + 1;
    }
    if (!foreground && next < w) spans.emplace_back(next, w - 1);
    int32_t* p = d.ptr<int32_t>(y);
    for (auto [a, b] : spans) {
      int32_t run = a == 0 ? border : 0;
      for (int x = a; x <= b; ++x) run = p[x] = std::min(p[x], run + 1);
      run = b == w - 1 ? border : 0;
      for (int x = b; x >= a; --x) {
        run = std::min(p[x], run + 1);
        p[x] = run >= inf ? 0 : run;  // no source at all
      }
    }
  }
  return d;
}

// Octagonal distance: breadth-first growth from the sources that alternates
// the 4-neighbourhood (odd steps) and the 8-neighbourhood (even steps).
void OctagonalDistance(const cv::Mat& inside, bool outside_source, cv::Mat* dist) {
  const int h = inside.rows, w = inside.cols;
  cv::Mat d(h, w, CV_32S, cv::Scalar(0));
  cv::Mat done(h, w, CV_8U, cv::Scalar(0));
  std::vector<cv::Point> frontier, next;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (!inside.at<uint8_t>(y, x)) {
        done.at<uint8_t>(y, x) = 1;
        frontier.emplace_back(x, y);
      }
  for (int step = 1;; ++step) {
    next.clear();
    const bool n8 = step % 2 == 0;
    auto visit = [&](int x, int y) {
      if (x < 0 || y < 0 || x >= w || y >= h || done.at<uint8_t>(y, x)) return;
      done.at<uint8_t>(y, x) = 1;
      d.at<int32_t>(y, x) = step;
      next.emplace_back(x, y);
    };
    for (const auto& p : frontier) {
      visit(p.x + 1, p.y), visit(p.x - 1, p.y), visit(p.x, p.y + 1), visit(p.x, p.y - 1);
      if (n8) visit(p.x + 1, p.y + 1), visit(p.x - 1, p.y - 1), visit(p.x + 1, p.y - 1), visit(p.x - 1, p.y + 1);
    }
    if (step == 1 && outside_source) {
      // The ring just outside the image reaches the border pixels first.
      for (int x = 0; x < w; ++x) visit(x, 0), visit(x, h - 1);
      for (int y = 0; y < h; ++y) visit(0, y), visit(w - 1, y);
    }
    if (next.empty()) break;
    std::swap(frontier, next);
  }
  *dist = d;
}

}  // namespace

void skeleton(const HObject& region, HObject* skeleton_out) {
  ForEach(region, skeleton_out, "skeleton", [](const Region& r) {
    if (r.Empty()) return r;
    int r1, c1, r2, c2;
    r.BoundingBox(&r1, &c1, &r2, &c2);
    const int64_t rows = int64_t(r2) - r1 + 3, cols = int64_t(c2) - c1 + 3;  // clear border
    detail::CheckRasterSize(rows, cols, "skeleton");
    detail::BitRaster img = detail::BitRaster::Of(r, int(rows), int(cols), r1 - 1, c1 - 1);
    Thin(&img);
    return img.ToRegion();
  });
}

void distance_transform(const HObject& region, HObject* distance_image, const HTuple& metric,
                        const HTuple& foreground, const HTuple& width, const HTuple& height) {
  constexpr const char* op = "distance_transform";
  std::string met = ParamString(metric, op, "Metric");
  std::string fg = ParamString(foreground, op, "Foreground");
  if (met != "city-block" && met != "chessboard" && met != "octagonal" && met != "euclidean")
    throw HException(op, "Wrong value of Metric '" + met + "'", kErrWrongParamValue);
  if (fg != "true" && fg != "false")
    throw HException(op, "Wrong value of Foreground: 'true' or 'false' expected", kErrWrongParamValue);
  Hlong w = ParamInt(width, op, "Width"), h = ParamInt(height, op, "Height");
  if (w < 1 || h < 1 || w > 32768 || h > 32768)
    throw HException(op, "Wrong image size", kErrWrongParamValue);
  detail::CheckRasterSize(h, w, op);
  HObject out;
  for (const Region& r : RegionRefs(region, op)) {
    if (met == "city-block") {
      out.Push(Image::FromPlanes(PixelType::Int4, {CityBlockDistance(r, int(h), int(w), fg == "true",
                                                                     fg == "true")}));
      continue;
    }
    cv::Mat mask = r.ToMask(int(h), int(w));
    // Measured pixels are the region (or its complement); the sources are the
    // others. Outside the image counts as a source for the foreground, as the
    // region ends there.
    cv::Mat inside = fg == "true" ? mask : (255 - mask);
    cv::Mat dist(int(h), int(w), CV_32S, cv::Scalar(0));
    if (met == "euclidean") {
      cv::Mat padded;
      cv::copyMakeBorder(inside, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, fg == "true" ? 0 : 255);
      cv::Mat d;
      cv::distanceTransform(padded, d, cv::DIST_L2, cv::DIST_MASK_PRECISE);
      d(cv::Rect(1, 1, int(w), int(h))).convertTo(dist, CV_32S);  // rounds to nearest
      if (fg == "false" && size_t(cv::countNonZero(inside)) == inside.total()) dist.setTo(0);
    } else if (met != "octagonal") {
      // Two chamfer passes are exact for the 4- and 8-neighbourhood metrics.
      ChamferDistance(inside, met == "chessboard", fg == "true", &dist);
    } else {
      OctagonalDistance(inside, fg == "true", &dist);
    }
    Image img = Image::FromPlanes(PixelType::Int4, {dist});
    out.Push(std::move(img));
  }
  *distance_image = std::move(out);
}

}  // namespace vision
