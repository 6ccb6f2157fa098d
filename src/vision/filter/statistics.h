#pragma once
// Gray-value statistics over regions.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Per region: the gray values of the first image's first channel inside the
// region (the image's domain is ignored) are ranked; `percent` % of the
// region's pixels are skipped at each end. One value per region; an empty
// region gives 0, 0, 0.
void min_max_gray(const HObject& regions, const HObject& image, const HTuple& percent,
                  HTuple* min, HTuple* max, HTuple* range);
// Absolute and relative histogram with 256 bins of the first channel inside
// the region. byte: one bin per gray value; uint2, int2, int4 and real: 256
// equal bins from the minimum to the maximum inside the region.
void gray_histo(const HObject& regions, const HObject& image, HTuple* absolute_histo,
                HTuple* relative_histo);

}  // namespace vision
