#include "vision/filter/statistics.h"

#include <algorithm>
#include <array>

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

template <class T>
void PlainMinMaxOf(const Region& r, const cv::Mat& p, double* lo, double* hi) {
  if (r.Empty()) return;
  T mn = p.ptr<T>(r.Runs()[0].row)[r.Runs()[0].cb], mx = mn;
  for (const Run& run : r.Runs()) {
    const T* s = p.ptr<T>(run.row);
    for (int c = run.cb; c <= run.ce; ++c) {
      mn = s[c] < mn ? s[c] : mn;
      mx = s[c] > mx ? s[c] : mx;
    }
  }
  *lo = double(mn);
  *hi = double(mx);
}

// Percent 0 needs no ranking.
void PlainMinMax(const Region& reg, const Image& img, double* lo, double* hi) {
  const Region r = reg.Clipped(img.height, img.width);
  switch (img.type) {
    case PixelType::UInt2: PlainMinMaxOf<uint16_t>(r, img.planes[0], lo, hi); break;
    case PixelType::Int2: PlainMinMaxOf<int16_t>(r, img.planes[0], lo, hi); break;
    case PixelType::Int4: PlainMinMaxOf<int32_t>(r, img.planes[0], lo, hi); break;
    default: PlainMinMaxOf<float>(r, img.planes[0], lo, hi); break;
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

// Byte images go through a histogram: the n-th value from each end.
void ByteMinMax(const Region& reg, const Image& img, double percent, double* mn, double* mx) {
  const Region r = reg.Clipped(img.height, img.width);
  std::array<int64_t, 256> h{};
  for (const Run& run : r.Runs()) {
    const uint8_t* p = img.planes[0].ptr<uint8_t>(run.row);
    for (int c = run.cb; c <= run.ce; ++c) ++h[p[c]];
  }
  const int64_t area = r.Area();
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
  const double pc = Num(percent, 0, op, "Percent");
  if (pc < 0 || pc > 50) throw HException(op, "Wrong value of control parameter Percent", kErrWrongParamValue);
  const Image& img = SingleImage(image, op);
  HTuple mn, mx, rg;
  for (long i = 0; i < regions.Count(); ++i) {
    const Region& reg = regions.RegionOrDomainAt(i, op);
    double lo = 0, hi = 0;
    if (img.type == PixelType::Byte) {
      if (!reg.Clipped(img.height, img.width).Empty()) ByteMinMax(reg, img, pc, &lo, &hi);
    } else if (pc == 0) {
      PlainMinMax(reg, img, &lo, &hi);
    } else if (img.type == PixelType::Int4) {
      std::vector<double> v = Int4Values(reg, img);
      RankMinMax(v, pc, &lo, &hi);
    } else {
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

void gray_histo(const HObject& regions, const HObject& image, HTuple* absolute_histo,
                HTuple* relative_histo) {
  const char* op = "gray_histo";
  const Image& img = SingleImage(image, op);
  if (regions.Count() != 1) throw HException(op, "Exactly one region expected", kErrWrongParamCount);
  std::vector<double> v;
  if (img.type == PixelType::Int4) {
    v = Int4Values(regions.RegionOrDomainAt(0, op), img);
  } else {
    const std::vector<float> f = Values(regions.RegionOrDomainAt(0, op), img);
    v.assign(f.begin(), f.end());
  }
  std::array<int64_t, 256> h{};
  if (img.type == PixelType::Byte) {
    for (double x : v) ++h[size_t(x)];
  } else if (!v.empty()) {
    const auto [lo_it, hi_it] = std::minmax_element(v.begin(), v.end());
    const double lo = *lo_it, step = (*hi_it - lo) / 256.0;
    for (double x : v) {
      const int b = step > 0 ? int((x - lo) / step) : 0;
      ++h[size_t(std::clamp(b, 0, 255))];
    }
  }
  HTuple abs_h, rel_h;
  for (int64_t c : h) {
    abs_h.Append(HTuple(Hlong(c)));
    rel_h.Append(HTuple(v.empty() ? 0.0 : double(c) / double(v.size())));
  }
  *absolute_histo = abs_h;
  *relative_histo = rel_h;
}

}  // namespace vision
