#pragma once
// Run-length encoded regions: rows of column runs, unbounded coordinates.
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace vision {

struct Run {
  int32_t row, cb, ce;  // columns cb..ce inclusive
  friend bool operator==(const Run&, const Run&) = default;
};

// Invariant: runs are sorted by (row, cb), do not overlap, and runs of one row
// that touch or overlap are merged. Every constructor and operator keeps it.
class Region {
 public:
  Region() = default;
  // Normalises arbitrary runs (sorts, merges, drops empty ones).
  static Region FromRuns(std::vector<Run> runs);
  // Runs that are already normalised (checked in debug builds only).
  static Region FromSortedRuns(std::vector<Run> runs);
  // Foreground = non-zero pixels of an 8-bit mask whose (0,0) lies at
  // (row0, col0).
  static Region FromMask(const cv::Mat& mask8u, int row0 = 0, int col0 = 0);
  static Region Rectangle(int r1, int c1, int r2, int c2);  // inclusive corners

  const std::vector<Run>& Runs() const { return runs_; }
  bool Empty() const { return runs_.empty(); }
  int64_t Area() const;
  // Inclusive bounding box; all zero for an empty region.
  void BoundingBox(int* r1, int* c1, int* r2, int* c2) const;
  bool Contains(int row, int col) const;

  // Rasterises into an 8-bit mask (255 inside) of the given size whose (0,0)
  // lies at (row0, col0); runs outside are clipped.
  cv::Mat ToMask(int rows, int cols, int row0 = 0, int col0 = 0) const;
  // Clipped to rows 0..h-1 and columns 0..w-1.
  Region Clipped(int h, int w) const;
  Region Translated(int dr, int dc) const;

  Region Union(const Region& o) const;
  Region Intersection(const Region& o) const;
  Region Difference(const Region& o) const;

  friend bool operator==(const Region&, const Region&) = default;

 private:
  std::vector<Run> runs_;
};

}  // namespace vision
