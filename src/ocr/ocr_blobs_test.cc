#include "ocr/ocr_blobs.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

namespace velmora {
namespace {

// The same table as OpenCV's labelling, row for row (the order of the blobs
// included), on random pixels of several densities (few large blobs, many
// small ones, blobs that meet only at a corner), odd and even sizes, and on
// drawn strokes; and on images with no set pixel or no unset one.
TEST(BlobStats, SameTableAsOpenCvsLabelling) {
  cv::RNG rng(21);
  std::vector<cv::Mat> images;
  for (cv::Size size : {cv::Size(1, 1), cv::Size(7, 3), cv::Size(64, 48), cv::Size(333, 121), cv::Size(640, 480)})
    for (double density : {0.02, 0.3, 0.5, 0.62}) {
      cv::Mat noise(size, CV_32F);
      rng.fill(noise, cv::RNG::UNIFORM, 0.0, 1.0);
      images.push_back(noise < density);
    }
  cv::Mat drawn(200, 301, CV_8U, cv::Scalar(0));
  for (int i = 0; i < 40; ++i)
    cv::line(drawn, {rng.uniform(0, 301), rng.uniform(0, 200)}, {rng.uniform(0, 301), rng.uniform(0, 200)},
             cv::Scalar(255), rng.uniform(1, 4));
  images.push_back(drawn);
  images.push_back(cv::Mat(9, 10, CV_8U, cv::Scalar(0)));
  images.push_back(cv::Mat(9, 10, CV_8U, cv::Scalar(1)));
  for (const cv::Mat& img : images) {
    SCOPED_TRACE(testing::Message() << img.cols << "x" << img.rows << ", " << cv::countNonZero(img) << " set");
    cv::Mat labels, want, centroids, got;
    const int n = cv::connectedComponentsWithStats(img, labels, want, centroids, 8, CV_32S);
    ASSERT_EQ(BlobStats(img, &got), n);
    const bool full = cv::countNonZero(img) == int(img.total());
    for (int i = full ? 1 : 0; i < n; ++i)
      for (int k = 0; k < cv::CC_STAT_MAX; ++k)
        ASSERT_EQ(got.at<int>(i, k), want.at<int>(i, k)) << "blob " << i << " column " << k;
  }
}

}  // namespace
}  // namespace velmora
