#pragma once
// The window stack of exported vision procedures: procedures draw into the
// active window of the stack. One stack per process, as in the reference
// library's exported code; guarded because the reconstruction pushes from a
// worker thread.
#include "vision/core/tuple.h"

namespace velmora {

class HDevWindowStack {
 public:
  static void Push(const vision::HTuple& window_handle);
  static vision::HTuple Pop();  // empty tuple when the stack is empty
  static vision::HTuple GetActive();
  static void SetActive(const vision::HTuple& window_handle);
  // A window is on the stack.
  static bool IsOpen();
};

}  // namespace velmora
