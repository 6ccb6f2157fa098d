#pragma once
// System parameters of the vision library (set_system / get_system). They are
// process-wide, as in the reference library, and guarded by a mutex because a
// worker thread may read them while the main thread serves requests.
#include "vision/core/tuple.h"

namespace vision {

// Known names: "neighborhood" (4 or 8), "clip_region", "flush_graphic",
// "init_new_image" ("true"/"false"), "width", "height" (the size that
// complement and other unbounded results are clipped to), "operating_system".
// An unknown name or a bad value raises.
void set_system(const HTuple& name, const HTuple& value);
void get_system(const HTuple& name, HTuple* value);

// Typed readers for the operators of the library itself.
int SystemNeighborhood();          // 4 or 8
bool SystemClipRegion();
void SystemImageSize(int* width, int* height);
// Image-creating operators report the size of their newest image here, so that
// clipping follows the images in use as in the reference library.
void NoteImageSize(int width, int height);
// Back to the defaults (tests use it to isolate themselves).
void ResetSystem();

}  // namespace vision
