#pragma once
// Turns a rendered marking into training characters: the service's own
// segmentation cuts it, and each cut character is matched to the rendered
// character at its position. Pieces that are not one rendered character (a
// merged pair, a split character, a speck) are left out or kept as pieces of
// no character.
#include <string>
#include <vector>

#include "imaging/halcon_utility.h"
#include "markings.h"
#include "vision/core/object.h"

namespace velmora::ocrgen {

// The marking as a three-channel vision image.
vision::HObject ToVisionImage(const cv::Mat& rgb);

struct CutMarking {
  vision::HObject characters;  // one region per piece, in text order
  vision::HObject smoothed;    // the image they are classified on
  std::string classes;         // one class per region (kRejectByte: no character)
  int rejects = 0;             // pieces of class kRejectByte
};

// The class byte of a piece that is no character (vision::kOcrRejectClass).
constexpr char kRejectByte = '\x80';

// False when no cut piece matches one rendered character. With `rejects`,
// merged pairs and specks are kept too, as class kRejectByte (the parts of a
// character cut in several are left out either way).
bool CutMarkingCharacters(const Marking& m, CutMarking* out, bool rejects = false);

// What a classifier that names every cut piece right would read: each piece
// (a box in the marking's coordinates) named as the rendered character it
// overlaps most, `kNoCharacter` for a piece that covers none. Its distance
// from the text is what the cut alone costs.
constexpr char kNoCharacter = '~';
std::string NameCutPieces(const Marking& m, const std::vector<Rect>& pieces);

}  // namespace velmora::ocrgen
