#pragma once
// Shared by the integration benchmark and tests: raw connections that
// announce a large request and send only part of it, and the add-in's memory
// from /proc.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace velmora::testing {

// Connects to the socket and sends a request header announcing `announced`
// bytes, then `sent` bytes of data. Returns the open descriptor, or -1.
inline int HostileConnection(const std::string& socket_path, uint32_t announced, size_t sent) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path - 1);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  uint8_t header[16] = {'V', 'M', 'P', 'Q', 'a', 't', 'a', 'd', 1, 0, 0, 0};
  std::memcpy(header + 12, &announced, 4);  // little-endian host
  std::vector<uint8_t> all(sizeof header + sent, 0x5A);
  std::memcpy(all.data(), header, sizeof header);
  size_t off = 0;
  while (off < all.size()) {
    const ssize_t w = ::send(fd, all.data() + off, all.size() - off, MSG_NOSIGNAL);
    if (w <= 0) break;
    off += size_t(w);
  }
  return fd;
}

// A field of /proc/<pid>/status in kB (VmHWM: peak resident memory, VmRSS).
inline long ProcStatusKb(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(in, line))
    if (line.rfind(key, 0) == 0) return std::stol(line.substr(key.size()));
  return -1;
}

}  // namespace velmora::testing
