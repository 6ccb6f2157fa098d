#pragma once
// OCR classifiers built on a multilayer perceptron (one tanh hidden layer,
// softmax output), with the reference library's operator names.
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// One training character: the gray values inside the region's bounding box,
// the region as a mask of the same size, and its class name. Features are
// computed from it when training, so one sample set serves any grid size.
struct OcrSample {
  cv::Mat gray;  // CV_8U
  cv::Mat mask;  // CV_8U, 255 inside the character region
  uint8_t ground = 255;  // lightest gray value around the box (the paper)
  // Rows of the text line around the character, relative to the box's top
  // row: band_top <= 0, band_bottom >= box height - 1 (see OcrLineBand).
  int band_top = 0, band_bottom = -1;  // band_bottom < band_top: not known
  // The line's character pitch: the median width of the print runs around the
  // character (see OcrLinePitch); 0 when not known.
  int pitch = 0;
  std::string klass;
};

// The class of pieces that are no character (a merged pair, a broken-off
// stroke, a speck). Its first byte has the high bit set, so the recognition
// service never answers it. A classifier that has the class learns to name such
// pieces with it; training one without it teaches equal confidences for them,
// so that its best class comes with a low confidence.
inline const std::string kOcrRejectClass = "\x80";

// In-memory training set; a handle so that append_ocr_trainf and
// trainf_ocr_class_mlp accept it in place of a training file name.
class OcrTrainSamples : public HandleBase {
 public:
  const char* TypeName() const override { return "ocr_train_samples"; }
  void Clear() override { samples.clear(); HandleBase::Clear(); }
  std::vector<OcrSample> samples;
};

// Makes an empty in-memory training set.
void create_ocr_train_samples(HTuple* handle);

void create_ocr_class_mlp(const HTuple& width_character, const HTuple& height_character,
                          const HTuple& interpolation, const HTuple& features,
                          const HTuple& characters, const HTuple& num_hidden,
                          const HTuple& preprocessing, const HTuple& num_components,
                          const HTuple& rand_seed, HTuple* ocr_handle);

// Appends characters (one region each) with their classes to a training file
// (a string: the file grows, it is created when missing) or to an in-memory set.
void append_ocr_trainf(const HObject& character, const HObject& image, const HTuple& klass,
                       const HTuple& train_file);
// Writes characters to a training file, replacing it.
void write_ocr_trainf(const HObject& character, const HObject& image, const HTuple& klass,
                      const HTuple& train_file);
// Reads a training file into an in-memory set.
void read_ocr_trainf_samples(const HTuple& train_file, HTuple* samples_handle);

// Trains with mini-batch Adam on the samples whose class the classifier knows
// (and, in a classifier without kOcrRejectClass, its samples toward equal
// outputs); max_iterations is the number of passes over the data. Error is the final mean
// cross-entropy, error_log one value per pass. Deterministic for a given seed.
void trainf_ocr_class_mlp(const HTuple& ocr_handle, const HTuple& train_file,
                          const HTuple& max_iterations, const HTuple& weight_tolerance,
                          const HTuple& error_tolerance, HTuple* error, HTuple* error_log);

void do_ocr_single_class_mlp(const HObject& character, const HObject& image,
                             const HTuple& ocr_handle, const HTuple& num, HTuple* klass,
                             HTuple* confidence);
void do_ocr_multi_class_mlp(const HObject& character, const HObject& image,
                            const HTuple& ocr_handle, HTuple* klass, HTuple* confidence);
void get_features_ocr_class_mlp(const HObject& character, const HTuple& ocr_handle,
                                const HTuple& transform, HTuple* features);
void get_params_ocr_class_mlp(const HTuple& ocr_handle, HTuple* width_character,
                              HTuple* height_character, HTuple* interpolation,
                              HTuple* features, HTuple* characters, HTuple* num_hidden,
                              HTuple* preprocessing, HTuple* num_components);

void write_ocr_class_mlp(const HTuple& ocr_handle, const HTuple& file_name);
// A bare name (no '/') is looked up in the library's OCR folder:
// $VELMORA_VISION_DIR/ocr, else the compiled-in installation folder.
void read_ocr_class_mlp(const HTuple& file_name, HTuple* ocr_handle);
void clear_ocr_class_mlp(const HTuple& ocr_handle);

// Where a bare classifier name is looked for.
std::string OcrFontFolder();

// Features of one character from its gray patch and mask (bounding-box
// sized), as the classifier of `ocr_handle` sees them.
std::vector<float> OcrSampleFeatures(const HTuple& ocr_handle, const OcrSample& s);

// The rows [*top, *bottom] of the text line a character box (rows r1..r2,
// columns c1..c2) belongs to: starting from the box, rows are added above and
// below while they hold print (at least two pixels darker than `threshold`)
// within a few character sizes left and right. Dark print is assumed.
void OcrLineBand(const cv::Mat& gray, int r1, int c1, int r2, int c2, int threshold, int* top,
                 int* bottom);

// The median width of the runs of print columns in rows top..bottom (the
// line band) within four band heights left and right of a character's
// columns c1..c2; a column is print when at least two of its pixels are
// darker than `threshold`. Runs cut by the window's edges do not count. 0
// when there is none. In a marking printed condensed or expanded this scales
// with the characters, so a character's width against it tells a wide
// letter from a narrow digit of the same shape (an O from a plain 0).
int OcrLinePitch(const cv::Mat& gray, int top, int bottom, int c1, int c2, int threshold);

// Cuts one character (region + gray image) into a sample; exposed for tools.
OcrSample OcrCutSample(const Region& region, const Image& image, const char* op);

}  // namespace vision
