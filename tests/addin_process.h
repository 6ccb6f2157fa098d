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
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "archive/archive.h"
#include "messaging/port_client.h"
#include "messaging/protocol.h"

extern char** environ;

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
    stderr_path_ = root_ + "/stderr.log";
    ::setenv("XDG_RUNTIME_DIR", runtime_dir_.c_str(), 1);

    std::map<std::string, std::string> env;
    for (char** e = environ; *e; ++e) {
      const std::string kv = *e;
      const size_t eq = kv.find('=');
      if (eq != std::string::npos) env[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    env["XDG_RUNTIME_DIR"] = runtime_dir_;
    env["XDG_DATA_HOME"] = root_ + "/data";
    env["QT_QPA_PLATFORM"] = "offscreen";
    if (!env.count("VELMORA_VISION_DIR")) env["VELMORA_VISION_DIR"] = VELMORA_BUILD_VISION_DIR;
    env.erase("VELMORA_LAUNCH_MODIFIERS");
    env.erase("VELMORA_TEST_HOOKS");
    for (const auto& [k, v] : options.env) {
      if (v.empty()) env.erase(k);
      else env[k] = v;
    }
    std::vector<std::string> strings;
    for (const auto& [k, v] : env) strings.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& s : strings) envp.push_back(s.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderr_path_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::string exe = options.executable.empty() ? std::string(VELMORA_ADDIN_PATH) : options.executable;
    char* argv[] = {exe.data(), nullptr};
    const int rc = posix_spawn(&pid_, exe.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + exe);
    if (options.wait_for_port && !WaitForPort(15)) {
      const std::string log = Stderr();
      Kill();
      throw std::runtime_error("the add-in's request port did not appear; stderr:\n" + log);
    }
  }

  // Stops the process and removes its folders (a borrowed runtime folder stays
  // with its owner).
  ~AddinProcess() {
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  AddinProcess(const AddinProcess&) = delete;
  AddinProcess& operator=(const AddinProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& runtime_dir() const { return runtime_dir_; }
  std::string socket_path() const { return runtime_dir_ + "/velmora/" + kRequestPortName + ".sock"; }

  // True once the launch line is logged and the request port answers.
  bool WaitForPort(double seconds) {
    const auto deadline = Clock::now() + ToDuration(seconds);
    while (Clock::now() < deadline) {
      if (Exited()) return false;
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

  // The body of an enveloped reply, after checking magic and length field.
  static std::optional<Bytes> CheckedEnvelopeBody(const Bytes& block) {
    std::optional<Bytes> body = EnvelopeBody(block);
    if (!body) throw std::runtime_error("reply without envelope");
    const uint32_t length = static_cast<uint32_t>(block[4] | (block[5] << 8) | (block[6] << 16) |
                                                  (static_cast<uint32_t>(block[7]) << 24));
    if (length != block.size()) throw std::runtime_error("envelope length field disagrees with the block");
    return body;
  }

  std::string Stderr() const {
    std::ifstream in(stderr_path_);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  bool WaitForLog(const std::string& text, double seconds) const {
    const auto deadline = Clock::now() + ToDuration(seconds);
    do {
      if (Stderr().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (Clock::now() < deadline);
    return false;
  }

  void Signal(int sig) const {
    if (pid_ > 0 && !exit_status_) ::kill(pid_, sig);
  }

  // The exit status (as waitpid reports it) once the process has ended within
  // `seconds`; nullopt while it runs.
  std::optional<int> WaitExit(double seconds) {
    const auto deadline = Clock::now() + ToDuration(seconds);
    do {
      if (Exited()) return exit_status_;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (Clock::now() < deadline);
    return Exited() ? exit_status_ : std::nullopt;
  }

  // SIGTERM, then SIGKILL if it has not ended within 10 s. Returns the status.
  std::optional<int> Stop() {
    if (pid_ <= 0) return exit_status_;
    Signal(SIGTERM);
    if (!WaitExit(10)) Kill();
    return exit_status_;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static Clock::duration ToDuration(double s) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
  }

  bool Exited() {
    if (exit_status_) return true;
    if (pid_ <= 0) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      exit_status_ = status;
      return true;
    }
    return false;
  }

  void Kill() {
    if (pid_ <= 0 || Exited()) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    exit_status_ = status;
  }

  pid_t pid_ = -1;
  std::optional<int> exit_status_;
  std::string root_, runtime_dir_, stderr_path_;
};

}  // namespace velmora::testing
