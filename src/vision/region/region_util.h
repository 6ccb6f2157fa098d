#pragma once
// Helpers shared by the region operators (not part of the public interface).
#include <bit>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "vision/core/object.h"
#include "vision/core/param.h"
#include "vision/core/region.h"
#include "vision/core/tuple.h"

namespace vision::detail {

// Every region of an object list (images contribute their domains).
std::vector<Region> RegionsOf(const HObject& obj, const char* op);
// The same without copies, valid while obj is unchanged.
std::vector<std::reference_wrapper<const Region>> RegionRefs(const HObject& obj, const char* op);
HObject ObjectOf(std::vector<Region> regions);

// Connected components, ordered by their first run; neighborhood 4 or 8.
std::vector<Region> Components(const Region& r, int neighborhood);
// The component number of every run (numbered as Components orders them);
// returns the number of components.
int LabelComponents(const Region& r, int neighborhood, std::vector<int>* label);

// The holes of a region: the components of the background within the
// bounding box grown by one, in the neighbourhood dual to the foreground's,
// that do not reach the outside; numbered by their first run.
class HoleSet {
 public:
  HoleSet(const Region& r, int foreground_neighborhood);
  int Count() const { return count_; }
  std::vector<int64_t> Areas() const;
  std::vector<Region> Regions() const;
  // r with the holes i for which chosen[i] holds filled in.
  Region FilledWith(const Region& r, const std::vector<bool>& chosen) const;

 private:
  Region background_;
  std::vector<int> label_;  // per background run: 0 outside, hole i as i + 1
  int count_ = 0;
};
// Holes: the components of the background, in the neighbourhood dual to the
// foreground's, that do not reach the outside.
std::vector<Region> Holes(const Region& r, int foreground_neighborhood);
Region FillHoles(const Region& r, int foreground_neighborhood);

// Rows shifted by dr (positive down).
Region ShiftRows(const Region& r, int dr);
// Every run widened by left/right columns (negative values shrink it; runs that
// vanish are dropped).
Region GrowRuns(const Region& r, int left, int right);

// Raw and central second moments over the pixel centres.
struct Moments {
  double area = 0, row = 0, col = 0;   // area, centre of gravity
  double mrr = 0, mcc = 0, mrc = 0;    // central moments divided by the area
};
Moments ComputeMoments(const Region& r);
// Area and centre only, with the same sums as ComputeMoments (identical values).
void AreaCenter(const Region& r, double* area, double* row, double* col);
// Equivalent ellipse: half axes and angle as the reference's elliptic_axis.
void EllipticAxis(const Moments& m, double* ra, double* rb, double* phi);

// Convex hull of the pixel centres (x = column, y = row).
std::vector<cv::Point2d> HullPoints(const Region& r);

// Runs of one row read off pixel flags 64 at a time: long stretches inside or
// outside cost one test per word, and each run a few bit operations instead
// of a mispredicted branch per pixel. Bit i of the k-th word is column
// col0 + 64 k + i.
class RowRunWriter {
 public:
  RowRunWriter(int row, int col0, std::vector<Run>* out) : row_(row), col_(col0), out_(out) {}
  void Add(uint64_t word) {
    // Set where a pixel differs from the one before it: starts and ends
    // alternate, so after closing a run carried over they come in pairs.
    uint64_t t = word ^ ((word << 1) | uint64_t(in_));
    if (in_ && t) {
      out_->push_back({row_, start_, col_ + std::countr_zero(t) - 1});
      t &= t - 1;
      in_ = false;
    }
    while (t) {
      const int s = std::countr_zero(t);
      t &= t - 1;
      if (!t) {  // runs on into the next word
        start_ = col_ + s;
        in_ = true;
        break;
      }
      out_->push_back({row_, col_ + s, col_ + std::countr_zero(t) - 1});
      t &= t - 1;
    }
    col_ += 64;
  }
  // Closes a run that reaches the last word's end.
  void Finish() {
    if (in_) out_->push_back({row_, start_, col_ - 1});
    in_ = false;
  }

 private:
  int row_, col_, start_ = 0;
  bool in_ = false;
  std::vector<Run>* out_;
};

// The bits of 64 flag bytes, each 0 or 0xFF.
inline uint64_t PackFlags64(const uint8_t* flags) {
  uint64_t w = 0;
#if defined(__SSE2__)
  for (int k = 0; k < 4; ++k) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(flags + 16 * k));
    w |= uint64_t(uint32_t(_mm_movemask_epi8(v)) & 0xFFFFu) << (16 * k);
  }
#else
  for (int i = 0; i < 64; ++i) w |= uint64_t(flags[i] >> 7) << i;
#endif
  return w;
}

// A region as rows of 64-pixel words: bit i of word k of row y is the pixel
// (row0 + y, col0 + 64 k + i). Bits past `cols` stay clear.
struct BitRaster {
  int rows = 0, cols = 0, words = 0, row0 = 0, col0 = 0;
  std::vector<uint64_t> bits;

  // The part of r inside rows x cols from (row0, col0).
  static BitRaster Of(const Region& r, int rows, int cols, int row0, int col0);
  uint64_t* Row(int y) { return bits.data() + size_t(y) * size_t(words); }
  const uint64_t* Row(int y) const { return bits.data() + size_t(y) * size_t(words); }
  Region ToRegion() const;
};

// Runs of the reals q[0..n-1] within [lo, hi] (q[i] is column col0 + i),
// appended to out; `wide` takes eight reals per compare (only when
// CpuHasAvx2()), else four. Both give the same runs.
bool CpuHasAvx2();
void RealRangeRuns(const float* q, int n, float lo, float hi, int row, int col0, bool wide,
                   std::vector<Run>* out);

// The number of pixels of a one-channel real image's domain within each of
// the ranges [lo[i], hi[i]], decided as `threshold` decides them, in one
// pass over the pixels (a loop that narrows a threshold until its area
// drops then needs one threshold instead of one per step). False, and
// nothing counted, for any other image.
bool RealRangeAreas(const Image& img, const std::vector<double>& lo, const std::vector<double>& hi,
                    std::vector<int64_t>* areas);

// Gaussian smoothing of a 256-bin histogram without mass outside the range:
// out[i] = sum k(d) h[i + d] / sum k(d) over the bins i + d in reach,
// k(d) = exp(-d^2 / (2 sigma^2)), |d| <= ceil(3 sigma), summed in increasing
// d. `wide` (only when CpuHasAvx2()) gives the same doubles.
class HistogramSmoother {
 public:
  explicit HistogramSmoother(const std::vector<double>& hist);
  void Smooth(double sigma, bool wide, std::vector<double>* out);  // sigma <= 64

 private:
  std::vector<double> padded_, inside_, kernel_;
};

// Raises when a rows x cols raster would not fit in memory sensibly.
void CheckRasterSize(int64_t rows, int64_t cols, const char* op);

// Rasterised into a mask with a one pixel margin; (0,0) of the mask lies at
// (*row0, *col0).
cv::Mat MaskWithMargin(const Region& r, int margin, int* row0, int* col0, const char* op);

}  // namespace vision::detail
