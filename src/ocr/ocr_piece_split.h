#pragma once
// Re-cutting a line's pieces by recognition (the text window's outline
// print): the segmentation's vertical closing joins characters that touch
// (proportional pairs such as TT, rn, DOV) into one piece. A piece that is
// wide against the line's pitch and read with little confidence is tried at
// its narrowest columns, into two parts or three; the new cut is kept only
// where the classifier is surer of every part than it was of the whole. A
// round character whose thin top and bottom the threshold lost comes as two
// arcs read "(" and ")"; that empty pair is read as one piece.
#include <functional>
#include <string>
#include <vector>

#include "ocr/ocr_format.h"
#include "vision/core/region.h"

namespace velmora {

// One piece of the cut and the classifier's answer for it, best first.
struct PieceReading {
  vision::Region region;
  std::vector<std::string> classes;
  std::vector<double> confidences;
  double Best() const { return confidences.empty() ? 0.0 : confidences.front(); }
};

// Classifies `piece->region` into its classes and confidences.
using PieceClassifier = std::function<void(PieceReading* piece)>;

struct PieceSplitOptions {
  // A piece is tried when it is wider than `wide` times the line's pitch
  // (the median width of its full-height pieces) and read below `doubtful`:
  // the classifiers learnt merged pairs as no character, so a pair comes
  // back with low confidence, while a wide single letter (W, M, m) is read
  // surely.
  double wide = 1.0;
  double doubtful = 0.3;
  // Each part of a cut is at least this share of the pitch wide.
  double min_part = 0.25;
  // Every part must be read at least this much more surely than the whole,
  // and at least with `sure`.
  double gain = 0.1;
  double sure = 0.5;
  // Columns tried per piece (the deepest minima of its column profile).
  int tries = 5;
  // Columns crossing more strokes than this are not tried.
  int max_strokes = 1;
};

// The pieces of one line (reading order, already classified) re-cut, and
// bracket pairs joined, where recognition says so; new pieces come
// classified.
std::vector<PieceReading> SplitPiecesByRecognition(std::vector<PieceReading> pieces,
                                                   const PieceClassifier& classify,
                                                   const PieceSplitOptions& options = {});

// Reads O and 0, which plain-oval faces draw alike, as their neighbours
// are: the nearest letters or digits on both sides within its run (specials
// part runs) decide when they agree; at a run's end, or with nothing telling
// on one side, the run decides when it holds one kind only. `candidates`
// holds one list per character of `text`; a changed character's first
// candidate changes with it. A character read with at least `sure` keeps
// its reading (a code such as LOT0M holds a 0 between letters). Nothing
// changes when the sizes differ.
void ReadZeroAndOhByNeighbours(std::string* text, std::vector<std::vector<Candidate>>* candidates,
                               double sure = 0.98);

// Reads a lower-case l, which faces with plain bars draw like the capital I
// and the digit 1, as a code's character where its run of letters and
// digits (specials part runs) holds capitals or digits and no other
// lower-case letter: codes (SNI9CV, 8588l) are capitals and digits, words
// are lower case. With a capital in the run the l reads I, else 1. The same
// `sure` and candidate rules as above.
void ReadElInCodes(std::string* text, std::vector<std::vector<Candidate>>* candidates,
                         double sure = 0.98);

// A capital letter (not O, which ReadZeroAndOhByNeighbours reads, nor I,
// which codes hold beside digits and many faces draw as their 1) whose
// run of letters and digits (specials part runs) holds digits only besides
// it, read below `sure`, is read again by `digits` (the family's digit
// classifier) and takes its answer: faces the letters' classifier never
// saw draw their 4 open (read Q or G) or their 3 flat-topped (read J).
// A code's leading letter before digits (the N of P/N1999) read below
// `sure` would turn into a digit too; the classifiers read those surely.
void ReadLettersAmongDigits(std::vector<PieceReading>* pieces, const PieceClassifier& digits,
                            double sure = 0.98);

// Shared by the line rules that read a character by its neighbours.
// `kind(k)` says what character k tells of its place: 'D' a digit, 'L' a
// letter, 0 nothing. For character i of the run [b, e): the nearest telling
// characters on either side (`*left`, `*right`, 0 where none) decide when
// they agree; with one side telling nothing the run decides when all it
// tells is one kind; otherwise 0.
char KindByNeighbours(const std::function<char(size_t)>& kind, size_t i, size_t b, size_t e,
                      char* left, char* right);

// The run [*b, *e) of consecutive characters k of [0, n) with in_run(k)
// that holds character i (specials part runs).
void RunAround(const std::function<bool(size_t)>& in_run, size_t n, size_t i, size_t* b, size_t* e);

// The kind all telling characters of [from, to) share, or 0 (none, or both).
char SharedKind(const std::function<char(size_t)>& kind, size_t from, size_t to);

// Makes `to` the first candidate of `list` (the class itself when listed,
// else the first candidate renamed).
void PutFirst(std::vector<Candidate>* list, char to);

// The two parts of `region` left of column `col` and from it on.
void SplitRegionAtColumn(const vision::Region& region, int col, vision::Region* left,
                         vision::Region* right);

}  // namespace velmora
