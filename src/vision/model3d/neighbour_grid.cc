#include "vision/model3d/neighbour_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace vision::model3d {

namespace {
constexpr uint64_t kEmpty = std::numeric_limits<uint64_t>::max();
constexpr int64_t kMaxCells = int64_t(1) << 21;  // per axis: 21 bits of the key each

// splitmix64's finaliser: every key bit reaches the low bits the table uses.
uint64_t Hash(uint64_t k) {
  k ^= k >> 30;
  k *= 0xBF58476D1CE4E5B9ull;
  k ^= k >> 27;
  k *= 0x94D049BB133111EBull;
  return k ^ (k >> 31);
}
}  // namespace

NeighbourGrid::NeighbourGrid(const std::vector<Eigen::Vector3f>& pts, double cell, int k)
    : pts_(pts) {
  Eigen::Vector3d hi = Eigen::Vector3d::Constant(-std::numeric_limits<double>::infinity());
  lo_ = -hi;
  for (size_t i = 0; i < pts.size(); ++i) {
    if (!pts[i].allFinite()) continue;
    ids_.push_back(int32_t(i));
    lo_ = lo_.cwiseMin(pts[i].cast<double>());
    hi = hi.cwiseMax(pts[i].cast<double>());
  }
  if (ids_.empty()) {
    lo_.setZero();
    hi.setZero();
  }
  const Eigen::Vector3d ext = hi - lo_;
  const double min_cell = std::max(ext.maxCoeff() / double(kMaxCells - 2), 1e-30);
  if (cell > 0) {
    Build(std::max(cell, min_cell));
    return;
  }
  // First guess: the points spread over a surface as large as the two
  // largest extents span; a query should find k points within one cell.
  double e[3] = {ext.x(), ext.y(), ext.z()};
  std::sort(e, e + 3, std::greater<>());
  const double n = double(std::max<size_t>(ids_.size(), 1));
  double area = std::max(e[0] * e[1], e[0] * e[0] * 1e-6);
  if (!(area > 0)) area = 1;
  auto cell_for = [&](double density) {
    return std::max(std::sqrt(double(k) / (std::numbers::pi * density)) * 1.1, min_cell);
  };
  double c = cell_for(n / area);
  Build(c);
  // Correct the guess once with the density the cells actually see.
  const double occupied = double(std::count_if(table_.begin(), table_.end(),
                                               [](const Slot& v) { return v.key != kEmpty; }));
  if (occupied > 0) {
    const double seen = n / occupied / (c * c);
    const double c2 = cell_for(seen);
    if (c2 > 1.5 * c || c2 < c / 1.5) Build(c2);
  }
}

uint64_t NeighbourGrid::Key(int64_t x, int64_t y, int64_t z) const {
  // x varies fastest, so that the cells of a row follow each other.
  return (uint64_t(z) << 42) | (uint64_t(y) << 21) | uint64_t(x);
}

Eigen::Vector3i NeighbourGrid::CellOf(const Eigen::Vector3f& p) const {
  const Eigen::Vector3d c = ((p.cast<double>() - lo_) * inv_cell_).array().floor();
  // Far outside the grid still maps to a cell index that finds nothing.
  const Eigen::Vector3d cl = c.cwiseMax(-double(kMaxCells)).cwiseMin(double(2 * kMaxCells));
  return cl.cast<int>();
}

void NeighbourGrid::Build(double cell) {
  cell_ = cell;
  inv_cell_ = 1.0 / cell;
  const size_t n = ids_.size();
  std::vector<std::pair<uint64_t, int32_t>> keyed(n);
  dims_.setZero();
  for (size_t k = 0; k < n; ++k) {
    const Eigen::Vector3i c = CellOf(pts_[size_t(ids_[k])]);
    dims_ = dims_.cwiseMax(c + Eigen::Vector3i::Ones());
    keyed[k] = {Key(c.x(), c.y(), c.z()), ids_[k]};
  }
  std::sort(keyed.begin(), keyed.end());
  sorted_.resize(n);
  sorted_ids_.resize(n);
  size_t cells = 0;
  for (size_t k = 0; k < n; ++k) {
    sorted_[k] = pts_[size_t(keyed[k].second)];
    sorted_ids_[k] = keyed[k].second;
    if (k == 0 || keyed[k].first != keyed[k - 1].first) ++cells;
  }
  size_t size = 16;
  while (size < 2 * cells) size *= 2;
  mask_ = size - 1;
  table_.assign(size, Slot{kEmpty, 0, 0});
  cells_.clear();
  cells_.reserve(cells);
  for (size_t k = 0; k < n;) {
    size_t e = k + 1;
    while (e < n && keyed[e].first == keyed[k].first) ++e;
    uint64_t h = Hash(keyed[k].first) & mask_;
    while (table_[h].key != kEmpty) h = (h + 1) & mask_;
    table_[h] = Slot{keyed[k].first, uint32_t(k), uint32_t(e)};
    cells_.push_back(table_[h]);
    k = e;
  }
}

bool NeighbourGrid::Row(int64_t x0, int64_t x1, int64_t y, int64_t z, uint32_t* begin,
                        uint32_t* end) const {
  if (y < 0 || z < 0 || y >= dims_.y() || z >= dims_.z()) return false;
  x0 = std::max<int64_t>(x0, 0);
  x1 = std::min<int64_t>(x1, dims_.x() - 1);
  // The first occupied cell of the row opens the run, the last one closes
  // it: two lookups rather than a walk over the keys of the cells between.
  int64_t first = x0;
  for (; first <= x1; ++first) {
    const Slot* slot = Find(Key(first, y, z));
    if (slot) {
      *begin = slot->begin;
      *end = slot->end;
      break;
    }
  }
  if (first > x1) return false;
  for (int64_t x = x1; x > first; --x) {
    const Slot* slot = Find(Key(x, y, z));
    if (slot) {
      *end = slot->end;
      break;
    }
  }
  return true;
}

const NeighbourGrid::Slot* NeighbourGrid::Find(uint64_t key) const {
  for (uint64_t h = Hash(key) & mask_;; h = (h + 1) & mask_) {
    const Slot& slot = table_[h];
    if (slot.key == key) return &slot;
    if (slot.key == kEmpty) return nullptr;
  }
}

void NeighbourGrid::Knn(const Eigen::Vector3f& q, int k, std::vector<int32_t>* idx,
                        std::vector<float>* d2, Scratch* s, bool sorted) const {
  bool partitioned = false;
  idx->clear();
  d2->clear();
  const size_t want = std::min<size_t>(size_t(std::max(k, 0)), Size());
  if (want == 0) return;
  auto& cand = s->cand;
  cand.clear();
  const Eigen::Vector3i c = CellOf(q);
  const Eigen::Vector3d qd = q.cast<double>();
  auto visit = [&](int64_t x0, int64_t x1, int64_t y, int64_t z) {
    uint32_t b, e;
    if (!Row(x0, x1, y, z, &b, &e)) return;
    for (uint32_t i = b; i < e; ++i) cand.emplace_back((sorted_[i] - q).squaredNorm(), int32_t(i));
  };
  const int max_r = std::max({dims_.x(), dims_.y(), dims_.z()}) + 1;
  for (int r = 0; r <= max_r; ++r) {
    if (double(2 * r + 1) * (2 * r + 1) * (2 * r + 1) > 4.0 * double(Size())) {
      // A query far from everything: looking at every point is cheaper than
      // growing the shell of cells further.
      cand.clear();
      for (size_t i = 0; i < sorted_.size(); ++i)
        cand.emplace_back((sorted_[i] - q).squaredNorm(), int32_t(i));
      break;
    }
    // The shell of cells at distance r: whole rows on its faces, the two
    // end cells elsewhere.
    for (int dz = -r; dz <= r; ++dz)
      for (int dy = -r; dy <= r; ++dy) {
        const int64_t y = c.y() + dy, z = c.z() + dz;
        if (std::abs(dz) == r || std::abs(dy) == r) {
          visit(c.x() - r, c.x() + r, y, z);
        } else {
          visit(c.x() - r, c.x() - r, y, z);
          visit(c.x() + r, c.x() + r, y, z);
        }
      }
    if (cand.size() < want) continue;
    // Unvisited points lie outside the block of cells visited so far.
    double margin = std::numeric_limits<double>::infinity();
    for (int a = 0; a < 3; ++a) {
      const double blo = lo_[a] + double(c[a] - r) * cell_, bhi = lo_[a] + double(c[a] + r + 1) * cell_;
      margin = std::min({margin, qd[a] - blo, bhi - qd[a]});
    }
    std::nth_element(cand.begin(), cand.begin() + ptrdiff_t(want - 1), cand.end());
    if (double(cand[want - 1].first) <= margin * margin * (1 - 1e-6) || cand.size() == Size()) {
      partitioned = true;
      break;
    }
  }
  if (!partitioned) std::nth_element(cand.begin(), cand.begin() + ptrdiff_t(want - 1), cand.end());
  if (sorted) std::sort(cand.begin(), cand.begin() + ptrdiff_t(want));
  idx->resize(want);
  d2->resize(want);
  for (size_t i = 0; i < want; ++i) {
    (*idx)[i] = sorted_ids_[size_t(cand[i].second)];
    (*d2)[i] = cand[i].first;
  }
}

void NeighbourGrid::KnnOfCells(size_t cb, size_t ce, int k, bool sorted, Scratch* s,
                               const KnnVisitor& visit) const {
  const size_t want = std::min<size_t>(size_t(std::max(k, 0)), Size());
  if (want == 0) return;
  auto& cand = s->cand;
  for (size_t ci = cb; ci < ce; ++ci) {
    const Slot& cell = cells_[ci];
    const int64_t x = int64_t(cell.key & 0x1FFFFF), y = int64_t((cell.key >> 21) & 0x1FFFFF),
                  z = int64_t(cell.key >> 42);
    // The block of 3 x 3 x 3 cells around this one.
    s->bx.clear();
    s->by.clear();
    s->bz.clear();
    s->bi.clear();
    for (int64_t dz = -1; dz <= 1; ++dz)
      for (int64_t dy = -1; dy <= 1; ++dy) {
        uint32_t b, e;
        if (!Row(x - 1, x + 1, y + dy, z + dz, &b, &e)) continue;
        for (uint32_t i = b; i < e; ++i) {
          s->bx.push_back(sorted_[i].x());
          s->by.push_back(sorted_[i].y());
          s->bz.push_back(sorted_[i].z());
          s->bi.push_back(int32_t(i));
        }
      }
    const size_t nb = s->bi.size();
    s->bd.resize(nb);
    const Eigen::Vector3d blo = lo_ + Eigen::Vector3d(double(x - 1), double(y - 1), double(z - 1)) * cell_;
    const Eigen::Vector3d bhi = blo + Eigen::Vector3d::Constant(3 * cell_);
    for (uint32_t qi = cell.begin; qi < cell.end; ++qi) {
      const Eigen::Vector3f& q = sorted_[qi];
      const Eigen::Vector3d qd = q.cast<double>();
      // Every point closer than `margin` lies in the block.
      const double margin = std::min((qd - blo).minCoeff(), (bhi - qd).minCoeff());
      const float m2 = float(margin * margin * (1 - 1e-6));
      bool done = false;
      if (nb >= want) {
        const float qx = q.x(), qy = q.y(), qz = q.z();
        const float *bx = s->bx.data(), *by = s->by.data(), *bz = s->bz.data();
        float* bd = s->bd.data();
        for (size_t j = 0; j < nb; ++j) {
          const float dx = bx[j] - qx, dy = by[j] - qy, dz = bz[j] - qz;
          bd[j] = dx * dx + dy * dy + dz * dz;
        }
        // Neighbouring queries have about the same k-th distance: the last
        // one, a little widened, prefilters the candidates; too few, and all
        // of them are taken.
        for (int attempt = 0; attempt < 2 && !done; ++attempt) {
          const float limit = attempt == 0 && s->guess > 0 ? std::min(s->guess * 1.5f, m2) : m2;
          cand.clear();
          for (size_t j = 0; j < nb; ++j)
            if (bd[j] <= limit) cand.emplace_back(bd[j], s->bi[j]);
          if (cand.size() < want) continue;
          std::nth_element(cand.begin(), cand.begin() + ptrdiff_t(want - 1), cand.end());
          s->guess = cand[want - 1].first;
          done = true;
        }
      }
      if (!done) {
        // Too few points in the block, or the k-th lies beyond it.
        Knn(q, k, &s->idx, &s->d2, s, sorted);
        visit(sorted_ids_[qi], s->idx.data(), s->d2.data(), s->idx.size());
        continue;
      }
      if (sorted) std::sort(cand.begin(), cand.begin() + ptrdiff_t(want));
      s->idx.resize(want);
      s->d2.resize(want);
      for (size_t i = 0; i < want; ++i) {
        s->idx[i] = sorted_ids_[size_t(cand[i].second)];
        s->d2[i] = cand[i].first;
      }
      visit(sorted_ids_[qi], s->idx.data(), s->d2.data(), want);
    }
  }
}

void NeighbourGrid::Radius(const Eigen::Vector3f& q, double r, std::vector<int32_t>* idx,
                           std::vector<float>* d2) const {
  idx->clear();
  d2->clear();
  if (Size() == 0 || !(r >= 0)) return;
  const Eigen::Vector3f lo = q - Eigen::Vector3f::Constant(float(r));
  const Eigen::Vector3f hi = q + Eigen::Vector3f::Constant(float(r));
  const Eigen::Vector3i a = CellOf(lo), b = CellOf(hi);
  const float r2 = float(r * r);
  for (int z = std::max(a.z(), 0); z <= std::min(b.z(), dims_.z() - 1); ++z)
    for (int y = std::max(a.y(), 0); y <= std::min(b.y(), dims_.y() - 1); ++y) {
      uint32_t cb, ce;
      if (!Row(a.x(), b.x(), y, z, &cb, &ce)) continue;
      for (uint32_t i = cb; i < ce; ++i) {
        const float d = (sorted_[i] - q).squaredNorm();
        if (d <= r2) {
          idx->push_back(sorted_ids_[i]);
          d2->push_back(d);
        }
      }
    }
}

}  // namespace vision::model3d
