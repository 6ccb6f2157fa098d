// Segmentation: thresholds, components, set operations, holes, cutting and
// gray-value statistics in regions.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#endif

#include "vision/region/features.h"
#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace vision {

using detail::RegionRefs;
using detail::RegionsOf;

namespace {

// The gray value of a plane at (row, col) as double, whatever its depth.
double ReadPixel(const cv::Mat& m, int row, int col) {
  switch (m.depth()) {
    case CV_8U: return m.ptr<uint8_t>(row)[col];
    case CV_16U: return m.ptr<uint16_t>(row)[col];
    case CV_16S: return m.ptr<int16_t>(row)[col];
    case CV_32S: return m.ptr<int32_t>(row)[col];
    case CV_32F: return m.ptr<float>(row)[col];
    case CV_64F: return m.ptr<double>(row)[col];
  }
  return 0;
}

const Image& GrayImage(const HObject& obj, long i, const char* op) {
  const Image& img = obj.ImageAt(i, op);
  if (img.type == PixelType::VectorField)
    throw HException(op, "Wrong pixel type: vector field images are not supported", kErrWrongParamValue);
  if (img.planes.empty()) throw HException(op, "Image without channels", kErrEmptyInput);
  return img;
}

// The domain clipped to the image's matrix, so that every pixel read is valid.
Region ValidDomain(const Image& img) { return img.domain.Clipped(img.height, img.width); }

// Pixels of `area` whose value lies in [lo, hi] in every channel.
template <class T>
void ThresholdRow(const std::vector<const T*>& rows, int row, int cb, int ce, double lo, double hi,
                  std::vector<Run>* out) {
  int start = -1;
  for (int c = cb; c <= ce + 1; ++c) {
    bool in = c <= ce;
    if (in)
      for (const T* p : rows) {
        double v = double(p[c]);
        if (!(v >= lo && v <= hi)) { in = false; break; }
      }
    if (in && start < 0) start = c;
    if (!in && start >= 0) {
      out->push_back({row, start, c - 1});
      start = -1;
    }
  }
}

// Bit i set when q[i] lies in [lo, hi], for 64 pixels (a loop the compiler
// vectorises; reals compare four at a time straight into bits).
template <class T>
uint64_t InRangeBits64(const T* q, T lo, T hi) {
  alignas(16) uint8_t f[64];
  for (int i = 0; i < 64; ++i) f[i] = uint8_t(-int((q[i] >= lo) & (q[i] <= hi)));
  return detail::PackFlags64(f);
}

#if defined(__SSE2__)
template <>
uint64_t InRangeBits64<float>(const float* q, float lo, float hi) {
  const __m128 l = _mm_set1_ps(lo), h = _mm_set1_ps(hi);
  auto in = [&](int i) {  // all ones where inside; false for NaN
    const __m128 v = _mm_loadu_ps(q + i);
    return _mm_castps_si128(_mm_and_ps(_mm_cmpge_ps(v, l), _mm_cmple_ps(v, h)));
  };
  uint64_t w = 0;
  for (int k = 0; k < 4; ++k) {
    // Sixteen results narrowed to bytes (saturation keeps 0 and -1), one mask.
    const __m128i a = _mm_packs_epi32(in(16 * k), in(16 * k + 4));
    const __m128i b = _mm_packs_epi32(in(16 * k + 8), in(16 * k + 12));
    w |= uint64_t(unsigned(_mm_movemask_epi8(_mm_packs_epi16(a, b)))) << (16 * k);
  }
  return w;
}
#endif

// The last k < 64 pixels of a row: bits k..63 stay clear.
template <class T>
uint64_t InRangeTailBits(const T* q, int k, T lo, T hi) {
  if constexpr (std::is_floating_point_v<T>) {
    // NaN never lies in a range, so the padding adds no pixel.
    T buf[64];
    std::fill(buf + k, buf + 64, std::numeric_limits<T>::quiet_NaN());
    std::copy(q, q + k, buf);
    return InRangeBits64(buf, lo, hi);
  } else {
    alignas(16) uint8_t f[64] = {};
    for (int i = 0; i < k; ++i) f[i] = uint8_t(-int((q[i] >= lo) & (q[i] <= hi)));
    return detail::PackFlags64(f);
  }
}

// One channel: compare in the pixel type itself, with the limits rounded
// inward for integer types; the runs are read off the bits by words.
template <class T>
void ThresholdRow1(const T* p, int row, int cb, int ce, T lo, T hi, std::vector<Run>* out) {
  const int n = ce - cb + 1;
  const T* q = p + cb;
  detail::RowRunWriter w(row, cb, out);
  int i = 0;
  for (; i + 64 <= n; i += 64) w.Add(InRangeBits64(q + i, lo, hi));
  if (i < n) w.Add(InRangeTailBits(q + i, n - i, lo, hi));
  w.Finish();
}

#if defined(__GNUC__) && defined(__x86_64__)
#define VISION_HAVE_AVX2_PATH 1
// The same decisions with eight reals per compare, for CPUs that have it.
__attribute__((target("avx2"))) inline uint64_t InRangeBits64Avx2(const float* q, __m256 l,
                                                                    __m256 h) {
  uint64_t w = 0;
  for (int k = 0; k < 8; ++k) {
    const __m256 v = _mm256_loadu_ps(q + 8 * k);
    // Ordered compares: false for NaN.
    const __m256 in = _mm256_and_ps(_mm256_cmp_ps(v, l, _CMP_GE_OQ), _mm256_cmp_ps(v, h, _CMP_LE_OQ));
    w |= uint64_t(unsigned(_mm256_movemask_ps(in))) << (8 * k);
  }
  return w;
}

__attribute__((target("avx2"))) void RealRowAvx2(const float* q, int n, float lo, float hi, int row,
                                                 int col0, std::vector<Run>* out) {
  const __m256 l = _mm256_set1_ps(lo), h = _mm256_set1_ps(hi);
  detail::RowRunWriter w(row, col0, out);
  int i = 0;
  for (; i + 64 <= n; i += 64) w.Add(InRangeBits64Avx2(q + i, l, h));
  if (i < n) {
    // The last k < 64 pixels: masked loads read nothing past the row (lanes
    // left out read 0), and their bits are cleared.
    const int k = n - i;
    uint64_t bits = 0;
    for (int j = 0; 8 * j < k; ++j) {
      const int left = k - 8 * j;
      const __m256i lanes = _mm256_cmpgt_epi32(_mm256_set1_epi32(left), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
      const __m256 v = _mm256_maskload_ps(q + i + 8 * j, lanes);
      const __m256 in = _mm256_and_ps(_mm256_cmp_ps(v, l, _CMP_GE_OQ), _mm256_cmp_ps(v, h, _CMP_LE_OQ));
      bits |= uint64_t(unsigned(_mm256_movemask_ps(in))) << (8 * j);
    }
    w.Add(bits & (~uint64_t(0) >> (64 - k)));
  }
  w.Finish();
}
#endif

}  // namespace

namespace detail {

bool CpuHasAvx2() {
#ifdef VISION_HAVE_AVX2_PATH
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

void RealRangeRuns(const float* q, int n, float lo, float hi, int row, int col0, bool wide,
                   std::vector<Run>* out) {
#ifdef VISION_HAVE_AVX2_PATH
  if (wide) return RealRowAvx2(q, n, lo, hi, row, col0, out);
#else
  (void)wide;
#endif
  ThresholdRow1<float>(q - col0, row, col0, col0 + n - 1, lo, hi, out);
}

}  // namespace detail

namespace {

// The nearest floats inside [lo, hi] give exactly the same decisions as
// comparing in double, without widening every pixel.
template <class T>
void InnerFloatLimits(double lo, double hi, T* tlo, T* thi) {
  *tlo = T(lo);
  *thi = T(hi);
  if (double(*tlo) < lo) *tlo = std::nextafter(*tlo, std::numeric_limits<T>::infinity());
  if (double(*thi) > hi) *thi = std::nextafter(*thi, -std::numeric_limits<T>::infinity());
}

// Adds to cnt[i] the reals of q[0..n-1] within [lo[i], hi[i]] (same
// ordered compares as the threshold rows: NaN lies in no range).
void CountRanges(const float* q, int n, const float* lo, const float* hi, int levels, int64_t* cnt) {
  for (int i = 0; i < levels; ++i) {
    int64_t c = 0;
    for (int k = 0; k < n; ++k) c += (q[k] >= lo[i]) & (q[k] <= hi[i]);
    cnt[i] += c;
  }
}

#ifdef VISION_HAVE_AVX2_PATH
__attribute__((target("avx2"))) void CountRangesAvx2(const float* q, int n, const float* lo,
                                                     const float* hi, int levels, int64_t* cnt) {
  int k = 0;
  // Eight levels at a time, lane counts in 32 bits, added up per run.
  for (int i0 = 0; i0 < levels; i0 += 8) {
    const int m = std::min(8, levels - i0);
    __m256 l[8], h[8];
    __m256i acc[8];
    for (int i = 0; i < m; ++i) {
      l[i] = _mm256_set1_ps(lo[i0 + i]);
      h[i] = _mm256_set1_ps(hi[i0 + i]);
      acc[i] = _mm256_setzero_si256();
    }
    for (k = 0; k + 8 <= n; k += 8) {
      const __m256 v = _mm256_loadu_ps(q + k);
      for (int i = 0; i < m; ++i) {
        const __m256 in = _mm256_and_ps(_mm256_cmp_ps(v, l[i], _CMP_GE_OQ), _mm256_cmp_ps(v, h[i], _CMP_LE_OQ));
        acc[i] = _mm256_sub_epi32(acc[i], _mm256_castps_si256(in));  // a set lane is -1
      }
    }
    for (int i = 0; i < m; ++i) {
      alignas(32) int32_t lanes[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), acc[i]);
      for (int32_t x : lanes) cnt[i0 + i] += x;
    }
  }
  if (k < n) CountRanges(q + k, n - k, lo, hi, levels, cnt);
}
#endif

template <class T>
Region ThresholdImage(const Image& img, const Region& dom, double lo, double hi) {
  std::vector<Run> runs;
  // Room for a run per 32 pixels up front spares the first doublings of
  // the vector, each a copy of everything found so far.
  runs.reserve(size_t(std::min<int64_t>(dom.Area() / 32 + 16, int64_t(1) << 20)));
  if (img.planes.size() == 1) {
    T tlo, thi;
    if constexpr (std::is_integral_v<T>) {
      // Real limits are truncated for integer images, as in the reference.
      double l = std::trunc(lo), h = std::trunc(hi);
      if (l > h || h < double(std::numeric_limits<T>::min()) || l > double(std::numeric_limits<T>::max()))
        return Region();
      tlo = T(std::max(l, double(std::numeric_limits<T>::min())));
      thi = T(std::min(h, double(std::numeric_limits<T>::max())));
    } else {
      InnerFloatLimits(lo, hi, &tlo, &thi);
    }
    if constexpr (std::is_same_v<T, float>) {
      const bool wide = detail::CpuHasAvx2();
      for (const Run& x : dom.Runs())
        detail::RealRangeRuns(img.planes[0].ptr<float>(x.row) + x.cb, x.ce - x.cb + 1, tlo, thi,
                              x.row, x.cb, wide, &runs);
    } else {
      for (const Run& x : dom.Runs())
        ThresholdRow1<T>(img.planes[0].ptr<T>(x.row), x.row, x.cb, x.ce, tlo, thi, &runs);
    }
    return Region::FromSortedRuns(std::move(runs));
  }
  std::vector<const T*> rows(img.planes.size());
  for (const Run& x : dom.Runs()) {
    for (size_t k = 0; k < img.planes.size(); ++k) rows[k] = img.planes[k].ptr<T>(x.row);
    ThresholdRow<T>(rows, x.row, x.cb, x.ce, lo, hi, &runs);
  }
  return Region::FromSortedRuns(std::move(runs));
}

}  // namespace

bool detail::RealRangeAreas(const Image& img, const std::vector<double>& lo, const std::vector<double>& hi,
                            std::vector<int64_t>* areas) {
  if (img.type == PixelType::VectorField || img.planes.size() != 1 || img.planes[0].type() != CV_32F ||
      lo.size() != hi.size())
    return false;
  const int levels = int(lo.size());
  std::vector<float> tlo(lo.size()), thi(hi.size());
  for (int i = 0; i < levels; ++i) InnerFloatLimits(lo[size_t(i)], hi[size_t(i)], &tlo[size_t(i)], &thi[size_t(i)]);
  areas->assign(lo.size(), 0);
  const bool wide = CpuHasAvx2();
  const Region dom = ValidDomain(img);
  for (const Run& x : dom.Runs()) {
    const float* q = img.planes[0].ptr<float>(x.row) + x.cb;
#ifdef VISION_HAVE_AVX2_PATH
    if (wide) {
      CountRangesAvx2(q, x.ce - x.cb + 1, tlo.data(), thi.data(), levels, areas->data());
      continue;
    }
#else
    (void)wide;
#endif
    CountRanges(q, x.ce - x.cb + 1, tlo.data(), thi.data(), levels, areas->data());
  }
  return true;
}

void threshold(const HObject& image, HObject* region, const HTuple& min_gray,
               const HTuple& max_gray) {
  constexpr const char* op = "threshold";
  Hlong n = std::max(min_gray.Length(), max_gray.Length());
  if (n == 0) throw HException(op, "Missing gray value limits", kErrWrongParamCount);
  ParamCountPer(min_gray, op, "MinGray", n);
  ParamCountPer(max_gray, op, "MaxGray", n);
  HObject out;
  for (long i = 0; i < image.Count(); ++i) {
    Image lengths;
    const Image* src = &image.ImageAt(i, op);
    if (src->type == PixelType::VectorField && src->planes.size() == 2) {
      // Vector fields are thresholded by the lengths of their vectors.
      cv::Mat mag;
      cv::magnitude(src->planes[0], src->planes[1], mag);
      lengths = Image::FromPlanes(PixelType::Real, {mag});
      lengths.domain = src->domain;
      src = &lengths;
    }
    const Image& img = *src;
    if (img.type == PixelType::VectorField || img.planes.empty())
      throw HException(op, "Wrong image: no gray values", kErrWrongParamValue);
    Region dom = ValidDomain(img);
    for (Hlong k = 0; k < n; ++k) {
      double lo = ParamReal(min_gray, op, "MinGray", k), hi = ParamReal(max_gray, op, "MaxGray", k);
      switch (img.planes[0].depth()) {
        case CV_8U: out.Push(ThresholdImage<uint8_t>(img, dom, lo, hi)); break;
        case CV_16U: out.Push(ThresholdImage<uint16_t>(img, dom, lo, hi)); break;
        case CV_16S: out.Push(ThresholdImage<int16_t>(img, dom, lo, hi)); break;
        case CV_32S: out.Push(ThresholdImage<int32_t>(img, dom, lo, hi)); break;
        case CV_32F: out.Push(ThresholdImage<float>(img, dom, lo, hi)); break;
        default: throw HException(op, "Unsupported pixel depth", kErrWrongParamValue);
      }
    }
  }
  *region = std::move(out);
}

namespace {

constexpr int kHistPad = 192;  // the kernel reach at sigma 64

// Adds the terms of outputs i0..i0+7 for offsets d_lo..d_hi into s (and the
// weights into w unless w is null).
void SmoothBlock(const double* hist, const double* inside, const double* kernel, int d_lo,
                 int d_hi, double* s, double* w) {
#if defined(__SSE2__)
  __m128d s0 = _mm_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, w0 = s0, w1 = s0, w2 = s0, w3 = s0;
  if (w) {
    for (int d = d_lo; d <= d_hi; ++d) {
      const __m128d k = _mm_set1_pd(kernel[d]);
      const double *hh = hist + d, *in = inside + d;
      s0 = _mm_add_pd(s0, _mm_mul_pd(k, _mm_loadu_pd(hh)));
      s1 = _mm_add_pd(s1, _mm_mul_pd(k, _mm_loadu_pd(hh + 2)));
      s2 = _mm_add_pd(s2, _mm_mul_pd(k, _mm_loadu_pd(hh + 4)));
      s3 = _mm_add_pd(s3, _mm_mul_pd(k, _mm_loadu_pd(hh + 6)));
      w0 = _mm_add_pd(w0, _mm_mul_pd(k, _mm_loadu_pd(in)));
      w1 = _mm_add_pd(w1, _mm_mul_pd(k, _mm_loadu_pd(in + 2)));
      w2 = _mm_add_pd(w2, _mm_mul_pd(k, _mm_loadu_pd(in + 4)));
      w3 = _mm_add_pd(w3, _mm_mul_pd(k, _mm_loadu_pd(in + 6)));
    }
    _mm_storeu_pd(w, w0), _mm_storeu_pd(w + 2, w1), _mm_storeu_pd(w + 4, w2), _mm_storeu_pd(w + 6, w3);
  } else {
    for (int d = d_lo; d <= d_hi; ++d) {
      const __m128d k = _mm_set1_pd(kernel[d]);
      const double* hh = hist + d;
      s0 = _mm_add_pd(s0, _mm_mul_pd(k, _mm_loadu_pd(hh)));
      s1 = _mm_add_pd(s1, _mm_mul_pd(k, _mm_loadu_pd(hh + 2)));
      s2 = _mm_add_pd(s2, _mm_mul_pd(k, _mm_loadu_pd(hh + 4)));
      s3 = _mm_add_pd(s3, _mm_mul_pd(k, _mm_loadu_pd(hh + 6)));
    }
  }
  _mm_storeu_pd(s, s0), _mm_storeu_pd(s + 2, s1), _mm_storeu_pd(s + 4, s2), _mm_storeu_pd(s + 6, s3);
#else
  for (int j = 0; j < 8; ++j) s[j] = 0;
  if (w)
    for (int j = 0; j < 8; ++j) w[j] = 0;
  for (int d = d_lo; d <= d_hi; ++d)
    for (int j = 0; j < 8; ++j) {
      s[j] += kernel[d] * hist[d + j];
      if (w) w[j] += kernel[d] * inside[d + j];
    }
#endif
}

#ifdef VISION_HAVE_AVX2_PATH
// The same sums four doubles per instruction. Products and sums stay
// separate instructions (this target has no fused multiply-add), so every
// value is rounded as in the narrower path.
__attribute__((target("avx2"))) void SmoothBlockAvx2(const double* hist, const double* inside,
                                                     const double* kernel, int d_lo, int d_hi,
                                                     double* s, double* w) {
  __m256d s0 = _mm256_setzero_pd(), s1 = s0, w0 = s0, w1 = s0;
  if (w) {
    for (int d = d_lo; d <= d_hi; ++d) {
      const __m256d k = _mm256_set1_pd(kernel[d]);
      s0 = _mm256_add_pd(s0, _mm256_mul_pd(k, _mm256_loadu_pd(hist + d)));
      s1 = _mm256_add_pd(s1, _mm256_mul_pd(k, _mm256_loadu_pd(hist + d + 4)));
      w0 = _mm256_add_pd(w0, _mm256_mul_pd(k, _mm256_loadu_pd(inside + d)));
      w1 = _mm256_add_pd(w1, _mm256_mul_pd(k, _mm256_loadu_pd(inside + d + 4)));
    }
    _mm256_storeu_pd(w, w0), _mm256_storeu_pd(w + 4, w1);
  } else {
    for (int d = d_lo; d <= d_hi; ++d) {
      const __m256d k = _mm256_set1_pd(kernel[d]);
      s0 = _mm256_add_pd(s0, _mm256_mul_pd(k, _mm256_loadu_pd(hist + d)));
      s1 = _mm256_add_pd(s1, _mm256_mul_pd(k, _mm256_loadu_pd(hist + d + 4)));
    }
  }
  _mm256_storeu_pd(s, s0), _mm256_storeu_pd(s + 4, s1);
}
#endif

}  // namespace

namespace detail {

HistogramSmoother::HistogramSmoother(const std::vector<double>& hist)
    : padded_(256 + 2 * kHistPad, 0.0), inside_(256 + 2 * kHistPad, 0.0) {
  std::copy(hist.begin(), hist.begin() + 256, padded_.begin() + kHistPad);
  std::fill(inside_.begin() + kHistPad, inside_.begin() + kHistPad + 256, 1.0);
}

// Every output adds its terms in increasing offset order, the same doubles as
// a plain loop over the bins in reach: bins outside the range read a zero
// count and a zero "in range" indicator, and adding +0.0 to a non-negative sum
// changes nothing. Eight outputs are summed at once in registers.
void HistogramSmoother::Smooth(double sigma, bool wide, std::vector<double>* out) {
  constexpr int n = 256, block = 8;
  const int r = int(std::ceil(3 * sigma));
  if (r > kHistPad) throw HException("bin_threshold", "Smoothing too wide", kErrWrongParamValue);
  kernel_.resize(size_t(2 * r + 1));
  // (-0.5 d) d is the same double for d and -d, so each exp serves both sides.
  for (int d = 0; d <= r; ++d)
    kernel_[size_t(r + d)] = kernel_[size_t(r - d)] = std::exp(-0.5 * d * d / (sigma * sigma));
  const double* k = kernel_.data() + r;  // k[d] for d in -r..r
  // Outputs whose whole kernel lies in the range share one weight sum.
  double full = 0;
  for (int d = -r; d <= r; ++d) full += k[d];
  out->resize(n);
  for (int i0 = 0; i0 < n; i0 += block) {
    double s[block], w[block];
    // Offsets at which the whole block reads outside the range add nothing.
    const int d_lo = std::max(-r, -(i0 + block - 1)), d_hi = std::min(r, n - 1 - i0);
    const bool interior = i0 - r >= 0 && i0 + block - 1 + r <= n - 1;
    const double* h = padded_.data() + kHistPad + i0;
    const double* in = inside_.data() + kHistPad + i0;
#ifdef VISION_HAVE_AVX2_PATH
    if (wide)
      SmoothBlockAvx2(h, in, k, d_lo, d_hi, s, interior ? nullptr : w);
    else
#else
    (void)wide;
#endif
      SmoothBlock(h, in, k, d_lo, d_hi, s, interior ? nullptr : w);
    for (int j = 0; j < block; ++j) (*out)[size_t(i0 + j)] = s[j] / (interior ? full : w[j]);
  }
}

}  // namespace detail

namespace {

// Interior local minima of a histogram; a flat valley counts once, at its
// middle.
std::vector<int> HistogramMinima(const std::vector<double>& h) {
  std::vector<int> minima;
  const int n = int(h.size());
  int i = 1;
  while (i < n - 1) {
    if (h[size_t(i)] < h[size_t(i - 1)]) {
      int j = i;
      while (j + 1 < n && h[size_t(j + 1)] == h[size_t(i)]) ++j;
      if (j + 1 < n && h[size_t(j + 1)] > h[size_t(i)]) minima.push_back((i + j) / 2);
      i = j + 1;
    } else {
      ++i;
    }
  }
  return minima;
}

int OtsuThreshold(const std::vector<double>& h) {
  double total = 0, mean_all = 0;
  for (size_t i = 0; i < h.size(); ++i) total += h[i], mean_all += double(i) * h[i];
  if (total <= 0) return 255;
  double w0 = 0, sum0 = 0, best = -1;
  int t_best = 255;
  for (int t = 0; t < 255; ++t) {
    w0 += h[size_t(t)];
    sum0 += t * h[size_t(t)];
    double w1 = total - w0;
    if (w0 <= 0 || w1 <= 0) continue;
    double m0 = sum0 / w0, m1 = (mean_all - sum0) / w1;
    double var = w0 * w1 * (m0 - m1) * (m0 - m1);
    if (var > best) best = var, t_best = t;
  }
  return t_best;
}

}  // namespace

void bin_threshold(const HObject& image, HObject* region) {
  constexpr const char* op = "bin_threshold";
  HObject out;
  for (long i = 0; i < image.Count(); ++i) {
    const Image& img = GrayImage(image, i, op);
    if (img.type != PixelType::Byte || img.planes.size() != 1)
      throw HException(op, "Wrong image type: single-channel byte image expected", kErrWrongParamValue);
    Region dom = ValidDomain(img);
    // Counts in four integer tables (runs of equal pixels do not wait for
    // each other's stores); they are exact, as the double sums were.
    std::vector<uint32_t> counts(4 * 256, 0);
    for (const Run& x : dom.Runs()) {
      const uint8_t* p = img.planes[0].ptr<uint8_t>(x.row);
      int c = x.cb;
      for (; c + 3 <= x.ce; c += 4) {
        ++counts[p[c]];
        ++counts[256 + p[c + 1]];
        ++counts[512 + p[c + 2]];
        ++counts[768 + p[c + 3]];
      }
      for (; c <= x.ce; ++c) ++counts[p[c]];
    }
    std::vector<double> hist(256, 0.0);
    for (int v = 0; v < 256; ++v)
      hist[size_t(v)] = double(counts[size_t(v)] + counts[size_t(256 + v)] + counts[size_t(512 + v)] +
                               counts[size_t(768 + v)]);
    double total = double(dom.Area());
    if (total > 0)
      for (double& v : hist) v /= total;
    // Smooth ever more until one valley is left; its bottom separates the
    // dark part from the light one.
    int t = -1;
    detail::HistogramSmoother smoother(hist);
    const bool wide = detail::CpuHasAvx2();
    std::vector<double> smoothed;
    for (double sigma = 1.0; sigma <= 64.0; sigma += 1.0) {
      smoother.Smooth(sigma, wide, &smoothed);
      auto minima = HistogramMinima(smoothed);
      if (minima.size() == 1) { t = minima[0]; break; }
      if (minima.empty()) break;
    }
    if (t < 0) t = OtsuThreshold(hist);  // unimodal: no valley to cut at
    out.Push(ThresholdImage<uint8_t>(img, dom, 0, t));
  }
  *region = std::move(out);
}

void connection(const HObject& region, HObject* connected_regions) {
  const int nb = SystemNeighborhood();
  HObject out;
  for (const Region& r : RegionRefs(region, "connection"))
    for (auto& c : detail::Components(r, nb)) out.Push(std::move(c));
  *connected_regions = std::move(out);
}

namespace {
// Union of many regions by pairwise merging, O(runs log n).
Region UnionAll(std::vector<Region> rs) {
  if (rs.empty()) return Region();
  while (rs.size() > 1) {
    std::vector<Region> next;
    next.reserve((rs.size() + 1) / 2);
    for (size_t i = 0; i + 1 < rs.size(); i += 2) next.push_back(rs[i].Union(rs[i + 1]));
    if (rs.size() % 2) next.push_back(std::move(rs.back()));
    rs = std::move(next);
  }
  return std::move(rs[0]);
}
}  // namespace

void union1(const HObject& region, HObject* region_union) {
  *region_union = HObject(UnionAll(RegionsOf(region, "union1")));
}

void union2(const HObject& region1, const HObject& region2, HObject* region_union) {
  Region u = UnionAll(RegionsOf(region2, "union2"));
  HObject out;
  for (const Region& r : RegionRefs(region1, "union2")) out.Push(r.Union(u));
  *region_union = std::move(out);
}

namespace {
// The first run at or after `from` that does not lie wholly before (row,
// col): runs of one row are sorted and disjoint, so "wholly before" is
// monotone. Galloping: a near target costs a test or two, a far one a
// logarithmic number.
const Run* SkipBefore(const Run* from, const Run* end, int row, int col) {
  const auto before = [&](const Run& x) { return x.row < row || (x.row == row && x.ce < col); };
  if (from == end || !before(*from)) return from;
  ptrdiff_t step = 1;
  const Run* lo = from;  // before(*lo) holds
  while (lo + step < end && before(lo[step])) {
    lo += step;
    step *= 2;
  }
  const Run* hi = lo + step < end ? lo + step : end;
  return std::partition_point(lo + 1, hi, before);
}

// The second operand of an intersection, with the first run of every row
// when its rows are not too sparse for such a table.
class RowIndexed {
 public:
  explicit RowIndexed(const Region& u) : runs_(u.Runs()) {
    if (runs_.empty()) return;
    row0_ = runs_.front().row;
    const int64_t span = int64_t(runs_.back().row) - row0_ + 1;
    if (span > 4 * int64_t(runs_.size()) + 1024) return;  // galloping instead
    start_.assign(size_t(span) + 1, 0);
    size_t k = 0;
    for (int64_t y = 0; y <= span; ++y) {
      while (k < runs_.size() && runs_[k].row < row0_ + y) ++k;
      start_[size_t(y)] = uint32_t(k);
    }
  }

  // r and the runs: each run of r looks at the runs of its own row only.
  Region Intersect(const Region& r) const {
    std::vector<Run> out;
    const Run* base = runs_.data();
    const Run* end = base + runs_.size();
    const Run* b = base;
    for (const Run& a : r.Runs()) {
      if (!start_.empty()) {
        const int64_t y = int64_t(a.row) - row0_;
        if (y < 0 || y + 1 >= int64_t(start_.size())) continue;
        const Run* row_end = base + start_[size_t(y) + 1];
        if (b < base + start_[size_t(y)] || b > row_end) b = base + start_[size_t(y)];
        // A row holds a few runs: a plain scan, a search for many.
        if (row_end - b > 16)
          b = std::partition_point(b, row_end, [&](const Run& x) { return x.ce < a.cb; });
        else
          while (b < row_end && b->ce < a.cb) ++b;
      } else {
        b = SkipBefore(b, end, a.row, a.cb);
      }
      // Every run from here on this row that starts within a overlaps it.
      for (const Run* k = b; k < end && k->row == a.row && k->cb <= a.ce; ++k)
        out.push_back({a.row, std::max(a.cb, k->cb), std::min(a.ce, k->ce)});
    }
    return Region::FromSortedRuns(std::move(out));
  }

 private:
  const std::vector<Run>& runs_;
  int row0_ = 0;
  std::vector<uint32_t> start_;  // first run of row row0_ + i; one past the last row at the end
};
}  // namespace

void intersection(const HObject& region1, const HObject& region2, HObject* region_intersection) {
  constexpr const char* op = "intersection";
  // A single second region is used as it stands, not copied into a union.
  Region merged;
  const Region* u = &merged;
  if (region2.Count() == 1) u = &region2.RegionOrDomainAt(0, op);
  else merged = UnionAll(RegionsOf(region2, op));
  const RowIndexed indexed(*u);
  HObject out;
  for (long i = 0; i < region1.Count(); ++i) out.Push(indexed.Intersect(region1.RegionOrDomainAt(i, op)));
  *region_intersection = std::move(out);
}

void difference(const HObject& region, const HObject& sub, HObject* region_difference) {
  Region u = UnionAll(RegionsOf(sub, "difference"));
  HObject out;
  for (const Region& r : RegionRefs(region, "difference")) out.Push(r.Difference(u));
  *region_difference = std::move(out);
}

void complement(const HObject& region, HObject* region_complement) {
  int w, h;
  SystemImageSize(&w, &h);
  const bool clip = SystemClipRegion();
  HObject out;
  for (const Region& r : RegionRefs(region, "complement")) {
    Region universe = Region::Rectangle(0, 0, h - 1, w - 1);
    if (!clip && !r.Empty()) {
      // Without clipping the complement still needs a finite frame: the
      // system's image rectangle grown to hold the region.
      int r1, c1, r2, c2;
      r.BoundingBox(&r1, &c1, &r2, &c2);
      universe = Region::Rectangle(std::min(r1, 0), std::min(c1, 0), std::max(r2, h - 1),
                                   std::max(c2, w - 1));
    }
    out.Push(universe.Difference(r));
  }
  *region_complement = std::move(out);
}

namespace {
// Pixels of r with a 4-neighbour outside r: erosion by the 4-cross.
Region InnerBoundary(const Region& r) {
  Region eroded = detail::GrowRuns(r, -1, -1)
                      .Intersection(detail::ShiftRows(r, 1))
                      .Intersection(detail::ShiftRows(r, -1));
  return r.Difference(eroded);
}
}  // namespace

void boundary(const HObject& region, HObject* region_border, const HTuple& boundary_type) {
  constexpr const char* op = "boundary";
  std::string type = ParamString(boundary_type, op, "BoundaryType");
  if (type != "inner" && type != "outer" && type != "inner_filled")
    throw HException(op, "Wrong value of BoundaryType '" + type + "'", kErrWrongParamValue);
  HObject out;
  for (const Region& r : RegionRefs(region, op)) {
    if (type == "inner") {
      out.Push(InnerBoundary(r));
    } else if (type == "inner_filled") {
      out.Push(InnerBoundary(detail::FillHoles(r, SystemNeighborhood())).Intersection(r));
    } else {
      // 3x3 dilation minus the region: a 4-connected ring outside it.
      Region g = detail::GrowRuns(r, 1, 1);
      Region d = g.Union(detail::ShiftRows(g, 1)).Union(detail::ShiftRows(g, -1));
      out.Push(d.Difference(r));
    }
  }
  *region_border = std::move(out);
}

void fill_up(const HObject& region, HObject* region_fill_up) {
  const int nb = SystemNeighborhood();
  HObject out;
  for (const Region& r : RegionRefs(region, "fill_up")) out.Push(detail::FillHoles(r, nb));
  *region_fill_up = std::move(out);
}

void fill_up_shape(const HObject& region, HObject* region_fill_up, const HTuple& feature,
                   const HTuple& min, const HTuple& max) {
  constexpr const char* op = "fill_up_shape";
  std::string f = ParamString(feature, op, "Feature");
  std::string name;
  if (f == "area" || f == "compactness" || f == "convexity" || f == "anisometry" || f == "phi" ||
      f == "ra" || f == "rb")
    name = f;
  else if (f == "inner_circle") name = "inner_radius";
  else if (f == "outer_circle") name = "outer_radius";
  else throw HException(op, "Wrong value of Feature '" + f + "'", kErrWrongParamValue);
  double lo = ParamReal(min, op, "Min"), hi = ParamReal(max, op, "Max");
  const int nb = SystemNeighborhood();
  HObject out;
  for (long i = 0; i < region.Count(); ++i) {
    const Region& r = region.RegionOrDomainAt(i, op);
    detail::HoleSet holes(r, nb);
    std::vector<bool> chosen(size_t(holes.Count()));
    if (name == "area") {
      // Areas straight from the labelled runs, without a region per hole.
      const std::vector<int64_t> area = holes.Areas();
      for (size_t k = 0; k < area.size(); ++k) chosen[k] = double(area[k]) >= lo && double(area[k]) <= hi;
    } else {
      const std::vector<Region> regions = holes.Regions();
      for (size_t k = 0; k < regions.size(); ++k) {
        detail::FeatureCache cache(regions[k]);
        const double v = cache.Get(name, op);
        chosen[k] = v >= lo && v <= hi;
      }
    }
    out.Push(holes.FilledWith(r, chosen));
  }
  *region_fill_up = std::move(out);
}

void partition_dynamic(const HObject& region, HObject* partitioned, const HTuple& distance,
                       const HTuple& percent) {
  constexpr const char* op = "partition_dynamic";
  double dist = ParamReal(distance, op, "Distance"), pct = ParamReal(percent, op, "Percent");
  if (dist <= 0) throw HException(op, "Wrong value of Distance: must be positive", kErrWrongParamValue);
  if (pct < 0 || pct > 100) throw HException(op, "Wrong value of Percent: 0..100 expected", kErrWrongParamValue);
  HObject out;
  for (const Region& r : RegionRefs(region, op)) {
    int r1, c1, r2, c2;
    r.BoundingBox(&r1, &c1, &r2, &c2);
    const int width = c2 - c1 + 1;
    if (r.Empty() || width <= 1.5 * dist) {
      out.Push(r);
      continue;
    }
    // Vertical extent (lowest to highest pixel) of every column.
    std::vector<int> top(size_t(width), std::numeric_limits<int>::max()), bottom(size_t(width), std::numeric_limits<int>::min());
    for (const Run& x : r.Runs())
      for (int c = x.cb; c <= x.ce; ++c) {
        size_t k = size_t(c - c1);
        top[k] = std::min(top[k], x.row);
        bottom[k] = std::max(bottom[k], x.row);
      }
    auto extent = [&](int c) {
      size_t k = size_t(c - c1);
      return top[k] > bottom[k] ? 0 : bottom[k] - top[k] + 1;
    };
    const int parts = std::max(1, int(std::lround(width / dist)));
    const double step = double(width) / parts;
    const int dev = int(std::floor(dist * pct / 100.0));
    std::vector<int> cuts;  // first column of every part after the first
    int prev = c1;
    for (int k = 1; k < parts; ++k) {
      int init = c1 + int(std::lround(k * step));
      int lo = std::max(prev + 1, init - dev), hi = std::min(c2, init + dev);
      if (lo > hi) continue;
      int best = init < lo ? lo : (init > hi ? hi : init);
      for (int c = lo; c <= hi; ++c) {
        int e = extent(c), eb = extent(best);
        if (e < eb || (e == eb && std::abs(c - init) < std::abs(best - init))) best = c;
      }
      cuts.push_back(best);
      prev = best;
    }
    cuts.push_back(c2 + 1);
    int start = c1;
    for (int cut : cuts) {
      Region part = r.Intersection(Region::Rectangle(r1, start, r2, cut - 1));
      if (!part.Empty()) out.Push(std::move(part));
      start = cut;
    }
  }
  *partitioned = std::move(out);
}

void intensity(const HObject& regions, const HObject& image, HTuple* mean, HTuple* deviation) {
  constexpr const char* op = "intensity";
  if (image.Count() != 1) throw HException(op, "Exactly one image expected", kErrWrongParamCount);
  const Image& img = GrayImage(image, 0, op);
  Region dom = ValidDomain(img);
  const cv::Mat& plane = img.planes[0];
  std::vector<double> means, devs;
  for (const Region& r : RegionRefs(regions, op)) {
    Region a = r.Intersection(dom);
    double n = 0, s = 0, s2 = 0;
    for (const Run& x : a.Runs())
      for (int c = x.cb; c <= x.ce; ++c) {
        double v = ReadPixel(plane, x.row, c);
        n += 1, s += v, s2 += v * v;
      }
    if (n <= 0) {
      means.push_back(0);
      devs.push_back(0);
      continue;
    }
    double m = s / n;
    means.push_back(m);
    devs.push_back(std::sqrt(std::max(0.0, s2 / n - m * m)));
  }
  *mean = HTuple::Reals(means);
  *deviation = HTuple::Reals(devs);
}

}  // namespace vision
