#pragma once
// Optional text window: finds the text line in a whole camera frame, so that
// the recognition reads a window around it instead of the frame. The
// background flattening scales its result between the 10th and 90th
// percentile of the whole image, so print that covers less than about a
// tenth of the image is scaled away with the ground; a window with about half
// a text height of ground on each side keeps the print in range.
#include <string>

#include <opencv2/core.hpp>

#include "imaging/halcon_utility.h"
#include "vision/core/object.h"

namespace velmora {

// The window around the strongest text line of a gray image: the line's box
// grown by `margin` times its height on each side (at least 4 pixels),
// clipped to the image; `line_height`, when given, receives the line's
// height. False when no line stands out (the caller then reads the whole
// image).
bool FindTextWindow(const cv::Mat& gray, cv::Rect* window, int* line_height = nullptr,
                    double margin = 0.5);

// How the recognition reads the window of one font family. Outline print is
// read with a third of a line height of ground on each side: more ground
// moves the flattening's lower percentile off the print, which then swells
// into the ground between characters and pairs merge. Dot print keeps half a
// line height: its characters hold together only where the ground between
// their dots is counted as print. Lines lower than 56 pixels are enlarged to
// that height (at most 4 times), so that the stroke-width opening and the
// area limit of the cut keep points and thin strokes of small print.
struct TextWindowReading {
  double margin = 0.5;       // ground on each side, in line heights
  int min_line_height = 56;  // lower lines are enlarged to this height
  double max_zoom = 4.0;
};
TextWindowReading TextWindowReadingFor(const std::string& family);

// Where the window of a recognition lies: its place in the image read (an
// empty rectangle: the whole image) and the enlargement of its pixels.
struct TextWindowCut {
  cv::Rect window{0, 0, 0, 0};
  double zoom = 1.0;
  double width = 0, height = 0;  // the size of the image then read
};

// Replaces the (three-channel byte) image of nominal size width x height by
// the window around its text line, read as TextWindowReadingFor(family)
// says; false, with the image unchanged, when no line stands out or the
// window does not fit the nominal size. The recognition and the training
// program cut windows with this one function.
bool CutTextWindow(vision::HObject* image, double width, double height, const std::string& family,
                   TextWindowCut* cut);

}  // namespace velmora
