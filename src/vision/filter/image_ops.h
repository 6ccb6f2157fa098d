#pragma once
// Image creation, type conversion, channel handling and pixel access.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// New one-channel image of `type` ("byte", "uint2", "int2", "int4", "real")
// whose pixels are copied from the row-major buffer at `pixel_pointer`.
void gen_image1(HObject* image, const HTuple& type, const HTuple& width, const HTuple& height,
                const HTuple& pixel_pointer);
// Three-channel image from three row-major buffers of the same type.
void gen_image3(HObject* image_rgb, const HTuple& type, const HTuple& width, const HTuple& height,
                const HTuple& pointer_red, const HTuple& pointer_green, const HTuple& pointer_blue);
// One-channel image of the given type, all pixels 0.
void gen_image_const(HObject* image, const HTuple& type, const HTuple& width, const HTuple& height);

// Address of the first channel's pixels (valid while the image lives), type,
// width and height; one value per input image.
void get_image_pointer1(const HObject& image, HTuple* pointer, HTuple* type, HTuple* width,
                        HTuple* height);
void get_image_pointer3(const HObject& image_rgb, HTuple* pointer_red, HTuple* pointer_green,
                        HTuple* pointer_blue, HTuple* type, HTuple* width, HTuple* height);

void count_channels(const HObject& multi_channel_image, HTuple* channels);
// Channel is 1-based.
void access_channel(const HObject& multi_channel_image, HObject* image, const HTuple& channel);
// Appends the channels of `image` (same size and type) to each input image.
void append_channel(const HObject& multi_channel_image, const HObject& image,
                    HObject* image_extended);
void decompose3(const HObject& multi_channel_image, HObject* image1, HObject* image2,
                HObject* image3);
void compose3(const HObject& image1, const HObject& image2, const HObject& image3,
              HObject* multi_channel_image);
void copy_image(const HObject& image, HObject* dup_image);
// Integer targets clip to their range and truncate fractions toward zero.
void convert_image_type(const HObject& image, HObject* image_converted, const HTuple& new_type);
// Gray values at the given points of the first image, one value per point and
// channel (point-major); integer types give integers, real gives reals.
void get_grayval(const HObject& image, const HTuple& row, const HTuple& column, HTuple* grayval);
// Crops each image to the bounding box of its domain.
void crop_domain(const HObject& image, HObject* image_part);
void get_image_size(const HObject& image, HTuple* width, HTuple* height);
void get_image_type(const HObject& image, HTuple* type);
void full_domain(const HObject& image, HObject* image_full);

}  // namespace vision
