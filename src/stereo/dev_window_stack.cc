#include "stereo/dev_window_stack.h"

#include <mutex>
#include <vector>

namespace velmora {
namespace {

std::mutex& Mutex() {
  static std::mutex m;
  return m;
}
std::vector<vision::HTuple>& Stack() {
  static std::vector<vision::HTuple> s;
  return s;
}

}  // namespace

void HDevWindowStack::Push(const vision::HTuple& window_handle) {
  std::lock_guard<std::mutex> lock(Mutex());
  Stack().push_back(window_handle);
}

vision::HTuple HDevWindowStack::Pop() {
  std::lock_guard<std::mutex> lock(Mutex());
  if (Stack().empty()) return {};
  vision::HTuple t = Stack().back();
  Stack().pop_back();
  return t;
}

vision::HTuple HDevWindowStack::GetActive() {
  std::lock_guard<std::mutex> lock(Mutex());
  return Stack().empty() ? vision::HTuple() : Stack().back();
}

void HDevWindowStack::SetActive(const vision::HTuple& window_handle) {
  std::lock_guard<std::mutex> lock(Mutex());
  if (Stack().empty()) Stack().push_back(window_handle);
  else Stack().back() = window_handle;
}

bool HDevWindowStack::IsOpen() {
  std::lock_guard<std::mutex> lock(Mutex());
  return !Stack().empty();
}

}  // namespace velmora
