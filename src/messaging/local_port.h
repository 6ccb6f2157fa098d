#pragma once
// The server half of a named message port, served on the Qt event loop of the
// thread that creates it. Each connection carries one request; it is read to
// its end without blocking the loop (a slow client only delays itself), then
// handed to the callback on that thread, and the reply is written back.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <map>
#include <vector>

#include "messaging/port_client.h"
#include "messaging/unique_fd.h"

class QObject;
class QSocketNotifier;

namespace velmora {

class LocalPort {
 public:
  // Returns the reply block, or nullopt for "no reply".
  using Callback =
      std::function<std::optional<std::vector<uint8_t>>(int32_t msgid, const std::vector<uint8_t>& data)>;

  // Registers `name` for this process. Null when another process (or this one)
  // holds the name, or the port folder is unusable. A null callback makes a port
  // that only marks the name: requests are read and answered with "no reply".
  enum class Error { kNone, kNameTaken, kUnusable };
  static std::unique_ptr<LocalPort> Create(const std::string& name, Callback callback,
                                           Error* error = nullptr);

  // Unregisters the name: the socket file is removed while the lock is still
  // held, so a new owner never loses its fresh socket to our cleanup.
  ~LocalPort();
  LocalPort(const LocalPort&) = delete;
  LocalPort& operator=(const LocalPort&) = delete;

  const std::string& name() const { return name_; }
  // How long a client may take to deliver its request in full (default: the
  // send timeout, 5 s).
  void setReadTimeout(double seconds) { read_timeout_ = seconds; }
  // Memory for requests still arriving, all connections together. A request's
  // buffer grows with the bytes that came, never to what its header only
  // announces; a connection whose next bytes would pass the bound is closed
  // unanswered (logged with the request log). At least one frame of the
  // largest size fits.
  static constexpr size_t kDefaultPendingBudget = size_t(768) << 20;
  void setPendingBudget(size_t bytes) { pending_budget_ = bytes; }
  size_t pendingBytes() const { return *pending_bytes_; }
  // Asked before each request is served and each connection accepted: false
  // closes them unanswered (the process is ending).
  void setServeGate(std::function<bool()> may_serve) { may_serve_ = std::move(may_serve); }
  // The process id of the client whose request the callback is serving (0
  // outside the callback or when unknown).
  int currentPeerPid() const { return current_pid_; }
  // Frees the data block of the request the callback is serving: a callback
  // that has decoded it calls this so that a large request's bytes are not
  // held for the whole service. The block the callback was given reads as
  // empty afterwards.
  void releaseCurrentRequestData();

 private:
  struct Connection;
  enum class Progress { kComplete, kPending, kFailed };

  LocalPort(std::string name, Callback callback);
  void acceptPending();
  bool servePendingInOrder();
  Progress pump(Connection& c);
  void refuse(const Connection& c, const char* why);
  void watch(std::unique_ptr<Connection> c);
  void onReadable(uint64_t id, bool deadline_passed);
  void finish(std::unique_ptr<Connection> c);

  std::string name_;
  std::string socket_path_;
  Callback callback_;
  double read_timeout_ = kSendTimeoutSeconds;
  size_t pending_budget_ = kDefaultPendingBudget;
  std::shared_ptr<size_t> pending_bytes_ = std::make_shared<size_t>(0);
  std::function<bool()> may_serve_;
  int current_pid_ = 0;
  Connection* current_ = nullptr;  // the connection being served
  UniqueFd lock_fd_;
  UniqueFd listen_fd_;
  uint64_t next_id_ = 1;
  // Ordered by arrival, so that requests are served in the order they came.
  std::map<uint64_t, std::unique_ptr<Connection>> pending_;
  // Lets loops notice that a callback destroyed the port under them.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  // Owner of every signal connection; destroying it cancels them all.
  std::unique_ptr<QObject> context_;
  struct NotifierDeleter {
    void operator()(QSocketNotifier* n) const;
  };
  std::unique_ptr<QSocketNotifier, NotifierDeleter> listen_notifier_;
};

}  // namespace velmora
