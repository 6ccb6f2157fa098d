// From '3DM1' to the surface on screen, against the real side-camera server
// with the synthetic rig: what the stereo job adds to the reconstruction's
// own time (calibration, the two exchanges with eight views, window, the
// hand-over with the start view and coordinate images, the first redraw).
// Runs the dispatcher in this process on the offscreen platform; "on screen"
// is the view having painted the frame with the surface.
#include <QApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "archive/archive.h"
#include "child_process.h"
#include "messaging/message_action.h"
#include "stereo/reconstruction.h"
#include "stereo/reconstruction_job.h"
#include "viewer/halcon_model_view.h"

using namespace velmora;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  velmora::testing::PrivateFolders folders;
  ::setenv("XDG_RUNTIME_DIR", folders.runtime.c_str(), 1);
  ::setenv("XDG_DATA_HOME", folders.data.c_str(), 1);
  QApplication app(argc, argv);
  velmora::testing::ChildProcess server(VELMORA_SIDECAM_PATH, {"--synthetic"}, folders.Env(), folders.root);
  if (!server.WaitForLog("eight views ready", 180)) {
    std::fprintf(stderr, "side-camera server not ready:\n%s", server.Stderr().c_str());
    return 1;
  }
  double action_seconds = 0;
  ObjectModel3D::setReconstruction([&](const vision::HTuple& w, const vision::HTuple& item, const SideViewBytes& v) {
    const auto t0 = Clock::now();
    vision::HTuple model = action(w, item, v);
    action_seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    return model;
  });
  auto params = archive::MakeDictionary();
  params->Set("Stereo_Reconstruct_WindowFrame", archive::MakeRect(100, 100, 640, 480));
  const std::vector<uint8_t> request = archive::Archive(params);

  std::vector<double> overheads;
  std::printf("run  total_s  action_s  overhead_ms  (of which the '3DM1' request itself, ms)\n");
  // Run 0 is the first request of the process (cold: first window, first
  // fonts); the median is over the runs after it.
  for (int run = 0; run < 6; ++run) {
    action_seconds = 0;
    const auto t0 = Clock::now();
    MessageAction(nullptr, MessageIdStereoStart, request);
    const double start_ms = std::chrono::duration<double>(Clock::now() - t0).count() * 1000;
    HalconModelView* view = nullptr;
    for (QWidget* w : QApplication::topLevelWidgets())
      if (w->isVisible() && w->windowTitle() == "co.jp.VelmoraAddin.StereoReconstruct") view = w->findChild<HalconModelView*>();
    if (!view) {
      std::fprintf(stderr, "no job window\n");
      return 1;
    }
    qint64 key = 0;
    bool shown = false;
    while (!shown && std::chrono::duration<double>(Clock::now() - t0).count() < 300) {
      QApplication::processEvents(QEventLoop::AllEvents, 1);
      if (!view->objectModel3D().Empty()) {
        if (!key) key = view->shownFrame().cacheKey();
        else shown = view->shownFrame().cacheKey() != key;
      }
    }
    const double total = std::chrono::duration<double>(Clock::now() - t0).count();
    if (!shown) {
      std::fprintf(stderr, "no surface shown\n");
      return 1;
    }
    const double overhead = (total - action_seconds) * 1000;
    if (run > 0) overheads.push_back(overhead);
    std::printf("%3d  %7.3f  %8.3f  %11.1f  (%.1f)\n", run, total, action_seconds, overhead, start_ms);
    std::fflush(stdout);
  }
  MessageAction(nullptr, MessageIdStereoClose, {});
  std::sort(overheads.begin(), overheads.end());
  std::printf("median overhead of runs 1-5 ('3DM1' to the surface painted, minus the reconstruction): %.1f ms\n",
              overheads[overheads.size() / 2]);
  return 0;
}
