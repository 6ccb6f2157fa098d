#pragma once
// Runs the real VelmoraAddin for an end-to-end test and talks to it over its
// request port.
//
//   velmora::testing::AddinProcess addin;            // starts, waits for the port
//   auto reply = addin.Request(RequestLibraryStatus); // 'data' request, archive reply
//   EXPECT_TRUE(archive::ReadBool(reply.value(), "isHalconExist"));
//   addin.Stop();                                     // SIGTERM; the destructor does it too
//
// Each instance gets its own temporary XDG_RUNTIME_DIR (so its own port
// folder) and XDG_DATA_HOME. The constructor points this test process's
// XDG_RUNTIME_DIR at the same folder, so the plain send functions
// (SendMessageWait, SendPortRequest) reach this add-in too; run one
// AddinProcess at a time. The add-in's standard error goes to a file that
// Stderr() / WaitForLog() read.
//
// Needs the compile definition VELMORA_ADDIN_PATH (velmora_test() gives it)
// and the libraries velmora_client and archive.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "archive/archive.h"
#include "child_process.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"

namespace velmora::testing {

using Bytes = std::vector<uint8_t>;

class AddinProcess {
 public:
  struct Options {
    // Extra or replaced environment variables of the add-in; an empty value
    // removes the variable.
    std::map<std::string, std::string> env;
    // Wait until the request port answers (false: for a process expected to
    // end at once, such as a second instance).
    bool wait_for_port = true;
    // Run in this runtime folder instead of a new one (a second instance).
    std::string runtime_dir;
    // Run this executable instead of the built add-in (an installed copy).
    std::string executable;
  };

  AddinProcess() : AddinProcess(Options{}) {}
  explicit AddinProcess(const Options& options) {
    char tmpl[] = "/tmp/velmora-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    runtime_dir_ = options.runtime_dir.empty() ? root_ + "/run" : options.runtime_dir;
    std::filesystem::create_directories(runtime_dir_);
    // A runtime folder is private to its user, as Qt and the port folder expect.
    std::filesystem::permissions(runtime_dir_, std::filesystem::perms::owner_all);
    std::filesystem::create_directories(root_ + "/data");
    ::setenv("XDG_RUNTIME_DIR", runtime_dir_.c_str(), 1);
    // The launch switches start unset, whatever this process's environment says.
    std::map<std::string, std::string> env = {{"XDG_RUNTIME_DIR", runtime_dir_},
                                              {"XDG_DATA_HOME", root_ + "/data"},
                                              {"QT_QPA_PLATFORM", "offscreen"},
                                              {"VELMORA_LAUNCH_MODIFIERS", ""},
                                              {"VELMORA_TEST_HOOKS", ""}};
    if (!std::getenv("VELMORA_VISION_DIR")) env["VELMORA_VISION_DIR"] = VELMORA_BUILD_VISION_DIR;
    for (const auto& [k, v] : options.env) env[k] = v;
    const std::string exe = options.executable.empty() ? std::string(VELMORA_ADDIN_PATH) : options.executable;
    child_ = std::make_unique<ChildProcess>(exe, std::vector<std::string>{}, env, root_);
    if (options.wait_for_port && !WaitForPort(15))
      throw std::runtime_error("the add-in's request port did not appear; stderr:\n" + Stderr());
  }

  // Stops the process and removes its folders (a borrowed runtime folder stays
  // with its owner).
  ~AddinProcess() {
    child_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  AddinProcess(const AddinProcess&) = delete;
  AddinProcess& operator=(const AddinProcess&) = delete;

  pid_t pid() const { return child_->pid(); }
  const std::string& runtime_dir() const { return runtime_dir_; }
  std::string socket_path() const { return runtime_dir_ + "/velmora/" + kRequestPortName + ".sock"; }

  // True once the launch line is logged and the request port answers.
  bool WaitForPort(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
      if (child_->Exited()) return false;
      if (Stderr().find("launch-") != std::string::npos) {
        PortReply reply;
        PortSendOptions o;
        o.receive_timeout = 2;
        // An unknown message id is answered with "no reply" and changes nothing.
        if (SendPortRequest(kRequestPortName, FourCharCode("ping"), nullptr, 0, o, &reply) == kPortSuccess)
          return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  // One raw exchange on the request port.
  int32_t Send(int32_t msgid, const Bytes& data, PortReply* reply, double receive_timeout = 30) {
    PortSendOptions o;
    o.receive_timeout = receive_timeout;
    return SendPortRequest(kRequestPortName, msgid, data.data(), data.size(), o, reply);
  }

  // A 'data' request of {"messageId": number, plus `fields`}; the reply's
  // envelope is checked (magic, length field = block size) and its archive
  // decoded. nullopt when there was no reply; throws on a transport failure
  // or a malformed envelope.
  std::optional<archive::ObjectPtr> Request(
      uint64_t number, const std::vector<std::pair<std::string, archive::ObjectPtr>>& fields = {}) {
    auto dict = archive::MakeDictionary();
    dict->Set("messageId", archive::MakeInt64(static_cast<int64_t>(number)));
    for (const auto& [k, v] : fields) dict->Set(k, v);
    PortReply reply;
    const int32_t status = Send(MessageIdData, Envelope(archive::Archive(dict)), &reply);
    if (status != kPortSuccess) throw std::runtime_error("send failed: status " + std::to_string(status));
    if (!reply.present) return std::nullopt;
    const std::optional<Bytes> body = CheckedEnvelopeBody(reply.data);
    return body->empty() ? archive::ObjectPtr{} : archive::Unarchive(*body);
  }

  // Whether request 1 is answered, with the library flag a boolean number
  // saying yes (the build tree's library folder is there): the add-in serves.
  bool Serving() {
    const std::optional<archive::ObjectPtr> reply = Request(RequestLibraryStatus);
    const auto flag = reply ? archive::AsNumber(archive::ReadObject(*reply, "isHalconExist")) : nullptr;
    return flag && flag->type() == 'c' && flag->AsBool();
  }

  // The body of an enveloped reply, after checking magic and length field.
  static std::optional<Bytes> CheckedEnvelopeBody(const Bytes& block) {
    std::optional<Bytes> body = EnvelopeBody(block);
    if (!body) throw std::runtime_error("reply without envelope");
    const uint32_t length = static_cast<uint32_t>(block[4] | (block[5] << 8) | (block[6] << 16) |
                                                  (static_cast<uint32_t>(block[7]) << 24));
    if (length != block.size()) throw std::runtime_error("envelope length field disagrees with the block");
    return body;
  }

  std::string Stderr() const { return child_->Stderr(); }
  bool WaitForLog(const std::string& text, double seconds) const { return child_->WaitForLog(text, seconds); }
  void Signal(int sig) const { child_->Signal(sig); }
  // The exit status (as waitpid reports it) once the process has ended within
  // `seconds`; nullopt while it runs.
  std::optional<int> WaitExit(double seconds) { return child_->WaitExit(seconds); }
  // SIGTERM, then SIGKILL if it has not ended within 10 s. Returns the status.
  std::optional<int> Stop() { return child_->Stop(); }

 private:
  std::unique_ptr<ChildProcess> child_;
  std::string root_, runtime_dir_;
};

}  // namespace velmora::testing
