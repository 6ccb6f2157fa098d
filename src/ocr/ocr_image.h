#pragma once
// Recognition of the text of a whole image (request 101): settings from the
// request's attribute dictionary, segmentation of the tallest text line,
// classification under the format rules, an optional upside-down pass, and
// the text records of the reply.
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "archive/archive.h"
#include "ocr/ocr_format.h"
#include "imaging/halcon_utility.h"
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace velmora {

struct OcrSettings {
  std::optional<std::string> font_name;
  long procedure = 0;
  std::string format;  // UTF-8 bytes of "format_string"
  bool format_flag = true;
  bool reverse = false;
  long expected_count = 0;
  long num = 1;  // candidates asked of the classifier
  float stretch = 1.0f;
  long black_level = 0;
  // "text_window": find the text line in the whole image and read only a
  // window around it (off unless the host asks for it).
  bool text_window = false;
};

// A nil dictionary gives the defaults with the font "Industrial".
OcrSettings ReadOcrSettings(const archive::ObjectPtr& attribute);

struct OcrTextRecord {
  std::string text;
  std::vector<Rect> rects;
  std::vector<std::vector<Candidate>> candidates;  // at most 5 per character
  int angle = 0;
};

// The classification seam: the library's do_ocr_single_class_mlp by default;
// tests put a classifier there whose answers they control.
using OcrClassifyFn = std::function<void(const vision::HObject& character,
                                         const vision::HObject& image,
                                         const vision::HTuple& handle, const vision::HTuple& num,
                                         vision::HTuple* klass, vision::HTuple* confidence)>;

// Loads the font's classifiers, runs the passes and releases the classifiers.
// A vision-library failure is logged with the method's name and ends the run
// with the records of the passes already completed. An image handed over
// (std::move) is let go once the last pass has prepared it.
std::vector<OcrTextRecord> RecognizeText(vision::HObject image, double width,
                                         double height, const OcrSettings& settings,
                                         const OcrClassifyFn& classify = {});

// The text record as the reply carries it.
archive::ObjectPtr TextRecordObject(const OcrTextRecord& record);

// The service: an empty array when the vision library is absent, nil when no
// pass produced text, else the array of text records.
archive::ObjectPtr ocrImage(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute,
                            bool visionPresent);

}  // namespace velmora
