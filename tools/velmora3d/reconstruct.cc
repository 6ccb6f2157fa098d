// velmora-3d reconstruct: the stereo reconstruction of eight side views with
// a rig calibration, written as a PLY surface, with the time of each stage.
#include <chrono>
#include <cstdio>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "archive/archive.h"
#include "command.h"
#include "messaging/side_cam_server_controller.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/reconstruction.h"
#include "vision/core/serialized_item.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/object_model_3d_io.h"
#include "vision/window/window.h"

namespace velmora3d {
namespace archive = velmora::archive;
namespace {

constexpr int kWidth = 640, kHeight = 480;

std::string ViewName(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "sideImage_%02d", i);
  return name;
}

// The eight views of a folder as the side-camera server sends them: 640 x 480
// pixels of four bytes, alpha first.
bool ReadViews(const std::filesystem::path& dir, velmora::SideViews* views, std::string* error) {
  for (int i = 0; i < 8; ++i) {
    const std::filesystem::path path = dir / (ViewName(i) + ".png");
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
      *error = "missing " + path.string();
      return false;
    }
    const cv::Mat bgr = cv::imread(path.string(), cv::IMREAD_COLOR);
    if (bgr.empty()) {
      *error = "cannot read " + path.string();
      return false;
    }
    if (bgr.cols != kWidth || bgr.rows != kHeight) {
      *error = path.string() + " is " + std::to_string(bgr.cols) + " x " + std::to_string(bgr.rows) +
               ", the side views are 640 x 480";
      return false;
    }
    std::vector<uint8_t> argb(size_t(kWidth) * kHeight * 4);
    for (int y = 0; y < kHeight; ++y)
      for (int x = 0; x < kWidth; ++x) {
        const cv::Vec3b p = bgr.at<cv::Vec3b>(y, x);
        uint8_t* o = &argb[(size_t(y) * kWidth + x) * 4];
        o[0] = 255;
        o[1] = p[2];
        o[2] = p[1];
        o[3] = p[0];
      }
    views->push_back(std::move(argb));
  }
  return true;
}

// The views from a running side-camera server: check ('3D02'), then the
// images ('3D01' with calibImageType 0).
bool FetchViews(velmora::SideViews* views, std::string* error) {
  velmora::sideCamServerController* server = velmora::sideCamServerController::sharedController();
  archive::ObjectPtr reply;
  if (!server || !server->sendMessageWithArchivedDictReply(velmora::MessageIdSide3DCheck, nullptr, &reply) ||
      archive::ReadInt(reply, "3d_errorResult", -1) != 0) {
    *error = "the side-camera server did not answer its check (is velmora-sidecam running?)";
    return false;
  }
  auto request = archive::MakeDictionary();
  request->Set("calibImageType", archive::MakeInt32(0));
  if (!server->sendMessageWithArchivedDictReply(velmora::MessageIdSide3DImages, request, &reply) ||
      archive::ReadInt(reply, "3d_errorResult", -1) != 0) {
    *error = "the side-camera server did not deliver the views";
    return false;
  }
  for (int i = 0; i < 8; ++i) {
    auto data = archive::AsData(archive::ReadObject(reply, ViewName(i)));
    if (!data) {
      *error = "the side-camera server's reply lacks " + ViewName(i);
      return false;
    }
    views->push_back(data->bytes);
  }
  return true;
}

int RunReconstruct(const Args& args) {
  ParsedArgs a;
  std::string error;
  if (!ParseArgs(args, {"--calibration", "--images", "-o", "--quality"}, {"--from-server"}, &a, &error))
    return Fail("reconstruct: " + error, kExitUsage);
  if (!a.positional.empty()) return Fail("reconstruct: unexpected argument " + a.positional[0], kExitUsage);
  if (!a.Has("-o")) return Fail("reconstruct: -o OUT.ply is required", kExitUsage);
  if (a.Has("--images") == a.Has("--from-server"))
    return Fail("reconstruct: give either --images DIR or --from-server", kExitUsage);
  const std::string quality = a.Value("--quality", "Default");
  vision::HTuple from, to;
  if (!velmora::QualityPairs(quality, &from, &to))
    return Fail("reconstruct: --quality is one of \"very fast\", fast, Default, accurate, \"very accurate\"",
                kExitUsage);

  using Clock = std::chrono::steady_clock;
  const auto t0 = Clock::now();
  const std::string calibration = a.Value("--calibration", velmora::Calibration_3D_Prefs::filePath());
  const velmora::DictionaryPtr info = velmora::ReadPropertyListFile(calibration);
  if (!info) return Fail("reconstruct: cannot read the calibration file " + calibration);
  const auto model_data = velmora::CameraModelData(info);
  if (!model_data) return Fail("reconstruct: " + calibration + " holds no camera setup model");
  velmora::SideViews views;
  if (a.Has("--images") ? !ReadViews(a.Value("--images"), &views, &error) : !FetchViews(&views, &error))
    return Fail("reconstruct: " + error);
  const double t_input = std::chrono::duration<double>(Clock::now() - t0).count();

  // An invisible window stands in for the job's window.
  vision::HTuple window, model;
  velmora::ReconstructionTimes times;
  const vision::HTuple item = vision::NewSerializedItem(model_data->bytes);
  try {
    vision::open_window(0, 0, kWidth, kHeight, 0, "invisible", "", &window);
    model = velmora::ReconstructSurface(window, item, views, quality, &times);
    vision::close_window(window);
  } catch (const vision::HException& e) {
    return Fail("reconstruct: " + std::string(e.what()));
  }
  const auto t_write = Clock::now();
  size_t points = 0, triangles = 0;
  try {
    const vision::ObjectModel3DData* m = vision::ObjectModel3DCast(model, "reconstruct");
    points = m->NumPoints();
    triangles = m->triangles.size();
    if (points == 0) {
      vision::clear_object_model_3d(model);
      return Fail("reconstruct: no surface found (views without texture, or cameras that do not overlap?)");
    }
    vision::write_object_model_3d(model, "ply", a.Value("-o"), vision::HTuple(), vision::HTuple());
    vision::clear_object_model_3d(model);
  } catch (const vision::HException& e) {
    return Fail("reconstruct: " + std::string(e.what()));
  }
  const double t_out = std::chrono::duration<double>(Clock::now() - t_write).count();
  std::printf("reconstruct: %s, %zu points, %zu triangles (quality %s)\n", a.Value("-o").c_str(), points, triangles,
              quality.c_str());
  std::printf("  reading calibration and views %.3f s\n", t_input);
  std::printf("  %s\n", velmora::FormatTimes(times).c_str());
  std::printf("  writing PLY %.3f s\n", t_out);
  return 0;
}

const Registration kReconstruct({"reconstruct",
                                 "--calibration FILE (--images DIR | --from-server) -o OUT.ply [--quality NAME]",
                                 "reconstruct the surface of eight side views as a PLY file, with stage times",
                                 RunReconstruct});

}  // namespace
}  // namespace velmora3d
