#include "vision/window/system_query.h"

#include "vision/core/system.h"

namespace vision {

bool FlushGraphicEnabled() {
  HTuple value;
  get_system("flush_graphic", &value);
  return !(value.Length() == 1 && value.IsString(0) && value.S(0) == "false");
}

}  // namespace vision
