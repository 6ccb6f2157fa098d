#include "messaging/port_client.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "messaging/port_io.h"
#include "messaging/unique_fd.h"

namespace velmora {

std::string PortDirectoryLocation() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return (runtime && *runtime) ? std::string(runtime) + "/velmora" : "/tmp/velmora-" + std::to_string(geteuid());
}

std::string PortDirectory(bool create) {
  const std::string dir = PortDirectoryLocation();
  if (create && ::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return {};
  struct stat st {};
  // lstat: a symlink planted in /tmp must not redirect our sockets elsewhere.
  if (::lstat(dir.c_str(), &st) != 0) return {};
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) return {};
  return dir;
}

std::string PortPath(const std::string& name, const char* suffix, bool create_directory) {
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") return {};
  const std::string dir = PortDirectory(create_directory);
  if (dir.empty()) return {};
  std::string path = dir + "/" + name + suffix;
  if (path.size() >= sizeof(sockaddr_un::sun_path)) return {};
  return path;
}

namespace portio {

Deadline::Deadline(double seconds)
    : end_(std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(seconds > 0 ? seconds : 0))) {}

int Deadline::RemainingMs() const {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      end_ - std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  // Round up so that a wait never ends a hair before the deadline and spins.
  return left.count() > 1'000'000 ? 1'000'000 : static_cast<int>(left.count()) + 1;
}

bool Deadline::Passed() const { return std::chrono::steady_clock::now() >= end_; }

IoResult WaitReady(int fd, short events, const Deadline& deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    const int r = ::poll(&p, 1, deadline.RemainingMs());
    if (r > 0) return IoResult::kDone;
    if (r == 0) {
      if (deadline.Passed()) return IoResult::kTimeout;
      continue;
    }
    if (errno != EINTR) return IoResult::kError;
  }
}

IoResult WriteAll(int fd, const void* head, size_t head_len, const void* body, size_t body_len,
                  const Deadline& deadline) {
  const uint8_t* parts[2] = {static_cast<const uint8_t*>(head), static_cast<const uint8_t*>(body)};
  size_t lens[2] = {head_len, body_len};
  for (;;) {
    iovec iov[2];
    int count = 0;
    for (int i = 0; i < 2; ++i) {
      if (lens[i] > 0) iov[count++] = {const_cast<uint8_t*>(parts[i]), lens[i]};
    }
    if (count == 0) return IoResult::kDone;
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    const ssize_t w = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (w < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        const IoResult r = WaitReady(fd, POLLOUT, deadline);
        if (r != IoResult::kDone) return r;
        continue;
      }
      return errno == EPIPE || errno == ECONNRESET ? IoResult::kClosed : IoResult::kError;
    }
    size_t done = static_cast<size_t>(w);
    for (int i = 0; i < 2 && done > 0; ++i) {
      const size_t take = done < lens[i] ? done : lens[i];
      parts[i] += take;
      lens[i] -= take;
      done -= take;
    }
  }
}

IoResult ReadAll(int fd, void* buffer, size_t length, const Deadline& deadline) {
  auto* p = static_cast<uint8_t*>(buffer);
  while (length > 0) {
    const ssize_t r = ::recv(fd, p, length, MSG_DONTWAIT);
    if (r > 0) {
      p += r;
      length -= static_cast<size_t>(r);
      continue;
    }
    if (r == 0) return IoResult::kClosed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      const IoResult w = WaitReady(fd, POLLIN, deadline);
      if (w != IoResult::kDone) return w;
      continue;
    }
    return errno == ECONNRESET ? IoResult::kClosed : IoResult::kError;
  }
  return IoResult::kDone;
}

}  // namespace portio

bool PortIsRegistered(const std::string& name) {
  const std::string path = PortPath(name, ".sock", false);
  if (path.empty()) return false;
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  // The server drops a connection that closes before a request: no trace left.
  return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 || errno == EAGAIN;
}

int32_t SendPortRequest(const std::string& name, int32_t msgid, const void* bytes, size_t length,
                        const PortSendOptions& options, PortReply* reply) {
  using portio::IoResult;
  if (reply) *reply = PortReply{};
  if (length > kPortMaxFrameLength || (length > 0 && bytes == nullptr)) return kPortTransportError;
  const std::string path = PortPath(name, ".sock", false);
  if (path.empty()) return kPortSendTimeout;  // no such port

  const portio::Deadline send_deadline(options.send_timeout);
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return kPortTransportError;
  // A blocking connect waits while the server's backlog is full; bound that wait.
  const double st = options.send_timeout > 0 ? options.send_timeout : 0.001;
  timeval tv{static_cast<time_t>(st), static_cast<suseconds_t>((st - static_cast<time_t>(st)) * 1e6)};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    if (errno == EINTR && !send_deadline.Passed()) continue;
    // No socket file or nobody listening: the port does not exist. A full backlog
    // until the send timeout is a send timeout; both read -1.
    if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR || errno == EAGAIN ||
        errno == ETIMEDOUT || errno == EINTR)
      return kPortSendTimeout;
    return kPortTransportError;
  }

  if (length > portio::kLargeTransfer) {
    // Fewer, larger hand-overs to the server for big payloads.
    const int size = portio::kLargeSocketBuffer;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }
  uint8_t header[wire::kRequestHeaderSize];
  std::memcpy(header, wire::kRequestMagic, 4);
  wire::PutU32(header + 4, static_cast<uint32_t>(msgid));
  wire::PutU32(header + 8, options.want_reply ? wire::kFlagWantReply : 0u);
  wire::PutU32(header + 12, static_cast<uint32_t>(length));
  switch (portio::WriteAll(fd.get(), header, sizeof header, bytes, length, send_deadline)) {
    case IoResult::kDone: break;
    case IoResult::kTimeout: return kPortSendTimeout;
    case IoResult::kClosed: return kPortBecameInvalid;
    case IoResult::kError: return kPortTransportError;
  }
  if (!options.want_reply) return kPortSuccess;

  const portio::Deadline receive_deadline(options.receive_timeout);
  auto fail = [](IoResult r) {
    return r == IoResult::kTimeout ? kPortReceiveTimeout
           : r == IoResult::kClosed ? kPortBecameInvalid
                                    : kPortTransportError;
  };
  uint8_t rheader[wire::kReplyHeaderSize];
  if (IoResult r = portio::ReadAll(fd.get(), rheader, sizeof rheader, receive_deadline);
      r != IoResult::kDone)
    return fail(r);
  if (std::memcmp(rheader, wire::kReplyMagic, 4) != 0) return kPortTransportError;
  const bool present = wire::GetU32(rheader + 4) != 0;
  const uint32_t reply_length = wire::GetU32(rheader + 8);
  if (reply_length > kPortMaxFrameLength) return kPortTransportError;
  std::vector<uint8_t> data;
  try {
    data.resize(reply_length);
  } catch (const std::bad_alloc&) {
    return kPortTransportError;
  }
  if (IoResult r = portio::ReadAll(fd.get(), data.data(), data.size(), receive_deadline);
      r != IoResult::kDone)
    return fail(r);
  if (reply) {
    reply->present = present;
    reply->data = std::move(data);
  }
  return kPortSuccess;
}

namespace {

// The original service's status is narrowed to 16 bits and widened with its sign.
int32_t Narrow(int32_t status) { return static_cast<int32_t>(static_cast<int16_t>(status)); }

int32_t Send(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length, bool want_reply,
             double receive_timeout, std::vector<uint8_t>* reply) {
  if (name == nullptr) return kPortSendTimeout;
  if (length < 0) return kPortTransportError;
  PortSendOptions options;
  options.want_reply = want_reply;
  options.receive_timeout = receive_timeout;
  PortReply answer;
  const int32_t status = SendPortRequest(name, msgid, bytes, static_cast<size_t>(length), options,
                                         want_reply ? &answer : nullptr);
  if (reply) *reply = std::move(answer.data);
  return Narrow(status);
}

}  // namespace

int32_t SendMessage(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length) {
  return Send(name, msgid, bytes, length, false, kReceiveTimeoutSeconds, nullptr);
}

int32_t SendMessageWait(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length,
                        std::vector<uint8_t>* reply) {
  return Send(name, msgid, bytes, length, true, kReceiveTimeoutSeconds, reply);
}

int32_t HS_SendMessageWait(const char* name, int32_t msgid, const uint8_t* bytes, int32_t length,
                           std::vector<uint8_t>* reply) {
  return Send(name, msgid, bytes, length, true, kLongReceiveTimeoutSeconds, reply);
}

int32_t SendStringMessage(const char* name, const char* string) {
  if (string == nullptr) return kPortSendTimeout;
  return SendMessage(name, FourCharCode("str "), reinterpret_cast<const uint8_t*>(string),
                     static_cast<int32_t>(std::strlen(string) + 1));
}

}  // namespace velmora
