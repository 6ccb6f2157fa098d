#include "vision/filter/cosine_transform.h"

#include <gtest/gtest.h>

#include <cmath>

#include <opencv2/core.hpp>

namespace vision::filter_detail {
namespace {

// The orthonormal DCT-II straight from its definition.
cv::Mat NaiveDct(const cv::Mat& x) {
  const int n = x.cols;
  cv::Mat y(x.rows, n, CV_32F);
  for (int r = 0; r < x.rows; ++r)
    for (int k = 0; k < n; ++k) {
      double s = 0;
      for (int i = 0; i < n; ++i) s += x.at<float>(r, i) * std::cos(CV_PI * k * (2 * i + 1) / (2.0 * n));
      y.at<float>(r, k) = float(s * std::sqrt((k ? 2.0 : 1.0) / n));
    }
  return y;
}

// Lengths with large prime factors, odd lengths and lengths cv::dct is fast
// at: every one must match the definition and come back unchanged.
TEST(RowCosineTransform, MatchesDefinitionAndInvertsForAnyLength) {
  cv::RNG rng(7);
  for (int n : {1, 2, 3, 7, 31, 94, 97, 120, 223, 446}) {
    cv::Mat x(5, n, CV_32F);
    rng.fill(x, cv::RNG::UNIFORM, -100.0, 100.0);
    const cv::Mat want = NaiveDct(x);
    // Both paths where a length allows both; the odd row count leaves the
    // chirp path one row without a partner.
    for (bool allow_direct : {true, false}) {
      const RowCosineTransform t(n, allow_direct);
      cv::Mat y, back;
      t.Forward(x, y);
      EXPECT_LT(cv::norm(y, want, cv::NORM_INF), 2e-3 * std::sqrt(n)) << n << " " << allow_direct;
      t.Inverse(y, back);
      EXPECT_LT(cv::norm(back, x, cv::NORM_INF), 2e-3) << n << " " << allow_direct;
    }
  }
  EXPECT_TRUE(RowCosineTransform(120).Direct());
  EXPECT_FALSE(RowCosineTransform(446).Direct());
}

}  // namespace
}  // namespace vision::filter_detail
