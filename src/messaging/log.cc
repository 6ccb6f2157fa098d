#include "messaging/log.h"

#include <errno.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace velmora {

void Log(const char* fmt, ...) {
  const int saved_errno = errno;  // logging must not disturb the caller's error state
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm local{};
  localtime_r(&tv.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

  std::string line(256, '\0');
  int n = std::snprintf(line.data(), line.size(), "%s.%03ld %s[%ld:%ld] ", stamp,
                        static_cast<long>(tv.tv_usec / 1000), program_invocation_short_name,
                        static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)));
  const size_t prefix = n > 0 ? static_cast<size_t>(n) : 0;
  line.resize(prefix);

  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int body = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (body > 0) {
    line.resize(prefix + static_cast<size_t>(body) + 1);
    std::vsnprintf(line.data() + prefix, static_cast<size_t>(body) + 1, fmt, args);
    line.resize(prefix + static_cast<size_t>(body));
  }
  va_end(args);
  if (line.empty() || line.back() != '\n') line.push_back('\n');

  // One write per line, so lines of concurrent threads never interleave.
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    const ssize_t w = ::write(STDERR_FILENO, p, left);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    p += w;
    left -= static_cast<size_t>(w);
  }
  errno = saved_errno;
}

bool RequestLogEnabled() {
  static const bool enabled = [] {
    const char* v = std::getenv("VELMORA_REQUEST_LOG");
    return v && *v && std::strcmp(v, "0") != 0;
  }();
  return enabled;
}

}  // namespace velmora
