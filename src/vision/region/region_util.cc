#include "vision/region/region_util.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include <opencv2/imgproc.hpp>

namespace vision::detail {

void CheckRasterSize(int64_t rows, int64_t cols, const char* op) {
  // Sparse regions may span huge boxes; refuse rather than exhaust memory.
  if (rows * cols > (int64_t(1) << 28))
    throw HException(op, "Region too large to rasterise (" + std::to_string(rows) + " x " +
                             std::to_string(cols) + ")", kErrNoMemory);
}

std::vector<Region> RegionsOf(const HObject& obj, const char* op) {
  std::vector<Region> out;
  out.reserve(size_t(obj.Count()));
  for (long i = 0; i < obj.Count(); ++i) out.push_back(obj.RegionOrDomainAt(i, op));
  return out;
}

std::vector<std::reference_wrapper<const Region>> RegionRefs(const HObject& obj, const char* op) {
  std::vector<std::reference_wrapper<const Region>> out;
  out.reserve(size_t(obj.Count()));
  for (long i = 0; i < obj.Count(); ++i) out.push_back(std::cref(obj.RegionOrDomainAt(i, op)));
  return out;
}

HObject ObjectOf(std::vector<Region> regions) {
  HObject o;
  for (auto& r : regions) o.Push(std::move(r));
  return o;
}

namespace {

int Find(std::vector<int>& parent, int x) {
  while (parent[size_t(x)] != x) {
    parent[size_t(x)] = parent[size_t(parent[size_t(x)])];
    x = parent[size_t(x)];
  }
  return x;
}

void Unite(std::vector<int>& parent, int a, int b) {
  a = Find(parent, a);
  b = Find(parent, b);
  if (a == b) return;
  // The smaller index stays root, so a root is its component's first run.
  if (a < b) parent[size_t(b)] = a;
  else parent[size_t(a)] = b;
}

// Union-find over the runs: runs of adjacent rows join when they overlap (4)
// or touch diagonally (8). Returns per run the index of its component's root.
std::vector<int> LabelRuns(const std::vector<Run>& runs, int neighborhood) {
  const int n = int(runs.size());
  std::vector<int> parent(static_cast<size_t>(n));
  std::iota(parent.begin(), parent.end(), 0);
  const int slack = neighborhood == 8 ? 1 : 0;
  int prev_begin = 0, prev_end = 0;  // runs of the previous row
  int i = 0;
  while (i < n) {
    int row = runs[size_t(i)].row;
    int row_end = i;
    while (row_end < n && runs[size_t(row_end)].row == row) ++row_end;
    bool adjacent = prev_end > prev_begin && runs[size_t(prev_begin)].row == row - 1;
    if (adjacent) {
      int j = prev_begin;
      for (int k = i; k < row_end; ++k) {
        const Run& cur = runs[size_t(k)];
        while (j < prev_end && int64_t(runs[size_t(j)].ce) + slack < cur.cb) ++j;
        for (int m = j; m < prev_end && int64_t(runs[size_t(m)].cb) <= int64_t(cur.ce) + slack; ++m)
          Unite(parent, k, m);
      }
    }
    prev_begin = i;
    prev_end = row_end;
    i = row_end;
  }
  for (int k = 0; k < n; ++k) parent[size_t(k)] = Find(parent, k);
  return parent;
}

}  // namespace

int LabelComponents(const Region& r, int neighborhood, std::vector<int>* label) {
  const auto& runs = r.Runs();
  *label = LabelRuns(runs, neighborhood);
  // A root is its component's first run, so it is numbered before the rest.
  int n = 0;
  for (size_t k = 0; k < runs.size(); ++k) {
    const int root = (*label)[k];
    (*label)[k] = size_t(root) == k ? n++ : (*label)[size_t(root)];
  }
  return n;
}

namespace {
// The runs of each component, in order, each list allocated once.
std::vector<Region> SplitByLabel(const std::vector<Run>& runs, const std::vector<int>& label,
                                 int n, int first) {
  std::vector<size_t> size(static_cast<size_t>(n), 0);
  for (int l : label) ++size[size_t(l)];
  std::vector<std::vector<Run>> parts(static_cast<size_t>(n));
  for (int i = first; i < n; ++i) parts[size_t(i)].reserve(size[size_t(i)]);
  for (size_t k = 0; k < runs.size(); ++k)
    if (label[k] >= first) parts[size_t(label[k])].push_back(runs[k]);
  std::vector<Region> out;
  out.reserve(size_t(n - first));
  for (int i = first; i < n; ++i) out.push_back(Region::FromSortedRuns(std::move(parts[size_t(i)])));
  return out;
}
}  // namespace

std::vector<Region> Components(const Region& r, int neighborhood) {
  std::vector<int> label;
  const int n = LabelComponents(r, neighborhood, &label);
  return SplitByLabel(r.Runs(), label, n, 0);
}

namespace {
// Background runs inside the bounding box grown by one pixel; the first run is
// the top frame row, which every component touching the outside joins.
Region FramedBackground(const Region& r) {
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  Region frame = Region::Rectangle(r1 - 1, c1 - 1, r2 + 1, c2 + 1);
  return frame.Difference(r);
}
}  // namespace

HoleSet::HoleSet(const Region& r, int foreground_neighborhood) {
  if (r.Empty()) return;
  background_ = FramedBackground(r);
  // Component 0 is the outside: it holds the first run, the top frame row.
  count_ = LabelComponents(background_, foreground_neighborhood == 8 ? 4 : 8, &label_) - 1;
}

std::vector<int64_t> HoleSet::Areas() const {
  std::vector<int64_t> area(size_t(count_), 0);
  const auto& runs = background_.Runs();
  for (size_t k = 0; k < runs.size(); ++k)
    if (label_[k] > 0) area[size_t(label_[k] - 1)] += int64_t(runs[k].ce) - runs[k].cb + 1;
  return area;
}

std::vector<Region> HoleSet::Regions() const {
  return SplitByLabel(background_.Runs(), label_, count_ + 1, 1);
}

Region HoleSet::FilledWith(const Region& r, const std::vector<bool>& chosen) const {
  // The chosen holes' runs are already in order within the background.
  std::vector<Run> runs;
  const auto& bg = background_.Runs();
  for (size_t k = 0; k < bg.size(); ++k)
    if (label_[k] > 0 && chosen[size_t(label_[k] - 1)]) runs.push_back(bg[k]);
  return r.Union(Region::FromSortedRuns(std::move(runs)));
}

std::vector<Region> Holes(const Region& r, int foreground_neighborhood) {
  return HoleSet(r, foreground_neighborhood).Regions();
}

Region FillHoles(const Region& r, int foreground_neighborhood) {
  HoleSet holes(r, foreground_neighborhood);
  return holes.FilledWith(r, std::vector<bool>(size_t(holes.Count()), true));
}

Region ShiftRows(const Region& r, int dr) { return dr == 0 ? r : r.Translated(dr, 0); }

Region GrowRuns(const Region& r, int left, int right) {
  std::vector<Run> runs;
  runs.reserve(r.Runs().size());
  const bool grows = left > 0 || right > 0;
  for (const Run& x : r.Runs()) {
    int64_t a = int64_t(x.cb) - left, b = int64_t(x.ce) + right;
    if (a > b) continue;
    // Equal shifts keep the runs sorted; grown runs of a row may now touch.
    if (grows && !runs.empty() && runs.back().row == x.row && a <= int64_t(runs.back().ce) + 1)
      runs.back().ce = std::max(runs.back().ce, int(b));
    else
      runs.push_back({x.row, int(a), int(b)});
  }
  return Region::FromSortedRuns(std::move(runs));
}

namespace {
// Sum of c*c for c = lo..hi, exact for negative bounds too.
double SumSquares(int64_t lo, int64_t hi) {
  auto sq = [](double k) { return k * (k + 1) * (2 * k + 1) / 6.0; };  // 0..k, sq(-1) = 0
  if (lo >= 0) return sq(double(hi)) - sq(double(lo - 1));
  if (hi < 0) return sq(double(-lo)) - sq(double(-hi - 1));
  return sq(double(hi)) + sq(double(-lo));
}
}  // namespace

Moments ComputeMoments(const Region& r) {
  Moments m;
  double sr = 0, sc = 0, srr = 0, scc = 0, src = 0, a = 0;
  for (const Run& x : r.Runs()) {
    double n = double(x.ce) - x.cb + 1;
    double row = x.row;
    double s1 = n * (double(x.cb) + x.ce) / 2.0;
    double s2 = SumSquares(x.cb, x.ce);
    a += n;
    sr += n * row;
    sc += s1;
    srr += n * row * row;
    scc += s2;
    src += row * s1;
  }
  if (a <= 0) return m;
  m.area = a;
  m.row = sr / a;
  m.col = sc / a;
  m.mrr = srr / a - m.row * m.row;
  m.mcc = scc / a - m.col * m.col;
  m.mrc = src / a - m.row * m.col;
  if (m.mrr < 0) m.mrr = 0;
  if (m.mcc < 0) m.mcc = 0;
  return m;
}

void AreaCenter(const Region& r, double* area, double* row, double* col) {
  // The sums are of integers (twice the column sum is one), so integer
  // accumulators give exactly the sums a double would, without a chain of
  // floating-point additions per run.
  int64_t a = 0, sr = 0, sc2 = 0;
  for (const Run& x : r.Runs()) {
    const int64_t n = int64_t(x.ce) - x.cb + 1;
    a += n;
    sr += n * x.row;
    sc2 += n * (int64_t(x.cb) + x.ce);
  }
  *area = a > 0 ? double(a) : 0;
  *row = a > 0 ? double(sr) / double(a) : 0;
  *col = a > 0 ? double(sc2) / 2.0 / double(a) : 0;
}

void EllipticAxis(const Moments& m, double* ra, double* rb, double* phi) {
  double s = std::sqrt((m.mrr - m.mcc) * (m.mrr - m.mcc) + 4.0 * m.mrc * m.mrc);
  *ra = std::sqrt(std::max(0.0, 8.0 * (m.mrr + m.mcc + s))) / 2.0;
  *rb = std::sqrt(std::max(0.0, 8.0 * (m.mrr + m.mcc - s))) / 2.0;
  double p = (m.mrc == 0 && m.mcc == m.mrr) ? 0.0 : -0.5 * std::atan2(2.0 * m.mrc, m.mcc - m.mrr);
  if (p <= -M_PI / 2 + 1e-12) p += M_PI;
  *phi = p;
}

std::vector<cv::Point2d> HullPoints(const Region& r) {
  std::vector<cv::Point2f> pts;
  pts.reserve(r.Runs().size() * 2);
  for (const Run& x : r.Runs()) {
    pts.emplace_back(float(x.cb), float(x.row));
    if (x.ce != x.cb) pts.emplace_back(float(x.ce), float(x.row));
  }
  std::vector<cv::Point2d> out;
  if (pts.size() <= 2) {
    for (auto& p : pts) out.emplace_back(p.x, p.y);
    return out;
  }
  std::vector<cv::Point2f> hull;
  cv::convexHull(pts, hull, false, true);
  for (auto& p : hull) out.emplace_back(p.x, p.y);
  return out;
}

BitRaster BitRaster::Of(const Region& r, int rows, int cols, int row0, int col0) {
  BitRaster b;
  b.rows = rows;
  b.cols = cols;
  b.words = (cols + 63) / 64;
  b.row0 = row0;
  b.col0 = col0;
  b.bits.assign(size_t(rows) * size_t(b.words), 0);
  for (const Run& x : r.Runs()) {
    const int y = x.row - row0;
    if (y < 0 || y >= rows) continue;
    const int a = std::max(x.cb - col0, 0), e = std::min(x.ce - col0, cols - 1);
    if (a > e) continue;
    uint64_t* w = b.Row(y);
    const int ka = a / 64, ke = e / 64;
    const uint64_t first = ~uint64_t(0) << (a % 64), last = ~uint64_t(0) >> (63 - e % 64);
    if (ka == ke) {
      w[ka] |= first & last;
    } else {
      w[ka] |= first;
      for (int k = ka + 1; k < ke; ++k) w[k] = ~uint64_t(0);
      w[ke] |= last;
    }
  }
  return b;
}

Region BitRaster::ToRegion() const {
  std::vector<Run> runs;
  for (int y = 0; y < rows; ++y) {
    const uint64_t* w = Row(y);
    RowRunWriter out(row0 + y, col0, &runs);
    for (int k = 0; k < words; ++k) out.Add(w[k]);
    out.Finish();
  }
  return Region::FromSortedRuns(std::move(runs));
}

cv::Mat MaskWithMargin(const Region& r, int margin, int* row0, int* col0, const char* op) {
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  CheckRasterSize(int64_t(r2) - r1 + 1 + 2 * margin, int64_t(c2) - c1 + 1 + 2 * margin, op);
  *row0 = r1 - margin;
  *col0 = c1 - margin;
  return r.ToMask(r2 - r1 + 1 + 2 * margin, c2 - c1 + 1 + 2 * margin, *row0, *col0);
}

}  // namespace vision::detail
