#pragma once
// Runs one of the project's programs (the add-in, the side-camera server,
// velmora-3d) as a child process for end-to-end tests and benchmarks: its own
// environment changes, standard output and error captured in files, signals,
// exit status.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace velmora::testing {

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class ChildProcess {
 public:
  // `env`: variables to set (an empty value removes one). Output files go to
  // `log_dir`.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::map<std::string, std::string>& env, const std::string& log_dir) {
    static int counter = 0;
    const std::string stem = log_dir + "/child" + std::to_string(++counter);
    stdout_path_ = stem + ".out";
    stderr_path_ = stem + ".err";
    std::map<std::string, std::string> all;
    for (char** e = environ; *e; ++e) {
      const std::string kv = *e;
      const size_t eq = kv.find('=');
      if (eq != std::string::npos) all[kv.substr(0, eq)] = kv.substr(eq + 1);
    }
    for (const auto& [k, v] : env) {
      if (v.empty()) all.erase(k);
      else all[k] = v;
    }
    std::vector<std::string> strings;
    for (const auto& [k, v] : all) strings.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& s : strings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> argv_strings = {program};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : argv_strings) argv.push_back(s.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdout_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int rc = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + program);
  }
  ~ChildProcess() { Stop(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::string Stdout() const { return ReadText(stdout_path_); }
  std::string Stderr() const { return ReadText(stderr_path_); }

  bool WaitForLog(const std::string& text, double seconds) {
    const auto deadline = Clock::now() + ToDuration(seconds);
    do {
      if (Stderr().find(text) != std::string::npos) return true;
      if (Exited()) return Stderr().find(text) != std::string::npos;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (Clock::now() < deadline);
    return false;
  }

  void Signal(int sig) {
    if (pid_ > 0 && !Exited()) ::kill(pid_, sig);
  }

  // The exit status as waitpid reports it, once ended within `seconds`.
  std::optional<int> WaitExit(double seconds) {
    const auto deadline = Clock::now() + ToDuration(seconds);
    do {
      if (Exited()) return status_;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (Clock::now() < deadline);
    return Exited() ? status_ : std::nullopt;
  }

  bool Exited() {
    if (status_) return true;
    if (pid_ <= 0) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = status;
      return true;
    }
    return false;
  }

  // SIGTERM, then SIGKILL after 10 s.
  std::optional<int> Stop() {
    if (pid_ <= 0) return status_;
    Signal(SIGTERM);
    if (!WaitExit(10) && !Exited()) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      status_ = status;
    }
    return status_;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static Clock::duration ToDuration(double s) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
  }
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string stdout_path_, stderr_path_;
};

// The exit code of a process (a ChildProcess or an AddinProcess) that ends by
// itself within `seconds`; -1 while it runs or when a signal ended it.
template <class Process>
int ExitCode(Process& process, double seconds) {
  const std::optional<int> status = process.WaitExit(seconds);
  return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

// A private runtime folder (ports) and data folder for one test, under a
// scratch root; all removed at the end.
struct PrivateFolders {
  PrivateFolders() {
    char tmpl[] = "/tmp/velmora-rig-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    root = tmpl;
    runtime = root + "/run";
    data = root + "/data";
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
    std::filesystem::create_directories(data);
  }
  ~PrivateFolders() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }
  std::map<std::string, std::string> Env() const {
    return {{"XDG_RUNTIME_DIR", runtime}, {"XDG_DATA_HOME", data}};
  }
  std::string root, runtime, data;
};

// A program run to its end in `folders`: its exit code (-1 when it did not
// exit by itself within `timeout_s`), standard output and error.
struct RunResult {
  int exit_code;
  std::string out, err;
};
inline RunResult RunToEnd(const std::string& program, const std::vector<std::string>& args,
                          const PrivateFolders& folders, int timeout_s) {
  ChildProcess p(program, args, folders.Env(), folders.root);
  return {ExitCode(p, timeout_s), p.Stdout(), p.Stderr()};  // in this order: the output once ended
}

}  // namespace velmora::testing
