#pragma once
// Runs the real add-in in a private port folder and sends it preview
// requests (103) over its request port. Shared by the end-to-end test and the
// preview benchmark.
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "archive/archive.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"

extern char** environ;

namespace velmora::preview_test {

// A marking: rows of dark "characters" (bars with a gap) on a light ground
// with a gentle left-to-right shading, as 8-bit RGB.
inline archive::RawBitmap Marking(int width, int height) {
  archive::RawBitmap bm;
  bm.width = width;
  bm.height = height;
  bm.samples_per_pixel = 3;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = size_t(3 * width);
  bm.data.resize(bm.bytes_per_row * size_t(height));
  const int cell = std::max(6, width / 40);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const bool ink = y >= height / 3 && y < 2 * height / 3 && (x / cell) % 3 == 1 &&
                       x >= width / 10 && x < width - width / 10;
      const uint8_t v = ink ? 25 : uint8_t(195 + (x * 40) / width);
      for (int k = 0; k < 3; ++k) bm.data[size_t(y) * bm.bytes_per_row + size_t(3 * x + k)] = v;
    }
  return bm;
}

// The request body of 103: envelope + archive of {"messageId", "image", "attribute"}.
inline std::vector<uint8_t> PreviewRequest(const archive::ObjectPtr& image,
                                           const archive::ObjectPtr& attribute) {
  auto d = archive::MakeDictionary();
  d->Set("messageId", archive::MakeInt32(int32_t(RequestOcrFilteredImage)));
  if (image) d->Set("image", image);
  if (attribute) d->Set("attribute", attribute);
  return Envelope(archive::Archive(d));
}

class Addin {
 public:
  // Starts the add-in with its own port folder; throws when it does not come up.
  Addin() {
    char tmpl[] = "/tmp/velmora-preview-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    if (!getenv("VELMORA_VISION_DIR")) setenv("VELMORA_VISION_DIR", VELMORA_BUILD_VISION_DIR, 1);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    const char* argv[] = {VELMORA_ADDIN_PATH, nullptr};
    if (posix_spawn(&pid_, VELMORA_ADDIN_PATH, nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
      throw std::runtime_error("cannot start the add-in");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < deadline) {
      auto d = archive::MakeDictionary();
      d->Set("messageId", archive::MakeInt32(int32_t(RequestLibraryStatus)));
      if (Send(Envelope(archive::Archive(d))).has_value()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Stop();
    throw std::runtime_error("the add-in's request port did not appear");
  }
  ~Addin() { Stop(); }
  Addin(const Addin&) = delete;
  Addin& operator=(const Addin&) = delete;

  pid_t pid() const { return pid_; }

  // One 'data' exchange; nullopt on a transport failure, else the reply
  // (not present when the add-in gave none).
  std::optional<PortReply> Send(const std::vector<uint8_t>& block) {
    PortReply reply;
    PortSendOptions opt;
    opt.receive_timeout = kLongReceiveTimeoutSeconds;
    if (SendPortRequest(kRequestPortName, MessageIdData, block.data(), block.size(), opt, &reply) !=
        kPortSuccess)
      return std::nullopt;
    return reply;
  }

 private:
  void Stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      waitpid(pid_, &status, 0);
      pid_ = -1;
    }
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
  }

  pid_t pid_ = -1;
  std::string dir_;
};

}  // namespace velmora::preview_test
