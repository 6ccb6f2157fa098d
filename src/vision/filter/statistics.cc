#include "vision/filter/statistics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "vision/filter/filter_util.h"

namespace vision {

using namespace filter_detail;

namespace {

const Image& SingleImage(const HObject& image, const char* op) {
  if (image.Count() != 1) throw HException(op, "Exactly one image expected", kErrWrongParamCount);
  const Image& img = image.ImageAt(0, op);
  RequireNotVectorField(img, op);
  return img;
}

// The first channel's values under the region, in run order.
template <class T>
void Gather(const Region& r, const cv::Mat& p, std::vector<float>* v) {
  for (const Run& run : r.Runs()) {
    const T* s = p.ptr<T>(run.row);
    for (int c = run.cb; c <= run.ce; ++c) v->push_back(float(s[c]));
  }
}

std::vector<float> Values(const Region& reg, const Image& img) {
  const Region r = reg.Clipped(img.height, img.width);
  std::vector<float> v;
  v.reserve(size_t(r.Area()));
  const cv::Mat& p = img.planes[0];
  switch (img.type) {
    case PixelType::Byte: Gather<uint8_t>(r, p, &v); break;
    case PixelType::UInt2: Gather<uint16_t>(r, p, &v); break;
    case PixelType::Int2: Gather<int16_t>(r, p, &v); break;
    case PixelType::Int4: {
      // Single precision would round large int4 values: keep them apart.
      break;
    }
    default: Gather<float>(r, p, &v); break;
  }
  return v;
}

std::vector<double> Int4Values(const Region& reg, const Image& img) {
  const Region r = reg.Clipped(img.height, img.width);
  std::vector<double> v;
  v.reserve(size_t(r.Area()));
  for (const Run& run : r.Runs()) {
    const int32_t* s = img.planes[0].ptr<int32_t>(run.row);
    for (int c = run.cb; c <= run.ce; ++c) v.push_back(s[c]);
  }
  return v;
}

// Calls fn(row pointer, first column, last column) for each run of `r`
// clipped to the plane, without building the clipped region.
template <class T, class Fn>
void ForClippedRuns(const Region& r, const cv::Mat& p, Fn fn) {
  for (const Run& run : r.Runs()) {
    if (run.row < 0 || run.row >= p.rows) continue;
    const int a = std::max(run.cb, 0), b = std::min(run.ce, p.cols - 1);
    if (a <= b) fn(p.ptr<T>(run.row), a, b);
  }
}

// Rank selection: skip n values at each end, never crossing the median.
template <class V>
void RankMinMax(std::vector<V>& v, double percent, double* lo, double* hi) {
  if (v.empty()) return;
  const size_t n = std::min<size_t>(size_t(double(v.size()) * percent / 100.0), (v.size() - 1) / 2);
  if (n == 0) {
    const auto [a, b] = std::minmax_element(v.begin(), v.end());
    *lo = double(*a);
    *hi = double(*b);
    return;
  }
  std::nth_element(v.begin(), v.begin() + long(n), v.end());
  *lo = double(v[n]);
  const size_t k = v.size() - 1 - n;
  std::nth_element(v.begin() + long(n), v.begin() + long(k), v.end());
  *hi = double(v[k]);
}

// Folds s[a..b] into *mn, *mx (already set) and *nan. Min and max are exact
// in any order, so the lanes may run independently.
template <class T, class V>
void ScanRun(const T* s, int a, int b, V* mn, V* mx, bool* nan) {
  V lo[4] = {*mn, *mn, *mn, *mn}, hi[4] = {*mx, *mx, *mx, *mx};
  bool bad = false;
  int c = a;
  for (; c + 3 <= b; c += 4)
    for (int j = 0; j < 4; ++j) {
      const V x = V(s[c + j]);
      lo[j] = x < lo[j] ? x : lo[j];
      hi[j] = x > hi[j] ? x : hi[j];
      bad |= x != x;
    }
  for (; c <= b; ++c) {
    const V x = V(s[c]);
    lo[0] = x < lo[0] ? x : lo[0];
    hi[0] = x > hi[0] ? x : hi[0];
    bad |= x != x;
  }
  for (int j = 0; j < 4; ++j) {
    *mn = lo[j] < *mn ? lo[j] : *mn;
    *mx = hi[j] > *mx ? hi[j] : *mx;
  }
  *nan |= bad;
}

// Coarse bin of a value: subtraction and scaling round monotonically, so the
// bin never decreases with the value; an overflow to infinity lands in the
// last bin.
constexpr int kRankBins = 4096;

template <class T, class V>
int RankBin(T x, V base, V scale) {
  const V t = (V(x) - base) * scale;
  return t < V(kRankBins - 1) ? int(t) : kRankBins - 1;
}

template <class T, class V>
void BinRun(const T* s, int n, V base, V scale, int32_t* out) {
  for (int c = 0; c < n; ++c) out[c] = RankBin(s[c], base, scale);
}

#if defined(__SSE2__)
// Real images, four pixels at a time. minps/maxps keep the second operand
// unless the first is smaller/larger, exactly the comparisons above, and the
// lane arithmetic is the same single precision as the scalar tails.
template <>
void ScanRun<float, float>(const float* s, int a, int b, float* mn, float* mx, bool* nan) {
  __m128 lo = _mm_set1_ps(*mn), hi = _mm_set1_ps(*mx), bad = _mm_setzero_ps();
  int c = a;
  for (; c + 3 <= b; c += 4) {
    const __m128 x = _mm_loadu_ps(s + c);
    lo = _mm_min_ps(x, lo);
    hi = _mm_max_ps(x, hi);
    bad = _mm_or_ps(bad, _mm_cmpunord_ps(x, x));
  }
  alignas(16) float l[4], h[4];
  _mm_store_ps(l, lo);
  _mm_store_ps(h, hi);
  bool any = _mm_movemask_ps(bad) != 0;
  for (; c <= b; ++c) {
    l[0] = s[c] < l[0] ? s[c] : l[0];
    h[0] = s[c] > h[0] ? s[c] : h[0];
    any |= s[c] != s[c];
  }
  for (int j = 0; j < 4; ++j) {
    *mn = l[j] < *mn ? l[j] : *mn;
    *mx = h[j] > *mx ? h[j] : *mx;
  }
  *nan |= any;
}

template <>
void BinRun<float, float>(const float* s, int n, float base, float scale, int32_t* out) {
  const __m128 vb = _mm_set1_ps(base), vs = _mm_set1_ps(scale), top = _mm_set1_ps(float(kRankBins - 1));
  int c = 0;
  for (; c + 4 <= n; c += 4) {
    const __m128 t = _mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(s + c), vb), vs);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + c), _mm_cvttps_epi32(_mm_min_ps(t, top)));
  }
  for (; c < n; ++c) out[c] = RankBin(s[c], base, scale);
}
#endif

// Calls fn(bins, values, count) for the clipped runs of `r` in chunks.
template <class T, class V, class Fn>
void ForBinnedChunks(const Region& r, const cv::Mat& p, V base, V scale, Fn fn) {
  constexpr int kChunk = 1024;
  int32_t bins[kChunk];
  ForClippedRuns<T>(r, p, [&](const T* s, int a, int b) {
    for (int c = a; c <= b; c += kChunk) {
      const int n = std::min(kChunk, b - c + 1);
      BinRun<T, V>(s + c, n, base, scale, bins);
      fn(bins, s + c, n);
    }
  });
}

// The same ranks without sorting all values: a coarse histogram over
// [min, max] whose bin never decreases with the value, so each rank lies in a
// known bin and is selected among that bin's values only. Works on the plane
// in place. Gives false (and nothing) when a value is not finite, where the
// order of a plain selection is the only definition there is.
template <class T, class V>
bool BinnedRankMinMax(const Region& r, const cv::Mat& p, double percent, double* lo, double* hi) {
  size_t count = 0;
  bool nan = false, first = true;
  V mn{}, mx{};
  ForClippedRuns<T>(r, p, [&](const T* s, int a, int b) {
    count += size_t(b - a + 1);
    if (first) {
      mn = mx = V(s[a]);
      first = false;
    }
    ScanRun<T, V>(s, a, b, &mn, &mx, &nan);
  });
  if (count == 0) return true;
  if (nan || !std::isfinite(mn) || !std::isfinite(mx)) return false;
  const size_t n = std::min<size_t>(size_t(double(count) * percent / 100.0), (count - 1) / 2);
  if (n == 0 || mn == mx) {
    *lo = double(mn);
    *hi = double(mx);
    return true;
  }
  const V base = mn, scale = V(kRankBins / (double(mx) - double(mn)));
  // Four interleaved histograms: neighbouring pixels of smooth images fall
  // in the same bin, and one counter would serialise on itself.
  std::vector<uint32_t> hist(4 * kRankBins);
  ForBinnedChunks<T, V>(r, p, base, scale, [&](const int32_t* bins, const T*, int len) {
    int c = 0;
    for (; c + 3 < len; c += 4)
      for (int j = 0; j < 4; ++j) ++hist[size_t(j * kRankBins + bins[c + j])];
    for (; c < len; ++c) ++hist[size_t(bins[c])];
  });
  const size_t k = count - 1 - n;
  int bn = -1, bk = -1;
  size_t before_n = 0, before_k = 0, acc = 0;
  for (int b = 0; b < kRankBins && bk < 0; ++b) {
    const size_t c = hist[size_t(b)] + hist[size_t(kRankBins + b)] + hist[size_t(2 * kRankBins + b)] +
                     hist[size_t(3 * kRankBins + b)];
    if (bn < 0 && acc + c > n) {
      bn = b;
      before_n = acc;
    }
    if (acc + c > k) {
      bk = b;
      before_k = acc;
    }
    acc += c;
  }
  std::vector<V> in_n, in_k;
  ForBinnedChunks<T, V>(r, p, base, scale, [&](const int32_t* bins, const T* s, int len) {
    int c = 0;
#if defined(__SSE2__)
    // Most groups of four hold neither bin: one test skips them.
    const __m128i vn = _mm_set1_epi32(bn), vk = _mm_set1_epi32(bk);
    for (; c + 4 <= len; c += 4) {
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bins + c));
      if (_mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi32(b, vn), _mm_cmpeq_epi32(b, vk))) == 0) continue;
      for (int j = c; j < c + 4; ++j) {
        if (bins[j] == bn) in_n.push_back(V(s[j]));
        if (bins[j] == bk) in_k.push_back(V(s[j]));
      }
    }
#endif
    for (; c < len; ++c) {
      if (bins[c] == bn) in_n.push_back(V(s[c]));
      if (bins[c] == bk) in_k.push_back(V(s[c]));
    }
  });
  const size_t rn = n - before_n, rk = k - before_k;
  std::nth_element(in_n.begin(), in_n.begin() + long(rn), in_n.end());
  *lo = double(in_n[rn]);
  std::nth_element(in_k.begin(), in_k.begin() + long(rk), in_k.end());
  *hi = double(in_k[rk]);
  return true;
}

// Percent 0 needs no ranking. The first value seeds both ends, so a NaN
// there is the answer and later ones are passed over.
template <class T>
bool PlainMinMaxOf(const Region& r, const cv::Mat& p, T* lo, T* hi) {
  bool any = false, nan = false;
  T mn{}, mx{};
  ForClippedRuns<T>(r, p, [&](const T* s, int a, int b) {
    if (!any) {
      mn = mx = s[a];
      any = true;
    }
    ScanRun<T, T>(s, a, b, &mn, &mx, &nan);
  });
  *lo = mn;
  *hi = mx;
  return any;
}

void PlainMinMax(const Region& r, const Image& img, double* lo, double* hi) {
  auto run = [&](auto zero) {
    using T = decltype(zero);
    T a, b;
    if (PlainMinMaxOf<T>(r, img.planes[0], &a, &b)) {
      *lo = double(a);
      *hi = double(b);
    }
  };
  switch (img.type) {
    case PixelType::UInt2: run(uint16_t{}); break;
    case PixelType::Int2: run(int16_t{}); break;
    case PixelType::Int4: run(int32_t{}); break;
    default: run(float{}); break;
  }
}

// Byte images go through a histogram: the n-th value from each end.
void ByteMinMax(const Region& r, const Image& img, double percent, double* mn, double* mx) {
  std::array<int64_t, 256> h{};
  int64_t area = 0;
  ForClippedRuns<uint8_t>(r, img.planes[0], [&](const uint8_t* p, int a, int b) {
    area += b - a + 1;
    for (int c = a; c <= b; ++c) ++h[p[c]];
  });
  if (area == 0) return;
  const int64_t n = std::min<int64_t>(int64_t(double(area) * percent / 100.0), (area - 1) / 2);
  int64_t acc = 0;
  int lo = 0;
  for (; lo < 255; ++lo) {
    acc += h[size_t(lo)];
    if (acc > n) break;
  }
  acc = 0;
  int hi = 255;
  for (; hi > 0; --hi) {
    acc += h[size_t(hi)];
    if (acc > n) break;
  }
  *mn = lo;
  *mx = std::max(hi, lo);
}

}  // namespace

void min_max_gray(const HObject& regions, const HObject& image, const HTuple& percent,
                  HTuple* min, HTuple* max, HTuple* range) {
  const char* op = "min_max_gray";
  const double pc = ParamReal(percent, op, "Percent");
  if (pc < 0 || pc > 50) throw HException(op, "Wrong value of control parameter Percent", kErrWrongParamValue);
  const Image& img = SingleImage(image, op);
  HTuple mn, mx, rg;
  for (long i = 0; i < regions.Count(); ++i) {
    const Region& reg = regions.RegionOrDomainAt(i, op);
    double lo = 0, hi = 0;
    if (img.type == PixelType::Byte) {
      ByteMinMax(reg, img, pc, &lo, &hi);
    } else if (pc == 0) {
      PlainMinMax(reg, img, &lo, &hi);
    } else if (img.type == PixelType::Int4) {
      BinnedRankMinMax<int32_t, double>(reg, img.planes[0], pc, &lo, &hi);
    } else if (img.type == PixelType::UInt2) {
      BinnedRankMinMax<uint16_t, float>(reg, img.planes[0], pc, &lo, &hi);
    } else if (img.type == PixelType::Int2) {
      BinnedRankMinMax<int16_t, float>(reg, img.planes[0], pc, &lo, &hi);
    } else if (!BinnedRankMinMax<float, float>(reg, img.planes[0], pc, &lo, &hi)) {
      std::vector<float> v = Values(reg, img);
      RankMinMax(v, pc, &lo, &hi);
    }
    mn.Append(HTuple(lo));
    mx.Append(HTuple(hi));
    rg.Append(HTuple(hi - lo));
  }
  *min = mn;
  *max = mx;
  *range = rg;
}

namespace {

// Calls fn(value) for every pixel of the region inside the image, row by
// row, with the value as gray_histo reads it (int4 as a double, the other
// types through a float).
template <class Fn>
void ForEachHistoValue(const Region& reg, const Image& img, Fn fn) {
  const cv::Mat& p = img.planes[0];
  auto each = [&](auto tag) {
    using T = decltype(tag);
    ForClippedRuns<T>(reg, p, [&](const T* s, int a, int b) {
      for (int c = a; c <= b; ++c) {
        if constexpr (std::is_same_v<T, int32_t>) fn(double(s[c]));
        else fn(double(float(s[c])));
      }
    });
  };
  switch (img.type) {
    case PixelType::Byte: return each(uint8_t());
    case PixelType::UInt2: return each(uint16_t());
    case PixelType::Int2: return each(int16_t());
    case PixelType::Int4: return each(int32_t());
    default: return each(float());
  }
}

}  // namespace

// The values are read twice (range, then bins) instead of being gathered:
// on a large real image a gathered copy in double precision would be twice
// the image. Only an image holding NaN, whose range depends on the order of
// the comparisons, is gathered and ranged as one list.
void gray_histo(const HObject& regions, const HObject& image, HTuple* absolute_histo,
                HTuple* relative_histo) {
  const char* op = "gray_histo";
  const Image& img = SingleImage(image, op);
  if (regions.Count() != 1) throw HException(op, "Exactly one region expected", kErrWrongParamCount);
  const Region& reg = regions.RegionOrDomainAt(0, op);
  std::array<int64_t, 256> h{};
  size_t count = 0;
  if (img.type == PixelType::Byte) {
    ForEachHistoValue(reg, img, [&](double x) { ++h[size_t(x)]; ++count; });
  } else {
    // The first smallest and the last largest, as std::minmax_element.
    double lo = 0, hi = 0;
    bool nan = false;
    ForEachHistoValue(reg, img, [&](double x) {
      if (count++ == 0) lo = hi = x;
      else if (x < lo) lo = x;
      else if (!(x < hi)) hi = x;
      nan |= std::isnan(x);
    });
    if (nan) {
      std::vector<double> v;
      v.reserve(count);
      ForEachHistoValue(reg, img, [&](double x) { v.push_back(x); });
      const auto [lo_it, hi_it] = std::minmax_element(v.begin(), v.end());
      lo = *lo_it;
      hi = *hi_it;
    }
    if (count > 0) {
      const double step = (hi - lo) / 256.0;
      ForEachHistoValue(reg, img, [&](double x) {
        const int b = step > 0 ? int((x - lo) / step) : 0;
        ++h[size_t(std::clamp(b, 0, 255))];
      });
    }
  }
  HTuple abs_h, rel_h;
  for (int64_t c : h) {
    abs_h.Append(HTuple(Hlong(c)));
    rel_h.Append(HTuple(count == 0 ? 0.0 : double(c) / double(count)));
  }
  *absolute_histo = abs_h;
  *relative_histo = rel_h;
}

}  // namespace vision
