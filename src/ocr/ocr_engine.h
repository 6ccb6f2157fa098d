#pragma once
// The recognition service's preprocessing procedures, in the style of
// exported vision procedures: images and tuples in, images out, every step
// one vision operator, errors propagate as vision::HException.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace velmora {

// Flattens the background of a print image: keeps only the strong gray-value
// edges (above hv_GradientLimit after Gaussian derivatives with hv_Sigma),
// zeroes the weak ones and integrates the gradient field back into a "byte"
// image, so that uneven lighting vanishes while strokes stay. The images are
// taken by value: a caller that hands over a large image (a temporary, or
// std::move) lets it go as soon as the gray image is made, and the steps
// after it reuse their inputs' planes where no one else holds them.
void gen_image_smoothed(vision::HObject ho_Image, vision::HObject* ho_ImageSmoothed,
                        const vision::HTuple& hv_Sigma, const vision::HTuple& hv_GradientLimit);

// Maps the gray range [Min, Max] linearly onto [lower, upper] and clips every
// channel to it. hv_Min is [gray] (lower 0.0) or [gray, lower]; hv_Max is
// [gray] (upper 255.0) or [gray, upper]. Max == Min raises.
void scale_image_range(vision::HObject ho_Image, vision::HObject* ho_ImageScaled,
                       const vision::HTuple& hv_Min, const vision::HTuple& hv_Max);

// The preview variant: the same integration, then a copy of the input for a
// flat result, else the height field scaled between its 10 % quantiles.
void gen_image_smoothed_preview(vision::HObject ho_Image, vision::HObject* ho_ImageSmoothed,
                                const vision::HTuple& hv_Sigma,
                                const vision::HTuple& hv_GradientLimit);

}  // namespace velmora
