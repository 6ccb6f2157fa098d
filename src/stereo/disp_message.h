#pragma once
// Writes lines of text into a window, optionally on a box with a shadow.
#include "vision/core/tuple.h"

namespace velmora {

// String: one or more values, each a line (also split at "\n");
// CoordSystem "window" or image coordinates of the current part; Row/Column
// -1 = 12; Color one colour or a list used line by line ("auto" or "" = the
// colour set before); Box[0] "true", "false" or a box colour, Box[1] (optional)
// "true", "false" or a shadow colour.
void disp_message(vision::HTuple hv_WindowHandle, vision::HTuple hv_String,
                  vision::HTuple hv_CoordSystem, vision::HTuple hv_Row, vision::HTuple hv_Column,
                  vision::HTuple hv_Color, vision::HTuple hv_Box);

}  // namespace velmora
