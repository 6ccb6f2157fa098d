#pragma once
// Point, neighbourhood and geometric filters, vector fields and the
// integration of gradient fields.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Gray = 0.299 R + 0.587 G + 0.114 B (rounded for integer types); a
// one-channel image passes unchanged.
void rgb1_to_gray(const HObject& rgb_image, HObject* gray_image);
// g' = g * mult + add; integer types round and clip to their range.
void scale_image(const HObject& image, HObject* image_scaled, const HTuple& mult, const HTuple& add);
// The same for an image handed over: real planes no one else holds are
// scaled where they are.
void scale_image(HObject&& image, HObject* image_scaled, const HTuple& mult, const HTuple& add);
// byte: 255 - g, uint2: 65535 - g, signed and real types: -g.
void invert_image(const HObject& image, HObject* image_invert);
// Box mean of mask_width x mask_height with mirrored borders; integer types
// round to nearest.
void mean_image(const HObject& image, HObject* image_mean, const HTuple& mask_width,
                const HTuple& mask_height);
// res = round((orig - mean) * factor) + orig, clipped (byte, int2, uint2).
void emphasize(const HObject& image, HObject* image_emphasize, const HTuple& mask_width,
               const HTuple& mask_height, const HTuple& factor);
// Gaussian derivatives as a "real" image. "x" is the derivative along the
// columns (positive where the gray value rises to the right), "y" along the
// rows (positive where it rises downward), "gradient" their magnitude, "none"
// smoothing only. One sigma, or [sigma_columns, sigma_rows].
void derivate_gauss(const HObject& image, HObject* deriv_gauss, const HTuple& sigma,
                    const HTuple& component);
// Rotation by phi degrees counter-clockwise about the image centre.
// Multiples of 90 degrees permute pixels exactly (90 and 270 swap width and
// height); other angles keep the size. Interpolation "constant"
// (nearest neighbour), "nearest_neighbor", "bilinear" or "weighted".
void rotate_image(const HObject& image, HObject* image_rotate, const HTuple& phi,
                  const HTuple& interpolation);
// New size round(factor * size); "nearest_neighbor", "constant", "bilinear",
// "weighted".
void zoom_image_factor(const HObject& image, HObject* image_zoomed, const HTuple& scale_width,
                       const HTuple& scale_height, const HTuple& interpolation);
// Paints the region ("fill") or its inner border ("margin") into a copy of the
// image with one gray value for all channels or one per channel.
void paint_region(const HObject& region, const HObject& image, HObject* image_result,
                  const HTuple& grayval, const HTuple& type);
// The same for an image handed over: planes no one else holds are painted
// where they are instead of copied.
void paint_region(const HObject& region, HObject&& image, HObject* image_result,
                  const HTuple& grayval, const HTuple& type);
// Row and column component images (same size) into a vector field of type
// "vector_field_relative" or "vector_field_absolute".
void real_to_vector_field(const HObject& row, const HObject& col, HObject* vector_field,
                          const HTuple& type);
void vector_field_to_real(const HObject& vector_field, HObject* row, HObject* col);
// Integrates a gradient field (row component = d/drow, column component =
// d/dcolumn) in the least-squares sense over the image rectangle. Method
// "poisson": discrete Poisson equation with Neumann boundary, solved with a
// cosine transform; the result has zero mean.
void reconstruct_height_field_from_gradient(const HObject& gradient, HObject* height_field,
                                            const HTuple& reconstruction_method,
                                            const HTuple& gen_param_name,
                                            const HTuple& gen_param_value);
// The same for a field handed over: components no one else holds are
// overwritten by the solve and let go as soon as they are used, so that the
// integration needs little more than the field itself.
void reconstruct_height_field_from_gradient(HObject&& gradient, HObject* height_field,
                                            const HTuple& reconstruction_method,
                                            const HTuple& gen_param_name,
                                            const HTuple& gen_param_value);

}  // namespace vision
