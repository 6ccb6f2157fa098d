// The stereo request end to end: the real add-in on an X server (Xvfb), the
// real side-camera server with the synthetic rig. The window appears at its
// frame with its title, shows the views and then the surface, turns with a
// drag, and closes on '3DM2'; servers that are absent or silent leave the
// add-in serving.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <opencv2/imgcodecs.hpp>
#include <thread>

#include "addin_process.h"
#include "archive/archive.h"
#include "child_process.h"
#include "messaging/protocol.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/object_model_3d_io.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testing::AddinProcess;
using testing::ChildProcess;

constexpr char kTitle[] = "co.jp.VelmoraAddin.StereoReconstruct";

std::string Run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    ::pclose(p);
  }
  return out;
}

bool HaveTools() {
  return Run("for t in Xvfb xdotool import xwininfo xdpyinfo; do command -v $t >/dev/null || echo $t; done").empty();
}

// An X server of our own for the test.
class Xvfb {
 public:
  // A display number another server holds makes Xvfb quit at once: then the
  // next number is tried. A busy machine may need seconds to bring it up.
  Xvfb() : dir_(fs::temp_directory_path() / ("xvfb" + std::to_string(::getpid()))) {
    fs::create_directories(dir_);
    for (int attempt = 0; attempt < 8; ++attempt) {
      display_ = ":" + std::to_string(70 + (::getpid() + attempt * 37) % 200);
      server_ = std::make_unique<ChildProcess>("/usr/bin/Xvfb", std::vector<std::string>{display_, "-screen", "0", "1024x768x24", "-nolisten", "tcp"},
                                               std::map<std::string, std::string>{}, dir_.string());
      for (int i = 0; i < 600 && !server_->Exited(); ++i) {
        if (!Run("DISPLAY=" + display_ + " xdpyinfo >/dev/null 2>&1 && echo up").empty()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    }
  }
  ~Xvfb() {
    server_.reset();
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  const std::string& display() const { return display_; }
  std::string X(const std::string& command) const { return Run("DISPLAY=" + display_ + " " + command + " 2>/dev/null"); }
  cv::Mat Screenshot() const {
    const std::string path = (dir_ / "shot.png").string();
    X("import -window root " + path);
    return cv::imread(path, cv::IMREAD_COLOR);
  }
  void Save(const cv::Mat& shot, const std::string& name) const {
    if (const char* keep = std::getenv("VELMORA_E2E_SHOTS")) cv::imwrite(std::string(keep) + "/" + name, shot);
  }

 private:
  std::string display_;
  fs::path dir_;
  std::unique_ptr<ChildProcess> server_;
};

std::vector<uint8_t> StartRequest(int x, int y, int w, int h) {
  auto d = archive::MakeDictionary();
  d->Set("Stereo_Reconstruct_WindowFrame", archive::MakeRect(x, y, w, h));
  return archive::Archive(d);
}

void ExpectFixedReply(AddinProcess& addin, const std::vector<uint8_t>& request, double* seconds = nullptr) {
  PortReply reply;
  const auto t0 = Clock::now();
  ASSERT_EQ(addin.Send(MessageIdStereoStart, request, &reply, 30), kPortSuccess);
  if (seconds) *seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  ASSERT_TRUE(reply.present);
  EXPECT_EQ(archive::ReadInt(archive::Unarchive(reply.data), "Stereo_Reconstruct_ErrorResult", 0), -100);
}

// Share of non-black pixels in a rectangle of the screen.
double Lit(const cv::Mat& shot, cv::Rect r) {
  r &= cv::Rect(0, 0, shot.cols, shot.rows);
  int lit = 0;
  for (int y = r.y; y < r.y + r.height; ++y)
    for (int x = r.x; x < r.x + r.width; ++x) lit += shot.at<cv::Vec3b>(y, x) != cv::Vec3b(0, 0, 0);
  return r.area() ? double(lit) / r.area() : 0;
}

bool WaitFor(const std::function<bool()>& done, double seconds) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return done();
}

std::map<std::string, std::string> GuiEnv(const Xvfb& x, const std::string& data) {
  // An empty value removes QT_QPA_PLATFORM: the add-in shows its windows on X.
  return {{"DISPLAY", x.display()}, {"QT_QPA_PLATFORM", ""}, {"XDG_DATA_HOME", data}};
}

TEST(StereoEndToEnd, SyntheticRigSurfaceShownTurnedAndClosed) {
  if (!HaveTools()) GTEST_SKIP() << "needs Xvfb, xdotool, xwininfo, xdpyinfo and ImageMagick's import";
  Xvfb x;
  const std::string data = fs::temp_directory_path() / ("stereo_e2e_data" + std::to_string(::getpid()));
  fs::create_directories(data);
  AddinProcess::Options options;
  options.env = GuiEnv(x, data);
  AddinProcess addin(options);
  ChildProcess sidecam(VELMORA_SIDECAM_PATH, {"--synthetic"},
                       {{"XDG_RUNTIME_DIR", addin.runtime_dir()}, {"XDG_DATA_HOME", data}}, data);
  ASSERT_TRUE(sidecam.WaitForLog("eight views ready", 120)) << sidecam.Stderr();

  double reply_seconds = 0;
  ExpectFixedReply(addin, StartRequest(100, 100, 400, 300), &reply_seconds);
  EXPECT_LT(reply_seconds, 5.0);  // the run goes on in the background

  // The window, at its frame, with its title.
  std::string id;
  ASSERT_TRUE(WaitFor([&] { return !(id = x.X(std::string("xdotool search --name ") + kTitle)).empty(); }, 10));
  const std::string info = x.X("xwininfo -id " + id.substr(0, id.find('\n')));
  EXPECT_NE(info.find("Absolute upper-left X:  100"), std::string::npos) << info;
  EXPECT_NE(info.find("Absolute upper-left Y:  100"), std::string::npos) << info;
  EXPECT_NE(info.find("Width: 400"), std::string::npos) << info;
  EXPECT_NE(info.find("Height: 300"), std::string::npos) << info;

  // The views fill the window while the run goes on; then the window is
  // cleared and the surface drawn on black.
  const cv::Rect window(100, 100, 400, 300);
  ASSERT_TRUE(WaitFor([&] { return Lit(x.Screenshot(), window) > 0.9; }, 30)) << addin.Stderr();
  ASSERT_TRUE(WaitFor([&] {
    const double lit = Lit(x.Screenshot(), window);
    return lit > 0.05 && lit < 0.9;
  }, 240)) << addin.Stderr();
  const cv::Mat before = x.Screenshot();
  x.Save(before, "stereo_surface.png");
  // Outside the window nothing was drawn.
  EXPECT_EQ(Lit(before, cv::Rect(520, 100, 200, 300)), 0);

  // A drag across the middle turns the surface.
  x.X("xdotool mousemove 250 200 mousedown 1 mousemove 270 210 mousemove 300 230 mousemove 330 260 mouseup 1");
  cv::Mat after;
  ASSERT_TRUE(WaitFor([&] {
    after = x.Screenshot();
    return cv::norm(after(window), before(window), cv::NORM_L1) > 1000;
  }, 5));
  x.Save(after, "stereo_turned.png");

  // '3DM2' closes the window; the add-in goes on serving.
  PortReply none;
  ASSERT_EQ(addin.Send(MessageIdStereoClose, {}, &none), kPortSuccess);
  EXPECT_FALSE(none.present);
  EXPECT_TRUE(WaitFor([&] { return x.X(std::string("xdotool search --onlyvisible --name ") + kTitle).empty(); }, 5));
  EXPECT_EQ(Lit(x.Screenshot(), window), 0);
  ASSERT_TRUE(addin.Request(RequestLibraryStatus).has_value());

  // SIGTERM while a run is going: the add-in ends within the run's grace
  // (5 s) and its own termination, with status 0.
  ExpectFixedReply(addin, StartRequest(100, 100, 400, 300));
  ASSERT_TRUE(WaitFor([&] { return Lit(x.Screenshot(), window) > 0.9; }, 30)) << addin.Stderr();
  const auto t0 = Clock::now();
  addin.Signal(SIGTERM);
  const auto status = addin.WaitExit(15);
  ASSERT_TRUE(status.has_value()) << addin.Stderr();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << addin.Stderr();
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 12.0);
  EXPECT_TRUE(x.X(std::string("xdotool search --onlyvisible --name ") + kTitle).empty());
  sidecam.Stop();
  std::error_code ec;
  fs::remove_all(data, ec);
}

TEST(StereoEndToEnd, AbsentSilentServersAndRepeatsLeaveTheAddinServing) {
  if (!HaveTools()) GTEST_SKIP() << "needs Xvfb, xdotool, xwininfo, xdpyinfo and ImageMagick's import";
  Xvfb x;
  const std::string data = fs::temp_directory_path() / ("stereo_e2e_data2" + std::to_string(::getpid()));
  fs::create_directories(data);
  AddinProcess::Options options;
  options.env = GuiEnv(x, data);
  AddinProcess addin(options);

  // No calibration, then no server: refused at once, no window left.
  ExpectFixedReply(addin, StartRequest(0, 0, 200, 100));
  {
    ChildProcess writer(VELMORA_SIDECAM_PATH, {"--synthetic"},
                        {{"XDG_RUNTIME_DIR", addin.runtime_dir()}, {"XDG_DATA_HOME", data}}, data);
    ASSERT_TRUE(writer.WaitForLog("calibration", 60)) << writer.Stderr();
  }  // the server ends: the calibration stays
  ExpectFixedReply(addin, StartRequest(0, 0, 200, 100));
  EXPECT_TRUE(x.X(std::string("xdotool search --onlyvisible --name ") + kTitle).empty());

  // A server that takes requests and never answers: the exchange times out
  // (5 s), the request is refused, the add-in serves on.
  const std::string sock = addin.runtime_dir() + "/velmora/jp.co.velmora.sidecamserver.message.sock";
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd, 16), 0);
  double seconds = 0;
  ExpectFixedReply(addin, StartRequest(0, 0, 200, 100), &seconds);
  EXPECT_GT(seconds, 4.0);
  EXPECT_LT(seconds, 12.0);
  ::close(fd);
  ::unlink(sock.c_str());

  // Ten starts in a row with no server, a stop, and requests still served.
  for (int i = 0; i < 10; ++i) ExpectFixedReply(addin, StartRequest(10 * i, 10 * i, 120, 90));
  PortReply none;
  ASSERT_EQ(addin.Send(MessageIdStereoClose, {}, &none), kPortSuccess);
  ASSERT_TRUE(addin.Request(RequestLibraryStatus).has_value());
  EXPECT_TRUE(x.X(std::string("xdotool search --onlyvisible --name ") + kTitle).empty());
  // SIGTERM ends it cleanly.
  const auto status = addin.Stop();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << addin.Stderr();
  std::error_code ec;
  fs::remove_all(data, ec);
}

TEST(StereoEndToEnd, ViewToolShowsAndTurnsAPlyFile) {
  if (!HaveTools()) GTEST_SKIP() << "needs Xvfb, xdotool, xwininfo, xdpyinfo and ImageMagick's import";
  Xvfb x;
  const fs::path dir = fs::temp_directory_path() / ("view_e2e" + std::to_string(::getpid()));
  fs::create_directories(dir);
  // A coloured 8 mm patch with a dome, as the tools write surfaces.
  auto m = vision::NewObjectModel3D();
  const int n = 41;
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      const float px = -0.004f + 0.008f * i / (n - 1), py = -0.004f + 0.008f * j / (n - 1);
      m->points.emplace_back(px, py, -0.0005f - 0.001f * std::exp(-(px * px + py * py) / 4e-6f));
      m->attribs["&coord_r"].push_back(60 + 4 * i);
      m->attribs["&coord_g"].push_back(60 + 4 * j);
      m->attribs["&coord_b"].push_back(150);
    }
  for (int j = 0; j + 1 < n; ++j)
    for (int i = 0; i + 1 < n; ++i) {
      const int a = j * n + i;
      m->triangles.push_back({a, a + 1, a + n});
      m->triangles.push_back({a + 1, a + n + 1, a + n});
    }
  const std::string ply = (dir / "patch.ply").string();
  vision::write_object_model_3d(vision::ObjectModel3DHandle(m), "ply", ply, vision::HTuple(), vision::HTuple());

  ChildProcess view(VELMORA_3D_PATH, {"view", ply}, {{"DISPLAY", x.display()}, {"QT_QPA_PLATFORM", ""}}, dir.string());
  std::string id;
  ASSERT_TRUE(WaitFor([&] { return !(id = x.X("xdotool search --onlyvisible --name 'velmora-3d view'")).empty(); }, 15))
      << view.Stderr();
  const cv::Rect window(0, 0, 640, 480);
  cv::Mat before;
  ASSERT_TRUE(WaitFor([&] {
    before = x.Screenshot();
    return Lit(before, window) > 0.05;
  }, 10)) << view.Stderr();
  const std::string geometry = x.X("xdotool getwindowgeometry " + id.substr(0, id.find('\n')));
  EXPECT_NE(geometry.find("640x480"), std::string::npos) << geometry;
  x.X("xdotool mousemove 320 240 mousedown 1 mousemove 340 250 mousemove 380 280 mouseup 1");
  EXPECT_TRUE(WaitFor([&] { return cv::norm(x.Screenshot()(window), before(window), cv::NORM_L1) > 1000; }, 5));
  // A file that is not there: one line, exit 1.
  ChildProcess missing(VELMORA_3D_PATH, {"view", (dir / "none.ply").string()}, {{"DISPLAY", x.display()}}, dir.string());
  const auto status = missing.WaitExit(10);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(WEXITSTATUS(*status), 1);
  view.Stop();
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace velmora
