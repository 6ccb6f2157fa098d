#pragma once
// Deadline-bounded socket reads and writes shared by the port's client and server.
#include <chrono>
#include <cstddef>

namespace velmora::portio {

// Above this many bytes a transfer asks for larger socket buffers.
inline constexpr size_t kLargeTransfer = 1 << 20;
inline constexpr int kLargeSocketBuffer = 4 << 20;

class Deadline {
 public:
  explicit Deadline(double seconds);
  int RemainingMs() const;
  bool Passed() const;

 private:
  std::chrono::steady_clock::time_point end_;
};

enum class IoResult { kDone, kTimeout, kClosed, kError };

IoResult WaitReady(int fd, short events, const Deadline& deadline);
// Writes head then body (either may be empty) without copying them.
IoResult WriteAll(int fd, const void* head, size_t head_len, const void* body, size_t body_len,
                  const Deadline& deadline);
IoResult ReadAll(int fd, void* buffer, size_t length, const Deadline& deadline);

}  // namespace velmora::portio
