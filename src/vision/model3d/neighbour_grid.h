#pragma once
// Nearest-neighbour searches on a uniform grid of cubic cells. Point clouds
// of scanned surfaces fill a thin shell of space, where a hashed grid sized
// to the neighbourhood answers k-nearest and radius queries several times
// faster than a kd-tree. Queries are const and may run on several threads.
#include <cstdint>
#include <functional>
#include <vector>

#include <Eigen/Core>

namespace vision::model3d {

class NeighbourGrid {
 public:
  // Indexes the finite points of `pts`; `cell` > 0 fixes the cell edge,
  // otherwise it is chosen so that a query's own and adjacent cells hold
  // about `k` points.
  NeighbourGrid(const std::vector<Eigen::Vector3f>& pts, double cell, int k = 16);

  size_t Size() const { return ids_.size(); }  // finite points indexed
  // The indexed point ids (indices into the constructor's vector).
  const std::vector<int32_t>& Ids() const { return ids_; }

  // Scratch space of one thread.
  struct Scratch {
    std::vector<std::pair<float, int32_t>> cand;
    // The gathered block of KnnOfCells, coordinates apart so that the
    // distance loop vectorises.
    std::vector<float> bx, by, bz, bd;
    std::vector<int32_t> bi, idx;
    std::vector<float> d2;
    float guess = 0;
  };
  // Occupied cells, in key order; KnnOfCells visits a range of them.
  size_t NumCells() const { return cells_.size(); }
  using KnnVisitor = std::function<void(int32_t id, const int32_t* idx, const float* d2, size_t n)>;
  // The k nearest points of every indexed point in cells [cb, ce), as Knn
  // gives them: the points around a cell are gathered once and serve each
  // query in it. For ranges of cells on several threads, one Scratch each.
  void KnnOfCells(size_t cb, size_t ce, int k, bool sorted, Scratch* s, const KnnVisitor& visit) const;
  // The min(k, Size()) nearest points (the query point itself included when
  // it is indexed), nearest first unless `sorted` is false.
  void Knn(const Eigen::Vector3f& q, int k, std::vector<int32_t>* idx, std::vector<float>* d2,
           Scratch* s, bool sorted = true) const;
  // All points with squared distance <= r^2, unordered.
  void Radius(const Eigen::Vector3f& q, double r, std::vector<int32_t>* idx,
              std::vector<float>* d2) const;

 private:
  void Build(double cell);
  uint64_t Key(int64_t x, int64_t y, int64_t z) const;
  // The points of cells x0..x1 of row (y, z): [begin, end) into sorted_.
  // Cells of a row are adjacent in key order, so one run holds them all.
  bool Row(int64_t x0, int64_t x1, int64_t y, int64_t z, uint32_t* begin, uint32_t* end) const;
  Eigen::Vector3i CellOf(const Eigen::Vector3f& p) const;
  struct Slot;
  const Slot* Find(uint64_t key) const;  // the cell's slot, or null when empty

  const std::vector<Eigen::Vector3f>& pts_;
  std::vector<int32_t> ids_;
  Eigen::Vector3d lo_;
  double cell_ = 1, inv_cell_ = 1;
  Eigen::Vector3i dims_;  // cells per axis
  // Points sorted by cell; a hash from cell key to its run in `sorted_`.
  std::vector<Eigen::Vector3f> sorted_;
  std::vector<int32_t> sorted_ids_;
  struct Slot {
    uint64_t key;
    uint32_t begin, end;
  };
  std::vector<Slot> table_;  // one cache line per probe
  std::vector<Slot> cells_;  // the same runs in key order
  uint64_t mask_ = 0;
};

}  // namespace vision::model3d
