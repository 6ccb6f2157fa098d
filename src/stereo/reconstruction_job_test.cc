// The stereo job through the dispatcher's '3DM1' / '3DM2': the fixed reply,
// every refusal path, the window, the run on the worker and the hand-over,
// and the job's life while a run still holds it.
#include "stereo/reconstruction_job.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QApplication>
#include <QElapsedTimer>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <regex>

#include "archive/archive.h"
#include "messaging/message_action.h"
#include "stereo/calibration_3d_prefs.h"
#include "viewer/halcon_model_view.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using vision::HTuple;

QApplication& App() {
  static int argc = 1;
  static char name[] = "stereo_job_tests";
  static char* argv[] = {name, nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static QApplication* app = new QApplication(argc, argv);
  return *app;
}

// Processes events until `done` or the time is up.
bool Until(const std::function<bool()>& done, int ms = 5000) {
  QElapsedTimer t;
  t.start();
  while (!done() && t.elapsed() < ms) QApplication::processEvents(QEventLoop::AllEvents, 10);
  return done();
}

HTuple SmallModel() {
  auto m = vision::NewObjectModel3D();
  for (int i = 0; i < 3; ++i) m->points.emplace_back(0.001f * i, 0.001f * (i % 2), -0.0005f);
  m->triangles.push_back({0, 1, 2});
  return vision::ObjectModel3DHandle(m);
}

std::vector<uint8_t> Start(archive::ObjectPtr params) {
  return archive::Archive(params);
}

archive::ObjectPtr Frame(double x, double y, double w, double h) {
  auto d = archive::MakeDictionary();
  d->Set("Stereo_Reconstruct_WindowFrame", archive::MakeRect(x, y, w, h));
  return d;
}

// A scripted side-camera server and reconstruction, with what they saw.
struct Rig {
  std::vector<int32_t> sent;
  int check_result = 0, images_result = 0;
  bool reachable = true;
  int views = 8;
  std::atomic<int> runs{0};
  std::function<HTuple()> reconstruct = [] { return SmallModel(); };

  void Install() {
    ObjectModel3D::setSideCamExchange([this](int32_t id, const archive::ObjectPtr&, archive::ObjectPtr* reply) {
      sent.push_back(id);
      if (!reachable) return false;
      auto d = archive::MakeDictionary();
      d->Set("3d_errorResult", archive::MakeInt32(id == MessageIdSide3DCheck ? check_result : images_result));
      if (id == MessageIdSide3DImages)
        for (int i = 0; i < views; ++i) {
          char key[16];
          std::snprintf(key, sizeof key, "sideImage_%02d", i);
          d->Set(key, archive::MakeData(std::vector<uint8_t>(640 * 480 * 4, uint8_t(i))));
        }
      *reply = d;
      return true;
    });
    ObjectModel3D::setReconstruction([this](const HTuple& window, const HTuple& item, const SideViewBytes& v) {
      ++runs;
      EXPECT_EQ(v.size(), size_t(views));
      EXPECT_FALSE(window.Empty());
      EXPECT_FALSE(item.Empty());
      return reconstruct();
    });
  }
};

class StereoJob : public ::testing::Test {
 protected:
  void SetUp() override {
    App();
    root_ = fs::temp_directory_path() / ("stereo_job_" + std::to_string(::getpid()));
    fs::remove_all(root_);
    fs::create_directories(root_ / "velmora_AOI");
    ::setenv("XDG_DATA_HOME", root_.c_str(), 1);
    rig_.Install();
  }
  void TearDown() override {
    MessageAction(nullptr, MessageIdStereoClose, {});
    Until([] { return ObjectModel3D::runsInFlight() == 0; });
    QApplication::processEvents();
    fs::remove_all(root_);
  }
  void Calibrate() {
    Calibration_3D_Prefs prefs;
    ASSERT_TRUE(prefs.writeData(CalibrationDictionary({1, 2, 3, 4})));
  }
  // The windows of jobs that are open now.
  static int OpenJobWindows() {
    int n = 0;
    for (QWidget* w : QApplication::topLevelWidgets())
      n += w->isVisible() && w->windowTitle() == "co.jp.VelmoraAddin.StereoReconstruct";
    return n;
  }
  static void ExpectFixedReply(const std::optional<std::vector<uint8_t>>& reply) {
    ASSERT_TRUE(reply.has_value());
    const archive::ObjectPtr d = archive::Unarchive(*reply);
    EXPECT_EQ(archive::ReadInt(d, "Stereo_Reconstruct_ErrorResult", 0), -100);
  }

  fs::path root_;
  Rig rig_;
};

TEST_F(StereoJob, RefusalsAnswerTheSameAndCloseTheWindow) {
  struct Case {
    const char* what;
    bool calibrated, reachable;
    int check, images, views;
    std::vector<int32_t> sent;
  } cases[] = {
      {"no calibration", false, true, 0, 0, 8, {}},
      {"no server", true, false, 0, 0, 8, {MessageIdSide3DCheck}},
      {"check refused", true, true, 1, 0, 8, {MessageIdSide3DCheck}},
      {"images refused", true, true, 0, 3, 8, {MessageIdSide3DCheck, MessageIdSide3DImages}},
  };
  for (const auto& k : cases) {
    fs::remove(root_ / "velmora_AOI" / "Calibration3D.plist");
    if (k.calibrated) Calibrate();
    rig_.sent.clear();
    rig_.reachable = k.reachable;
    rig_.check_result = k.check;
    rig_.images_result = k.images;
    testing::internal::CaptureStderr();
    ExpectFixedReply(MessageAction(nullptr, MessageIdStereoStart, Start(Frame(10, 20, 300, 200))));
    // Nothing logged (the platform plugin may still speak).
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(std::regex_search(log, std::regex(R"(\[\d+:\d+\])"))) << k.what << ": " << log;
    EXPECT_EQ(rig_.sent, k.sent) << k.what;
    EXPECT_EQ(OpenJobWindows(), 0) << k.what;
    EXPECT_EQ(ObjectModel3D::runsInFlight(), 0) << k.what;
  }
  EXPECT_EQ(rig_.runs, 0);
  // A body that unarchives to nothing: no job, the same reply.
  ExpectFixedReply(MessageAction(nullptr, MessageIdStereoStart, Start(nullptr)));
  EXPECT_EQ(OpenJobWindows(), 0);
}

TEST_F(StereoJob, RunShowsTheModelInTheWindowAtItsFrame) {
  Calibrate();
  ExpectFixedReply(MessageAction(nullptr, MessageIdStereoStart, Start(Frame(100, 100, 320, 240))));
  ASSERT_EQ(OpenJobWindows(), 1);
  QWidget* window = nullptr;
  for (QWidget* w : QApplication::topLevelWidgets())
    if (w->isVisible() && w->windowTitle() == "co.jp.VelmoraAddin.StereoReconstruct") window = w;
  ASSERT_TRUE(window);
  EXPECT_EQ(window->geometry(), QRect(100, 100, 320, 240));
  EXPECT_EQ(window->minimumSize(), QSize(320, 240));
  EXPECT_TRUE(window->windowFlags() & Qt::FramelessWindowHint);
  EXPECT_TRUE(window->windowFlags() & Qt::WindowStaysOnTopHint);
  EXPECT_TRUE(window->testAttribute(Qt::WA_TranslucentBackground));
  EXPECT_TRUE(window->testAttribute(Qt::WA_ShowWithoutActivating));
  auto* view = window->findChild<HalconModelView*>();
  ASSERT_TRUE(view);
  EXPECT_EQ(view->geometry(), QRect(0, 0, 320, 240));
  ASSERT_TRUE(Until([&] { return !view->objectModel3D().Empty(); }));
  EXPECT_EQ(rig_.runs, 1);
  EXPECT_EQ(view->pose().Length(), 7);
  // '3DM2' closes the window.
  EXPECT_FALSE(MessageAction(nullptr, MessageIdStereoClose, {}).has_value());
  EXPECT_EQ(OpenJobWindows(), 0);
}

TEST_F(StereoJob, FailingRunLogsAndShowsNothing) {
  Calibrate();
  rig_.reconstruct = []() -> HTuple { throw vision::HException("binocular_disparity_ms", "Images have different sizes"); };
  testing::internal::CaptureStderr();
  MessageAction(nullptr, MessageIdStereoStart, Start(archive::MakeDictionary()));  // no frame: empty window
  ASSERT_TRUE(Until([] { return ObjectModel3D::runsInFlight() == 0; }));
  QApplication::processEvents();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("[binocular_disparity_ms] Images have different sizes"), std::string::npos) << log;
  EXPECT_EQ(rig_.runs, 1);
}

TEST_F(StereoJob, ReleasedJobLivesUntilItsRunEndsAndQueuedRunsAreSkipped) {
  Calibrate();
  std::mutex mu;
  std::condition_variable cv;
  bool go = false;
  rig_.reconstruct = [&] {
    std::unique_lock lk(mu);
    cv.wait(lk, [&] { return go; });
    return SmallModel();
  };
  // Ten starts in a row: the first run blocks; each later job's run waits
  // behind it and is dropped when the next start releases that job.
  ExpectFixedReply(MessageAction(nullptr, MessageIdStereoStart, Start(Frame(0, 0, 64, 48))));
  ASSERT_TRUE(Until([&] { return rig_.runs == 1; }));
  for (int i = 1; i < 10; ++i)
    ExpectFixedReply(MessageAction(nullptr, MessageIdStereoStart, Start(Frame(10 * i, 0, 64, 48))));
  EXPECT_EQ(ObjectModel3D::runsInFlight(), 2);
  // The running job's window stays, as does the newest job's.
  EXPECT_EQ(OpenJobWindows(), 2);
  MessageAction(nullptr, MessageIdStereoClose, {});
  EXPECT_EQ(OpenJobWindows(), 1);
  {
    std::lock_guard lk(mu);
    go = true;
  }
  cv.notify_all();
  ASSERT_TRUE(Until([] { return ObjectModel3D::runsInFlight() == 0 && OpenJobWindows() == 0; }));
  EXPECT_EQ(rig_.runs, 1);  // the queued runs of released jobs were skipped
}

}  // namespace
}  // namespace velmora
