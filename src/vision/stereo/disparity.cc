#include "vision/stereo/disparity.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace vision {
namespace {

constexpr const char* kOp = "binocular_disparity_ms";

// Disparities searched around the prediction of the coarser level.
constexpr int kRefineRadius = 3;
// Largest disparity span searched in full at the coarsest level.
constexpr int kCoarseSpan = 40;
constexpr int kCensusR = 3;  // 7 x 7 census, 48 bits

cv::Mat Gray(const Image& img) {
  cv::Mat g;
  if (img.type == PixelType::VectorField || img.planes.empty())
    throw HException(kOp, "Wrong image type: grey values expected", kErrWrongParamValue);
  if (img.planes.size() >= 3) {
    cv::Mat r, gg, b;
    img.planes[0].convertTo(r, CV_32F);
    img.planes[1].convertTo(gg, CV_32F);
    img.planes[2].convertTo(b, CV_32F);
    g = 0.299f * r + 0.587f * gg + 0.114f * b;
  } else {
    img.planes[0].convertTo(g, CV_32F);
  }
  return g;
}

std::vector<cv::Mat> Channels(const Image& img) {
  std::vector<cv::Mat> out;
  for (const cv::Mat& p : img.planes) {
    cv::Mat f;
    p.convertTo(f, CV_32F);
    out.push_back(f);
  }
  return out;
}

cv::Mat DomainMask(const Image& img) {
  if (img.FullDomain()) return cv::Mat(img.height, img.width, CV_8U, cv::Scalar(255));
  return img.domain.ToMask(img.height, img.width);
}

// Census signature: one bit per neighbour of the 7 x 7 window, set where the
// neighbour is darker than the centre.
cv::Mat Census(const cv::Mat& g) {
  const int h = g.rows, w = g.cols, r = kCensusR;
  cv::Mat padded;
  cv::copyMakeBorder(g, padded, r, r, r, r, cv::BORDER_REPLICATE);
  cv::Mat out(g.size(), CV_64F);  // used as raw 64-bit storage
  cv::parallel_for_(cv::Range(0, h), [&](const cv::Range& rg) {
    for (int y = rg.start; y < rg.end; ++y) {
      uint64_t* o = reinterpret_cast<uint64_t*>(out.ptr(y));
      const float* c = padded.ptr<float>(y + r) + r;
      std::fill(o, o + w, uint64_t(0));
      // One neighbour offset at a time over the whole row, so that the
      // comparisons run on vectors.
      for (int dy = -r; dy <= r; ++dy) {
        const float* row = padded.ptr<float>(y + r + dy) + r;
        for (int dx = -r; dx <= r; ++dx) {
          if (dx == 0 && dy == 0) continue;
          const float* n = row + dx;
          for (int x = 0; x < w; ++x) o[x] = (o[x] << 1) | uint64_t(n[x] < c[x]);
        }
      }
    }
  });
  return out;
}

struct Level {
  cv::Mat g1, g2;        // grey values
  cv::Mat m1, m2;        // domains (255 inside)
};

// One scale of the search: every pixel tests K disparities base(p) .. base(p)+K-1.
struct Search {
  int w = 0, h = 0, k = 0;
  std::vector<int> base;       // per pixel
  std::vector<uint8_t> cost;   // (y*w + x)*k + i
  std::vector<uint16_t> sum;   // aggregated over the scanlines
};

constexpr uint8_t kOutsideCost = 40;

// One row of Hamming distances; compiled twice so that processors with the
// popcount instruction use it (the generic build calls a library routine).
#if defined(__x86_64__)
__attribute__((target("popcnt"))) void CostRowHw(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w,
                                                  int w2, int k, const int* base, uint8_t* cost) {
  for (int x = 0; x < w; ++x) {
    uint8_t* c = cost + size_t(x) * k;
    const int b0 = base[x];
    for (int i = 0; i < k; ++i) {
      const int x2 = x + b0 + i;
      if (x2 < 0 || x2 >= w2 || !m2[x2]) continue;
      c[i] = uint8_t(__builtin_popcountll(a[x] ^ b[x2]));
    }
  }
}
#endif
void CostRow(const uint64_t* a, const uint64_t* b, const uint8_t* m2, int w, int w2, int k, const int* base,
             uint8_t* cost) {
  for (int x = 0; x < w; ++x) {
    uint8_t* c = cost + size_t(x) * k;
    const int b0 = base[x];
    for (int i = 0; i < k; ++i) {
      const int x2 = x + b0 + i;
      if (x2 < 0 || x2 >= w2 || !m2[x2]) continue;
      c[i] = uint8_t(std::popcount(a[x] ^ b[x2]));
    }
  }
}

void ComputeCost(const Level& lv, Search* s) {
  const cv::Mat c1 = Census(lv.g1), c2 = Census(lv.g2);
  const int w2 = lv.g2.cols;
  s->cost.assign(size_t(s->w) * s->h * s->k, kOutsideCost);
#if defined(__x86_64__)
  const bool hw = __builtin_cpu_supports("popcnt");
#endif
  cv::parallel_for_(cv::Range(0, s->h), [&](const cv::Range& rg) {
    for (int y = rg.start; y < rg.end; ++y) {
      const uint64_t* a = reinterpret_cast<const uint64_t*>(c1.ptr(y));
      const uint64_t* b = reinterpret_cast<const uint64_t*>(c2.ptr(y));
      const uint8_t* m2 = lv.m2.ptr<uint8_t>(y);
      const int* base = &s->base[size_t(y) * s->w];
      uint8_t* cost = &s->cost[size_t(y) * s->w * s->k];
#if defined(__x86_64__)
      if (hw) {
        CostRowHw(a, b, m2, s->w, w2, s->k, base, cost);
        continue;
      }
#endif
      CostRow(a, b, m2, s->w, w2, s->k, base, cost);
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

void Aggregate(Search* s, int p1, int p2) {
  const int w = s->w, h = s->h, k = s->k;
  s->sum.assign(size_t(w) * h * k, 0);
  const PathStep step{k, p1, p2};
  auto add = [&](size_t pix, const int* l) {
    uint16_t* o = &s->sum[pix * k];
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
          const uint8_t* c = &s->cost[pix * k];
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
            const uint8_t* c = &s->cost[pix * k];
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

// Winner of the aggregated costs with a parabola through its neighbours;
// `best` receives the winning sum.
void Winner(const Search& s, cv::Mat* disp, cv::Mat* best) {
  *disp = cv::Mat(s.h, s.w, CV_32F);
  *best = cv::Mat(s.h, s.w, CV_32S);
  for (int y = 0; y < s.h; ++y) {
    float* d = disp->ptr<float>(y);
    int* bb = best->ptr<int>(y);
    for (int x = 0; x < s.w; ++x) {
      const size_t pix = size_t(y) * s.w + x;
      const uint16_t* v = &s.sum[pix * s.k];
      int i = int(std::min_element(v, v + s.k) - v);
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

// Refines the disparity field to sub-pixel precision: image 2 is resampled
// under the current field and each pixel's disparity moves by the shift that
// best aligns the two windows after removing their local means. Also returns
// the correlation of the aligned grey windows and the disparity's expected
// standard deviation (`sigma_d`).
void RefineSubPixel(const std::vector<cv::Mat>& c1, const std::vector<cv::Mat>& c2, const cv::Mat& g1,
                    const cv::Mat& g2, cv::Mat* disp, cv::Mat* ncc, cv::Mat* sigma_d) {
  const double sigma = 2.0;  // window: Gaussian, about 9 x 9 pixels
  cv::Mat mapx(disp->size(), CV_32F), mapy(disp->size(), CV_32F);
  for (int y = 0; y < disp->rows; ++y)
    for (int x = 0; x < disp->cols; ++x) mapy.at<float>(y, x) = float(y);
  auto set_map = [&]() {
    for (int y = 0; y < disp->rows; ++y) {
      const float* d = disp->ptr<float>(y);
      float* mx = mapx.ptr<float>(y);
      for (int x = 0; x < disp->cols; ++x) mx[x] = float(x) + d[x];
    }
  };
  // Every colour channel adds its own evidence to the same shift.
  std::vector<cv::Mat> gx2(c2.size()), m1(c1.size());
  for (size_t k = 0; k < c2.size(); ++k) {
    cv::Sobel(c2[k], gx2[k], CV_32F, 1, 0, 3, 1.0 / 8.0, 0, cv::BORDER_REPLICATE);
    m1[k] = Blur(c1[k], sigma);
  }
  for (int it = 0; it < 4; ++it) {
    set_map();
    cv::Mat num(disp->size(), CV_32F, cv::Scalar(0)), den(disp->size(), CV_32F, cv::Scalar(0));
    // The smooth field carries the slope of the surface; each window adds
    // one constant correction to it. (Averaging the field itself with the
    // gradient weights would move each estimate towards the window's
    // strongest texture, an error of the slope times that offset.)
    const cv::Mat mean_d = Blur(*disp, sigma);
    const cv::Mat detail = *disp - mean_d;
    for (size_t k = 0; k < c1.size(); ++k) {
      cv::Mat w2, gw;
      cv::remap(c2[k], w2, mapx, mapy, cv::INTER_CUBIC, cv::BORDER_REPLICATE);
      cv::remap(gx2[k], gw, mapx, mapy, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
      const cv::Mat e = (c1[k] - m1[k]) - (w2 - Blur(w2, sigma));
      const cv::Mat g = gw - Blur(gw, sigma);
      // Each window holds one disparity estimate: the mean of the field
      // under it, weighted by the gradients, plus the shift that aligns it;
      // a noisy field would otherwise keep its pixel-to-pixel noise.
      const cv::Mat gg = g.mul(g);
      num += g.mul(e) + gg.mul(detail);
      den += gg;
    }
    num = Blur(num, sigma);
    den = Blur(den, sigma);
    for (int y = 0; y < disp->rows; ++y) {
      float* d = disp->ptr<float>(y);
      const float* n = num.ptr<float>(y);
      const float* q = den.ptr<float>(y);
      const float* md = mean_d.ptr<float>(y);
      for (int x = 0; x < disp->cols; ++x) {
        const float target = q[x] > 1e-3f ? md[x] + n[x] / q[x] : md[x];
        d[x] = std::clamp(target, d[x] - 1.0f, d[x] + 1.0f);
      }
    }
  }
  set_map();
  cv::Mat w2;
  cv::remap(g2, w2, mapx, mapy, cv::INTER_CUBIC, cv::BORDER_REPLICATE);
  const cv::Mat mg1 = Blur(g1, sigma);
  const cv::Mat mw = Blur(w2, sigma);
  const cv::Mat& m1g = mg1;
  const cv::Mat v1 = Blur(g1.mul(g1), sigma) - m1g.mul(m1g);
  const cv::Mat v2 = Blur(w2.mul(w2), sigma) - mw.mul(mw);
  const cv::Mat cv12 = Blur(g1.mul(w2), sigma) - m1g.mul(mw);
  *ncc = cv::Mat(disp->size(), CV_32F);
  for (int y = 0; y < disp->rows; ++y)
    for (int x = 0; x < disp->cols; ++x) {
      const float a = v1.at<float>(y, x), b = v2.at<float>(y, x);
      ncc->at<float>(y, x) = a > 1e-3f && b > 1e-3f ? cv12.at<float>(y, x) / std::sqrt(a * b) : 0.f;
    }
  cv::Mat gx1;
  cv::Sobel(g1, gx1, CV_32F, 1, 0, 3, 1.0 / 8.0, 0, cv::BORDER_REPLICATE);
  // Summed squared gradient over the window's equivalent area.
  const double area = 2 * M_PI * sigma * sigma;
  const cv::Mat info = Blur(gx1.mul(gx1), sigma) * area;
  // Expected standard deviation of the disparity: the image noise, as the
  // part of the window's variance the correlation does not explain, in both
  // images, over the window's gradient energy.
  *sigma_d = cv::Mat(disp->size(), CV_32F);
  for (int y = 0; y < disp->rows; ++y)
    for (int x = 0; x < disp->cols; ++x) {
      const float noise = std::max(0.f, 1.f - std::max(0.f, ncc->at<float>(y, x))) * std::max(0.f, v1.at<float>(y, x));
      sigma_d->at<float>(y, x) = std::sqrt(2.f * std::max(noise, kMinNoise) / std::max(info.at<float>(y, x), 1e-6f));
    }
}

bool Flag(const HTuple& names, const HTuple& values, const char* name, bool dflt) {
  for (Hlong i = 0; i < names.Length(); ++i) {
    if (!names.IsString(i) || names.S(i) != name) continue;
    if (i >= values.Length() || !values.IsString(i) || (values.S(i) != "true" && values.S(i) != "false"))
      throw HException(kOp, std::string("Wrong value of generic parameter ") + name, kErrWrongParamValue);
    return values.S(i) == "true";
  }
  return dflt;
}

int IntParam(const HTuple& t, const char* name) {
  if (t.Length() != 1 || !t.IsNumber(0))
    throw HException(kOp, std::string("Wrong type of control parameter ") + name, kErrWrongParamType);
  return t.I(0);
}

}  // namespace

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
  if (dmin > dmax) throw HException(kOp, "MinDisparity is larger than MaxDisparity", kErrWrongParamValue);
  if (smooth_s < 0 || smooth_e < 0)
    throw HException(kOp, "Wrong value of control parameter SurfaceSmoothing or EdgeSmoothing", kErrWrongParamValue);
  if (gen_param_name.Length() != gen_param_value.Length())
    throw HException(kOp, "GenParamName and GenParamValue differ in length", kErrWrongParamCount);
  for (Hlong i = 0; i < gen_param_name.Length(); ++i) {
    if (!gen_param_name.IsString(i) ||
        (gen_param_name.S(i) != "sub_disparity" && gen_param_name.S(i) != "consistency_check"))
      throw HException(kOp, "Wrong generic parameter name", kErrWrongParamValue);
  }
  const bool sub = Flag(gen_param_name, gen_param_value, "sub_disparity", true);
  const bool check = Flag(gen_param_name, gen_param_value, "consistency_check", true);
  if (i1.height != i2.height) throw HException(kOp, "Images of different heights", kErrImageSize);
  if (i1.width < 2 * kCensusR + 1 || i1.height < 2 * kCensusR + 1)
    throw HException(kOp, "Image too small", kErrImageSize);

  // Pyramid deep enough that the coarsest level searches at most kCoarseSpan.
  std::vector<Level> levels(1);
  levels[0].g1 = Gray(i1);
  levels[0].g2 = Gray(i2);
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
      for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) {
          const int c = int(std::lround(2.f * up.at<float>(y, x)));
          s.base[size_t(y) * s.w + x] = std::clamp(c - kRefineRadius, lo, hi - s.k + 1);
        }
    }
    ComputeCost(lv, &s);
    Aggregate(&s, p1, p2);
    Winner(s, &disp, &best);
    if (li > 0) cv::medianBlur(disp, disp, 3);
  }

  const Level& l0 = levels[0];
  const int w = l0.g1.cols, h = l0.g1.rows;
  cv::Mat ncc, sigma_d;
  cv::Mat coarse = disp.clone();
  if (sub) {
    RefineSubPixel(Channels(i1), Channels(i2), l0.g1, l0.g2, &disp, &ncc, &sigma_d);
  } else {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) disp.at<float>(y, x) = std::round(disp.at<float>(y, x));
    cv::Mat keep = disp.clone();
    RefineSubPixel(Channels(i1), Channels(i2), l0.g1, l0.g2, &keep, &ncc, &sigma_d);
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
      const int x2 = int(std::lround(x2f));
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
  cv::Mat sc(h, w, CV_32F);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      sc.at<float>(y, x) = 1000.f / (1.f + Sq(sigma_d.at<float>(y, x) / kScoreSigma));

  Region dom = Region::FromMask(valid);
  Image di = Image::FromPlanes(PixelType::Real, {disp});
  di.domain = dom;
  Image si = Image::FromPlanes(PixelType::Real, {sc});
  si.domain = dom;
  *disparity = HObject(std::move(di));
  *score = HObject(std::move(si));
}

}  // namespace vision
