#pragma once
// Optional text window: finds the text line in a whole camera frame, so that
// the recognition reads a window around it instead of the frame. The
// background flattening scales its result between the 10th and 90th
// percentile of the whole image, so print that covers less than about a
// tenth of the image is scaled away with the ground; a window with about half
// a text height of ground on each side keeps the print in range.
#include <opencv2/core.hpp>

#include "imaging/halcon_utility.h"

namespace velmora {

// The window around the strongest text line of a gray image: the line's box
// grown by half its height on each side, clipped to the image. False when no
// line stands out (the caller then reads the whole image).
bool FindTextWindow(const cv::Mat& gray, cv::Rect* window);

}  // namespace velmora
