#include "vision/filter/filters.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>

#include <opencv2/imgproc.hpp>

#include "vision/filter/cosine_transform.h"
#include "vision/filter/filter_util.h"

namespace vision {

using namespace filter_detail;

namespace {

// Mirroring without repeating the border pixel: pixel -1 reads pixel 1.
constexpr int kMirror = cv::BORDER_REFLECT_101;

// Applies fn to each plane and keeps geometry and domain.
template <class Fn>
HObject PerPlane(const HObject& in, const char* op, PixelType (*out_type)(PixelType), Fn fn) {
  HObject out;
  for (const Image* img : Images(in, op)) {
    RequireNotVectorField(*img, op);
    std::vector<cv::Mat> planes;
    planes.reserve(img->planes.size());
    for (const cv::Mat& p : img->planes) planes.push_back(fn(*img, p));
    out.Push(Derived(*img, out_type ? out_type(img->type) : img->type, std::move(planes)));
  }
  return out;
}

// 3 x 3 mean of a byte plane, mirrored borders, rounded to nearest: a
// sum s of nine bytes never ends in a half, so round(s / 9) = floor((s + 4)
// / 9) = ((s + 4) * 7282) >> 16 for every s up to 9 * 255 (the error of the
// fixed-point reciprocal stays below 0.008 there). Sixteen-bit lanes throughout.
cv::Mat Mean3x3Byte(const cv::Mat& p) {
  const int H = p.rows, W = p.cols;
  cv::Mat out(H, W, CV_8U);
  std::vector<uint16_t> col(static_cast<size_t>(W + 2));
  uint16_t* v = col.data() + 1;
  const int left = cv::borderInterpolate(-1, W, kMirror), right = cv::borderInterpolate(W, W, kMirror);
  for (int y = 0; y < H; ++y) {
    const uint8_t* a = p.ptr<uint8_t>(cv::borderInterpolate(y - 1, H, kMirror));
    const uint8_t* b = p.ptr<uint8_t>(y);
    const uint8_t* c = p.ptr<uint8_t>(cv::borderInterpolate(y + 1, H, kMirror));
    for (int x = 0; x < W; ++x) v[x] = uint16_t(a[x] + b[x] + c[x]);
    v[-1] = v[left];
    v[W] = v[right];
    uint8_t* d = out.ptr<uint8_t>(y);
    for (int x = 0; x < W; ++x) {
      const uint16_t sum = uint16_t(v[x - 1] + v[x] + v[x + 1] + 4);
      d[x] = uint8_t((uint32_t(sum) * uint32_t(uint16_t(7282))) >> 16);  // a 16-bit high product
    }
  }
  return out;
}

cv::Mat MeanPlane(const cv::Mat& p, PixelType t, int mw, int mh) {
  if (t == PixelType::Byte && mw == 3 && mh == 3) return Mean3x3Byte(p);
  if (t == PixelType::Byte && (mw * mh) % 2 == 1) {
    // An odd pixel count never averages to a half, so OpenCV's own rounding
    // of the 8-bit box filter is exact here.
    cv::Mat m;
    cv::blur(p, m, cv::Size(mw, mh), cv::Point(-1, -1), kMirror);
    return m;
  }
  // Float sums are exact for masks up to 2^24 / 65535 pixels of 16-bit data.
  cv::Mat f = ToFloat(p), m;
  cv::blur(f, m, cv::Size(mw, mh), cv::Point(-1, -1), kMirror);
  return t == PixelType::Real ? m : FromDouble(m, t);
}

void MaskSize(const HTuple& mask_width, const HTuple& mask_height, const char* op, int* mw, int* mh) {
  const Hlong w = ParamInt(mask_width, op, "MaskWidth"), h = ParamInt(mask_height, op, "MaskHeight");
  if (w < 1 || h < 1 || w > 4001 || h > 4001)
    throw HException(op, "Wrong value of control parameter MaskWidth or MaskHeight", kErrWrongParamValue);
  *mw = int(w);
  *mh = int(h);
}

// d[x] = sum over i < R of k[i] * (a[i][x] - b[i][x]), summed from 0 in the
// order of i. With R fixed the terms stay in registers: one store per pixel
// instead of one load and store per term.
template <int R>
void AntisymmetricRow(const float* const* a, const float* const* b, const float* k, float* d, int w) {
  for (int x = 0; x < w; ++x) {
    float acc = 0;
    for (int i = 0; i < R; ++i) acc += k[i] * (a[i][x] - b[i][x]);
    d[x] = acc;
  }
}

// Each pixel's sum runs in the same order at any vector width (and without
// fused multiply-adds), so the AVX2 clone gives the same bits.
__attribute__((target_clones("avx2", "default"))) void AntisymmetricRowAny(
    const float* const* a, const float* const* b, const float* k, int r, float* d, int w) {
  switch (r) {
    case 1: return AntisymmetricRow<1>(a, b, k, d, w);
    case 2: return AntisymmetricRow<2>(a, b, k, d, w);
    case 3: return AntisymmetricRow<3>(a, b, k, d, w);
    case 4: return AntisymmetricRow<4>(a, b, k, d, w);
    case 5: return AntisymmetricRow<5>(a, b, k, d, w);
    case 6: return AntisymmetricRow<6>(a, b, k, d, w);
    case 7: return AntisymmetricRow<7>(a, b, k, d, w);
    case 8: return AntisymmetricRow<8>(a, b, k, d, w);
    default: break;
  }
  for (int x = 0; x < w; ++x) d[x] = 0;
  for (int i = 0; i < r; ++i)
    for (int x = 0; x < w; ++x) d[x] += k[i] * (a[i][x] - b[i][x]);
}

// Correlation with an antisymmetric kernel as sums of k(i) * (f(x+i) - f(x-i)),
// so that a constant neighbourhood gives exactly 0 (flat areas must stay flat
// for the gradient integration). Mirrored borders. Each pixel sums its terms
// from 0 in the order i = 1..r. The result overwrites f (a plane no one else
// holds; a shared one is copied first): along the columns from a mirrored
// copy of each row, along the rows with the last r rows' input kept aside.
cv::Mat AntisymmetricFilter(cv::Mat f, const cv::Mat& kernel, bool along_columns) {
  if (!PlaneExclusive(f)) f = f.clone();
  const int r = kernel.rows / 2, H = f.rows, W = f.cols;
  std::vector<float> k(static_cast<size_t>(r));
  for (int i = 1; i <= r; ++i) k[size_t(i - 1)] = kernel.at<float>(r + i);
  const int n = along_columns ? W : H;
  std::vector<int> idx(static_cast<size_t>(n + 2 * r));
  for (int i = -r; i < n + r; ++i) idx[size_t(i + r)] = cv::borderInterpolate(i, n, kMirror);
  std::vector<const float*> a(static_cast<size_t>(r)), b(static_cast<size_t>(r));
  if (along_columns) {
    // One mirrored copy of the row, then shifted views of it.
    std::vector<float> buf(static_cast<size_t>(W + 2 * r));
    const float* m = buf.data() + r;
    for (int i = 1; i <= r; ++i) {
      a[size_t(i - 1)] = m + i;
      b[size_t(i - 1)] = m - i;
    }
    for (int y = 0; y < H; ++y) {
      float* s = f.ptr<float>(y);
      for (int i = 0; i < r; ++i) {
        buf[size_t(i)] = s[idx[size_t(i)]];
        buf[size_t(W + r + i)] = s[idx[size_t(W + r + i)]];
      }
      std::memcpy(buf.data() + r, s, sizeof(float) * size_t(W));
      AntisymmetricRowAny(a.data(), b.data(), k.data(), r, s, W);
    }
    return f;
  }
  // Row y reads input rows y - r .. y + r (mirrored ones included: a
  // mirrored row above the last is never more than r rows back). Rows below
  // y are still input in f; rows above it are output, their input is kept in
  // a ring of r + 1 rows.
  const int R = r + 1;
  cv::Mat ring(R, W, CV_32F);
  std::vector<float> out(static_cast<size_t>(W));
  auto input_row = [&](int j, int y) -> const float* {
    return j < y ? ring.ptr<float>(j % R) : f.ptr<float>(j);
  };
  for (int y = 0; y < H; ++y) {
    for (int i = 1; i <= r; ++i) {
      a[size_t(i - 1)] = input_row(idx[size_t(y + r + i)], y);
      b[size_t(i - 1)] = input_row(idx[size_t(y + r - i)], y);
    }
    AntisymmetricRowAny(a.data(), b.data(), k.data(), r, out.data(), W);
    float* row = f.ptr<float>(y);
    std::memcpy(ring.ptr<float>(y % R), row, sizeof(float) * size_t(W));
    std::memcpy(row, out.data(), sizeof(float) * size_t(W));
  }
  return f;
}

// Reverses n elements of s into d.
template <class T>
void ReverseRow(const T* s, T* d, int n) {
  for (int c = 0; c < n; ++c) d[c] = s[n - 1 - c];
}

// Bytes eight at a time: OpenCV's flip moves single bytes one by one.
template <>
void ReverseRow<uint8_t>(const uint8_t* s, uint8_t* d, int n) {
  int c = 0;
  for (; c + 8 <= n; c += 8) {
    uint64_t v;
    std::memcpy(&v, s + n - c - 8, 8);
    v = __builtin_bswap64(v);
    std::memcpy(d + c, &v, 8);
  }
  for (; c < n; ++c) d[c] = s[n - 1 - c];
}

template <class T>
cv::Mat HalfTurnOf(const cv::Mat& p) {
  cv::Mat r(p.size(), p.type());
  const int w = p.cols, h = p.rows;
  for (int y = 0; y < h; ++y) ReverseRow(p.ptr<T>(h - 1 - y), r.ptr<T>(y), w);
  return r;
}

// Rotation by 180 degrees: row y is row h-1-y reversed.
cv::Mat HalfTurn(const cv::Mat& p) {
  switch (p.elemSize()) {
    case 1: return HalfTurnOf<uint8_t>(p);
    case 2: return HalfTurnOf<uint16_t>(p);
    default: return HalfTurnOf<uint32_t>(p);
  }
}

// OpenCV's warps and resizes lack 32-bit integers; they go through doubles.
template <class Fn>
cv::Mat Geometric(const cv::Mat& p, Fn fn) {
  if (p.depth() != CV_32S) return fn(p);
  cv::Mat d, r, back;
  p.convertTo(d, CV_64F);
  r = fn(d);
  r.convertTo(back, CV_32S);
  return back;
}

}  // namespace

void rgb1_to_gray(const HObject& rgb_image, HObject* gray_image) {
  const char* op = "rgb1_to_gray";
  HObject out;
  for (const Image* img : Images(rgb_image, op)) {
    RequireNotVectorField(*img, op);
    if (img->planes.size() == 1) {
      out.Push(*img);
      continue;
    }
    if (img->planes.size() != 3 && img->planes.size() != 4)
      throw HException(op, "Image must have one or three channels", kErrWrongObject);
    cv::Mat y;
    const bool real = img->type == PixelType::Real;
    if (img->type == PixelType::Byte) {
      // Integer weights in thousandths, halves up: (299 r + 587 g + 114 b + 500)
      // / 1000. In single precision every sum is an exact integer below 2^24,
      // and the extra half keeps the scaled value 0.0005 clear of the integer
      // boundaries, far beyond the product's rounding error; the loop then
      // vectorises.
      y.create(img->height, img->width, CV_8U);
      const int w = img->width;  // a local bound: byte stores could alias the image's fields
      for (int row = 0; row < img->height; ++row) {
        const uint8_t *r = img->planes[0].ptr<uint8_t>(row), *g = img->planes[1].ptr<uint8_t>(row),
                      *b = img->planes[2].ptr<uint8_t>(row);
        uint8_t* d = y.ptr<uint8_t>(row);
        for (int c = 0; c < w; ++c)
          d[c] = uint8_t(int32_t((299.0f * float(r[c]) + 587.0f * float(g[c]) + 114.0f * float(b[c]) + 500.5f) *
                                 0.001f));
      }
      out.Push(Derived(*img, img->type, {y}));
      continue;
    }
    if (real) {
      // Single precision is exact enough for byte rounding and for real images.
      cv::Mat r = ToFloat(img->planes[0]), g = ToFloat(img->planes[1]), b = ToFloat(img->planes[2]);
      y = 0.299f * r + 0.587f * g + 0.114f * b;
    } else {
      cv::Mat r = ToDouble(img->planes[0]), g = ToDouble(img->planes[1]), b = ToDouble(img->planes[2]);
      y = 0.299 * r + 0.587 * g + 0.114 * b;
    }
    out.Push(Derived(*img, img->type, {real ? y : FromDouble(y, img->type)}));
  }
  *gray_image = out;
}

namespace {

cv::Mat ScaledPlane(const Image& img, const cv::Mat& p, double m, double a) {
  if (img.type == PixelType::Real) {
    cv::Mat r;
    p.convertTo(r, CV_32F, m, a);
    return r;
  }
  return FromDouble(cv::Mat(ToDouble(p) * m + a), img.type);
}

}  // namespace

void scale_image(const HObject& image, HObject* image_scaled, const HTuple& mult, const HTuple& add) {
  const char* op = "scale_image";
  const double m = ParamReal(mult, op, "Mult"), a = ParamReal(add, op, "Add");
  *image_scaled = PerPlane(image, op, nullptr, [&](const Image& img, const cv::Mat& p) {
    return ScaledPlane(img, p, m, a);
  });
}

void scale_image(HObject&& image, HObject* image_scaled, const HTuple& mult, const HTuple& add) {
  const char* op = "scale_image";
  const double m = ParamReal(mult, op, "Mult"), a = ParamReal(add, op, "Add");
  HObject in = std::move(image), out;
  for (long i = 0; i < in.Count(); ++i) {
    const Image& img = in.ImageAt(i, op);
    RequireNotVectorField(img, op);
    Image* own = in.ExclusiveImage(i);
    if (!own || img.type != PixelType::Real) {
      out.Push(Derived(img, img.type, [&] {
        std::vector<cv::Mat> planes;
        for (const cv::Mat& p : img.planes) planes.push_back(ScaledPlane(img, p, m, a));
        return planes;
      }()));
      continue;
    }
    // Real planes scale in place (convertTo computes each pixel alone, so
    // the values are those of a copy).
    Image res = std::move(*own);
    for (cv::Mat& p : res.planes) {
      if (PlaneExclusive(p) && p.isContinuous()) p.convertTo(p, CV_32F, m, a);
      else p = ScaledPlane(res, p, m, a);
    }
    out.Push(std::move(res));
  }
  *image_scaled = out;
}

void invert_image(const HObject& image, HObject* image_invert) {
  const char* op = "invert_image";
  *image_invert = PerPlane(image, op, nullptr, [&](const Image& img, const cv::Mat& p) {
    switch (img.type) {
      case PixelType::Byte: return cv::Mat(255 - p);
      case PixelType::UInt2: return cv::Mat(65535 - p);
      case PixelType::Real: return cv::Mat(-p);
      default: return FromDouble(-ToDouble(p), img.type);  // -(-32768) clips
    }
  });
}

void mean_image(const HObject& image, HObject* image_mean, const HTuple& mask_width,
                const HTuple& mask_height) {
  const char* op = "mean_image";
  int mw, mh;
  MaskSize(mask_width, mask_height, op, &mw, &mh);
  *image_mean = PerPlane(image, op, nullptr, [&](const Image& img, const cv::Mat& p) {
    return MeanPlane(p, img.type, mw, mh);
  });
}

void emphasize(const HObject& image, HObject* image_emphasize, const HTuple& mask_width,
               const HTuple& mask_height, const HTuple& factor) {
  const char* op = "emphasize";
  int mw, mh;
  MaskSize(mask_width, mask_height, op, &mw, &mh);
  const double f = ParamReal(factor, op, "Factor");
  if (f < 0) throw HException(op, "Wrong value of control parameter Factor", kErrWrongParamValue);
  *image_emphasize = PerPlane(image, op, nullptr, [&](const Image& img, const cv::Mat& p) {
    if (img.type != PixelType::Byte && img.type != PixelType::Int2 && img.type != PixelType::UInt2)
      throw HException(op, std::string("Image type ") + PixelTypeName(img.type) + " is not supported",
                       kErrWrongObject);
    const cv::Mat mean = MeanPlane(p, img.type, mw, mh);
    if (img.type == PixelType::Byte && f == std::floor(f) && f <= 65536) {
      // An integral factor scales the difference exactly (|diff * f| < 2^24
      // in single precision), so the rounding is the identity: plain integer
      // arithmetic that vectorises.
      const int k = int(f), w = p.cols;
      cv::Mat res(p.size(), CV_8U);
      for (int r = 0; r < res.rows; ++r) {
        const uint8_t *o = p.ptr<uint8_t>(r), *m = mean.ptr<uint8_t>(r);
        uint8_t* d = res.ptr<uint8_t>(r);
        if (k <= 127) {
          // 255 + 127 * 255 fits 16 bits: eight pixels per vector.
          const int16_t k16 = int16_t(k);
          for (int c = 0; c < w; ++c) {
            const int16_t v = int16_t(o[c] + k16 * int16_t(o[c] - m[c]));
            d[c] = uint8_t(v < 0 ? 0 : (v > 255 ? 255 : v));
          }
        } else {
          for (int c = 0; c < w; ++c) {
            const int v = int(o[c]) + k * (int(o[c]) - int(m[c]));
            d[c] = uint8_t(v < 0 ? 0 : (v > 255 ? 255 : v));
          }
        }
      }
      return res;
    }
    if (img.type == PixelType::Byte) {
      // The difference of two bytes takes only 511 values: round each once.
      std::array<int, 511> rounded;
      for (int diff = -255; diff <= 255; ++diff)
        rounded[size_t(diff + 255)] = int(std::round(float(diff) * float(f)));
      cv::Mat res(p.size(), CV_8U);
      for (int r = 0; r < res.rows; ++r) {
        const uint8_t *o = p.ptr<uint8_t>(r), *m = mean.ptr<uint8_t>(r);
        uint8_t* d = res.ptr<uint8_t>(r);
        for (int c = 0; c < res.cols; ++c)
          d[c] = cv::saturate_cast<uint8_t>(rounded[size_t(int(o[c]) - int(m[c]) + 255)] + int(o[c]));
      }
      return res;
    }
    cv::Mat orig = ToFloat(p), meanf = ToFloat(mean);
    cv::Mat res(p.size(), CV_32F);
    for (int r = 0; r < res.rows; ++r) {
      const float *o = orig.ptr<float>(r), *m = meanf.ptr<float>(r);
      float* d = res.ptr<float>(r);
      // round() of the scaled difference, halves away from zero, then + orig.
      for (int c = 0; c < res.cols; ++c) d[c] = std::round((o[c] - m[c]) * float(f)) + o[c];
    }
    return FromDouble(res, img.type);
  });
}

void derivate_gauss(const HObject& image, HObject* deriv_gauss, const HTuple& sigma,
                    const HTuple& component) {
  const char* op = "derivate_gauss";
  ParamCount(sigma, op, "Sigma", 1, 2);
  const double sc = ParamReal(sigma, op, "Sigma", 0), sr = sigma.Length() > 1 ? ParamReal(sigma, op, "Sigma", 1) : sc;
  if (sc <= 0 || sr <= 0 || sc > 1000 || sr > 1000)
    throw HException(op, "Wrong value of control parameter Sigma", kErrWrongParamValue);
  const std::string& comp = ParamString(component, op, "Component");
  if (comp != "x" && comp != "y" && comp != "gradient" && comp != "none")
    throw HException(op, "Wrong value of control parameter Component: '" + comp + "'",
                     kErrNotImplemented);
  cv::Mat gc, dc, gr, dr;
  GaussKernels(sc, &gc, &dc);
  GaussKernels(sr, &gr, &dr);
  *deriv_gauss = PerPlane(image, op, [](PixelType) { return PixelType::Real; },
                          [&](const Image&, const cv::Mat& p) {
    // 32-bit integers have no direct float filtering in OpenCV.
    const cv::Mat f = p.depth() == CV_32S ? ToFloat(p) : p, one = cv::Mat::ones(1, 1, CV_32F);
    auto smooth = [&](const cv::Mat& kx, const cv::Mat& ky) {
      cv::Mat o;
      cv::sepFilter2D(f, o, CV_32F, kx, ky, cv::Point(-1, -1), 0, kMirror);
      return o;
    };
    if (comp == "none") return smooth(gc, gr);
    cv::Mat gx, gy;
    if (comp != "y") gx = AntisymmetricFilter(smooth(one, gr), dc, true);
    if (comp != "x") gy = AntisymmetricFilter(smooth(gc, one), dr, false);
    if (comp == "x") return gx;
    if (comp == "y") return gy;
    cv::Mat out;
    cv::magnitude(gx, gy, out);
    return out;
  });
}

void rotate_image(const HObject& image, HObject* image_rotate, const HTuple& phi,
                  const HTuple& interpolation) {
  const char* op = "rotate_image";
  double angle = std::fmod(ParamReal(phi, op, "Phi"), 360.0);
  if (angle < 0) angle += 360.0;
  const std::string& interp = ParamString(interpolation, op, "Interpolation");
  int flag;
  if (interp == "constant" || interp == "nearest_neighbor") flag = cv::INTER_NEAREST;
  else if (interp == "bilinear" || interp == "weighted") flag = cv::INTER_LINEAR;
  else throw HException(op, "Wrong value of control parameter Interpolation: '" + interp + "'", kErrWrongParamValue);

  const double quarter = angle / 90.0;
  const long k = std::lround(quarter);
  const bool exact = std::fabs(quarter - double(k)) < 1e-9;
  HObject out;
  for (const Image* img : Images(image, op)) {
    RequireNotVectorField(*img, op);
    if (exact && k % 2 == 0) {
      // Half and whole turns map runs to runs: no masks needed. A whole turn
      // keeps the (immutable) planes.
      Image res = *img;
      res.vector_field_type.clear();
      const Region dom = img->FullDomain() ? img->domain : img->domain.Clipped(img->height, img->width);
      if (k % 4 == 2) {
        for (cv::Mat& p : res.planes) p = HalfTurn(p);
        std::vector<Run> runs(dom.Runs().rbegin(), dom.Runs().rend());
        for (Run& r : runs) r = {img->height - 1 - r.row, img->width - 1 - r.ce, img->width - 1 - r.cb};
        res.domain = Region::FromSortedRuns(std::move(runs));
      } else {
        res.domain = dom;
      }
      out.Push(std::move(res));
      continue;
    }
    std::function<cv::Mat(const cv::Mat&, int)> xf;
    int ow = img->width, oh = img->height;
    if (exact) {
      if (k % 2 == 1) std::swap(ow, oh);
      xf = [k](const cv::Mat& m, int) {
        cv::Mat r;
        switch (k % 4) {
          case 1: cv::rotate(m, r, cv::ROTATE_90_COUNTERCLOCKWISE); break;
          case 2: cv::rotate(m, r, cv::ROTATE_180); break;
          case 3: cv::rotate(m, r, cv::ROTATE_90_CLOCKWISE); break;
          default: r = m.clone(); break;
        }
        return r;
      };
    } else {
      const cv::Point2f centre(float((img->width - 1) / 2.0), float((img->height - 1) / 2.0));
      const cv::Mat M = cv::getRotationMatrix2D(centre, angle, 1.0);
      const cv::Size size(img->width, img->height);
      xf = [M, size](const cv::Mat& m, int f) {
        return Geometric(m, [&](const cv::Mat& s) {
          cv::Mat r;
          cv::warpAffine(s, r, M, size, f, cv::BORDER_CONSTANT, cv::Scalar(0));
          return r;
        });
      };
    }
    Image res;
    res.width = ow;
    res.height = oh;
    res.type = img->type;
    for (const cv::Mat& p : img->planes) res.planes.push_back(xf(p, flag));
    res.domain = Region::FromMask(xf(img->domain.ToMask(img->height, img->width), cv::INTER_NEAREST));
    out.Push(std::move(res));
  }
  *image_rotate = out;
}

void zoom_image_factor(const HObject& image, HObject* image_zoomed, const HTuple& scale_width,
                       const HTuple& scale_height, const HTuple& interpolation) {
  const char* op = "zoom_image_factor";
  const double sw = ParamReal(scale_width, op, "ScaleWidth"), sh = ParamReal(scale_height, op, "ScaleHeight");
  if (sw <= 0 || sh <= 0 || sw > 100 || sh > 100)
    throw HException(op, "Wrong value of control parameter ScaleWidth or ScaleHeight", kErrWrongParamValue);
  const std::string& interp = ParamString(interpolation, op, "Interpolation");
  if (interp != "nearest_neighbor" && interp != "bilinear" && interp != "constant" &&
      interp != "weighted" && interp != "bicubic")
    throw HException(op, "Wrong value of control parameter Interpolation: '" + interp + "'", kErrWrongParamValue);
  HObject out;
  for (const Image* img : Images(image, op)) {
    RequireNotVectorField(*img, op);
    const int ow = int(std::lround(img->width * sw)), oh = int(std::lround(img->height * sh));
    if (ow < 1 || oh < 1 || ow > 32768 || oh > 32768)
      throw HException(op, "Zoomed image size out of range", kErrWrongParamValue);
    int flag = cv::INTER_LINEAR;
    if (interp == "nearest_neighbor") flag = cv::INTER_NEAREST;
    else if (interp == "bicubic") flag = cv::INTER_CUBIC;
    else if (interp != "bilinear" && (sw < 1 || sh < 1)) flag = cv::INTER_AREA;  // smooths when shrinking
    Image res;
    res.width = ow;
    res.height = oh;
    res.type = img->type;
    for (const cv::Mat& p : img->planes)
      res.planes.push_back(Geometric(p, [&](const cv::Mat& s) {
        cv::Mat r;
        cv::resize(s, r, cv::Size(ow, oh), 0, 0, flag);
        return r;
      }));
    if (img->FullDomain()) {
      res.domain = Region::Rectangle(0, 0, oh - 1, ow - 1);
    } else {
      cv::Mat m;
      cv::resize(img->domain.ToMask(img->height, img->width), m, cv::Size(ow, oh), 0, 0, cv::INTER_NEAREST);
      res.domain = Region::FromMask(m);
    }
    out.Push(std::move(res));
  }
  *image_zoomed = out;
}

namespace {

// A copy of the plane with the runs (clipped to it; the region may reach
// outside) set to value: each row is copied and painted while it is in cache.
template <class T>
cv::Mat PaintedRuns(const cv::Mat& p, const std::vector<Run>& runs, double value) {
  const T v = cv::saturate_cast<T>(value);
  cv::Mat out(p.size(), p.type());
  const size_t row_bytes = size_t(p.cols) * sizeof(T);
  auto run = runs.begin();
  for (int y = 0; y < p.rows; ++y) {
    T* d = out.ptr<T>(y);
    std::memcpy(d, p.ptr<T>(y), row_bytes);
    while (run != runs.end() && run->row < y) ++run;
    for (; run != runs.end() && run->row == y; ++run) {
      const int a = std::max(run->cb, 0), b = std::min(run->ce, p.cols - 1);
      if (a <= b) std::fill(d + a, d + b + 1, v);
    }
  }
  return out;
}

cv::Mat PaintedPlane(const cv::Mat& p, const std::vector<Run>& runs, double value) {
  switch (p.depth()) {
    case CV_8U: return PaintedRuns<uint8_t>(p, runs, value);
    case CV_16U: return PaintedRuns<uint16_t>(p, runs, value);
    case CV_16S: return PaintedRuns<int16_t>(p, runs, value);
    case CV_32S: return PaintedRuns<int32_t>(p, runs, value);
    default: return PaintedRuns<float>(p, runs, value);
  }
}

// Pixels of the region with a 4-neighbour outside it.
Region InnerBorder(const Region& reg) {
  if (reg.Empty()) return reg;
  int r1, c1, r2, c2;
  reg.BoundingBox(&r1, &c1, &r2, &c2);
  cv::Mat m = reg.ToMask(r2 - r1 + 3, c2 - c1 + 3, r1 - 1, c1 - 1), e;
  cv::erode(m, e, cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3)), cv::Point(-1, -1), 1,
            cv::BORDER_CONSTANT, cv::Scalar(0));
  return Region::FromMask(m & ~e, r1 - 1, c1 - 1);
}

}  // namespace

namespace {

// Sets the runs (clipped to the plane) to value in place.
template <class T>
void PaintRunsInPlace(cv::Mat& p, const std::vector<Run>& runs, double value) {
  const T v = cv::saturate_cast<T>(value);
  for (const Run& run : runs) {
    if (run.row < 0 || run.row >= p.rows) continue;
    const int a = std::max(run.cb, 0), b = std::min(run.ce, p.cols - 1);
    if (a <= b) std::fill(p.ptr<T>(run.row) + a, p.ptr<T>(run.row) + b + 1, v);
  }
}

void PaintPlaneInPlace(cv::Mat& p, const std::vector<Run>& runs, double value) {
  switch (p.depth()) {
    case CV_8U: return PaintRunsInPlace<uint8_t>(p, runs, value);
    case CV_16U: return PaintRunsInPlace<uint16_t>(p, runs, value);
    case CV_16S: return PaintRunsInPlace<int16_t>(p, runs, value);
    case CV_32S: return PaintRunsInPlace<int32_t>(p, runs, value);
    default: return PaintRunsInPlace<float>(p, runs, value);
  }
}

// paint_region of both forms: with `reuse`, planes held by `image` alone are
// painted where they are instead of copied.
void PaintRegion(const HObject& region, HObject& image, bool reuse, HObject* image_result,
                 const HTuple& grayval, const HTuple& type) {
  const char* op = "paint_region";
  const std::string& mode = ParamString(type, op, "Type");
  if (mode != "fill" && mode != "margin")
    throw HException(op, "Wrong value of control parameter Type: '" + mode + "'", kErrWrongParamValue);
  // One region (the common case) is painted as it stands, without a copy.
  Region merged;
  const Region* reg = &merged;
  if (region.Count() == 1) {
    reg = &region.RegionAt(0, op);
  } else {
    for (long i = 0; i < region.Count(); ++i) merged = merged.Union(region.RegionAt(i, op));
  }
  if (mode == "margin") {
    merged = InnerBorder(*reg);
    reg = &merged;
  }
  HObject out;
  for (long i = 0; i < image.Count(); ++i) {
    const Image* img = &image.ImageAt(i, op);
    RequireNotVectorField(*img, op);
    const Hlong nc = img->Channels();
    if (grayval.Length() != 1 && grayval.Length() != nc)
      throw HException(op, "Wrong number of values of control parameter Grayval", kErrWrongParamCount);
    Image* own = reuse ? image.ExclusiveImage(i) : nullptr;
    Image res = own ? std::move(*own) : *img;
    for (Hlong k = 0; k < nc; ++k) {
      const double value = ParamReal(grayval, op, "Grayval", k);
      cv::Mat& p = res.planes[size_t(k)];
      if (own && PlaneExclusive(p)) PaintPlaneInPlace(p, reg->Runs(), value);
      else p = PaintedPlane(p, reg->Runs(), value);
    }
    out.Push(std::move(res));
  }
  *image_result = out;
}

}  // namespace

void paint_region(const HObject& region, const HObject& image, HObject* image_result,
                  const HTuple& grayval, const HTuple& type) {
  HObject in = image;  // shares the elements: nothing is painted in place
  PaintRegion(region, in, false, image_result, grayval, type);
}

void paint_region(const HObject& region, HObject&& image, HObject* image_result,
                  const HTuple& grayval, const HTuple& type) {
  HObject in = std::move(image);
  PaintRegion(region, in, true, image_result, grayval, type);
}

void real_to_vector_field(const HObject& row, const HObject& col, HObject* vector_field,
                          const HTuple& type) {
  const char* op = "real_to_vector_field";
  const std::string& vt = ParamString(type, op, "Type");
  if (vt != "vector_field_relative" && vt != "vector_field_absolute")
    throw HException(op, "Wrong value of control parameter Type: '" + vt + "'", kErrWrongParamValue);
  const auto rows = Images(row, op), cols = Images(col, op);
  if (rows.size() != cols.size())
    throw HException(op, "Different numbers of row and column images", kErrWrongParamCount);
  HObject out;
  for (size_t i = 0; i < rows.size(); ++i) {
    const Image &r = *rows[i], &c = *cols[i];
    if (r.type != PixelType::Real || c.type != PixelType::Real || r.planes.size() != 1 || c.planes.size() != 1)
      throw HException(op, "Row and column images must be one-channel real images", kErrWrongObject);
    if (r.width != c.width || r.height != c.height)
      throw HException(op, "Images of different sizes", kErrImageSize);
    Image v = Derived(r, PixelType::VectorField, {r.planes[0], c.planes[0]});
    v.vector_field_type = vt;
    v.domain = r.domain.Intersection(c.domain);
    out.Push(std::move(v));
  }
  *vector_field = out;
}

void vector_field_to_real(const HObject& vector_field, HObject* row, HObject* col) {
  const char* op = "vector_field_to_real";
  HObject ro, co;
  for (const Image* v : Images(vector_field, op)) {
    if (v->type != PixelType::VectorField || v->planes.size() != 2)
      throw HException(op, "Image must be a vector field", kErrWrongObject);
    ro.Push(Derived(*v, PixelType::Real, {v->planes[0]}));
    co.Push(Derived(*v, PixelType::Real, {v->planes[1]}));
  }
  *row = ro;
  *col = co;
}

namespace {

// Pivots of Thomas' algorithm for the column systems (see below): row r
// from row r - 1 (nullptr for the first row). They depend on the grid alone.
// The sweeps are elementwise across the frequencies, in the same operations
// for every width of vector, so the AVX2 clone computes the same bits.
__attribute__((target_clones("avx2", "default"))) void PivotRow(const double* lambda, double edge,
                                                                const float* dp, float* di, int W) {
  if (dp) {
    for (int k = 1; k < W; ++k) di[k] = float(1.0 / (lambda[k] + edge - double(dp[k])));
  } else {
    for (int k = 1; k < W; ++k) di[k] = float(1.0 / (lambda[k] + edge - 0.0));
  }
}

// Forward sweep of one row: its pivots into di, its right-hand sides
// eliminated against the row above (gp, nullptr for the first row).
__attribute__((target_clones("avx2", "default"))) void ForwardSweepRow(const double* lambda, double edge,
                                                                       const float* dp, float* di,
                                                                       float* g, const float* gp, int W) {
  if (dp) {
    for (int k = 1; k < W; ++k) {
      const double inv = 1.0 / (lambda[k] + edge - double(dp[k]));
      di[k] = float(inv);
      g[k] = float((double(g[k]) - double(gp[k])) * inv);
    }
  } else {
    for (int k = 1; k < W; ++k) {
      const double inv = 1.0 / (lambda[k] + edge - 0.0);
      di[k] = float(inv);
      g[k] = float((double(g[k]) - 0.0) * inv);
    }
  }
}

__attribute__((target_clones("avx2", "default"))) void BackSubstituteRow(float* u, const float* below,
                                                                         const float* di, int W) {
  for (int k = 1; k < W; ++k) u[k] = float(double(u[k]) - double(di[k]) * below[k]);
}

}  // namespace

// Solves L u = f in place for the Neumann Laplacian L of f's grid: the
// Laplacian is diagonal in the cosine basis along the rows, and each cosine
// frequency leaves a tridiagonal system down the columns, solved for all
// frequencies at once row by row.
namespace {

// The systems left once the rows of F hold cosine coefficients (frequency k
// in column k of W, a transform of length W), solved in place.
void SolveFrequencySystems(cv::Mat& F, size_t whole_plane_bytes) {
  const int H = F.rows, W = F.cols;
  // Frequency k along the rows adds lambda_k = 2 cos(pi k / W) - 2 to the
  // column Laplacian (diagonal -1 at the ends, -2 inside, 1 beside). Thomas'
  // algorithm: the forward sweep leaves its right-hand sides in F; the
  // pivots' inverses (single precision; each step computes in double) depend
  // on the grid alone. A small grid keeps all of them; on a large one only
  // every S-th row is kept and the rows between are computed again, the same
  // way, for the backward sweep: a strip of S rows instead of a whole plane.
  std::vector<double> lambda(static_cast<size_t>(W));
  for (int k = 0; k < W; ++k) lambda[size_t(k)] = 2.0 * std::cos(CV_PI * k / W) - 2.0;
  auto edge_of = [H](int r) { return H == 1 ? 0.0 : (r == 0 || r == H - 1) ? -1.0 : -2.0; };
  const bool whole = size_t(H) * size_t(W) * sizeof(float) <= whole_plane_bytes;
  const int S = whole ? H : std::max(1, int(std::ceil(std::sqrt(double(H)))));
  cv::Mat checkpoints(whole ? 1 : (H + S - 1) / S, W, CV_32F), strip(S, W, CV_32F);
  std::vector<float> prev_row(size_t(W), 0.0f), cur_row(size_t(W), 0.0f);
  for (int r = 0; r < H; ++r) {
    float* di = whole ? strip.ptr<float>(r) : cur_row.data();
    const float* dp = r == 0 ? nullptr : whole ? strip.ptr<float>(r - 1) : prev_row.data();
    ForwardSweepRow(lambda.data(), edge_of(r), dp, di, F.ptr<float>(r), r ? F.ptr<float>(r - 1) : nullptr, W);
    if (!whole) {
      if (r % S == 0) std::copy(cur_row.begin(), cur_row.end(), checkpoints.ptr<float>(r / S));
      prev_row.swap(cur_row);
    }
  }
  for (int block = (H - 1) / S; block >= 0; --block) {
    const int r0 = block * S, r1 = std::min(H, r0 + S);
    if (!whole) {
      std::copy(checkpoints.ptr<float>(block), checkpoints.ptr<float>(block) + W, strip.ptr<float>(0));
      for (int r = r0 + 1; r < r1; ++r)
        PivotRow(lambda.data(), edge_of(r), strip.ptr<float>(r - r0 - 1), strip.ptr<float>(r - r0), W);
    }
    for (int r = std::min(r1 - 1, H - 2); r >= r0; --r)
      BackSubstituteRow(F.ptr<float>(r), F.ptr<float>(r + 1), strip.ptr<float>(r - r0), W);
  }
  // Frequency 0 is the singular Neumann problem: the edge differences are the
  // running sums of the right-hand side; the free constant gives zero mean.
  {
    double flux = 0, level = 0, sum = 0;
    std::vector<double> col(static_cast<size_t>(H));
    for (int r = 0; r < H; ++r) {
      col[size_t(r)] = level;
      sum += level;
      flux += F.at<float>(r, 0);
      level += flux;
    }
    for (int r = 0; r < H; ++r) F.at<float>(r, 0) = float(col[size_t(r)] - sum / H);
  }
}

}  // namespace

void filter_detail::SolveNeumannPoisson(cv::Mat& f, size_t whole_plane_bytes) {
  const RowCosineTransform dct(f.cols);
  dct.Forward(f, f);  // in place
  SolveFrequencySystems(f, whole_plane_bytes);
  dct.Inverse(f, f);  // in place
}

// The same equation with the transform down the columns, for short columns:
// the coefficients are turned over, so that the systems run down the
// columns of the turned plane as above, and back.
void filter_detail::SolveNeumannPoissonByColumns(cv::Mat& f) {
  const ColumnCosineTransform dct(f.rows);
  cv::Mat F, T;
  dct.Forward(f, F);
  cv::transpose(F, T);
  SolveFrequencySystems(T, size_t(4) << 20);
  cv::transpose(T, F);
  dct.Inverse(F, f);
}

namespace {

// Least-squares integration of a gradient field with the discrete Poisson
// equation. The central-difference gradients are averaged onto the edges
// between pixels; edges leaving the image do not exist, which is the Neumann
// boundary. Any size is solved exactly. Components no one else holds are
// overwritten and let go as soon as they are used: the column component
// becomes the right-hand side, the row component goes once it is added.
cv::Mat PoissonIntegrate(cv::Mat gr, cv::Mat gc) {
  const int H = gr.rows, W = gc.cols;
  const bool reuse = PlaneExclusive(gc);
  cv::Mat f = reuse ? gc : cv::Mat(H, W, CV_32F);
  std::vector<float> row(static_cast<size_t>(reuse ? W : 0));
  for (int r = 0; r < H; ++r) {
    const float* c0 = gc.ptr<float>(r);
    if (reuse) c0 = std::copy(c0, c0 + W, row.data()) - W;
    float* d = f.ptr<float>(r);
    std::fill(d, d + W, 0.0f);
    for (int c = 0; c + 1 < W; ++c) {
      const float p = 0.5f * (c0[c] + c0[c + 1]);
      d[c] += p;
      d[c + 1] -= p;
    }
  }
  gc.release();
  for (int r = 0; r + 1 < H; ++r) {
    const float *a = gr.ptr<float>(r), *b = gr.ptr<float>(r + 1);
    float *d0 = f.ptr<float>(r), *d1 = f.ptr<float>(r + 1);
    for (int c = 0; c < W; ++c) {
      const float p = 0.5f * (a[c] + b[c]);
      d0[c] += p;
      d1[c] -= p;
    }
  }
  gr.release();
  // A short side goes through the product transform down its columns.
  if (std::min(H, W) <= ColumnCosineTransform::kMaxLength) {
    if (H <= W) {
      SolveNeumannPoissonByColumns(f);
      return f;
    }
    cv::Mat t = f.t();
    f.release();
    SolveNeumannPoissonByColumns(t);
    return cv::Mat(t.t());
  }
  // The row transform is the only part whose cost depends on the length's
  // factors: run it along the cheaper axis (the Laplacian is the same both
  // ways round).
  const double transpose = 8.0 * double(H) * W;
  if (RowCosineTransform::Cost(H, W) + transpose < RowCosineTransform::Cost(W, H)) {
    cv::Mat t = f.t();
    f.release();
    SolveNeumannPoisson(t);
    return cv::Mat(t.t());
  }
  SolveNeumannPoisson(f);
  return f;
}

}  // namespace

namespace {

void ReconstructHeightField(HObject& gradient, bool reuse, HObject* height_field,
                            const HTuple& reconstruction_method, const HTuple& gen_param_name,
                            const HTuple& gen_param_value) {
  const char* op = "reconstruct_height_field_from_gradient";
  const std::string& method = ParamString(reconstruction_method, op, "ReconstructionMethod");
  if (method == "fft_cyclic" || method == "rft_cyclic")
    throw HException(op, "Reconstruction method '" + method + "' is not available", kErrNotImplemented);
  if (method != "poisson")
    throw HException(op, "Wrong value of control parameter ReconstructionMethod: '" + method + "'",
                     kErrWrongParamValue);
  if (gen_param_name.Length() != gen_param_value.Length())
    throw HException(op, "GenParamName and GenParamValue differ in length", kErrWrongParamCount);
  for (Hlong i = 0; i < gen_param_name.Length(); ++i) {
    // Speed tuning has nothing to tune here; any other name is an error.
    if (ParamString(gen_param_name, op, "GenParamName", i) != "optimize_speed")
      throw HException(op, "Wrong value of control parameter GenParamName", kErrWrongParamValue);
  }
  for (const Image* v : Images(gradient, op))
    if (v->type != PixelType::VectorField || v->planes.size() != 2)
      throw HException(op, "Gradient must be a vector field", kErrWrongObject);
  HObject out;
  for (long i = 0; i < gradient.Count(); ++i) {
    const Image* v = &gradient.ImageAt(i, op);
    Image* own = reuse ? gradient.ExclusiveImage(i) : nullptr;
    cv::Mat gr = own ? std::move(own->planes[0]) : v->planes[0];
    cv::Mat gc = own ? std::move(own->planes[1]) : v->planes[1];
    if (v->vector_field_type == "vector_field_absolute") {
      gr = gr.clone();
      gc = gc.clone();
      for (int r = 0; r < v->height; ++r)
        for (int c = 0; c < v->width; ++c) {
          gr.at<float>(r, c) -= float(r);
          gc.at<float>(r, c) -= float(c);
        }
    }
    cv::Mat h = PoissonIntegrate(std::move(gr), std::move(gc));
    out.Push(Derived(*v, PixelType::Real, {std::move(h)}));
  }
  *height_field = out;
}

}  // namespace

void reconstruct_height_field_from_gradient(const HObject& gradient, HObject* height_field,
                                            const HTuple& reconstruction_method,
                                            const HTuple& gen_param_name,
                                            const HTuple& gen_param_value) {
  HObject in = gradient;  // shares the planes: none is overwritten
  ReconstructHeightField(in, false, height_field, reconstruction_method, gen_param_name, gen_param_value);
}

void reconstruct_height_field_from_gradient(HObject&& gradient, HObject* height_field,
                                            const HTuple& reconstruction_method,
                                            const HTuple& gen_param_name,
                                            const HTuple& gen_param_value) {
  HObject in = std::move(gradient);
  ReconstructHeightField(in, true, height_field, reconstruction_method, gen_param_name, gen_param_value);
}

}  // namespace vision
