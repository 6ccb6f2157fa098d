#include "vision/filter/cosine_transform.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <vector>

namespace vision::filter_detail {

namespace {

using cd = std::complex<double>;

cv::Vec2f ToVec(cd z) { return {float(z.real()), float(z.imag())}; }

inline cv::Vec2f Mul(cv::Vec2f a, cv::Vec2f b) {
  return {a[0] * b[0] - a[1] * b[1], a[0] * b[1] + a[1] * b[0]};
}

// A mixed-radix FFT of length n costs about n times the sum of its prime
// factors (a prime p is a radix-p pass).
double FftCost(int n) {
  double sum = 0;
  for (int p = 2; p * p <= n; ++p)
    while (n % p == 0) {
      sum += p;
      n /= p;
    }
  if (n > 1) sum += n;
  return sum;
}

// cv::dct of an even length runs an FFT of half the length; Bluestein runs
// four FFTs of the padded length per pair of rows.
double DirectCost(int n) { return n % 2 ? HUGE_VAL : 2.0 * (n / 2) * FftCost(n / 2); }
double ChirpCost(int m) { return 2.0 * m * FftCost(m); }

// The chirp convolution's FFT length: the 5-smooth length from 2n-1 up to
// twice that which OpenCV transforms fastest. Per point its FFT costs about
// 0.52 ns per halving plus 0.53 ns per factor 3 and 0.13 ns per factor 5
// (fitted to cv::dft timings of complex rows on the build machine), so a
// power of two a little longer often beats the nearest 5-smooth length.
int ChirpLength(int n) {
  const int least = 2 * n - 1;
  int best = cv::getOptimalDFTSize(least);
  double best_cost = HUGE_VAL;
  for (int m = best; m <= 2 * least; m = cv::getOptimalDFTSize(m + 1)) {
    int rest = m, threes = 0, fives = 0;
    while (rest % 3 == 0) rest /= 3, ++threes;
    while (rest % 5 == 0) rest /= 5, ++fives;
    const double cost = m * (0.517 * std::log2(double(m)) + 0.53 * threes + 0.13 * fives);
    if (cost < best_cost) best_cost = cost, best = m;
  }
  return best;
}

// Makhoul's order: slot i of the reordered row holds sample 2i for the even
// samples (ascending) and slot n-1-i holds sample 2i+1 (odd ones descending).
template <class F>
void ForMakhoulOrder(int n, F visit /* (slot, sample) */) {
  for (int i = 0; 2 * i < n; ++i) visit(i, 2 * i);
  for (int i = 0; 2 * i + 1 < n; ++i) visit(n - 1 - i, 2 * i + 1);
}

}  // namespace

double RowCosineTransform::Cost(int length, int rows) {
  if (length <= 1) return rows;
  return rows * std::min(DirectCost(length), ChirpCost(ChirpLength(length)));
}

RowCosineTransform::RowCosineTransform(int length, bool allow_direct, size_t block_bytes)
    : n_(length), block_bytes_(block_bytes) {
  CV_Assert(length >= 1);
  direct_ = allow_direct && n_ > 1 && DirectCost(n_) <= ChirpCost(ChirpLength(n_));
  if (direct_ || n_ == 1) return;
  m_ = ChirpLength(n_);
  chirp_.resize(size_t(n_));
  pre_.resize(size_t(n_));
  post_.resize(size_t(n_));
  scale_.resize(size_t(n_));
  const double two_n = 2.0 * n_;
  for (int k = 0; k < n_; ++k) {
    // k^2 mod 2n keeps the phase exact for long rows.
    const long long q = (static_cast<long long>(k) * k) % (2LL * n_);
    const cd w = std::polar(1.0, -CV_PI * double(q) / n_);
    const cd shift = std::polar(1.0, -CV_PI * k / two_n);
    const double scale = std::sqrt((k == 0 ? 1.0 : 2.0) / n_);
    chirp_[size_t(k)] = ToVec(w);
    pre_[size_t(k)] = ToVec(w * shift);
    post_[size_t(k)] = ToVec(shift * (scale / m_));
    scale_[size_t(k)] = float(scale);
  }
  cv::Mat b(1, m_, CV_32FC2, cv::Scalar::all(0));
  auto* bp = b.ptr<cv::Vec2f>();
  for (int k = 0; k < n_; ++k) {
    const cv::Vec2f c{chirp_[size_t(k)][0], -chirp_[size_t(k)][1]};
    bp[k] = c;
    if (k > 0) bp[m_ - k] = c;
  }
  cv::dft(b, kernel_, cv::DFT_COMPLEX_OUTPUT);
}

// Each row of `a` (m_ complex values, the chirped input in the first n_)
// becomes its circular convolution with the chirp kernel, unscaled.
void RowCosineTransform::Convolve(cv::Mat& a) const {
  cv::dft(a, a, cv::DFT_ROWS | cv::DFT_COMPLEX_OUTPUT, a.rows);
  const auto* kp = kernel_.ptr<cv::Vec2f>();
  for (int r = 0; r < a.rows; ++r) {
    auto* p = a.ptr<cv::Vec2f>(r);
    for (int k = 0; k < m_; ++k) p[k] = Mul(p[k], kp[k]);
  }
  cv::dft(a, a, cv::DFT_ROWS | cv::DFT_INVERSE | cv::DFT_COMPLEX_OUTPUT, a.rows);
}

namespace {

// Runs `block` over src's rows, a block at a time (`block_rows()` of them:
// asked only when there is more than one column), into dst. The chirp path
// has read its rows before it writes any, so its blocks go straight to dst,
// also when dst is src; the direct path writes through a block of its own.
template <typename Rows, typename Block>
void ByBlocks(const cv::Mat& src, cv::Mat& dst, int n, Rows block_rows, bool direct, Block block) {
  CV_Assert(src.type() == CV_32F && src.cols == n);
  if (n == 1) return src.copyTo(dst);
  dst.create(src.rows, n, CV_32F);  // keeps src's own plane when dst is src
  const int step = block_rows();
  for (int r0 = 0; r0 < src.rows; r0 += step) {
    const int r1 = std::min(src.rows, r0 + step);
    cv::Mat out = dst.rowRange(r0, r1);
    if (direct) {
      cv::Mat tmp;
      block(src.rowRange(r0, r1), tmp);
      tmp.copyTo(out);
    } else {
      block(src.rowRange(r0, r1), out);
    }
  }
}

}  // namespace

// Two real rows travel as one complex row (first + i second): the transform
// is linear and the spectra of real rows are Hermitian, which separates them.
void RowCosineTransform::Forward(const cv::Mat& src, cv::Mat& dst) const {
  ByBlocks(src, dst, n_, [this] { return BlockRows(); }, direct_, [this](const cv::Mat& in, cv::Mat& out) { ForwardBlock(in, out); });
}

void RowCosineTransform::Inverse(const cv::Mat& src, cv::Mat& dst) const {
  ByBlocks(src, dst, n_, [this] { return BlockRows(); }, direct_, [this](const cv::Mat& in, cv::Mat& out) { InverseBlock(in, out); });
}

int RowCosineTransform::BlockRows() const {
  // The chirp path's complex rows are longer than twice the row; an even
  // count keeps the pairs of rows as they are.
  const size_t row_bytes = direct_ ? size_t(n_) * 4 : size_t(m_) * 8 / 2;
  return int(std::min<size_t>(size_t(1) << 30, std::max<size_t>(2, (block_bytes_ / row_bytes) & ~size_t(1))));
}

void RowCosineTransform::ForwardBlock(const cv::Mat& src, cv::Mat& dst) const {
  if (direct_) return cv::dct(src, dst, cv::DCT_ROWS);
  // Makhoul: with v the row in Makhoul's order, the cosine coefficients are
  // Re(exp(-i pi k / 2n) DFT(v)[k]).
  const int rows = src.rows, pairs = (rows + 1) / 2;
  cv::Mat a(pairs, m_, CV_32FC2, cv::Scalar::all(0));
  for (int q = 0; q < pairs; ++q) {
    const float* x1 = src.ptr<float>(2 * q);
    const float* x2 = 2 * q + 1 < rows ? src.ptr<float>(2 * q + 1) : nullptr;
    auto* p = a.ptr<cv::Vec2f>(q);
    ForMakhoulOrder(n_, [&](int slot, int sample) {
      p[slot] = Mul(chirp_[size_t(slot)], {x1[sample], x2 ? x2[sample] : 0.0f});
    });
  }
  Convolve(a);
  dst.create(rows, n_, CV_32F);
  std::vector<cv::Vec2f> z(static_cast<size_t>(n_));
  for (int q = 0; q < pairs; ++q) {
    const auto* p = a.ptr<cv::Vec2f>(q);
    for (int k = 0; k < n_; ++k) z[size_t(k)] = Mul(p[k], chirp_[size_t(k)]);
    float* y1 = dst.ptr<float>(2 * q);
    float* y2 = 2 * q + 1 < rows ? dst.ptr<float>(2 * q + 1) : nullptr;
    for (int k = 0; k < n_; ++k) {
      const cv::Vec2f zk = z[size_t(k)], zm = z[size_t(k ? n_ - k : 0)];
      // V1 = (Z[k] + conj Z[-k]) / 2, V2 = (Z[k] - conj Z[-k]) / 2i.
      const cv::Vec2f v1{0.5f * (zk[0] + zm[0]), 0.5f * (zk[1] - zm[1])};
      const cv::Vec2f v2{0.5f * (zk[1] + zm[1]), -0.5f * (zk[0] - zm[0])};
      const cv::Vec2f s = post_[size_t(k)];
      y1[k] = v1[0] * s[0] - v1[1] * s[1];
      if (y2) y2[k] = v2[0] * s[0] - v2[1] * s[1];
    }
  }
}

void RowCosineTransform::InverseBlock(const cv::Mat& src, cv::Mat& dst) const {
  if (direct_) return cv::idct(src, dst, cv::DCT_ROWS);
  // conj(DFT(v)[k]) = exp(-i pi k / 2n) (y[k] + i y[n-k]) with y[n] = 0, and
  // DFT(conj(V)) = n v for a real v.
  const int rows = src.rows, pairs = (rows + 1) / 2;
  cv::Mat a(pairs, m_, CV_32FC2, cv::Scalar::all(0));
  std::vector<float> y1(size_t(n_) + 1), y2(size_t(n_) + 1);
  for (int q = 0; q < pairs; ++q) {
    const float* s1 = src.ptr<float>(2 * q);
    const float* s2 = 2 * q + 1 < rows ? src.ptr<float>(2 * q + 1) : nullptr;
    for (int k = 0; k < n_; ++k) {
      y1[size_t(k)] = s1[k] / scale_[size_t(k)];
      y2[size_t(k)] = s2 ? s2[k] / scale_[size_t(k)] : 0.0f;
    }
    auto* p = a.ptr<cv::Vec2f>(q);
    for (int k = 0; k < n_; ++k) {
      const size_t j = size_t(n_ - k);
      // C1 + i C2 with Cr = (y_r[k] + i y_r[n-k]).
      p[k] = Mul(pre_[size_t(k)], {y1[size_t(k)] - y2[j], y1[j] + y2[size_t(k)]});
    }
  }
  Convolve(a);
  dst.create(rows, n_, CV_32F);
  const float norm = 1.0f / (float(n_) * float(m_));
  for (int q = 0; q < pairs; ++q) {
    const auto* p = a.ptr<cv::Vec2f>(q);
    float* x1 = dst.ptr<float>(2 * q);
    float* x2 = 2 * q + 1 < rows ? dst.ptr<float>(2 * q + 1) : nullptr;
    ForMakhoulOrder(n_, [&](int slot, int sample) {
      const cv::Vec2f v = Mul(p[slot], chirp_[size_t(slot)]);
      x1[sample] = v[0] * norm;
      if (x2) x2[sample] = v[1] * norm;
    });
  }
}


namespace {

// Vectors of L floats, and the type of an unaligned access to them.
template <int L>
struct Lanes {
  typedef float V __attribute__((vector_size(4 * L)));
  typedef float U __attribute__((vector_size(4 * L), aligned(4)));
};
#define LOADV(p) (*reinterpret_cast<const typename X::U*>(p))
#define STOREV(p, v) (*reinterpret_cast<typename X::U*>(p) = (v))

// out[i][c] = sum over j < p of m[i p + j] in[j][c], for i < rows and the
// columns c from *c while a vector of L of them fits; *c moves past them.
// Summed in increasing j, a product and a sum per term (never a fused
// multiply-add), so every width gives the same bits.
template <int L>
__attribute__((always_inline)) inline void MatRowsBy(const float* m, int rows, int p,
                                                    const float* const* in, float* const* out, int w,
                                                    int* col) {
  using X = Lanes<L>;
  using V = typename X::V;
  int c = *col;
  for (; c + 2 * L <= w; c += 2 * L) {
    int i = 0;
    for (; i + 4 <= rows; i += 4) {
      V a0 = {}, a1 = {}, b0 = {}, b1 = {}, c0 = {}, c1 = {}, d0 = {}, d1 = {};
      const float *m0 = m + size_t(i) * p, *m1 = m0 + p, *m2 = m1 + p, *m3 = m2 + p;
      for (int j = 0; j < p; ++j) {
        const V x0 = LOADV(in[j] + c), x1 = LOADV(in[j] + c + L);
        a0 += m0[j] * x0, a1 += m0[j] * x1;
        b0 += m1[j] * x0, b1 += m1[j] * x1;
        c0 += m2[j] * x0, c1 += m2[j] * x1;
        d0 += m3[j] * x0, d1 += m3[j] * x1;
      }
      STOREV(out[i] + c, a0), STOREV(out[i] + c + L, a1);
      STOREV(out[i + 1] + c, b0), STOREV(out[i + 1] + c + L, b1);
      STOREV(out[i + 2] + c, c0), STOREV(out[i + 2] + c + L, c1);
      STOREV(out[i + 3] + c, d0), STOREV(out[i + 3] + c + L, d1);
    }
    for (; i < rows; ++i) {
      V a0 = {}, a1 = {};
      const float* mi = m + size_t(i) * p;
      for (int j = 0; j < p; ++j) {
        a0 += mi[j] * LOADV(in[j] + c);
        a1 += mi[j] * LOADV(in[j] + c + L);
      }
      STOREV(out[i] + c, a0), STOREV(out[i] + c + L, a1);
    }
  }
  for (; c + L <= w; c += L)
    for (int i = 0; i < rows; ++i) {
      V a = {};
      const float* mi = m + size_t(i) * p;
      for (int j = 0; j < p; ++j) a += mi[j] * LOADV(in[j] + c);
      STOREV(out[i] + c, a);
    }
  *col = c;
}

__attribute__((always_inline)) inline void MatRowsTail(const float* m, int rows, int p,
                                                      const float* const* in, float* const* out, int w,
                                                      int c) {
  for (; c < w; ++c)
    for (int i = 0; i < rows; ++i) {
      float a = 0;
      const float* mi = m + size_t(i) * p;
      for (int j = 0; j < p; ++j) a += mi[j] * in[j][c];
      out[i][c] = a;
    }
}

__attribute__((target_clones("avx2", "default"))) void MatRows8(const float* m, int rows, int p,
                                                                const float* const* in,
                                                                float* const* out, int w) {
  int c = 0;
  MatRowsBy<8>(m, rows, p, in, out, w, &c);
  MatRowsTail(m, rows, p, in, out, w, c);
}

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__)
#define VISION_HAVE_AVX512_PATH 1
// Sixteen columns a vector; products and sums stay apart (this target has
// fused multiply-adds, which would round once instead of twice). Only GCC
// honours the per-function fp-contract switch, so other compilers keep the
// eight-column path.
__attribute__((target("avx512f"), optimize("fp-contract=off"))) void MatRows16(
    const float* m, int rows, int p, const float* const* in, float* const* out, int w) {
  int c = 0;
  MatRowsBy<16>(m, rows, p, in, out, w, &c);
  MatRowsBy<8>(m, rows, p, in, out, w, &c);
  MatRowsTail(m, rows, p, in, out, w, c);
}
#endif

void MatRows(const float* m, int rows, int p, const float* const* in, float* const* out, int w) {
#ifdef VISION_HAVE_AVX512_PATH
  static const bool wide = __builtin_cpu_supports("avx512f");
  if (wide) return MatRows16(m, rows, p, in, out, w);
#endif
  MatRows8(m, rows, p, in, out, w);
}

}  // namespace

ColumnCosineTransform::ColumnCosineTransform(int length)
    : n_(length), even_((length + 1) / 2), odd_(length / 2) {
  CV_Assert(length >= 1);
  const int n = n_;
  auto scale = [n](int k) { return std::sqrt((k == 0 ? 1.0 : 2.0) / n); };
  // Entry (k, j) of the transform is scale_k cos(pi (2j + 1) k / 2n); its
  // argument is reduced modulo 4n (a whole turn) in integers, so that 4n
  // cosines serve every entry.
  std::vector<double> turn(static_cast<size_t>(4 * n));
  for (int q = 0; q < 4 * n; ++q) turn[size_t(q)] = std::cos(CV_PI * double(q) / (2.0 * n));
  auto entry = [n, &scale, &turn](int k, int j) {
    return scale(k) * turn[size_t((static_cast<long long>(2 * j + 1) * k) % (4LL * n))];
  };
  e_.resize(size_t(even_) * size_t(even_));
  o_.resize(size_t(odd_) * size_t(odd_));
  for (int i = 0; i < even_; ++i)
    for (int j = 0; j < even_; ++j)  // j == h (odd n): the middle sample
      e_[size_t(i) * size_t(even_) + size_t(j)] = float(entry(2 * i, j));
  for (int i = 0; i < odd_; ++i)
    for (int j = 0; j < odd_; ++j) o_[size_t(i) * size_t(odd_) + size_t(j)] = float(entry(2 * i + 1, j));
  // The inverse multiplies by the transposed halves.
  et_.resize(e_.size());
  ot_.resize(o_.size());
  for (int i = 0; i < even_; ++i)
    for (int j = 0; j < even_; ++j) et_[size_t(j) * size_t(even_) + size_t(i)] = e_[size_t(i) * size_t(even_) + size_t(j)];
  for (int i = 0; i < odd_; ++i)
    for (int j = 0; j < odd_; ++j) ot_[size_t(j) * size_t(odd_) + size_t(i)] = o_[size_t(i) * size_t(odd_) + size_t(j)];
}

void ColumnCosineTransform::Forward(const cv::Mat& src, cv::Mat& dst) const {
  CV_Assert(src.type() == CV_32F && src.rows == n_ && src.data != dst.data);
  const int w = src.cols, h = n_ / 2;
  dst.create(n_, w, CV_32F);
  // Sums and differences of the mirrored rows (the middle row of an odd
  // length joins the sums).
  cv::Mat sums(even_, w, CV_32F), diffs(std::max(1, odd_), w, CV_32F);
  std::vector<const float*> in_e(static_cast<size_t>(even_)), in_o(static_cast<size_t>(odd_));
  std::vector<float*> out_e(static_cast<size_t>(even_)), out_o(static_cast<size_t>(odd_));
  for (int j = 0; j < h; ++j) {
    const float *a = src.ptr<float>(j), *b = src.ptr<float>(n_ - 1 - j);
    float *s = sums.ptr<float>(j), *d = diffs.ptr<float>(j);
    for (int c = 0; c < w; ++c) s[c] = a[c] + b[c], d[c] = a[c] - b[c];
  }
  if (n_ % 2) src.row(h).copyTo(sums.row(h));
  for (int j = 0; j < even_; ++j) in_e[size_t(j)] = sums.ptr<float>(j), out_e[size_t(j)] = dst.ptr<float>(2 * j);
  for (int j = 0; j < odd_; ++j) in_o[size_t(j)] = diffs.ptr<float>(j), out_o[size_t(j)] = dst.ptr<float>(2 * j + 1);
  MatRows(e_.data(), even_, even_, in_e.data(), out_e.data(), w);
  if (odd_) MatRows(o_.data(), odd_, odd_, in_o.data(), out_o.data(), w);
}

void ColumnCosineTransform::Inverse(const cv::Mat& src, cv::Mat& dst) const {
  CV_Assert(src.type() == CV_32F && src.rows == n_ && src.data != dst.data);
  const int w = src.cols, h = n_ / 2;
  dst.create(n_, w, CV_32F);
  // The transposed halves give a[j] from the even and b[j] from the odd
  // frequencies; sample j is a + b, its mirror n-1-j is a - b.
  cv::Mat a(even_, w, CV_32F), b(std::max(1, odd_), w, CV_32F);
  std::vector<const float*> in_e(static_cast<size_t>(even_)), in_o(static_cast<size_t>(odd_));
  std::vector<float*> out_e(static_cast<size_t>(even_)), out_o(static_cast<size_t>(odd_));
  for (int j = 0; j < even_; ++j) in_e[size_t(j)] = src.ptr<float>(2 * j), out_e[size_t(j)] = a.ptr<float>(j);
  for (int j = 0; j < odd_; ++j) in_o[size_t(j)] = src.ptr<float>(2 * j + 1), out_o[size_t(j)] = b.ptr<float>(j);
  MatRows(et_.data(), even_, even_, in_e.data(), out_e.data(), w);
  if (odd_) MatRows(ot_.data(), odd_, odd_, in_o.data(), out_o.data(), w);
  for (int j = 0; j < h; ++j) {
    const float *pa = a.ptr<float>(j), *pb = b.ptr<float>(j);
    float *x = dst.ptr<float>(j), *y = dst.ptr<float>(n_ - 1 - j);
    for (int c = 0; c < w; ++c) x[c] = pa[c] + pb[c], y[c] = pa[c] - pb[c];
  }
  if (n_ % 2) a.row(h).copyTo(dst.row(h));
}

}  // namespace vision::filter_detail
