#include "vision/core/region.h"

#include <algorithm>
#include <cassert>
#include <limits>

namespace vision {

Region Region::FromRuns(std::vector<Run> runs) {
  runs.erase(std::remove_if(runs.begin(), runs.end(), [](const Run& r) { return r.ce < r.cb; }),
             runs.end());
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) {
    return a.row != b.row ? a.row < b.row : a.cb < b.cb;
  });
  std::vector<Run> out;
  out.reserve(runs.size());
  for (const Run& r : runs) {
    // Touching runs (ce + 1 == cb) merge too, so each row has disjoint, gapped runs.
    if (!out.empty() && out.back().row == r.row && int64_t(r.cb) <= int64_t(out.back().ce) + 1)
      out.back().ce = std::max(out.back().ce, r.ce);
    else
      out.push_back(r);
  }
  Region g;
  g.runs_ = std::move(out);
  return g;
}

Region Region::FromSortedRuns(std::vector<Run> runs) {
  // Every producer keeps the order. The check costs a pass over all runs of
  // every region made, and the project's optimised builds keep assertions
  // (no NDEBUG), so a checking build asks for it by name.
#ifdef VISION_CHECK_REGION_RUNS
  for (size_t i = 1; i < runs.size(); ++i)
    assert(runs[i - 1].row < runs[i].row ||
           (runs[i - 1].row == runs[i].row && runs[i - 1].ce + 1 < runs[i].cb));
#endif
  Region g;
  g.runs_ = std::move(runs);
  return g;
}

Region Region::FromMask(const cv::Mat& mask, int row0, int col0) {
  CV_Assert(mask.type() == CV_8UC1);
  std::vector<Run> runs;
  for (int r = 0; r < mask.rows; ++r) {
    const uint8_t* p = mask.ptr<uint8_t>(r);
    int c = 0;
    while (c < mask.cols) {
      while (c < mask.cols && !p[c]) ++c;
      if (c >= mask.cols) break;
      int s = c;
      while (c < mask.cols && p[c]) ++c;
      runs.push_back({r + row0, s + col0, c - 1 + col0});
    }
  }
  return FromSortedRuns(std::move(runs));
}

Region Region::Rectangle(int r1, int c1, int r2, int c2) {
  std::vector<Run> runs;
  if (r2 >= r1 && c2 >= c1) {
    runs.reserve(size_t(r2 - r1 + 1));
    for (int r = r1; r <= r2; ++r) runs.push_back({r, c1, c2});
  }
  return FromSortedRuns(std::move(runs));
}

int64_t Region::Area() const {
  int64_t a = 0;
  for (const Run& r : runs_) a += int64_t(r.ce) - r.cb + 1;
  return a;
}

void Region::BoundingBox(int* r1, int* c1, int* r2, int* c2) const {
  if (runs_.empty()) {
    *r1 = *c1 = *r2 = *c2 = 0;
    return;
  }
  int cmin = std::numeric_limits<int>::max(), cmax = std::numeric_limits<int>::min();
  for (const Run& r : runs_) {
    cmin = std::min(cmin, r.cb);
    cmax = std::max(cmax, r.ce);
  }
  *r1 = runs_.front().row;
  *r2 = runs_.back().row;
  *c1 = cmin;
  *c2 = cmax;
}

bool Region::Contains(int row, int col) const {
  auto it = std::lower_bound(runs_.begin(), runs_.end(), Run{row, col, col},
                             [](const Run& a, const Run& b) {
                               return a.row != b.row ? a.row < b.row : a.ce < b.cb;
                             });
  return it != runs_.end() && it->row == row && it->cb <= col && col <= it->ce;
}

cv::Mat Region::ToMask(int rows, int cols, int row0, int col0) const {
  cv::Mat m = cv::Mat::zeros(rows, cols, CV_8UC1);
  for (const Run& r : runs_) {
    int y = r.row - row0;
    if (y < 0 || y >= rows) continue;
    int a = std::max(r.cb - col0, 0), b = std::min(r.ce - col0, cols - 1);
    if (a <= b) std::fill(m.ptr<uint8_t>(y) + a, m.ptr<uint8_t>(y) + b + 1, uint8_t(255));
  }
  return m;
}

Region Region::Clipped(int h, int w) const {
  std::vector<Run> out;
  out.reserve(runs_.size());
  for (const Run& r : runs_) {
    if (r.row < 0 || r.row >= h) continue;
    int a = std::max(r.cb, 0), b = std::min(r.ce, w - 1);
    if (a <= b) out.push_back({r.row, a, b});
  }
  return FromSortedRuns(std::move(out));
}

Region Region::Translated(int dr, int dc) const {
  Region g = *this;
  for (Run& r : g.runs_) {
    r.row += dr;
    r.cb += dc;
    r.ce += dc;
  }
  return g;
}

namespace {

// Walks the rows of two regions together and lets `row_op` combine the runs
// of one row.
template <class RowOp>
Region Combine(const std::vector<Run>& a, const std::vector<Run>& b, bool keep_a_only,
               bool keep_b_only, RowOp row_op) {
  std::vector<Run> out;
  out.reserve(a.size() + b.size());
  size_t i = 0, j = 0;
  while (i < a.size() || j < b.size()) {
    int row;
    if (j >= b.size() || (i < a.size() && a[i].row < b[j].row)) row = a[i].row;
    else row = b[j].row;
    size_t i2 = i, j2 = j;
    while (i2 < a.size() && a[i2].row == row) ++i2;
    while (j2 < b.size() && b[j2].row == row) ++j2;
    if (i2 > i && j2 > j) row_op(row, &a[i], &a[i2], &b[j], &b[j2], &out);
    else if (i2 > i && keep_a_only) out.insert(out.end(), a.begin() + long(i), a.begin() + long(i2));
    else if (j2 > j && keep_b_only) out.insert(out.end(), b.begin() + long(j), b.begin() + long(j2));
    i = i2;
    j = j2;
  }
  return Region::FromSortedRuns(std::move(out));
}

}  // namespace

Region Region::Union(const Region& o) const {
  return Combine(runs_, o.runs_, true, true,
                 [](int, const Run* a, const Run* ae, const Run* b, const Run* be,
                    std::vector<Run>* out) {
                   size_t start = out->size();
                   while (a < ae || b < be) {
                     const Run* r = (b >= be || (a < ae && a->cb <= b->cb)) ? a++ : b++;
                     if (out->size() > start && int64_t(r->cb) <= int64_t(out->back().ce) + 1)
                       out->back().ce = std::max(out->back().ce, r->ce);
                     else
                       out->push_back(*r);
                   }
                 });
}

Region Region::Intersection(const Region& o) const {
  return Combine(runs_, o.runs_, false, false,
                 [](int row, const Run* a, const Run* ae, const Run* b, const Run* be,
                    std::vector<Run>* out) {
                   while (a < ae && b < be) {
                     int lo = std::max(a->cb, b->cb), hi = std::min(a->ce, b->ce);
                     if (lo <= hi) out->push_back({row, lo, hi});
                     if (a->ce < b->ce) ++a;
                     else ++b;
                   }
                 });
}

Region Region::Difference(const Region& o) const {
  return Combine(runs_, o.runs_, true, false,
                 [](int row, const Run* a, const Run* ae, const Run* b, const Run* be,
                    std::vector<Run>* out) {
                   for (; a < ae; ++a) {
                     int64_t cur = a->cb;
                     for (const Run* k = b; k < be && k->cb <= a->ce; ++k) {
                       if (k->ce < cur) continue;
                       if (k->cb > cur) out->push_back({row, int(cur), k->cb - 1});
                       cur = int64_t(k->ce) + 1;
                     }
                     if (cur <= a->ce) out->push_back({row, int(cur), a->ce});
                   }
                 });
}

}  // namespace vision
