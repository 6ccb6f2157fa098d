// The shipped dot-print classifiers on a zero with a dot in its middle, as
// many coders print it (the evaluation's screen faces among them): read as
// a zero, not as the O beside it, both in a host's window and through the
// text window of a whole frame.
#include <gtest/gtest.h>

#include "markings.h"
#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace velmora::ocrgen {
namespace {

TEST(DotPrintClassifiers, ReadADottedZeroAsZero) {
  Face face;
  face.file = "/usr/share/fonts/fonts-go/Go-Mono.ttf";
  face.bitmap = true;
  face.dot_lo = face.dot_hi = 1.1;
  face.dotted_zero = 1.0;
  // Blanks part the cells (Go Mono's touch at this size); beside a letter
  // or at the line's end the text window's neighbour rule leaves the zeros
  // and the O as the classifier reads them.
  const std::string text = "0 X O 0", want = "0XO0";
  MarkingRenderer renderer;
  for (uint32_t seed : {1u, 2u, 3u}) {
    std::mt19937 rng(seed);
    const Marking m = renderer.Render(text, face, 36, Grade::Clean, rng);
    OcrSettings s;
    s.font_name = "DotPrint";
    const auto window = RecognizeText(ToVisionImage(m.rgb), m.rgb.cols, m.rgb.rows, s);
    ASSERT_EQ(window.size(), 1u);
    EXPECT_EQ(window[0].text, want) << seed;
    cv::Mat frame(480, 640, CV_8UC3, m.rgb.at<cv::Vec3b>(0, 0));
    m.rgb.copyTo(frame(cv::Rect(cv::Point(150, 200), m.rgb.size())));
    s.text_window = true;
    const auto framed = RecognizeText(ToVisionImage(frame), frame.cols, frame.rows, s);
    ASSERT_EQ(framed.size(), 1u);
    EXPECT_EQ(framed[0].text, want) << seed;
  }
}

}  // namespace
}  // namespace velmora::ocrgen
