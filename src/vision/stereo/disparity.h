#pragma once
// Dense disparity of a rectified image pair by multi-scale, multi-scanline
// matching.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Disparity (real): pixel (r, c) of ImageRect1 is seen at (r, c + d) in
// ImageRect2, MinDisparity <= d <= MaxDisparity. Matching runs coarse to
// fine over an image pyramid: census costs, aggregated along four scanlines
// with a penalty of SurfaceSmoothing for small disparity steps and of
// EdgeSmoothing for jumps; with "sub_disparity" "true" (the default) each
// disparity is then refined to a fraction of a pixel by matching the grey
// values of a small window under the disparity field itself.
// Score (real) says how far a disparity can be trusted, from 0 to 1000:
// 1000 / (1 + (sigma / 0.1)^2) with sigma the disparity's expected standard
// deviation in pixels, estimated from the image noise (the part of the
// windows' variance their correlation leaves unexplained) over the window's
// gradient energy. 500 means 0.1 pixel, 200 means 0.2 pixel; weak texture
// and doubtful matches score low.
// Pixels without a disparity
// (outside the domains, outside the disparity range, or failing the
// consistency check) are left out of both domains.
// GenParamName/GenParamValue: "sub_disparity" "true"/"false",
// "consistency_check" "true"/"false" (default "true").
void binocular_disparity_ms(const HObject& image_rect1, const HObject& image_rect2,
                            HObject* disparity, HObject* score, const HTuple& min_disparity,
                            const HTuple& max_disparity, const HTuple& surface_smoothing,
                            const HTuple& edge_smoothing, const HTuple& gen_param_name,
                            const HTuple& gen_param_value);

}  // namespace vision
