#pragma once
// The orthonormal cosine transform (DCT-II) and its inverse along the rows of
// a single-precision matrix, for any row length. cv::dct is fast only when
// half the length factors into 2, 3 and 5 (a prime factor p costs p times
// more); other lengths go through Makhoul's reordering and Bluestein's
// chirp-z transform on an FFT size OpenCV is fast at. Results agree with
// cv::dct to rounding.
#include <opencv2/core.hpp>

namespace vision::filter_detail {

class RowCosineTransform {
 public:
  // `allow_direct` false keeps the chirp path for every length (tests and
  // timing); `block_bytes` bounds the workspace of one block of rows.
  explicit RowCosineTransform(int length, bool allow_direct = true, size_t block_bytes = size_t(8) << 20);

  // src: CV_32F with `length` columns; dst gets its size. Rows go through in
  // blocks of a few megabytes, so that dst may be src itself (a transform in
  // place) and the workspace stays small; every row's result is the same as
  // when all rows go at once.
  void Forward(const cv::Mat& src, cv::Mat& dst) const;
  void Inverse(const cv::Mat& src, cv::Mat& dst) const;

  // Rough relative cost of a forward and an inverse transform of `rows`
  // rows of this length, for choosing the cheaper axis.
  static double Cost(int length, int rows);

  // True when the transform goes through cv::dct itself.
  bool Direct() const { return direct_; }

 private:
  void Convolve(cv::Mat& a) const;
  int BlockRows() const;
  void ForwardBlock(const cv::Mat& src, cv::Mat& dst) const;
  void InverseBlock(const cv::Mat& src, cv::Mat& dst) const;

  int n_;
  size_t block_bytes_;
  int m_ = 0;  // the FFT length, at least 2n-1
  bool direct_;
  std::vector<cv::Vec2f> chirp_;   // w[k] = exp(-i pi k^2 / n)
  cv::Mat kernel_;                 // 1 x m_ spectrum of conj(w), wrapped
  std::vector<cv::Vec2f> pre_;     // forward: w[k]; inverse: w[k] exp(-i pi k / 2n)
  std::vector<cv::Vec2f> post_;    // forward: exp(-i pi k / 2n) * scale_k / m
  std::vector<float> scale_;       // orthonormal scale of coefficient k
};

// The same orthonormal transform down the columns of a single-precision
// matrix, as a product with the transform's matrix, split by the symmetry
// of its rows (even frequencies see the sums x[j] + x[n-1-j], odd ones the
// differences): n^2/2 multiplications per column, vectorised across the
// columns, so for short columns it beats any FFT. Every column's result is
// the same bits whatever the vector width. Results agree with cv::dct to
// rounding.
class ColumnCosineTransform {
 public:
  explicit ColumnCosineTransform(int length);

  // src: CV_32F with `length` rows; dst (not src) gets its size.
  void Forward(const cv::Mat& src, cv::Mat& dst) const;
  void Inverse(const cv::Mat& src, cv::Mat& dst) const;

  // Column lengths up to this go through the product rather than an FFT
  // (timed on the build machine).
  static constexpr int kMaxLength = 192;

 private:
  int n_, even_, odd_;          // length, number of even and of odd frequencies
  std::vector<float> e_, o_;   // even_ x even_ and odd_ x odd_, row-major
  std::vector<float> et_, ot_;  // their transposes
};

}  // namespace vision::filter_detail
