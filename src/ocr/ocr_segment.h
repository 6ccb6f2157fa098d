#pragma once
// The character segmentation of the whole-image recognition service: region of
// interest, rotation, stretch, emphasis, background flattening, polarity,
// thresholds, the tallest text line and its characters, and the count
// correction. The training program cuts its samples with the same function,
// so the classifiers learn exactly what reading shows them.
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace velmora {

struct OcrPassParams {
  double width = 0, height = 0;  // nominal image size (W, H)
  double angle = 0;              // 0 or 180 degrees
  float stretch = 1.0f;          // horizontal stretch before reading
  long black_level = 0;          // threshold maximum = 80 + 10 x black_level
  long expected_count = 0;       // 0: no count correction
};

struct OcrLineSegmentation {
  vision::HObject smoothed;    // the image that is classified (S)
  vision::HObject characters;  // one region per character, reading order
  long line_count = 0;         // text lines found before the choice
};

// The first steps every recognition pass and the preview share: the region of
// interest at the nominal size, the rotation by `angle`, the stretch (only
// when a factor differs from 1), and the emphasis. An image handed over
// (std::move) is let go as soon as the emphasis no longer needs it.
vision::HObject PrepareOcrImage(vision::HObject image, double width, double height, double angle,
                                float stretch_width, float stretch_height);

// Inverts the smoothed image when the dark part covers more than half of it,
// so that print is dark on a light ground from then on.
void MakePrintDark(vision::HObject* smoothed);

// Raises vision::HException when an operator refuses its input. An image
// handed over is let go once prepared, not kept for the whole pass.
OcrLineSegmentation SegmentOcrLine(vision::HObject image, const OcrPassParams& p);

}  // namespace velmora
