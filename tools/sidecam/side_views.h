#pragma once
// The side-camera server's views: eight 640 x 480 colour images, sent in the
// '3D01' reply as raw ARGB (alpha first) data values.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "archive/archive.h"

namespace velmora::sidecam {

inline constexpr int kViewCount = 8;
inline constexpr int kViewWidth = 640;
inline constexpr int kViewHeight = 480;

// "3d_errorResult" codes of this server.
enum ViewError : int32_t {
  kViewsReady = 0,
  kViewMissing = 1,     // a file is missing or does not decode
  kViewWrongSize = 2,   // a file is not 640 x 480
  kViewsNotReady = 3,   // the synthetic views are still being rendered
};

struct SideViews {
  int32_t error = kViewsReady;
  std::string message;  // why, when error != 0
  std::array<std::vector<uint8_t>, kViewCount> argb;
};

// "sideImage_00.png" ... "sideImage_07.png".
std::string ViewFileName(int index);

// 640 x 480 x 4 bytes, alpha (255) first, from a BGR or grey image.
std::vector<uint8_t> ToArgb(const cv::Mat& image);

// Reads and converts the eight files of `folder`, decoding them in parallel.
SideViews LoadFolderViews(const std::string& folder);

// Whether the eight files are there and 640 x 480, without decoding them
// where the file's header tells (PNG); other formats are decoded. Sets
// `message` when not.
int32_t CheckFolderViews(const std::string& folder, std::string* message);

// The '3D01' reply: {"3d_errorResult": code} and, when the views are ready,
// "sideImage_00" ... "sideImage_07".
archive::ObjectPtr ImagesReply(SideViews views);
// The '3D02' reply: {"3d_errorResult": code}.
archive::ObjectPtr CheckReply(int32_t error);

}  // namespace velmora::sidecam
