// velmora-sidecam: the side-camera server. Owns the port
// "jp.co.velmora.sidecamserver.message" (one per user) and answers the stereo
// exchange: '3D02' (are eight views ready?) and '3D01' (the eight views), from
// a folder of image files or from the synthetic demo rig. Other messages are
// logged. Ends on SIGTERM or SIGINT.
//
//   velmora-sidecam --images DIR
//   velmora-sidecam --synthetic [--seed N] [--variant K] [--force]
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "archive/property_list.h"
#include "imaging/halcon_utility.h"
#include "messaging/local_port.h"
#include "messaging/log.h"
#include "messaging/side_cam_server_controller.h"
#include "reply_json.h"
#include "side_views.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/rig_description.h"
#include "stereo/synthetic_rig.h"
#include "vision/core/exception.h"

namespace velmora::sidecam {
namespace {

int g_signal_pipe[2] = {-1, -1};

void OnSignal(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] ssize_t w = ::write(g_signal_pipe[1], &byte, 1);
  errno = saved;
}

std::string FourCC(int32_t id) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char c = static_cast<char>((static_cast<uint32_t>(id) >> shift) & 0xff);
    s += (c >= 32 && c < 127) ? c : '?';
  }
  return s;
}

// A log-friendly one-line rendering of a decoded object.
std::string OneLine(const archive::ObjectPtr& object) {
  std::string json = ToJson(object), out;
  bool skipping = false;
  for (char c : json) {
    if (c == '\n') {
      skipping = true;
      out += ' ';
    } else if (!(skipping && c == ' ')) {
      skipping = false;
      out += c;
    }
  }
  return out;
}

std::string Printable(const std::vector<uint8_t>& bytes) {
  std::string s;
  for (uint8_t b : bytes) s += (b >= 32 && b < 127) ? static_cast<char>(b) : '?';
  return s;
}

struct Options {
  std::string images;
  bool synthetic = false;
  long long seed = 1, variant = 0;
  bool force = false;
};

int Usage(const char* why) {
  if (why) std::fprintf(stderr, "velmora-sidecam: %s\n", why);
  std::fprintf(stderr,
               "usage: velmora-sidecam --images DIR\n"
               "       velmora-sidecam --synthetic [--seed N] [--variant 0..%d] [--force]\n",
               synth::kVariantCount - 1);
  return 2;
}

bool ParseNumber(const char* text, long long lo, long long hi, long long* out) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text, &end, 10);
  if (errno || end == text || *end || v < lo || v > hi) return false;
  *out = v;
  return true;
}

// The demo rig's calibration, unless the data folder already has one (or `force`).
void WriteDemoCalibration(const synth::Rig& rig, bool force) {
  const std::string path = Calibration_3D_Prefs::filePath();
  if (path.empty()) {
    Log("no data folder (set HOME or XDG_DATA_HOME): the demo calibration is not written");
    return;
  }
  if (std::filesystem::exists(path) && !force) {
    Log("keeping the calibration file %s (--force replaces it)", path.c_str());
    return;
  }
  RigDescription desc;
  for (const auto& cam : rig.cameras) desc.cameras.push_back({cam.ParamTuple(), cam.PoseTuple()});
  std::error_code ec;
  std::filesystem::create_directories(pathOfVelmora_AOI(), ec);
  Calibration_3D_Prefs prefs;
  prefs.readData();  // other keys of an existing file are kept
  try {
    if (prefs.writeData(CalibrationDictionary(SerializeRigModel(desc))))
      Log("wrote the demo rig's calibration to %s", path.c_str());
    else
      Log("cannot write the calibration file %s", path.c_str());
  } catch (const vision::HException& e) {
    Log("cannot build the demo rig's camera model: %s", e.what());
  }
}

class Server {
 public:
  explicit Server(Options options) : options_(std::move(options)) {}

  // The calibration is written before anything is served, so a client that
  // sees the port also finds the rig's calibration; rendering then runs
  // beside the port, and '3D02' says "not yet" meanwhile.
  void StartSynthetic() {
    auto rig = std::make_shared<synth::Rig>(
        synth::MakeRig(static_cast<int>(options_.variant), static_cast<uint32_t>(options_.seed)));
    WriteDemoCalibration(*rig, options_.force);
    renderer_ = std::thread([this, rig] {
      const auto start = std::chrono::steady_clock::now();
      const std::vector<cv::Mat> rendered = synth::RenderViews(*rig);
      SideViews views;
      for (int i = 0; i < kViewCount; ++i) views.argb[i] = ToArgb(rendered[i]);
      std::vector<uint8_t> reply = archive::Archive(ImagesReply(std::move(views)));
      {
        std::lock_guard<std::mutex> lock(mutex_);
        synthetic_reply_ = std::move(reply);
      }
      ready_ = true;
      Log("synthetic rig %lld (seed %lld): eight views ready after %.1f s", options_.variant, options_.seed,
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    });
  }

  bool Rendering() const { return renderer_.joinable() && !ready_; }
  void JoinRenderer() {
    if (renderer_.joinable()) renderer_.join();
  }
  void DetachRenderer() {
    if (renderer_.joinable()) renderer_.detach();
  }

  std::optional<std::vector<uint8_t>> Handle(int32_t id, const std::vector<uint8_t>& data) {
    switch (id) {
      case MessageIdSide3DCheck:
        return archive::Archive(CheckReply(Check()));
      case MessageIdSide3DImages:
        LogImagesRequest(data);
        return Images();
      case MessageIdSideReceiver:
        Log("srcv: receiver \"%s\"", Printable(data).c_str());
        return std::nullopt;
      case MessageIdSideImagesDone: {
        const auto info = archive::DecodePropertyList(data.data(), data.size());
        if (info) {
          std::string line = OneLine(info);
          if (line.size() > 2000) line = line.substr(0, 2000) + " ... (" + std::to_string(data.size()) + " bytes)";
          Log("simg: position info %s", line.c_str());
        }
        else {
          Log("simg: %zu bytes that are not a property list", data.size());
        }
        return std::nullopt;
      }
      case MessageIdSideCapture:
        Log("scap: capture requested");
        return std::nullopt;
      case MessageIdSideQuit:
        Log("quit: the client has gone");
        return std::nullopt;
      default:
        Log("unknown message '%s' (%zu bytes): not answered", FourCC(id).c_str(), data.size());
        return std::nullopt;
    }
  }

 private:
  int32_t Check() {
    if (options_.synthetic) {
      if (ready_) return kViewsReady;
      Log("3D02: the synthetic views are still being rendered");
      return kViewsNotReady;
    }
    std::string why;
    const int32_t error = CheckFolderViews(options_.images, &why);
    if (error != kViewsReady) Log("3D02: %s", why.c_str());
    return error;
  }

  std::vector<uint8_t> Images() {
    if (options_.synthetic) {
      if (!ready_) {
        Log("3D01: the synthetic views are still being rendered");
        return archive::Archive(CheckReply(kViewsNotReady));
      }
      std::lock_guard<std::mutex> lock(mutex_);
      return synthetic_reply_;
    }
    SideViews views = LoadFolderViews(options_.images);
    if (views.error != kViewsReady) Log("3D01: %s", views.message.c_str());
    return archive::Archive(ImagesReply(std::move(views)));
  }

  static void LogImagesRequest(const std::vector<uint8_t>& data) {
    if (data.empty()) return;
    try {
      const auto request = archive::Unarchive(data);
      const int64_t type = archive::ReadInt(request, kSideCalibImageType, 0);
      if (type != 0) Log("3D01: calibImageType %lld (only 0 is served)", static_cast<long long>(type));
    } catch (const archive::ArchiveError& e) {
      Log("3D01: the request is not an archive (%s)", e.what());
    }
  }

  Options options_;
  std::thread renderer_;
  std::atomic<bool> ready_{false};
  std::mutex mutex_;
  std::vector<uint8_t> synthetic_reply_;
};

int Run(int argc, char** argv) {
  Options options;
  bool images = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char* what) -> const char* {
      return i + 1 < argc ? argv[++i] : (Usage((std::string(what) + " needs a value").c_str()), nullptr);
    };
    if (a == "--images") {
      const char* v = value("--images");
      if (!v) return 2;
      options.images = v;
      images = true;
    } else if (a == "--synthetic") {
      options.synthetic = true;
    } else if (a == "--seed") {
      const char* v = value("--seed");
      if (!v) return 2;
      if (!ParseNumber(v, 0, 0xffffffffLL, &options.seed)) return Usage("--seed takes 0 to 4294967295");
    } else if (a == "--variant") {
      const char* v = value("--variant");
      if (!v) return 2;
      if (!ParseNumber(v, 0, synth::kVariantCount - 1, &options.variant)) return Usage("no such --variant");
    } else if (a == "--force") {
      options.force = true;
    } else if (a == "--help" || a == "-h") {
      Usage(nullptr);
      return 0;
    } else {
      return Usage(("unknown argument " + a).c_str());
    }
  }
  if (images == options.synthetic) return Usage("give either --images DIR or --synthetic");
  if (images && (options.force || options.seed != 1 || options.variant != 0))
    return Usage("--seed, --variant and --force belong to --synthetic");
  if (images && !std::filesystem::is_directory(options.images))
    return Usage(("no folder " + options.images).c_str());

  if (!getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QCoreApplication app(argc, argv);

  Server server(options);
  LocalPort::Error error = LocalPort::Error::kNone;
  auto port = LocalPort::Create(
      kSideCamServerPortName, [&server](int32_t id, const std::vector<uint8_t>& data) { return server.Handle(id, data); },
      &error);
  if (!port) {
    if (error == LocalPort::Error::kNameTaken)
      Log("another side-camera server owns %s: ending", kSideCamServerPortName);
    else
      Log("cannot open the port %s in %s", kSideCamServerPortName, PortDirectoryLocation().c_str());
    return 1;
  }

  if (::pipe2(g_signal_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  QSocketNotifier signal_notifier(g_signal_pipe[0], QSocketNotifier::Read);
  QObject::connect(&signal_notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });

  if (options.synthetic) {
    server.StartSynthetic();
    Log("serving %s: synthetic rig %lld, seed %lld", kSideCamServerPortName, options.variant, options.seed);
  } else {
    Log("serving %s: views from %s", kSideCamServerPortName, options.images.c_str());
  }
  app.exec();
  Log("ending");
  port.reset();  // the name is free before anything else goes
  if (server.Rendering()) {
    // Rendering cannot be interrupted; nothing of it needs saving.
    std::fflush(nullptr);
    _exit(0);
  }
  server.JoinRenderer();
  return 0;
}

}  // namespace
}  // namespace velmora::sidecam

int main(int argc, char** argv) { return velmora::sidecam::Run(argc, argv); }
