// The side-camera exchange end to end: '3D01' with eight 640 x 480 views over
// the real port, against velmora-sidecam in folder mode with PNG files (the
// server decodes all eight files for every request), through the add-in's
// client including the archive's encoding and decoding. Also the synthetic
// rig's rendering time. Prints median and spread.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "child_process.h"
#include "messaging/side_cam_server_controller.h"
#include "stereo/synthetic_rig.h"

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

void Report(const char* what, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  auto q = [&](double f) { return ms[static_cast<size_t>(f * (ms.size() - 1) + 0.5)]; };
  std::printf("%-44s n=%-3zu median %7.1f ms  p10 %7.1f  p90 %7.1f  min %7.1f  max %7.1f\n", what, ms.size(), q(0.5),
              q(0.1), q(0.9), ms.front(), ms.back());
}

// CPU time (user + system) a process has used so far, in milliseconds.
double ProcessCpuMs(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(in, line);
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return (utime + stime) * 1000.0 / ::sysconf(_SC_CLK_TCK);
}

double SelfCpuMs() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

double LoadAverage() {
  double load = 0;
  std::ifstream("/proc/loadavg") >> load;
  return load;
}

}  // namespace

int main() {
  using namespace velmora;
  testing::PrivateFolders folders;
  ::setenv("XDG_RUNTIME_DIR", folders.runtime.c_str(), 1);
  ::setenv("XDG_DATA_HOME", folders.data.c_str(), 1);

  std::vector<double> render;
  std::vector<cv::Mat> views;
  for (int i = 0; i < 3; ++i) {
    const auto t0 = Clock::now();
    const synth::Rig rig = synth::MakeRig(0, 1 + i);
    views = synth::RenderViews(rig);
    render.push_back(Ms(t0, Clock::now()));
  }
  const std::string dir = folders.root + "/views";
  std::filesystem::create_directories(dir);
  size_t png_bytes = 0;
  for (int i = 0; i < 8; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/sideImage_%02d.png", i);
    cv::imwrite(dir + name, views[i]);  // OpenCV's default PNG compression, as a camera tool writes
    png_bytes += std::filesystem::file_size(dir + name);
  }

  testing::ChildProcess server(VELMORA_SIDECAM_PATH, {"--images", dir}, folders.Env(), folders.root);
  if (!server.WaitForLog("serving", 15)) {
    std::fprintf(stderr, "the side-camera server did not start:\n%s", server.Stderr().c_str());
    return 1;
  }
  auto request = archive::MakeDictionary();
  request->Set(kSideCalibImageType, archive::MakeInt32(0));
  auto* client = sideCamServerController::sharedController();
  std::vector<double> images, check;
  size_t reply_views = 0;
  double server_cpu0 = 0, client_cpu0 = 0;
  const double load_before = LoadAverage();
  for (int i = 0; i < 45; ++i) {
    if (i == 5) {
      server_cpu0 = ProcessCpuMs(server.pid());
      client_cpu0 = SelfCpuMs();
    }
    archive::ObjectPtr reply;
    auto t0 = Clock::now();
    if (client->sendMessageWithArchivedDictReply(MessageIdSide3DCheck, nullptr, &reply, 5.0) != 0) return 1;
    auto t1 = Clock::now();
    if (client->sendMessageWithArchivedDictReply(MessageIdSide3DImages, request, &reply, 5.0) != 0 ||
        archive::ReadInt(reply, kSide3DErrorResult, -1) != 0)
      return 1;
    auto t2 = Clock::now();
    reply_views = 0;
    for (int k = 0; k < 8; ++k) {
      char key[16];
      std::snprintf(key, sizeof key, "sideImage_%02d", k);
      const auto data = archive::AsData(archive::ReadObject(reply, key));
      reply_views += data && data->bytes.size() == 640u * 480u * 4u;
    }
    if (i >= 5) {  // the first few warm the page cache and the server
      check.push_back(Ms(t0, t1));
      images.push_back(Ms(t1, t2));
    }
  }
  const double server_cpu = (ProcessCpuMs(server.pid()) - server_cpu0) / images.size();
  const double client_cpu = (SelfCpuMs() - client_cpu0) / images.size();
  const double load_after = LoadAverage();
  std::printf("machine: %ld cores, load average %.1f before and %.1f after the exchanges\n", ::sysconf(_SC_NPROCESSORS_ONLN),
              load_before, load_after);
  std::printf("side-camera exchange over the real port, velmora-sidecam --images (8 PNG files, %.1f MB on disk)\n",
              png_bytes / 1e6);
  std::printf("reply: %zu views of 640 x 480 x 4 bytes (%.1f MB archived)\n", reply_views, reply_views * 1.2288);
  Report("'3D01' images, end to end (decode included)", images);
  Report("'3D02' check (file headers)", check);
  std::printf("CPU per '3D02' + '3D01' pair: server %.1f ms, client %.1f ms (load-independent)\n", server_cpu, client_cpu);
  Report("synthetic rig: make + render 8 views", render);
  return 0;
}
