#include "vision/filter/cosine_transform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

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

// Rows go through in blocks, and a transform may overwrite its input: every
// row's result must be the one of all rows at once, bit for bit, with blocks
// of two rows, blocks that leave an odd remainder and the chirp path's pairs.
TEST(RowCosineTransform, BlocksAndInPlaceGiveTheSameBits) {
  cv::RNG rng(11);
  for (int n : {2, 7, 120, 446}) {
    cv::Mat x(23, n, CV_32F);
    rng.fill(x, cv::RNG::UNIFORM, -100.0, 100.0);
    for (bool allow_direct : {true, false}) {
      const RowCosineTransform whole(n, allow_direct, size_t(1) << 30);
      cv::Mat want_f, want_i;
      whole.Forward(x, want_f);
      whole.Inverse(x, want_i);
      for (size_t block : {size_t(1), size_t(n) * 4 * 6, size_t(n) * 8 * 5}) {
        const RowCosineTransform t(n, allow_direct, block);
        SCOPED_TRACE(testing::Message() << n << " " << allow_direct << " " << block);
        cv::Mat f = x.clone(), i = x.clone();
        t.Forward(f, f);
        t.Inverse(i, i);
        EXPECT_EQ(0, cv::norm(f, want_f, cv::NORM_INF));
        EXPECT_EQ(0, cv::norm(i, want_i, cv::NORM_INF));
        EXPECT_EQ(0, std::memcmp(f.data, want_f.data, f.total() * 4));
        EXPECT_EQ(0, std::memcmp(i.data, want_i.data, i.total() * 4));
      }
    }
  }
}


// Down the columns: the definition for odd and even lengths and widths that
// leave every remainder of the vector blocks; and each column's result is
// the one of that column transformed alone (the scalar path), bit for bit.
TEST(ColumnCosineTransform, MatchesDefinitionInvertsAndGivesEachColumnsOwnBits) {
  cv::RNG rng(13);
  for (int n : {1, 2, 3, 4, 7, 8, 31, 94, 97, ColumnCosineTransform::kMaxLength}) {
    for (int w : {1, 7, 9, 16, 23, 40}) {
      SCOPED_TRACE(testing::Message() << n << "x" << w);
      cv::Mat x(n, w, CV_32F);
      rng.fill(x, cv::RNG::UNIFORM, -100.0, 100.0);
      const ColumnCosineTransform t(n);
      cv::Mat y, back;
      t.Forward(x, y);
      EXPECT_LT(cv::norm(y, cv::Mat(NaiveDct(x.t()).t()), cv::NORM_INF), 2e-3 * std::sqrt(n));
      t.Inverse(y, back);
      EXPECT_LT(cv::norm(back, x, cv::NORM_INF), 2e-3);
      for (int c : {0, w / 2, w - 1}) {
        cv::Mat yc, bc;
        t.Forward(x.col(c).clone(), yc);
        t.Inverse(y.col(c).clone(), bc);
        EXPECT_EQ(0, std::memcmp(yc.data, y.col(c).clone().data, size_t(n) * 4)) << "column " << c;
        EXPECT_EQ(0, std::memcmp(bc.data, back.col(c).clone().data, size_t(n) * 4)) << "column " << c;
      }
    }
  }
}

}  // namespace
}  // namespace vision::filter_detail
