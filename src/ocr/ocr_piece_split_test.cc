// Re-cutting by recognition, with the shipped classifiers on print rendered
// by the training program's renderer: a pair pushed together until it
// touches is one piece of the cut and comes back as two characters; a wide
// single character is not cut in two.
#include "ocr/ocr_piece_split.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "markings.h"
#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace velmora {
namespace {

using ocrgen::Face;
using ocrgen::FamilyByName;
using ocrgen::Grade;
using ocrgen::Marking;
using ocrgen::MarkingRenderer;

const Face& FaceOf(const std::string& family, const std::string& file) {
  for (const auto* faces : {&FamilyByName(family).train_faces, &FamilyByName(family).eval_faces})
    for (const Face& f : *faces)
      if (f.file.find(file) != std::string::npos) return f;
  ADD_FAILURE() << "no face " << file;
  return FamilyByName(family).train_faces.front();
}

// Renders `text`; with `pair` -2 the middle of the top and bottom quarter
// of character `overlap` is painted over with ground (a round character
// broken into two arcs by a lost thin stroke); otherwise pushes the characters of `pair` (index of the left one)
// together until they overlap by `overlap` columns: the right part of the
// image moves left, where both are drawn the darker pixel wins.
Marking Rendered(const std::string& text, const Face& face, int pair, int overlap) {
  MarkingRenderer renderer;
  renderer.SetMarginRange(0.6, 0.6);
  std::mt19937 rng(11);
  Marking m = renderer.Render(text, face, 40, Grade::Clean, rng);
  if (pair == -2) {
    const cv::Rect o = m.boxes[size_t(overlap)];
    const cv::Vec3b ground = m.rgb.at<cv::Vec3b>(0, 0);
    const int q = o.height / 5, x0 = o.x + (2 * o.width) / 5, x1 = o.x + (3 * o.width) / 5;
    m.rgb(cv::Rect(x0, o.y - 2, x1 - x0, q + 2)).setTo(ground);
    m.rgb(cv::Rect(x0, o.br().y - q, x1 - x0, q + 2)).setTo(ground);
  }
  if (pair < 0) return m;
  const cv::Rect l = m.boxes[size_t(pair)], r = m.boxes[size_t(pair) + 1];
  const int shift = r.x - l.br().x + overlap;  // columns the right part moves
  const int from = (l.br().x + r.x) / 2;       // where the right part starts
  cv::Mat out = m.rgb.colRange(0, m.rgb.cols - shift).clone();
  out.colRange(from - shift, out.cols).setTo(m.rgb.at<cv::Vec3b>(0, 0));
  m.rgb.colRange(from - shift, from).copyTo(out.colRange(from - shift, from));
  cv::Mat dst = out.colRange(from - shift, out.cols);
  cv::min(dst, m.rgb.colRange(from, m.rgb.cols), dst);
  m.rgb = out;
  return m;
}

// The marking read as a host window and as a line in a whole frame with the
// text window.
std::string ReadWindow(const Marking& m, const std::string& family, bool text_window,
                       size_t* pieces) {
  OcrSettings s;
  s.font_name = family;
  s.text_window = text_window;
  cv::Mat img = m.rgb;
  if (text_window) {
    cv::Mat frame(480, 640, CV_8UC3, m.rgb.at<cv::Vec3b>(0, 0));
    m.rgb.copyTo(frame(cv::Rect(100, 200, m.rgb.cols, m.rgb.rows)));
    img = frame;
  }
  const auto recs = RecognizeText(ocrgen::ToVisionImage(img), img.cols, img.rows, s);
  *pieces = recs.empty() ? 0 : recs[0].rects.size();
  return recs.empty() ? "" : recs[0].text;
}

TEST(PieceSplit, TouchingPairsComeBackAsTwoAndWideCharactersStayWhole) {
  // The shipped classifiers (other tests of this binary point the variable
  // at folders of untrained ones).
  setenv("VELMORA_VISION_DIR", VELMORA_BUILD_VISION_DIR, 1);
  struct Case {
    const char* family;
    const char* face;
    std::string text;
    int pair;      // left character of the pushed pair; -1: as rendered,
                   // -2: the thin top and bottom of character `overlap` lost
    int overlap;
  } cases[] = {
      {"Document", "DejaVuSerif.ttf", "HTTP", 1, 2},
      {"Document", "LiberationSerif-Regular.ttf", "Batch", 2, 1},
      {"Document", "LiberationSerif-Regular.ttf", "LOT4", 1, 2},
      {"Industrial", "DejaVuSans.ttf", "EXP7", 1, 2},
      {"Document", "DejaVuSerif.ttf", "burn", 2, 1},
      {"Industrial", "LiberationSans-Bold.ttf", "40T4", 1, 2},
      {"Document", "DejaVuSerif.ttf", "AWMX", -1, 0},
      {"Document", "DejaVuSerif.ttf", "7081", -2, 1},
      {"Document", "LiberationSerif-Regular.ttf", "mwWM", -1, 0},
      {"Industrial", "DejaVuSans.ttf", "W7M4", -1, 0},
  };
  for (const Case& c : cases) {
    const Marking m = Rendered(c.text, FaceOf(c.family, c.face), c.pair, c.overlap);
    size_t plain_pieces = 0, window_pieces = 0;
    // Without the text window the pair is one piece and costs a character.
    const std::string plain = ReadWindow(m, c.family, false, &plain_pieces);
    const std::string window = ReadWindow(m, c.family, true, &window_pieces);
    if (c.pair >= 0) EXPECT_EQ(plain_pieces + 1, c.text.size()) << c.text << ": the pair touches";
    if (c.pair == -2) EXPECT_EQ(plain_pieces, c.text.size() + 1) << c.text << ": the arcs are apart";
    EXPECT_EQ(window, c.text) << c.face;
    EXPECT_EQ(window_pieces, c.text.size()) << c.face;
  }
}

// O and 0 as their neighbours are; characters read surely keep their
// reading, and so do those whose neighbours disagree.
TEST(PieceSplit, ZeroAndOhAreReadAsTheirNeighbours) {
  struct Case {
    std::string read, want;
    double confidence;  // of every O and 0
  } cases[] = {
      {"L0T4P-1920", "LOT4P-1920", 0.8},  // between letters
      {"3O:O428%", "30:0428%", 0.8},      // run ends: the run is all digits
      {"8O3RF", "803RF", 0.8},            // between digits
      {"5152.1O.98", "5152.10.98", 0.8},
      {"S3R1O", "S3R1O", 0.8},            // run of both kinds: unchanged
      {"4O5T", "405T", 0.8},              // digits on both sides, a letter further
      {"L0T4P", "L0T4P", 0.99},           // read surely
      {"K0IX", "KOIX", 0.8},
      {"A0-7", "AO-7", 0.8},              // the run (A0) tells letters only
      {"O", "O", 0.5},                    // nothing tells
  };
  for (const Case& c : cases) {
    std::string text = c.read;
    std::vector<std::vector<Candidate>> cands;
    for (char ch : c.read) {
      const bool twin = ch == 'O' || ch == '0';
      cands.push_back({{std::string(1, ch), twin ? c.confidence : 1.0},
                       {std::string(1, ch == 'O' ? '0' : 'O'), 0.1}});
    }
    ReadZeroAndOhByNeighbours(&text, &cands);
    EXPECT_EQ(text, c.want) << c.read;
    for (size_t i = 0; i < text.size(); ++i) {
      EXPECT_EQ(cands[i][0].klass, std::string(1, text[i])) << c.read << " " << i;
      if (text[i] != c.read[i]) EXPECT_EQ(cands[i][1].klass, std::string(1, c.read[i])) << c.read;
    }
  }
  // Candidates that do not match the text leave it alone.
  std::string text = "L0T";
  std::vector<std::vector<Candidate>> two(2, {{"X", 0.5}});
  ReadZeroAndOhByNeighbours(&text, &two);
  EXPECT_EQ(text, "L0T");
}

// A lower-case l in a code reads I beside capitals and 1 among digits; in
// words (another lower-case letter in the run) and when read surely it
// stays.
TEST(PieceSplit, ElInCodesIsReadAsTheCodesCharacter) {
  struct Case {
    std::string read, want;
    double confidence;  // of every l
  } cases[] = {
      {"SNl9CV47P7", "SNI9CV47P7", 0.8}, {"(78)4JPl5", "(78)4JPI5", 0.8},
      {"(47)8588l", "(47)85881", 0.8},   {"Exp.9l30-42", "Exp.9130-42", 0.8},
      {"Rl:zjT", "RI:zjT", 0.8},         {"Rlzj", "Rlzj", 0.8},
      {"Batch", "Batch", 0.8},           {"SNl9", "SNl9", 0.99},
      {"lll", "lll", 0.8},
  };
  for (const Case& c : cases) {
    std::string text = c.read;
    std::vector<std::vector<Candidate>> cands;
    for (char ch : c.read) cands.push_back({{std::string(1, ch), ch == 'l' ? c.confidence : 1.0}});
    ReadElInCodes(&text, &cands);
    EXPECT_EQ(text, c.want) << c.read;
    for (size_t i = 0; i < text.size(); ++i)
      EXPECT_EQ(cands[i][0].klass, std::string(1, text[i])) << c.read << " " << i;
  }
}

// A doubtful capital whose run holds only digits besides it is read again by
// the digits' classifier (here one that always answers 4).
TEST(PieceSplit, DoubtfulLettersAmongDigitsAreReadAsDigits) {
  struct Case {
    std::string read, want;
    double confidence;  // of every capital but N (read surely)
  } cases[] = {
      {"P/N1999-19Q", "P/N1999-194", 0.6}, {"REF#Q660", "REF#4660", 0.6},
      {"78:0Q29%", "78:0429%", 0.6},       {"SNB631S5UM", "SNB631S5UM", 0.6},
      {"I788", "I788", 0.6},               {"88:740W", "88:7404", 0.6},
      {"19Q", "19Q", 0.99},                {"12-Q", "12-Q", 0.6},
  };
  for (const Case& c : cases) {
    std::vector<PieceReading> pieces;
    for (char ch : c.read) {
      PieceReading p;
      p.classes = {std::string(1, ch)};
      p.confidences = {ch >= 'A' && ch <= 'Z' && ch != 'N' ? c.confidence : 1.0};
      pieces.push_back(p);
    }
    ReadLettersAmongDigits(&pieces, [](PieceReading* p) {
      p->classes = {"4", "9"};
      p->confidences = {0.9, 0.05};
    });
    std::string text;
    for (const auto& p : pieces) text += p.classes.front();
    EXPECT_EQ(text, c.want) << c.read;
  }
}

}  // namespace
}  // namespace velmora
