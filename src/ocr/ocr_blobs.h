#pragma once
// The 8-connected blobs of a binary image with their boxes and areas, as
// cv::connectedComponentsWithStats gives them (same table, same order of
// the blobs), from the image's runs of set pixels instead of a label per
// pixel: edges of print on a camera frame set a few pixels in a hundred.
#include <opencv2/core.hpp>

namespace velmora {

// binary: CV_8U, any non-zero pixel is set. stats: (n x 5, CV_32S, columns
// cv::CC_STAT_LEFT, _TOP, _WIDTH, _HEIGHT, _AREA), row 0 the ground (the
// unset pixels), rows 1..n-1 the blobs in OpenCV's default order for 8
// connectivity (by the first 2 x 2 block of the image, in block rows of two
// image rows, that holds a pixel of the blob). Returns n.
int BlobStats(const cv::Mat& binary, cv::Mat* stats);

}  // namespace velmora
