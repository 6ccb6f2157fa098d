#pragma once
// Optional text window: finds the text line in a whole camera frame, so that
// the recognition reads a window around it instead of the frame. The
// background flattening scales its result between the 10th and 90th
// percentile of the whole image, so print that covers less than about a
// tenth of the image is scaled away with the ground; a window with about half
// a text height of ground on each side keeps the print in range.
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "imaging/halcon_utility.h"
#include "ocr/ocr_format.h"
#include "vision/core/object.h"

namespace velmora {

// The box of the strongest text line of a gray image (edges of print joined
// along the line). False when no line stands out (the caller then reads the
// whole image).
bool FindTextLine(const cv::Mat& gray, cv::Rect* line);

// One way of reading the window: the ground kept on each side of the line
// and the enlargement of low lines. Lines lower than 56 pixels are enlarged
// to that height (at most 4 times), so that the stroke-width opening and the
// area limit of the cut keep points and thin strokes of small print.
struct TextWindowReading {
  double margin = 0.5;       // ground on each side, in line heights
  int min_line_height = 56;  // lower lines are enlarged to this height
  double max_zoom = 4.0;
};

// The windows the recognition reads, the usual one first. The ground around
// the line decides what the background flattening makes of the print: with
// too much, its lower percentile falls on the ground and the thresholded
// print swells into the gaps (pairs merge); with too little, thin strokes
// and the ground between dots drop out (characters break). Outline print is
// read with a third of a line height, then with 0.15 and 0.5; dot print,
// whose characters hold together only where the ground between their dots is
// thresholded with them, with a half and then 0.7 line heights. The reading
// whose characters stand furthest above a confidence of 0.5 is answered.
std::vector<TextWindowReading> TextWindowReadingsFor(const std::string& family);

// Where the window of a recognition lies: its place in the image read (an
// empty rectangle: the whole image) and the enlargement of its pixels.
struct TextWindowCut {
  cv::Rect window{0, 0, 0, 0};
  double zoom = 1.0;
  double width = 0, height = 0;  // the size of the image then read
};

// Replaces the (three-channel byte) image of nominal size width x height by
// the window `how` makes around `line` (from FindTextLine); false, with the
// image unchanged, when the window is empty or does not fit the nominal size.
bool CutTextWindow(vision::HObject* image, double width, double height, const cv::Rect& line,
                   const TextWindowReading& how, TextWindowCut* cut);

// Reads letters that look like digits (O and U as 0, I 1, Z 2, S 5, G 6,
// B 8) as digits where their neighbours are digits, within the run of
// letters and digits that holds them (specials part runs): the nearest
// telling characters on both sides (every digit, and letters that look like
// no digit) when both are digits; with telling characters on one side only,
// when all the run tells is digits; a run of two or more that tells nothing
// when the line tells digits at least twice and nothing else. The other way
// only a zero between two letters that look like no digit becomes O: the
// classifiers take digits for letters far more often than letters for
// digits. `candidates` holds one list per character of `text` (best first);
// a changed character's first candidate changes with it (its own
// confidence if it was among them, else the old one). Nothing changes when
// the sizes differ.
void ReadLookAlikesByNeighbours(std::string* text, std::vector<std::vector<Candidate>>* candidates);

// Whether the text window of `family` reads look-alikes by their neighbours
// (dot print, whose small cells draw O and 0 alike).
bool ReadsLookAlikesByNeighbours(const std::string& family);

}  // namespace velmora
