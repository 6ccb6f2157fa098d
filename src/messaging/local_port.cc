#include "messaging/local_port.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>

#include "messaging/log.h"
#include "messaging/port_io.h"

namespace velmora {

namespace {
// A request's buffer starts at this size and at most doubles per step.
constexpr size_t kFirstChunk = size_t(64) << 10;
}  // namespace

struct LocalPort::Connection {
  explicit Connection(std::shared_ptr<size_t> total) : pending_total(std::move(total)) {}
  // Gives its share of the pending-memory bound back (the port may be gone).
  ~Connection() { *pending_total -= data.capacity(); }
  std::shared_ptr<size_t> pending_total;
  UniqueFd fd;
  int pid = 0;
  uint8_t header[wire::kRequestHeaderSize] = {};
  size_t header_got = 0;
  bool header_done = false;
  uint32_t length = 0;  // announced by the header
  std::vector<uint8_t> data;
  size_t data_got = 0;
  const char* failure = nullptr;  // why pump() gave up, for the request log
  std::chrono::steady_clock::time_point deadline;
  // Declared after fd so that it is disabled before the descriptor closes.
  std::unique_ptr<QSocketNotifier, NotifierDeleter> notifier;
};

// A notifier may be destroyed from inside its own signal; deleteLater keeps
// that safe, and disabling it first stops it from watching a closed descriptor.
void LocalPort::NotifierDeleter::operator()(QSocketNotifier* n) const {
  n->setEnabled(false);
  n->deleteLater();
}

std::unique_ptr<LocalPort> LocalPort::Create(const std::string& name, Callback callback, Error* error) {
  Error ignored;
  Error& why = error ? *error : ignored;
  why = Error::kUnusable;
  const std::string lock_path = PortPath(name, ".lock", true);
  const std::string socket_path = PortPath(name, ".sock", true);
  if (lock_path.empty() || socket_path.empty()) return nullptr;

  UniqueFd lock(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock.valid()) return nullptr;
  if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) why = Error::kNameTaken;
    return nullptr;
  }

  // Holding the lock makes us the owner: whatever socket file is left belongs
  // to a process that has died.
  ::unlink(socket_path.c_str());
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener.valid()) return nullptr;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener.get(), SOMAXCONN) != 0) {
    ::unlink(socket_path.c_str());
    return nullptr;
  }

  why = Error::kNone;
  std::unique_ptr<LocalPort> port(new LocalPort(name, std::move(callback)));
  port->socket_path_ = socket_path;
  port->lock_fd_ = std::move(lock);
  port->listen_fd_ = std::move(listener);
  port->listen_notifier_.reset(new QSocketNotifier(port->listen_fd_.get(), QSocketNotifier::Read));
  LocalPort* self = port.get();
  QObject::connect(port->listen_notifier_.get(), &QSocketNotifier::activated, port->context_.get(),
                   [self] { self->acceptPending(); });
  return port;
}

LocalPort::LocalPort(std::string name, Callback callback)
    : name_(std::move(name)), callback_(std::move(callback)), context_(std::make_unique<QObject>()) {}

LocalPort::~LocalPort() {
  context_.reset();
  listen_notifier_.reset();
  pending_.clear();
  if (listen_fd_.valid()) {
    ::unlink(socket_path_.c_str());
    listen_fd_.reset();
  }
  // lock_fd_ closes last, releasing the name.
}

// Requests that have arrived in full on earlier connections go first: a client
// that sends two messages in a row must see them served in that order.
bool LocalPort::servePendingInOrder() {
  const std::weak_ptr<int> alive = alive_;
  // Looked up afresh each time: serving one may change the others.
  uint64_t next = 0;
  for (auto it = pending_.lower_bound(next); it != pending_.end(); it = pending_.lower_bound(next)) {
    next = it->first + 1;
    onReadable(it->first, false);
    if (alive.expired()) return false;
  }
  return true;
}

void LocalPort::acceptPending() {
  const std::weak_ptr<int> alive = alive_;
  if (!servePendingInOrder()) return;
  for (;;) {
    const int raw = ::accept4(listen_fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (raw < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;  // EAGAIN: nothing more queued
    }
    UniqueFd fd(raw);
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(raw, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != geteuid()) {
      if (RequestLogEnabled()) Log("request log: pid %d refused: another user's process", int(cred.pid));
      continue;  // another user's process: closed unanswered
    }
    auto c = std::make_unique<Connection>(pending_bytes_);
    c->fd = std::move(fd);
    c->pid = cred.pid;
    if (may_serve_ && !may_serve_()) {
      refuse(*c, "the add-in is ending");
      return;  // the rest wait in the backlog and go with the listener
    }
    c->deadline = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                      std::chrono::duration<double>(read_timeout_));
    // Clients write right after connecting, so the request is usually there
    // already; serving it at once saves a trip through the event loop.
    switch (pump(*c)) {
      case Progress::kComplete:
        finish(std::move(c));
        if (alive.expired()) return;
        break;
      case Progress::kPending:
        watch(std::move(c));
        break;
      case Progress::kFailed:
        refuse(*c, c->failure);
        break;
    }
  }
}

void LocalPort::releaseCurrentRequestData() {
  if (!current_) return;
  *current_->pending_total -= current_->data.capacity();
  std::vector<uint8_t>().swap(current_->data);
}

void LocalPort::refuse(const Connection& c, const char* why) {
  if (!why || !RequestLogEnabled()) return;
  if (c.header_done)
    Log("request log: pid %d refused: %s (%zu of %u bytes received)", c.pid, why, c.data_got, c.length);
  else
    Log("request log: pid %d refused: %s", c.pid, why);
}

LocalPort::Progress LocalPort::pump(Connection& c) {
  for (;;) {
    uint8_t* dst;
    size_t want;
    if (!c.header_done) {
      dst = c.header + c.header_got;
      want = sizeof c.header - c.header_got;
    } else {
      dst = c.data.data() + c.data_got;
      want = c.data.size() - c.data_got;
    }
    if (want > 0) {
      const ssize_t r = ::recv(c.fd.get(), dst, want, MSG_DONTWAIT);
      if (r == 0) {
        c.failure = "closed by the client before the request was complete";
        return Progress::kFailed;
      }
      if (r < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Progress::kPending;
        c.failure = "receive error";
        return Progress::kFailed;
      }
      (c.header_done ? c.data_got : c.header_got) += static_cast<size_t>(r);
      continue;
    }
    if (c.header_done) {
      if (c.data_got == c.length) return Progress::kComplete;
      // The buffer is full but the request is not: grow it for the bytes that
      // keep coming. Never to what the header announces at once, so that a
      // client that announces much and sends little costs little.
      const size_t grown = std::min<size_t>(c.length, std::max(kFirstChunk, 2 * c.data.size()));
      const size_t extra = grown - c.data.capacity();
      if (*pending_bytes_ + extra > pending_budget_) {
        c.failure = "requests in progress would pass the memory bound";
        return Progress::kFailed;
      }
      try {
        c.data.reserve(grown);  // exactly this much: resize alone may take twice the size
        c.data.resize(grown);
      } catch (const std::bad_alloc&) {
        Log("message port %s: no memory for a request of %u bytes", name_.c_str(), c.length);
        c.failure = "out of memory";
        return Progress::kFailed;
      }
      *pending_bytes_ += extra;
      continue;
    }
    if (std::memcmp(c.header, wire::kRequestMagic, 4) != 0) {
      c.failure = "bad magic";
      return Progress::kFailed;
    }
    c.length = wire::GetU32(c.header + 12);
    if (c.length > kPortMaxFrameLength) {
      c.failure = "oversized frame";
      return Progress::kFailed;
    }
    c.header_done = true;
  }
}

void LocalPort::watch(std::unique_ptr<Connection> c) {
  const uint64_t id = next_id_++;
  c->notifier.reset(new QSocketNotifier(c->fd.get(), QSocketNotifier::Read));
  QObject::connect(c->notifier.get(), &QSocketNotifier::activated, context_.get(),
                   [this, id] { onReadable(id, false); });
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      c->deadline - std::chrono::steady_clock::now());
  QTimer::singleShot(std::max<int64_t>(0, left.count()) + 1, context_.get(),
                     [this, id] { onReadable(id, true); });
  pending_.emplace(id, std::move(c));
}

void LocalPort::onReadable(uint64_t id, bool deadline_passed) {
  const auto it = pending_.find(id);
  if (it == pending_.end()) return;  // already served or dropped
  Connection& c = *it->second;
  const Progress progress = pump(c);
  if (progress == Progress::kPending && !deadline_passed &&
      std::chrono::steady_clock::now() < c.deadline)
    return;
  std::unique_ptr<Connection> done = std::move(it->second);
  pending_.erase(it);
  // Incomplete at the deadline, or broken: closed without a reply.
  if (progress == Progress::kComplete) finish(std::move(done));
  else refuse(*done, progress == Progress::kPending ? "timeout" : done->failure);
}

void LocalPort::finish(std::unique_ptr<Connection> c) {
  const int32_t msgid = static_cast<int32_t>(wire::GetU32(c->header + 4));
  const bool want_reply = (wire::GetU32(c->header + 8) & wire::kFlagWantReply) != 0;
  c->notifier.reset();
  if (may_serve_ && !may_serve_()) {
    refuse(*c, "the add-in is ending");
    return;
  }

  std::optional<std::vector<uint8_t>> reply;
  if (callback_) {
    current_pid_ = c->pid;
    current_ = c.get();
    const std::weak_ptr<int> alive = alive_;
    struct ClearPid {
      LocalPort* port;
      const std::weak_ptr<int>& alive;
      ~ClearPid() {
        if (alive.expired()) return;
        port->current_pid_ = 0;
        port->current_ = nullptr;
      }
    } clear_pid{this, alive};
    try {
      reply = callback_(msgid, c->data);
    } catch (const std::exception& e) {
      Log("message port %s: request failed: %s", name_.c_str(), e.what());
      reply.reset();
    } catch (...) {
      Log("message port %s: request failed", name_.c_str());
      reply.reset();
    }
  }
  *c->pending_total -= c->data.capacity();
  std::vector<uint8_t>().swap(c->data);  // the request's memory goes before the reply is sent
  if (!want_reply) return;

  uint8_t header[wire::kReplyHeaderSize];
  std::memcpy(header, wire::kReplyMagic, 4);
  wire::PutU32(header + 4, reply ? 1u : 0u);
  const size_t length = reply ? reply->size() : 0;
  if (length > kPortMaxFrameLength) {
    Log("message port: reply of %zu bytes exceeds the frame limit", length);
    return;
  }
  wire::PutU32(header + 8, static_cast<uint32_t>(length));
  if (length > portio::kLargeTransfer) {
    // On Unix stream sockets the sender's buffer bounds what is in flight.
    const int size = portio::kLargeSocketBuffer;
    ::setsockopt(c->fd.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }
  // The client is waiting for this, so a blocking write is short; a client
  // that stops reading is given up after the send timeout.
  const portio::Deadline deadline(kSendTimeoutSeconds);
  portio::WriteAll(c->fd.get(), header, sizeof header, reply ? reply->data() : nullptr, length,
                   deadline);
}

}  // namespace velmora
