#pragma once
// The window operators' view of the library's system settings.

namespace vision {

// Whether drawing operators flush their output to the screen at once
// (the system setting "flush_graphic"; on unless set to "false").
bool FlushGraphicEnabled();

}  // namespace vision
