#include "vision/stereo/disparity.h"
#include "vision/stereo/disparity_internal.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "vision/core/param.h"

namespace vision {
namespace {

constexpr const char* kOp = "binocular_disparity_ms";

// Disparities searched around the prediction of the coarser level.
constexpr int kRefineRadius = 3;
// Largest disparity span searched in full at the coarsest level.
constexpr int kCoarseSpan = 40;
constexpr int kCensusR = 3;  // 7 x 7 census, 48 bits

std::vector<cv::Mat> Channels(const Image& img) {
  if (img.type == PixelType::VectorField || img.planes.empty())
    throw HException(kOp, "Wrong image type: grey values expected", kErrWrongParamValue);
  std::vector<cv::Mat> out;
  for (const cv::Mat& p : img.planes) {
    cv::Mat f;
    p.convertTo(f, CV_32F);
    out.push_back(f);
  }
  return out;
}

// Grey values of an image from its channels as floats (Channels).
cv::Mat Gray(const std::vector<cv::Mat>& ch) {
  if (ch.size() >= 3) return 0.299f * ch[0] + 0.587f * ch[1] + 0.114f * ch[2];
  return ch[0].clone();
}

cv::Mat DomainMask(const Image& img) {
  if (img.FullDomain()) return cv::Mat(img.height, img.width, CV_8U, cv::Scalar(255));
  return img.domain.ToMask(img.height, img.width);
}

// Census signature: one bit per neighbour of the 7 x 7 window, set where the
// neighbour is darker than the centre. One row of it, from the row of
// centres `c` of a padded image with `step` floats a row; compiled twice so
// that processors with AVX2 compare eight values at a time.
template <int R>
inline void CensusRowT(const float* c, size_t step, int w, uint64_t* o, uint32_t* first, uint32_t* second) {
  // One neighbour offset at a time over the whole row, so that the
  // comparisons run on vectors; the signature's upper and lower halves
  // (first and second half of the offsets) gather in 32-bit lanes, twice as
  // many a vector as 64-bit ones.
  constexpr int kBits = (2 * R + 1) * (2 * R + 1) - 1;
  static_assert(kBits % 2 == 0 && kBits / 2 <= 32);
  std::fill(first, first + w, 0u);
  std::fill(second, second + w, 0u);
  int bit = 0;
  for (int dy = -R; dy <= R; ++dy) {
    const float* row = c + std::ptrdiff_t(dy) * std::ptrdiff_t(step);
    for (int dx = -R; dx <= R; ++dx) {
      if (dx == 0 && dy == 0) continue;
      const float* n = row + dx;
      uint32_t* h = bit++ < kBits / 2 ? first : second;
      for (int x = 0; x < w; ++x) h[x] = (h[x] << 1) | uint32_t(n[x] < c[x]);
    }
  }
  for (int x = 0; x < w; ++x) o[x] = (uint64_t(first[x]) << (kBits / 2)) | second[x];
}
#if defined(__x86_64__)
__attribute__((target("avx2"))) void CensusRowAvx2(const float* c, size_t step, int w, uint64_t* o, uint32_t* first,
                                                   uint32_t* second) {
  CensusRowT<kCensusR>(c, step, w, o, first, second);
}
#endif
void CensusRow(const float* c, size_t step, int w, uint64_t* o, uint32_t* first, uint32_t* second) {
  CensusRowT<kCensusR>(c, step, w, o, first, second);
}

cv::Mat Census(const cv::Mat& g) {
  const int h = g.rows, w = g.cols, r = kCensusR;
  cv::Mat padded;
  cv::copyMakeBorder(g, padded, r, r, r, r, cv::BORDER_REPLICATE);
  cv::Mat out(g.size(), CV_64F);  // used as raw 64-bit storage
#if defined(__x86_64__)
  const bool avx2 = __builtin_cpu_supports("avx2");
#endif
  const size_t step = padded.step1();
  cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
    std::vector<uint32_t> first(w), second(w);
    for (int y = rg.start; y < rg.end; ++y) {
      uint64_t* o = reinterpret_cast<uint64_t*>(out.ptr(y));
      const float* c = padded.ptr<float>(y + r) + r;
#if defined(__x86_64__)
      if (avx2 && kCensusR == 3) {
        disparity_internal::CensusRowWide(c, step, w, o);
        continue;
      }
      if (avx2) {
        CensusRowAvx2(c, step, w, o, first.data(), second.data());
        continue;
      }
#endif
      CensusRow(c, step, w, o, first.data(), second.data());
    }
  });
  return out;
}

struct Level {
  cv::Mat g1, g2;        // grey values
  cv::Mat m1, m2;        // domains (255 inside)
};

// One scale of the search: every pixel tests K disparities base(p) .. base(p)+K-1.
// Costs and sums keep `stride` entries a pixel: K, or eight lanes for the
// vector path when K is at most eight (the lanes past K unused).
struct Search {
  int w = 0, h = 0, k = 0, stride = 0;
  std::vector<int> base;       // per pixel
  std::vector<uint8_t> cost;   // (y*w + x)*stride + i
  std::vector<uint16_t> sum;   // aggregated over the scanlines
};

constexpr uint8_t kOutsideCost = 40;

// One row of Hamming distances; compiled twice so that processors with the
// popcount instruction use it (the generic build calls a library routine).
[[gnu::always_inline]] inline void CostRowBody(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w,
                                               int w2, int k, int stride, const int* base, uint8_t* cost) {
  for (int x = 0; x < w; ++x) {
    uint8_t* c = cost + size_t(x) * stride;
    const int b0 = base[x];
    for (int i = 0; i < k; ++i) {
      const int x2 = x + b0 + i;
      if (x2 < 0 || x2 >= w2 || !m2[x2]) continue;
      c[i] = uint8_t(__builtin_popcountll(a[x] ^ b[x2]));
    }
  }
}
#if defined(__x86_64__)
__attribute__((target("popcnt"))) void CostRowHw(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w,
                                                  int w2, int k, int stride, const int* base, uint8_t* cost) {
  CostRowBody(a, b, m2, w, w2, k, stride, base, cost);
}
#endif
void CostRow(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w, int w2, int k, int stride,
             const int* base, uint8_t* cost) {
  CostRowBody(a, b, m2, w, w2, k, stride, base, cost);
}

void ComputeCost(const Level& lv, Search* s) {
  const cv::Mat c1 = Census(lv.g1), c2 = Census(lv.g2);
  const int w2 = lv.g2.cols;
  s->cost.assign(size_t(s->w) * s->h * s->stride, kOutsideCost);
#if defined(__x86_64__)
  const bool hw = __builtin_cpu_supports("popcnt");
#endif
  const bool wide = s->stride == 8 && disparity_internal::WideCost();
  cv::parallel_for_(cv::Range(0, s->h), [&](const cv::Range& rg) {
    for (int y = rg.start; y < rg.end; ++y) {
      const uint64_t* a = reinterpret_cast<const uint64_t*>(c1.ptr(y));
      const uint64_t* b = reinterpret_cast<const uint64_t*>(c2.ptr(y));
      const uint8_t* m2 = lv.m2.ptr<uint8_t>(y);
      const int* base = &s->base[size_t(y) * s->w];
      uint8_t* cost = &s->cost[size_t(y) * s->w * s->stride];
      if (wide) {
        disparity_internal::CostRowWide(a, b, m2, s->w, w2, s->k, base, kOutsideCost, cost);
        continue;
      }
#if defined(__x86_64__)
      if (hw) {
        CostRowHw(a, b, m2, s->w, w2, s->k, s->stride, base, cost);
        continue;
      }
#endif
      CostRow(a, b, m2, s->w, w2, s->k, s->stride, base, cost);
    }
  });
}

// Adds one scanline direction's path costs to the sum. The previous pixel
// on the path may test other disparities (its own base); disparities it did
// not test are reachable only through the jump penalty.
struct PathStep {
  int k, p1, p2;
  void operator()(const uint8_t* c, int basep, const int* lq, int baseq, int minq, int* l) const {
    const int delta = basep - baseq;
    constexpr int kInf = 1 << 28;
    // The previous costs re-indexed to this pixel's disparities, one more
    // either side; disparities the previous pixel did not test are
    // unreachable, so the loop below needs no bounds.
    int buf[258];
    std::vector<int> heap;
    int* q = buf;
    if (k + 2 > 258) {
      heap.resize(size_t(k) + 2);
      q = heap.data();
    }
    for (int i = -1; i <= k; ++i) {
      const int j = i + delta;
      q[i + 1] = j >= 0 && j < k ? lq[j] : kInf;
    }
    const int jump = minq + p2;
    for (int i = 0; i < k; ++i) {
      const int best = std::min(std::min(q[i + 1], jump), std::min(q[i], q[i + 2]) + p1);
      l[i] = c[i] + best - minq;
    }
  }
};

void AggregateScalar(Search* s, int p1, int p2) {
  const int w = s->w, h = s->h, k = s->k, st = s->stride;
  s->sum.assign(size_t(w) * h * st, 0);
  const PathStep step{k, p1, p2};
  auto add = [&](size_t pix, const int* l) {
    uint16_t* o = &s->sum[pix * st];
    for (int i = 0; i < k; ++i) o[i] = uint16_t(o[i] + l[i]);
  };
  auto minof = [k](const int* l) { return *std::min_element(l, l + k); };
  // Rows: left to right and right to left.
  cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
    std::vector<int> a(k), b(k);
    for (int y = rg.start; y < rg.end; ++y) {
      for (int dir = 0; dir < 2; ++dir) {
        int* prev = a.data();
        int* cur = b.data();
        for (int n = 0; n < w; ++n) {
          const int x = dir == 0 ? n : w - 1 - n;
          const size_t pix = size_t(y) * w + x;
          const uint8_t* c = &s->cost[pix * st];
          if (n == 0) {
            for (int i = 0; i < k; ++i) cur[i] = c[i];
          } else {
            const int xq = dir == 0 ? x - 1 : x + 1;
            step(c, s->base[pix], prev, s->base[size_t(y) * w + xq], minof(prev), cur);
          }
          add(pix, cur);
          std::swap(prev, cur);
        }
      }
    }
  });
  // Columns: top to bottom and bottom to top, in blocks of columns.
  const int block = 32;
  cv::parallel_for_(cv::Range(0, (w + block - 1) / block), [&](const cv::Range& rg) {
    for (int bi = rg.start; bi < rg.end; ++bi) {
      const int x0 = bi * block, x1 = std::min(w, x0 + block), bw = x1 - x0;
      std::vector<int> a(size_t(bw) * k), b(size_t(bw) * k), mins(bw);
      for (int dir = 0; dir < 2; ++dir) {
        int* prev = a.data();
        int* cur = b.data();
        for (int n = 0; n < h; ++n) {
          const int y = dir == 0 ? n : h - 1 - n;
          const int yq = dir == 0 ? y - 1 : y + 1;
          for (int x = x0; x < x1; ++x) {
            const size_t pix = size_t(y) * w + x;
            const uint8_t* c = &s->cost[pix * st];
            int* l = cur + size_t(x - x0) * k;
            if (n == 0) {
              for (int i = 0; i < k; ++i) l[i] = c[i];
            } else {
              step(c, s->base[pix], prev + size_t(x - x0) * k, s->base[size_t(yq) * w + x],
                   mins[x - x0], l);
            }
            add(pix, l);
          }
          for (int x = x0; x < x1; ++x) mins[x - x0] = minof(cur + size_t(x - x0) * k);
          std::swap(prev, cur);
        }
      }
    }
  });
}

#if CV_SIMD128
// The same recursion with a pixel's (at most eight) disparities in the
// lanes of one vector of 16-bit path costs. Lanes past K hold kInf16, which
// no step can pick; sums saturate.
constexpr int16_t kInf16 = disparity_internal::kPathInf;
// Penalties up to this keep every path cost far below kInf16.
constexpr int kMaxVecPenalty = 2000;

class VecStep {
 public:
  VecStep(int k, int p1, int p2) : p1_(cv::v_setall_s16(int16_t(p1))), p2_(int16_t(p2)) {
    int16_t pad[8];
    for (int i = 0; i < 8; ++i) pad[i] = i < k ? 0 : kInf16;
    pad_ = cv::v_load(pad);
    std::fill(std::begin(buf_), std::end(buf_), kInf16);
  }
  static cv::v_int16x8 Cost(const uint8_t* c) { return cv::v_reinterpret_as_s16(cv::v_load_expand(c)); }
  // The first pixel of a path: its own costs.
  cv::v_int16x8 First(const uint8_t* c) const { return cv::v_max(Cost(c), pad_); }
  // Path costs at a pixel whose disparities start `delta` above the
  // previous pixel's, from the previous path costs and their minimum.
  cv::v_int16x8 operator()(const uint8_t* c, const cv::v_int16x8& prev, int16_t minq, int delta) {
    const cv::v_int16x8 inf = cv::v_setall_s16(kInf16);
    cv::v_int16x8 q, qm, qp;  // previous costs at d, d - 1 and d + 1
    if (delta == 0) {
      q = prev;
      qm = cv::v_rotate_left<1>(prev, inf);
      qp = cv::v_rotate_right<1>(prev, inf);
    } else if (delta > -9 && delta < 9) {
      cv::v_store(buf_ + 12, prev);
      q = cv::v_load(buf_ + 12 + delta);
      qm = cv::v_load(buf_ + 11 + delta);
      qp = cv::v_load(buf_ + 13 + delta);
    } else {
      q = qm = qp = inf;
    }
    const cv::v_int16x8 best =
        cv::v_min(cv::v_min(q, cv::v_setall_s16(int16_t(minq + p2_))), cv::v_min(qm, qp) + p1_);
    return cv::v_max(Cost(c) + best - cv::v_setall_s16(minq), pad_);
  }

 private:
  cv::v_int16x8 p1_, pad_;
  int16_t p2_;
  int16_t buf_[32];  // previous costs at 12..19, kInf16 around
};

inline cv::v_uint16x8 U16(const cv::v_int16x8& v) { return cv::v_reinterpret_as_u16(v); }

// Each sum is written once by the rows' pass (left to right plus right to
// left, kept a row at a time) and read and written once more by the
// columns' pass (down plus up, kept for a block of columns), in the order
// of the four directions.
void AggregateVec(Search* s, int p1, int p2) {
  const int w = s->w, h = s->h, k = s->k;
  s->sum.resize(size_t(w) * h * 8);
  const uint8_t* cost = s->cost.data();
  uint16_t* sum = s->sum.data();
  const int* base = s->base.data();
  // Rows, two at a time: their recursions are independent, so that one
  // runs while the other waits for its minimum.
  cv::parallel_for_(cv::Range(0, (h + 1) / 2), [&](const cv::Range& rg) {
    VecStep step[2] = {VecStep(k, p1, p2), VecStep(k, p1, p2)};
    std::vector<cv::v_int16x8> right(size_t(2) * w);  // left-to-right costs of both rows
    for (int yy = rg.start; yy < rg.end; ++yy) {
      const int n = 2 * yy + 1 < h ? 2 : 1;
      const size_t row[2] = {size_t(2 * yy) * w, size_t(2 * yy + n - 1) * w};
      cv::v_int16x8 l[2];
      for (int j = 0; j < n; ++j) right[size_t(j) * w] = l[j] = step[j].First(cost + row[j] * 8);
      for (int x = 1; x < w; ++x)
        for (int j = 0; j < n; ++j) {
          const size_t pix = row[j] + x;
          l[j] = step[j](cost + pix * 8, l[j], cv::v_reduce_min(l[j]), base[pix] - base[pix - 1]);
          right[size_t(j) * w + x] = l[j];
        }
      for (int j = 0; j < n; ++j) {
        const size_t pix = row[j] + w - 1;
        l[j] = step[j].First(cost + pix * 8);
        cv::v_store(sum + pix * 8, U16(right[size_t(j) * w + w - 1]) + U16(l[j]));
      }
      for (int x = w - 2; x >= 0; --x)
        for (int j = 0; j < n; ++j) {
          const size_t pix = row[j] + x;
          l[j] = step[j](cost + pix * 8, l[j], cv::v_reduce_min(l[j]), base[pix] - base[pix + 1]);
          cv::v_store(sum + pix * 8, U16(right[size_t(j) * w + x]) + U16(l[j]));
        }
    }
  });
  // Columns, both ways, in blocks of columns.
  const int block = 32;
  cv::parallel_for_(cv::Range(0, (w + block - 1) / block), [&](const cv::Range& rg) {
    VecStep step(k, p1, p2);
    std::vector<cv::v_int16x8> down(size_t(block) * h);  // top-to-bottom costs of the block
    for (int bi = rg.start; bi < rg.end; ++bi) {
      const int x0 = bi * block, x1 = std::min(w, x0 + block), bw = x1 - x0;
      for (int x = x0; x < x1; ++x) down[size_t(x - x0)] = step.First(cost + size_t(x) * 8);
      for (int y = 1; y < h; ++y) {
        const cv::v_int16x8* q = &down[size_t(y - 1) * bw];
        cv::v_int16x8* o = &down[size_t(y) * bw];
        for (int x = x0; x < x1; ++x) {
          const size_t pix = size_t(y) * w + x;
          const cv::v_int16x8 p = q[x - x0];
          o[x - x0] = step(cost + pix * 8, p, cv::v_reduce_min(p), base[pix] - base[pix - w]);
        }
      }
      cv::v_int16x8 up[block];
      for (int y = h - 1; y >= 0; --y) {
        const cv::v_int16x8* d = &down[size_t(y) * bw];
        for (int x = x0; x < x1; ++x) {
          const size_t pix = size_t(y) * w + x;
          cv::v_int16x8& l = up[x - x0];
          l = y == h - 1 ? step.First(cost + pix * 8)
                         : step(cost + pix * 8, l, cv::v_reduce_min(l), base[pix] - base[pix + w]);
          cv::v_store(sum + pix * 8, (cv::v_load(sum + pix * 8) + U16(d[x - x0])) + U16(l));
        }
      }
    }
  });
}
#endif

// Whether the vector path takes a search of K disparities.
bool VecAggregation(int k, int p2) {
#if CV_SIMD128
  return k <= 8 && p2 <= kMaxVecPenalty;
#else
  (void)k;
  (void)p2;
  return false;
#endif
}

// Lanes a pixel of a search of K disparities: eight for the vector paths,
// 32 for the wide path of up to 32 (the coarsest level), else K.
int Stride(int k, int p2, bool wide = true) {
  if (VecAggregation(k, p2)) return 8;
  if (wide && k <= 32 && VecAggregation(1, p2) && disparity_internal::WideCoarse()) return 32;
  return k;
}

void Aggregate(Search* s, int p1, int p2, bool wide = true) {
  if (s->stride == 32 && s->k <= 32 && VecAggregation(1, p2) && wide && disparity_internal::WideCoarse()) {
    s->sum.resize(size_t(s->w) * s->h * 32);
    return disparity_internal::AggregateWide32(s->cost.data(), s->base.data(), s->sum.data(), s->w, s->h, s->k,
                                               p1, p2);
  }
  if (s->stride == 8 && VecAggregation(s->k, p2) && wide && disparity_internal::WideAggregation()) {
    s->sum.resize(size_t(s->w) * s->h * 8);
    return disparity_internal::AggregateWide(s->cost.data(), s->base.data(), s->sum.data(), s->w, s->h, s->k, p1,
                                             p2);
  }
#if CV_SIMD128
  if (s->stride == 8 && VecAggregation(s->k, p2)) return AggregateVec(s, p1, p2);
#endif
  AggregateScalar(s, p1, p2);
}

// Winner of the aggregated costs with a parabola through its neighbours;
// `best` receives the winning sum.
void Winner(const Search& s, cv::Mat* disp, cv::Mat* best) {
  *disp = cv::Mat(s.h, s.w, CV_32F);
  *best = cv::Mat(s.h, s.w, CV_32S);
#if CV_SIMD128
  // Eight lanes a pixel: the lanes past K hold sums near the 16-bit limit,
  // above any real one, so the first lowest lane is the first lowest of K.
  const bool lanes = s.stride == 8;
#endif
  const bool minpos = s.stride == 8 && disparity_internal::MinPosWinner();
  for (int y = 0; y < s.h; ++y) {
    float* d = disp->ptr<float>(y);
    int* bb = best->ptr<int>(y);
    if (minpos) {
      const size_t row = size_t(y) * s.w;
      disparity_internal::WinnerRowMinPos(&s.sum[row * 8], &s.base[row], s.w, s.k, d, bb);
      continue;
    }
    for (int x = 0; x < s.w; ++x) {
      const size_t pix = size_t(y) * s.w + x;
      const uint16_t* v = &s.sum[pix * s.stride];
      int i;
#if CV_SIMD128
      if (lanes) {
        const cv::v_uint16x8 all = cv::v_load(v);
        const cv::v_uint16x8 low = cv::v_setall_u16(cv::v_reduce_min(all));
        i = std::countr_zero(unsigned(cv::v_signmask(all == low)));
      } else
#endif
        i = int(std::min_element(v, v + s.k) - v);
      float sub = 0;
      if (i > 0 && i < s.k - 1) {
        const float a = v[i - 1], b = v[i], c = v[i + 1];
        const float den = a - 2 * b + c;
        if (den > 0) sub = 0.5f * (a - c) / den;
      }
      d[x] = float(s.base[pix] + i) + sub;
      bb[x] = v[i];
    }
  }
}

// Score 1000 / (1 + (sigma / kScoreSigma)^2) of the expected standard
// deviation sigma: 500 at 0.1 pixel, 200 at 0.2 pixel.
constexpr float kScoreSigma = 0.1f;
// Grey-value noise assumed at least (variance): quantisation and more, so
// that a window without texture never looks precise.
constexpr float kMinNoise = 0.5f;
// Gaussian sigma (pixels) of the refinement's window: about 9 x 9 pixels.
constexpr double kWindowSigma = 2.0;
float Sq(float v) { return v * v; }
cv::Mat Blur(const cv::Mat& m, double sigma) {
  if (sigma <= 0) return m;
  cv::Mat o;
  // Cut at three sigma (OpenCV would take four for floats): the tails
  // weigh about 1 % and cost a third more.
  const int r = int(std::ceil(3 * sigma));
  cv::GaussianBlur(m, o, cv::Size(2 * r + 1, 2 * r + 1), sigma, sigma, cv::BORDER_REPLICATE);
  return o;
}

// The Score of each consistent pixel (`valid`). The noise term sigma_d
// holds where the window sees one smooth field; where the field bends or
// breaks under the window (a part's edge, a bevel, a mismatch among good
// neighbours) the window's answer is off by about as much as the pixel
// departs from the Gaussian mean of the consistent disparities around it,
// so that departure counts as a second, independent error.
cv::Mat ScoreImage(const cv::Mat& d, const cv::Mat& valid, const cv::Mat& sigma_d) {
  const int h = d.rows, w = d.cols;
  // Disparities of inconsistent pixels may be anything (NaN too); they
  // weigh 0.
  cv::Mat vf, dv(h, w, CV_32F, cv::Scalar(0));
  valid.convertTo(vf, CV_32F, 1.0 / 255);
  d.copyTo(dv, valid);
  const cv::Mat sum_d = Blur(dv, kWindowSigma), sum_v = Blur(vf, kWindowSigma);
  cv::Mat sc(h, w, CV_32F);
  for (int y = 0; y < h; ++y) {
    const float* pd = d.ptr<float>(y);
    const float* sd = sigma_d.ptr<float>(y);
    const float* a = sum_d.ptr<float>(y);
    const float* b = sum_v.ptr<float>(y);
    const uint8_t* v = valid.ptr<uint8_t>(y);
    float* o = sc.ptr<float>(y);
    // Without branches, so that it runs on vectors; the pixels outside
    // `valid` get 0 (where b is 0 the quotient may be anything).
    for (int x = 0; x < w; ++x) {
      const float detail = pd[x] - a[x] / std::max(b[x], 1e-6f);
      const float r = 1000.f / (1.f + (Sq(sd[x]) + Sq(detail)) * (1.f / Sq(kScoreSigma)));
      o[x] = v[x] ? r : 0.f;
    }
  }
  return sc;
}

// Passes of the sub-pixel refinement; each moves a disparity by at most a
// pixel.
constexpr int kRefinePasses = 2;

// Horizontal resampling at x + d(x) (the shift of the disparity field):
// cubic (the convolution kernel with a = -0.75, as cv::remap) and linear
// weights of one pixel, with the source columns clamped to the row as
// BORDER_REPLICATE does.
struct Tap {
  int i[4];
  float c[4];  // cubic
  int l0, l1;
  float lt;    // linear: (1 - lt) * l0 + lt * l1
};
inline Tap MakeTap(float xs, int w) {
  // Clamped first, so that truncation after an offset floors (and NaN
  // lands at the left end).
  xs = std::min(std::max(xs, -2.f), float(w + 1));
  const int x0 = int(xs + 4.f) - 4;
  const float t = xs - float(x0);
  constexpr float A = -0.75f;
  Tap p;
  p.c[0] = ((A * (t + 1) - 5 * A) * (t + 1) + 8 * A) * (t + 1) - 4 * A;
  p.c[1] = ((A + 2) * t - (A + 3)) * t * t + 1;
  p.c[2] = ((A + 2) * (1 - t) - (A + 3)) * (1 - t) * (1 - t) + 1;
  p.c[3] = 1.f - p.c[0] - p.c[1] - p.c[2];
  for (int j = 0; j < 4; ++j) p.i[j] = std::clamp(x0 - 1 + j, 0, w - 1);
  p.l0 = p.i[1];
  p.l1 = p.i[2];
  p.lt = t;
  return p;
}
#if CV_SIMD128
// MakeTap for the four pixels x .. x + 3 of a row of disparities, by the
// same operations lane by lane (the comparisons in the order that keeps
// NaN as std::min / std::max do).
inline void MakeTaps4(const float* d, int x, int w, Tap* out) {
  using cv::v_float32x4;
  using cv::v_int32x4;
  constexpr float A = -0.75f;
  auto all = [](float v) { return cv::v_setall_f32(v); };
  const v_float32x4 xs0 = cv::v_cvt_f32(v_int32x4(x, x + 1, x + 2, x + 3)) + cv::v_load(d + x);
  const v_float32x4 xs = cv::v_min(all(float(w + 1)), cv::v_max(all(-2.f), xs0));
  const v_int32x4 x0 = cv::v_trunc(xs + all(4.f)) - cv::v_setall_s32(4);
  const v_float32x4 t = xs - cv::v_cvt_f32(x0);
  const v_float32x4 t1 = t + all(1.f), u = all(1.f) - t;
  v_float32x4 c[4];
  c[0] = ((all(A) * t1 - all(5 * A)) * t1 + all(8 * A)) * t1 - all(4 * A);
  c[1] = (all(A + 2) * t - all(A + 3)) * t * t + all(1.f);
  c[2] = (all(A + 2) * u - all(A + 3)) * u * u + all(1.f);
  c[3] = all(1.f) - c[0] - c[1] - c[2];
  v_int32x4 i[4];
  const v_int32x4 zero = cv::v_setzero_s32(), last = cv::v_setall_s32(w - 1);
  for (int j = 0; j < 4; ++j) i[j] = cv::v_min(cv::v_max(x0 + cv::v_setall_s32(j - 1), zero), last);
  v_float32x4 ct[4];
  v_int32x4 it[4];
  cv::v_transpose4x4(c[0], c[1], c[2], c[3], ct[0], ct[1], ct[2], ct[3]);
  cv::v_transpose4x4(i[0], i[1], i[2], i[3], it[0], it[1], it[2], it[3]);
  float ts[4];
  cv::v_store(ts, t);
  for (int j = 0; j < 4; ++j) {
    Tap& p = out[j];
    cv::v_store(p.c, ct[j]);
    cv::v_store(p.i, it[j]);
    p.l0 = p.i[1];
    p.l1 = p.i[2];
    p.lt = ts[j];
  }
}
#endif
// The taps of pixels from .. to - 1 of a row of disparities d into a row
// of w2 columns, out[0] for pixel from.
inline void MakeTaps(const float* d, int from, int to, int w2, Tap* out, bool vector = true) {
  int x = from;
#if CV_SIMD128
  if (vector)
    for (; x + 4 <= to; x += 4) MakeTaps4(d, x, w2, out + (x - from));
#else
  (void)vector;
#endif
  for (; x < to; ++x) out[x - from] = MakeTap(float(x) + d[x], w2);
}
inline float Cubic(const float* row, const Tap& p) {
  return p.c[0] * row[p.i[0]] + p.c[1] * row[p.i[1]] + p.c[2] * row[p.i[2]] + p.c[3] * row[p.i[3]];
}
// The cubic resampling of group gk's first four lanes in a row of
// interleaved groups (16 floats a group, ng groups a column); a1 and a2 are
// the two middle columns' groups, for the linear lanes after the first four.
inline cv::v_float32x4 CubicGroup(const float* row, const Tap& p, int ng, int gk, const float** a1,
                                  const float** a2) {
  const float* a0 = row + (size_t(p.i[0]) * ng + gk) * 16;
  *a1 = row + (size_t(p.i[1]) * ng + gk) * 16;
  *a2 = row + (size_t(p.i[2]) * ng + gk) * 16;
  const float* a3 = row + (size_t(p.i[3]) * ng + gk) * 16;
  return cv::v_setall_f32(p.c[0]) * cv::v_load(a0) + cv::v_setall_f32(p.c[1]) * cv::v_load(*a1) +
         cv::v_setall_f32(p.c[2]) * cv::v_load(*a2) + cv::v_setall_f32(p.c[3]) * cv::v_load(a3);
}
inline float Linear(const float* row, const Tap& p) { return row[p.l0] + p.lt * (row[p.l1] - row[p.l0]); }

// Refines the disparity field to sub-pixel precision: image 2 is resampled
// under the current field and each pixel's disparity moves by the shift that
// best aligns the two windows after removing their local means. Also returns
// the correlation of the aligned grey windows and the disparity's expected
// standard deviation (`sigma_d`).
// kGroups: the number of groups of four channels when known at compile time
// (one: up to four channels, the usual case), 0 for any.
template <int kGroups>
void RefineSubPixelT(const std::vector<cv::Mat>& c1, const std::vector<cv::Mat>& c2, const cv::Mat& g1,
                     const cv::Mat& g2, cv::Mat* disp, cv::Mat* ncc, cv::Mat* sigma_d) {
  using cv::v_float32x4;
  const double sigma = kWindowSigma;
  const int h = disp->rows, w = disp->cols, w2 = g2.cols;
  const int nc = int(std::min(c1.size(), c2.size()));
  // Every colour channel adds its own evidence to the same shift; the
  // channels go four to a vector (groups of four lanes, unused lanes 0).
  const int ng = kGroups > 0 ? kGroups : (nc + 3) / 4;
  // Per channel: image 1's local mean, image 2's gradient and the local
  // means of image 2 and of its gradient.
  std::vector<cv::Mat> m1(nc), gx(nc), m2(nc), mg(nc);
  cv::parallel_for_(cv::Range(0, nc), [&](const cv::Range& rg) {
    for (int k = rg.start; k < rg.end; ++k) {
      m1[k] = Blur(c1[k], sigma);
      cv::Sobel(c2[k], gx[k], CV_32F, 1, 0, 3, 1.0 / 8.0, 0, cv::BORDER_REPLICATE);
      m2[k] = Blur(c2[k], sigma);
      mg[k] = Blur(gx[k], sigma);
    }
  });
  // One row at a time (so that nothing image-sized is written): image 1
  // less its local mean, per pixel one vector a group; image 2 per column
  // and group: its values, their local mean, its gradient and the
  // gradient's local mean, one vector each. Unused lanes hold 0.
  const std::vector<float> zeros(size_t(2 * std::max(w, w2)), 0.f);
  // Either part may be skipped (null).
  auto fill_row = [&](int y, float* e1, float* src2) {
    std::vector<const float*> a(4 * ng), am(4 * ng), v(4 * ng), vm(4 * ng), gm(4 * ng), g(4 * ng);
    for (int k = 0; k < 4 * ng; ++k) {
      const bool in = k < nc;
      a[k] = in ? c1[k].ptr<float>(y) : zeros.data();
      am[k] = in ? m1[k].ptr<float>(y) : zeros.data();
      v[k] = in ? c2[k].ptr<float>(y) : zeros.data();
      vm[k] = in ? m2[k].ptr<float>(y) : zeros.data();
      gm[k] = in ? mg[k].ptr<float>(y) : zeros.data();
      g[k] = in ? gx[k].ptr<float>(y) : zeros.data();
    }
    // Four columns at a time: a group's four channels are transposed from
    // rows of a channel into vectors of a column.
    if (e1) {
      int x = 0;
      for (; x + 4 <= w; x += 4)
        for (int gk = 0; gk < ng; ++gk) {
          v_float32x4 r[4], t[4];
          for (int l = 0; l < 4; ++l) r[l] = cv::v_load(a[4 * gk + l] + x) - cv::v_load(am[4 * gk + l] + x);
          cv::v_transpose4x4(r[0], r[1], r[2], r[3], t[0], t[1], t[2], t[3]);
          for (int j = 0; j < 4; ++j) cv::v_store(e1 + (size_t(x + j) * ng + gk) * 4, t[j]);
        }
      for (; x < w; ++x)
        for (int k = 0; k < 4 * ng; ++k) e1[size_t(x) * 4 * ng + k] = a[k][x] - am[k][x];
    }
    if (src2) {
      int x = 0;
      for (; x + 4 <= w2; x += 4)
        for (int gk = 0; gk < ng; ++gk) {
          v_float32x4 pv[4], pm[4], pg[4], pn[4], t[4];
          for (int l = 0; l < 4; ++l) {
            const int k = 4 * gk + l;
            pv[l] = cv::v_load(v[k] + x);
            pg[l] = cv::v_load(g[k] + x);
            pm[l] = cv::v_load(vm[k] + x);
            pn[l] = cv::v_load(gm[k] + x);
          }
          float* o = src2 + (size_t(x) * ng + gk) * 16;
          const size_t col = size_t(ng) * 16;
          cv::v_transpose4x4(pv[0], pv[1], pv[2], pv[3], t[0], t[1], t[2], t[3]);
          for (int j = 0; j < 4; ++j) cv::v_store(o + j * col, t[j]);
          cv::v_transpose4x4(pm[0], pm[1], pm[2], pm[3], t[0], t[1], t[2], t[3]);
          for (int j = 0; j < 4; ++j) cv::v_store(o + j * col + 4, t[j]);
          cv::v_transpose4x4(pg[0], pg[1], pg[2], pg[3], t[0], t[1], t[2], t[3]);
          for (int j = 0; j < 4; ++j) cv::v_store(o + j * col + 8, t[j]);
          cv::v_transpose4x4(pn[0], pn[1], pn[2], pn[3], t[0], t[1], t[2], t[3]);
          for (int j = 0; j < 4; ++j) cv::v_store(o + j * col + 12, t[j]);
        }
      for (; x < w2; ++x)
        for (int gk = 0; gk < ng; ++gk) {
          float* o = src2 + (size_t(x) * ng + gk) * 16;
          for (int lane = 0; lane < 4; ++lane) {
            const int k = gk * 4 + lane;
            o[lane] = v[k][x];
            o[4 + lane] = vm[k][x];
            o[8 + lane] = g[k][x];
            o[12 + lane] = gm[k][x];
          }
        }
    }
  };
  cv::Mat nd(h, w, CV_32FC2);  // numerator and denominator, interleaved
  // Last pass: image 2 and its gradient resampled, nc channels a pixel (the
  // unused lanes of a group are not stored, so not blurred either). A group
  // is read and written four lanes at a time; lanes past the channels belong
  // to the next pixel and are masked to 0 (they held 0 in a full group).
  cv::Mat wv(h, w, CV_32FC(nc)), wd(h, w, CV_32FC(nc));
  std::vector<v_float32x4> lane_mask(ng);
  for (int gk = 0; gk < ng; ++gk) {
    unsigned m[4];
    for (int l = 0; l < 4; ++l) m[l] = 4 * gk + l < nc ? 0xffffffffu : 0u;
    lane_mask[gk] = cv::v_reinterpret_as_f32(cv::v_uint32x4(m[0], m[1], m[2], m[3]));
  }
  // Whether a group's four lanes at pixel x stay inside the row; where not
  // (the row's last pixels) they go through a copy, so that no row reads or
  // writes another's (rows are filled in parallel).
  const size_t row_len = size_t(w) * nc;
  auto whole = [nc, row_len](int x, int gk) { return size_t(x) * nc + 4 * gk + 4 <= row_len; };
  // A pixel's group gk from a row of nc channels a pixel.
  auto load_group = [&](const float* row, int x, int gk, float* tmp) {
    const float* p = row + size_t(x) * nc + 4 * gk;
    if (whole(x, gk)) return cv::v_load(p);
    for (int l = 0; l < 4; ++l) tmp[l] = 4 * gk + l < nc ? p[l] : 0.f;
    return cv::v_load(tmp);
  };
  for (int it = 0; it < kRefinePasses; ++it) {
    // The local means of image 2 and of its gradient: in the first passes
    // taken before resampling (the field changes little over a window, and
    // shifting commutes with the blur), in the last one of the resampled
    // images themselves, which holds at the surfaces' edges too.
    const bool last = it == kRefinePasses - 1;
    // The smooth field carries the slope of the surface; each window adds
    // one constant correction to it. (Averaging the field itself with the
    // gradient weights would move each estimate towards the window's
    // strongest texture, an error of the slope times that offset.)
    const cv::Mat mean_d = Blur(*disp, sigma);
    cv::Mat bwv, bwd;
    if (last) {
      cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
        std::vector<float> ps(size_t(w2) * 16 * ng);
        std::vector<Tap> taps(w);
        const float* row = ps.data();
        for (int y = rg.start; y < rg.end; ++y) {
          fill_row(y, nullptr, ps.data());
          const float* d = disp->ptr<float>(y);
          float* ov = wv.ptr<float>(y);
          float* od = wd.ptr<float>(y);
          MakeTaps(d, 0, w, w2, taps.data());
          for (int x = 0; x < w; ++x) {
            const Tap& p = taps[x];
            const v_float32x4 t = cv::v_setall_f32(p.lt);
            for (int gk = 0; gk < ng; ++gk) {
              const float *a1, *a2;
              const v_float32x4 v = CubicGroup(row, p, ng, gk, &a1, &a2);
              const v_float32x4 g1v = cv::v_load(a1 + 8);
              const v_float32x4 gv = g1v + t * (cv::v_load(a2 + 8) - g1v);
              // Lanes past the channels spill into the next pixels, which
              // are written after; at the row's end they are left out.
              const size_t at = size_t(x) * nc + 4 * gk;
              if (whole(x, gk)) {
                cv::v_store(ov + at, v);
                cv::v_store(od + at, gv);
              } else {
                float tv[4], tg[4];
                cv::v_store(tv, v);
                cv::v_store(tg, gv);
                for (int l = 0; 4 * gk + l < nc; ++l) {
                  ov[at + l] = tv[l];
                  od[at + l] = tg[l];
                }
              }
            }
          }
        }
      });
      bwv = Blur(wv, sigma);
      bwd = Blur(wd, sigma);
    }
    cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
      std::vector<float> pev(size_t(w) * 4 * ng), psv(size_t(w2) * 16 * ng);
      std::vector<Tap> taps(last ? 0 : w);
      const float* row = psv.data();
      const float* pe = pev.data();
      for (int y = rg.start; y < rg.end; ++y) {
        fill_row(y, pev.data(), last ? nullptr : psv.data());
        const float* d = disp->ptr<float>(y);
        const float* md = mean_d.ptr<float>(y);
        const float* pw = last ? wv.ptr<float>(y) : nullptr;
        const float* pwd = last ? wd.ptr<float>(y) : nullptr;
        const float* pb = last ? bwv.ptr<float>(y) : nullptr;
        const float* pbd = last ? bwd.ptr<float>(y) : nullptr;
        float tmp[4][4];
        float* o = nd.ptr<float>(y);
        if (!last) MakeTaps(d, 0, w, w2, taps.data());
        for (int x = 0; x < w; ++x) {
          v_float32x4 num = cv::v_setzero_f32(), den = cv::v_setzero_f32();
          const v_float32x4 dv = cv::v_setall_f32(d[x] - md[x]);  // the field's detail
          const float* e = pe + size_t(x) * 4 * ng;
          if (last) {
            for (int gk = 0; gk < ng; ++gk) {
              const v_float32x4 ev =
                  (cv::v_load(e + 4 * gk) - (load_group(pw, x, gk, tmp[0]) - load_group(pb, x, gk, tmp[1]))) &
                  lane_mask[gk];
              const v_float32x4 g = (load_group(pwd, x, gk, tmp[2]) - load_group(pbd, x, gk, tmp[3])) & lane_mask[gk];
              // Each window holds one correction of the smooth field: the
              // detail under it, weighted by the gradients, plus the shift
              // that aligns it; a noisy field would otherwise keep its
              // pixel-to-pixel noise.
              num += g * ev + g * g * dv;
              den += g * g;
            }
          } else {
            const Tap& p = taps[x];
            const v_float32x4 t = cv::v_setall_f32(p.lt);
            for (int gk = 0; gk < ng; ++gk) {
              const float *a1, *a2;
              const v_float32x4 v = CubicGroup(row, p, ng, gk, &a1, &a2);
              // Linear: the mean, the gradient and its mean.
              const v_float32x4 m1 = cv::v_load(a1 + 4), g1v = cv::v_load(a1 + 8), n1 = cv::v_load(a1 + 12);
              const v_float32x4 m = m1 + t * (cv::v_load(a2 + 4) - m1);
              const v_float32x4 gx = g1v + t * (cv::v_load(a2 + 8) - g1v);
              const v_float32x4 gm = n1 + t * (cv::v_load(a2 + 12) - n1);
              const v_float32x4 ev = cv::v_load(e + 4 * gk) - (v - m);
              const v_float32x4 g = gx - gm;
              num += g * ev + g * g * dv;
              den += g * g;
            }
          }
          o[2 * x] = cv::v_reduce_sum(num);
          o[2 * x + 1] = cv::v_reduce_sum(den);
        }
      }
    });
    const cv::Mat bnd = Blur(nd, sigma);
    // Windows without gradient take the mean of the field around them.
    for (int y = 0; y < h; ++y) {
      float* d = disp->ptr<float>(y);
      const float* q = bnd.ptr<float>(y);
      const float* md = mean_d.ptr<float>(y);
      for (int x = 0; x < w; ++x) {
        const float target = q[2 * x + 1] > 1e-3f ? md[x] + q[2 * x] / q[2 * x + 1] : md[x];
        d[x] = std::clamp(target, d[x] - 1.0f, d[x] + 1.0f);
      }
    }
  }
  // Window statistics: (g1, g1^2, gx1^2) and (w2, w2^2, g1 w2) with w2
  // image 2 resampled under the field, blurred three channels at a time.
  cv::Mat gx1;
  cv::Sobel(g1, gx1, CV_32F, 1, 0, 3, 1.0 / 8.0, 0, cv::BORDER_REPLICATE);
  cv::Mat s1(h, w, CV_32FC3), s2(h, w, CV_32FC3);
  cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
    for (int y = rg.start; y < rg.end; ++y) {
      const float* d = disp->ptr<float>(y);
      const float* a = g1.ptr<float>(y);
      const float* b = g2.ptr<float>(y);
      const float* gx = gx1.ptr<float>(y);
      float* o1 = s1.ptr<float>(y);
      float* o2 = s2.ptr<float>(y);
      int x = 0;
      // Four pixels at a time (products as below, lane by lane).
      for (; x + 4 <= w; x += 4) {
        float vs[4];
        Tap p[4];
        MakeTaps(d, x, x + 4, w2, p);
        for (int j = 0; j < 4; ++j) vs[j] = Cubic(b, p[j]);
        const cv::v_float32x4 av = cv::v_load(a + x), gv = cv::v_load(gx + x), v = cv::v_load(vs);
        cv::v_store_interleave(o1 + 3 * x, av, av * av, gv * gv);
        cv::v_store_interleave(o2 + 3 * x, v, v * v, av * v);
      }
      for (; x < w; ++x) {
        const float v = Cubic(b, MakeTap(float(x) + d[x], w2));
        o1[3 * x] = a[x];
        o1[3 * x + 1] = a[x] * a[x];
        o1[3 * x + 2] = gx[x] * gx[x];
        o2[3 * x] = v;
        o2[3 * x + 1] = v * v;
        o2[3 * x + 2] = a[x] * v;
      }
    }
  });
  const cv::Mat b1 = Blur(s1, sigma), b2 = Blur(s2, sigma);
  // Summed squared gradient over the window's equivalent area: for the
  // precision of a weighted mean, Gaussian weights count as (sum w)^2 /
  // sum w^2 = 4 pi sigma^2 pixels.
  const float area = float(4 * M_PI * sigma * sigma);
  *ncc = cv::Mat(h, w, CV_32F);
  *sigma_d = cv::Mat(h, w, CV_32F);
  for (int y = 0; y < h; ++y) {
    const float* p = b1.ptr<float>(y);
    const float* q = b2.ptr<float>(y);
    float* n = ncc->ptr<float>(y);
    float* sd = sigma_d->ptr<float>(y);
    int x = 0;
    {
      // Four pixels at a time, each value by the same operations as below.
      using cv::v_float32x4;
      const v_float32x4 zero = cv::v_setzero_f32(), one = cv::v_setall_f32(1.f), two = cv::v_setall_f32(2.f);
      const v_float32x4 small = cv::v_setall_f32(1e-3f), tiny = cv::v_setall_f32(1e-6f);
      const v_float32x4 varea = cv::v_setall_f32(area), min_noise = cv::v_setall_f32(kMinNoise);
      for (; x + 4 <= w; x += 4) {
        v_float32x4 m1, s1, g1, m2, s2, c2;
        cv::v_load_deinterleave(p + 3 * x, m1, s1, g1);
        cv::v_load_deinterleave(q + 3 * x, m2, s2, c2);
        const v_float32x4 v1 = s1 - m1 * m1, v2 = s2 - m2 * m2, cv12 = c2 - m1 * m2;
        const v_float32x4 nv = cv::v_select((v1 > small) & (v2 > small), cv12 / cv::v_sqrt(v1 * v2), zero);
        cv::v_store(n + x, nv);
        const v_float32x4 info = g1 * varea;
        const v_float32x4 noise = cv::v_max(zero, one - cv::v_max(zero, nv)) * cv::v_max(zero, v1);
        cv::v_store(sd + x, cv::v_sqrt(two * cv::v_max(noise, min_noise) / cv::v_max(info, tiny)));
      }
    }
    for (; x < w; ++x) {
      const float m1 = p[3 * x], m2 = q[3 * x];
      const float v1 = p[3 * x + 1] - m1 * m1, v2 = q[3 * x + 1] - m2 * m2, cv12 = q[3 * x + 2] - m1 * m2;
      n[x] = v1 > 1e-3f && v2 > 1e-3f ? cv12 / std::sqrt(v1 * v2) : 0.f;
      const float info = p[3 * x + 2] * area;
      // Expected standard deviation of the disparity: the image noise, as
      // the part of the window's variance the correlation does not explain,
      // in both images, over the window's gradient energy.
      const float noise = std::max(0.f, 1.f - std::max(0.f, n[x])) * std::max(0.f, v1);
      sd[x] = std::sqrt(2.f * std::max(noise, kMinNoise) / std::max(info, 1e-6f));
    }
  }
}

void RefineSubPixel(const std::vector<cv::Mat>& c1, const std::vector<cv::Mat>& c2, const cv::Mat& g1,
                    const cv::Mat& g2, cv::Mat* disp, cv::Mat* ncc, cv::Mat* sigma_d) {
  if (std::min(c1.size(), c2.size()) <= 4)
    RefineSubPixelT<1>(c1, c2, g1, g2, disp, ncc, sigma_d);
  else
    RefineSubPixelT<0>(c1, c2, g1, g2, disp, ncc, sigma_d);
}

// std::lround of a value in [0, 2^23] without the library call: the whole
// part, plus one where the remainder (exact there) is at least a half.
inline int RoundNonNegative(float v) {
  const int i = int(v);
  return i + int(v - float(i) >= 0.5f);
}

bool Flag(const HTuple& names, const HTuple& values, const char* name, bool dflt) {
  for (Hlong i = 0; i < names.Length(); ++i)
    if (ParamString(names, kOp, "GenParamName", i) == name) return ParamBool(values, kOp, "GenParamValue", i);
  return dflt;
}

int IntParam(const HTuple& t, const char* name) { return int(ParamIntIn(t, kOp, name, -(1 << 20), 1 << 20)); }

}  // namespace

namespace disparity_internal {

bool VectorAggregation(int k, int p2) { return VecAggregation(k, p2); }

std::vector<uint16_t> AggregateCosts(const std::vector<uint8_t>& cost, const std::vector<int>& base, int w,
                                     int h, int k, int p1, int p2, AggregationPath path) {
  Search s;
  s.w = w;
  s.h = h;
  s.k = k;
  s.stride = path == AggregationPath::kScalar ? k : Stride(k, p2, path == AggregationPath::kWide);
  s.base = base;
  s.cost.assign(size_t(w) * h * s.stride, kOutsideCost);
  for (size_t p = 0; p < size_t(w) * h; ++p)
    std::copy(&cost[p * k], &cost[p * k] + k, &s.cost[p * s.stride]);
  Aggregate(&s, p1, p2, path == AggregationPath::kWide);
  std::vector<uint16_t> out(size_t(w) * h * k);
  for (size_t p = 0; p < size_t(w) * h; ++p)
    std::copy(&s.sum[p * s.stride], &s.sum[p * s.stride] + k, &out[p * k]);
  return out;
}

int NearestColumn(float x) { return RoundNonNegative(x); }

std::vector<int32_t> ResamplingTaps(const std::vector<float>& d, int w2, bool vector) {
  std::vector<Tap> taps(d.size());
  MakeTaps(d.data(), 0, int(d.size()), w2, taps.data(), vector);
  std::vector<int32_t> out;
  for (const Tap& p : taps) {
    out.insert(out.end(), p.i, p.i + 4);
    for (float c : p.c) out.push_back(std::bit_cast<int32_t>(c));
    out.push_back(p.l0);
    out.push_back(p.l1);
    out.push_back(std::bit_cast<int32_t>(p.lt));
  }
  return out;
}

}  // namespace disparity_internal

void binocular_disparity_ms(const HObject& image_rect1, const HObject& image_rect2,
                            HObject* disparity, HObject* score, const HTuple& min_disparity,
                            const HTuple& max_disparity, const HTuple& surface_smoothing,
                            const HTuple& edge_smoothing, const HTuple& gen_param_name,
                            const HTuple& gen_param_value) {
  const Image& i1 = image_rect1.ImageAt(0, kOp);
  const Image& i2 = image_rect2.ImageAt(0, kOp);
  const int dmin = IntParam(min_disparity, "MinDisparity");
  const int dmax = IntParam(max_disparity, "MaxDisparity");
  const int smooth_s = IntParam(surface_smoothing, "SurfaceSmoothing");
  const int smooth_e = IntParam(edge_smoothing, "EdgeSmoothing");
  if (dmin > dmax) ThrowParamValue(kOp, "MaxDisparity", "below MinDisparity");
  if (smooth_s < 0) ThrowParamValue(kOp, "SurfaceSmoothing");
  if (smooth_e < 0) ThrowParamValue(kOp, "EdgeSmoothing");
  if (gen_param_name.Length() != gen_param_value.Length()) ThrowParamCount(kOp, "GenParamValue");
  for (Hlong i = 0; i < gen_param_name.Length(); ++i)
    ParamStringIn(gen_param_name, kOp, "GenParamName", {"sub_disparity", "consistency_check"}, i);
  const bool sub = Flag(gen_param_name, gen_param_value, "sub_disparity", true);
  const bool check = Flag(gen_param_name, gen_param_value, "consistency_check", true);
  if (i1.height != i2.height) throw HException(kOp, "Images of different heights", kErrImageSize);
  if (i1.width < 2 * kCensusR + 1 || i1.height < 2 * kCensusR + 1)
    throw HException(kOp, "Image too small", kErrImageSize);

  // Pyramid deep enough that the coarsest level searches at most kCoarseSpan.
  // The channels as floats serve the grey values and the refinement.
  const std::vector<cv::Mat> ch1 = Channels(i1), ch2 = Channels(i2);
  std::vector<Level> levels(1);
  levels[0].g1 = Gray(ch1);
  levels[0].g2 = Gray(ch2);
  levels[0].m1 = DomainMask(i1);
  levels[0].m2 = DomainMask(i2);
  while ((dmax - dmin) >> (levels.size() - 1) > kCoarseSpan && levels.back().g1.cols >= 64 &&
         levels.back().g1.rows >= 64) {
    Level n;
    const Level& p = levels.back();
    cv::pyrDown(p.g1, n.g1);
    cv::pyrDown(p.g2, n.g2);
    cv::resize(p.m1, n.m1, n.g1.size(), 0, 0, cv::INTER_AREA);
    cv::resize(p.m2, n.m2, n.g2.size(), 0, 0, cv::INTER_AREA);
    cv::threshold(n.m1, n.m1, 254, 255, cv::THRESH_BINARY);
    cv::threshold(n.m2, n.m2, 254, 255, cv::THRESH_BINARY);
    levels.push_back(std::move(n));
  }

  // Penalties in census bits; jumps are cheaper across grey-value edges of
  // image 1 only in the sense that the larger penalty caps every step.
  const int p1 = std::max(1, smooth_s / 12);
  const int p2 = std::max(p1 + 1, smooth_e / 3);

  cv::Mat disp, best;
  for (int li = int(levels.size()) - 1; li >= 0; --li) {
    const Level& lv = levels[li];
    Search s;
    s.w = lv.g1.cols;
    s.h = lv.g1.rows;
    s.base.resize(size_t(s.w) * s.h);
    const int scale = 1 << li;
    const int lo = int(std::floor(double(dmin) / scale)), hi = int(std::ceil(double(dmax) / scale));
    if (disp.empty()) {
      s.k = hi - lo + 1;
      std::fill(s.base.begin(), s.base.end(), lo);
    } else {
      cv::Mat up;
      cv::resize(disp, up, lv.g1.size(), 0, 0, cv::INTER_LINEAR);
      s.k = std::min(2 * kRefineRadius + 1, hi - lo + 1);
      for (int y = 0; y < s.h; ++y) {
        const float* u = up.ptr<float>(y);
        int* b = &s.base[size_t(y) * s.w];
        for (int x = 0; x < s.w; ++x) b[x] = std::clamp(cvRound(2.f * u[x]) - kRefineRadius, lo, hi - s.k + 1);
      }
    }
    s.stride = Stride(s.k, p2);
    ComputeCost(lv, &s);
    Aggregate(&s, p1, p2);
    Winner(s, &disp, &best);
    if (li > 0) cv::medianBlur(disp, disp, 3);
  }

  const Level& l0 = levels[0];
  const int w = l0.g1.cols, h = l0.g1.rows;
  cv::Mat ncc, sigma_d, refined;
  cv::Mat coarse = disp.clone();
  if (sub) {
    RefineSubPixel(ch1, ch2, l0.g1, l0.g2, &disp, &ncc, &sigma_d);
    refined = disp;
  } else {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) disp.at<float>(y, x) = std::round(disp.at<float>(y, x));
    cv::Mat keep = disp.clone();
    RefineSubPixel(ch1, ch2, l0.g1, l0.g2, &keep, &ncc, &sigma_d);
    refined = keep;
  }

  // Consistency: among the pixels of a row that land on the same pixel of
  // image 2 only the cheapest keeps its match (the others are occluded or
  // mismatched); the refinement must stay near the discrete match.
  cv::Mat valid(h, w, CV_8U, cv::Scalar(0));
  const int w2 = l0.g2.cols;
  std::vector<int> owner(w2);
  for (int y = 0; y < h; ++y) {
    const float* d = disp.ptr<float>(y);
    const float* dc = coarse.ptr<float>(y);
    const int* b = best.ptr<int>(y);
    const uint8_t* m1 = l0.m1.ptr<uint8_t>(y);
    const uint8_t* m2 = l0.m2.ptr<uint8_t>(y);
    uint8_t* v = valid.ptr<uint8_t>(y);
    std::fill(owner.begin(), owner.end(), -1);
    for (int x = 0; x < w; ++x) {
      if (!m1[x] || !(d[x] >= dmin && d[x] <= dmax)) continue;
      const float x2f = x + d[x];
      if (!(x2f >= 0 && x2f <= w2 - 1)) continue;
      const int x2 = RoundNonNegative(x2f);
      if (!m2[x2]) continue;
      if (check) {
        if (std::abs(d[x] - dc[x]) > 1.0f) continue;
        int& o = owner[x2];
        if (o >= 0 && b[o] <= b[x]) continue;
        if (o >= 0) v[o] = 0;
        o = x;
      }
      v[x] = 255;
    }
  }
  const cv::Mat sc = ScoreImage(refined, valid, sigma_d);

  Region dom = Region::FromMask(valid);
  Image di = Image::FromPlanes(PixelType::Real, {disp});
  di.domain = dom;
  Image si = Image::FromPlanes(PixelType::Real, {sc});
  si.domain = dom;
  *disparity = HObject(std::move(di));
  *score = HObject(std::move(si));
}

}  // namespace vision
