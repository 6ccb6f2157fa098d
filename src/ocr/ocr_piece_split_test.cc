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

const Face& TrainingFace(const std::string& family, const std::string& file) {
  for (const Face& f : FamilyByName(family).train_faces)
    if (f.file.find(file) != std::string::npos) return f;
  ADD_FAILURE() << "no face " << file;
  return FamilyByName(family).train_faces.front();
}

// Renders `text` and pushes the characters of `pair` (index of the left one)
// together until they overlap by `overlap` columns: the right part of the
// image moves left, where both are drawn the darker pixel wins.
Marking Rendered(const std::string& text, const Face& face, int pair, int overlap) {
  MarkingRenderer renderer;
  renderer.SetMarginRange(0.6, 0.6);
  std::mt19937 rng(11);
  Marking m = renderer.Render(text, face, 40, Grade::Clean, rng);
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
    int pair;      // left character of the pushed pair; -1: as rendered
    int overlap;
  } cases[] = {
      {"Document", "DejaVuSerif.ttf", "HTTP", 1, 2},
      {"Document", "LiberationSerif-Regular.ttf", "Batch", 2, 1},
      {"Document", "LiberationSerif-Regular.ttf", "LOT4", 1, 2},
      {"Industrial", "DejaVuSans.ttf", "EXP7", 1, 2},
      {"Document", "DejaVuSerif.ttf", "burn", 2, 1},
      {"Industrial", "LiberationSans-Bold.ttf", "K0T4", 1, 2},
      {"Document", "DejaVuSerif.ttf", "AWMX", -1, 0},
      {"Document", "LiberationSerif-Regular.ttf", "mwWM", -1, 0},
      {"Industrial", "DejaVuSans.ttf", "W7M4", -1, 0},
  };
  for (const Case& c : cases) {
    const Marking m = Rendered(c.text, TrainingFace(c.family, c.face), c.pair, c.overlap);
    size_t plain_pieces = 0, window_pieces = 0;
    // Without the text window the pair is one piece and costs a character.
    const std::string plain = ReadWindow(m, c.family, false, &plain_pieces);
    const std::string window = ReadWindow(m, c.family, true, &window_pieces);
    if (c.pair >= 0) EXPECT_EQ(plain_pieces + 1, c.text.size()) << c.text << ": the pair touches";
    EXPECT_EQ(window, c.text) << c.face;
    EXPECT_EQ(window_pieces, c.text.size()) << c.face;
  }
}

}  // namespace
}  // namespace velmora
