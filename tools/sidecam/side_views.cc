#include "side_views.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "messaging/side_cam_server_controller.h"

namespace velmora::sidecam {

std::string ViewFileName(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "sideImage_%02d.png", index);
  return name;
}

std::vector<uint8_t> ToArgb(const cv::Mat& image) {
  cv::Mat bgr = image;
  if (image.channels() == 1) cv::cvtColor(image, bgr, cv::COLOR_GRAY2BGR);
  std::vector<uint8_t> out(static_cast<size_t>(bgr.rows) * bgr.cols * 4);
  uint8_t* dst = out.data();
  for (int r = 0; r < bgr.rows; ++r) {
    const uint8_t* src = bgr.ptr<uint8_t>(r);
    for (int c = 0; c < bgr.cols; ++c, src += 3, dst += 4) {
      dst[0] = 255;
      dst[1] = src[2];
      dst[2] = src[1];
      dst[3] = src[0];
    }
  }
  return out;
}

SideViews LoadFolderViews(const std::string& folder) {
  SideViews views;
  std::array<int32_t, kViewCount> errors{};
  std::array<std::string, kViewCount> messages;
  std::atomic<int> next{0};
  auto work = [&] {
    for (int i = next++; i < kViewCount; i = next++) {
      const std::string path = folder + "/" + ViewFileName(i);
      const cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
      if (image.empty()) {
        errors[i] = kViewMissing;
        messages[i] = path + " is missing or not an image";
      } else if (image.cols != kViewWidth || image.rows != kViewHeight) {
        errors[i] = kViewWrongSize;
        messages[i] = path + " is " + std::to_string(image.cols) + " x " + std::to_string(image.rows) +
                      ", not 640 x 480";
      } else {
        views.argb[i] = ToArgb(image);
      }
    }
  };
  // PNG decoding dominates an exchange: one decoder per core.
  const unsigned n = std::clamp(std::thread::hardware_concurrency(), 1u, static_cast<unsigned>(kViewCount));
  std::vector<std::thread> threads;
  for (unsigned i = 1; i < n; ++i) threads.emplace_back(work);
  work();
  for (auto& t : threads) t.join();
  for (int i = 0; i < kViewCount; ++i) {
    if (errors[i] != kViewsReady) {
      views.error = errors[i];
      views.message = messages[i];
      for (auto& v : views.argb) std::vector<uint8_t>().swap(v);
      break;
    }
  }
  return views;
}

namespace {

// Width and height from a PNG's IHDR chunk; false when the bytes are not a PNG.
bool PngSize(const std::string& path, int* width, int* height) {
  uint8_t head[24];
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  const size_t got = std::fread(head, 1, sizeof head, f);
  std::fclose(f);
  static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (got != sizeof head || std::memcmp(head, kSignature, 8) != 0 || std::memcmp(head + 12, "IHDR", 4) != 0)
    return false;
  auto be32 = [](const uint8_t* p) {
    return static_cast<int>((uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3]);
  };
  *width = be32(head + 16);
  *height = be32(head + 20);
  return true;
}

}  // namespace

int32_t CheckFolderViews(const std::string& folder, std::string* message) {
  for (int i = 0; i < kViewCount; ++i) {
    const std::string path = folder + "/" + ViewFileName(i);
    int width = 0, height = 0;
    if (!PngSize(path, &width, &height)) {
      const cv::Mat image = cv::imread(path, cv::IMREAD_COLOR);
      if (image.empty()) {
        *message = path + " is missing or not an image";
        return kViewMissing;
      }
      width = image.cols;
      height = image.rows;
    }
    if (width != kViewWidth || height != kViewHeight) {
      *message = path + " is " + std::to_string(width) + " x " + std::to_string(height) + ", not 640 x 480";
      return kViewWrongSize;
    }
  }
  return kViewsReady;
}

archive::ObjectPtr CheckReply(int32_t error) {
  auto reply = archive::MakeDictionary();
  reply->Set(kSide3DErrorResult, archive::MakeInt32(error));
  return reply;
}

archive::ObjectPtr ImagesReply(SideViews views) {
  auto reply = archive::MakeDictionary();
  reply->Set(kSide3DErrorResult, archive::MakeInt32(views.error));
  if (views.error != kViewsReady) return reply;
  for (int i = 0; i < kViewCount; ++i) {
    char key[32];
    std::snprintf(key, sizeof key, kSideImageKeyFormat, i);
    reply->Set(key, archive::MakeData(std::move(views.argb[i])));
  }
  return reply;
}

}  // namespace velmora::sidecam
