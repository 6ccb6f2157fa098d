#pragma once
// Chooses a window's text font portably: the same request gives comparable
// text on each system the library runs on.
#include "vision/core/tuple.h"

namespace velmora {

// Size in points ([] or -1: 16); Font "mono", "Courier", "courier", "sans",
// "serif" or a font name of the system; Bold and Slant "true" or "false".
void set_display_font(vision::HTuple hv_WindowHandle, vision::HTuple hv_Size,
                      vision::HTuple hv_Font, vision::HTuple hv_Bold, vision::HTuple hv_Slant);

}  // namespace velmora
