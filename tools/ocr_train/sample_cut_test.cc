// The cut of a rendered marking: matched to the rendered characters for
// training, and named piece by piece for the benchmark's cut figures.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "markings.h"
#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace velmora::ocrgen {
namespace {

Marking Clean(const std::string& text) {
  MarkingRenderer renderer;
  std::mt19937 rng(7);
  return renderer.Render(text, FamilyByName("Industrial").eval_faces[0], 32, Grade::Clean, rng);
}

// The boxes of the service's own answer, as the benchmark names them.
std::vector<Rect> ServicePieces(const Marking& m) {
  OcrSettings s;
  s.font_name = "Industrial";
  const auto recs = RecognizeText(ToVisionImage(m.rgb), m.rgb.cols, m.rgb.rows, s);
  return recs.empty() ? std::vector<Rect>() : recs[0].rects;
}

// Every face of every family, trained or held out, prints every class of its
// family: a face without a glyph would teach its missing-glyph box as that
// class.
TEST(Markings, EveryFacePrintsEveryClassOfItsFamily) {
  MarkingRenderer renderer;
  for (const Family& fam : Families())
    for (const auto* faces : {&fam.train_faces, &fam.eval_faces})
      for (const Face& face : *faces)
        EXPECT_EQ(renderer.MissingGlyphs(face, fam.AllClasses()), "")
            << fam.name << ": " << face.Name();
}

TEST(SampleCut, WholeMarkingIsCutAndNamedAsRendered) {
  const Marking m = Clean("AB-12");
  CutMarking cut;
  ASSERT_TRUE(CutMarkingCharacters(m, &cut));
  EXPECT_EQ(cut.classes, "AB-12");
  EXPECT_EQ(NameCutPieces(m, ServicePieces(m)), "AB-12");
}

TEST(SampleCut, MergedAndUnmatchedPiecesShowInTheOracleText) {
  Marking m = Clean("AB-12");
  ASSERT_EQ(m.boxes.size(), 5u);
  // A bar of print from the B to the hyphen joins them into one piece, named
  // as the character it covers most; training keeps the other characters.
  double ink = 0;
  cv::Mat gray;
  cv::cvtColor(m.rgb, gray, cv::COLOR_RGB2GRAY);
  cv::minMaxLoc(gray, &ink);
  const cv::Rect b = m.boxes[1], hyphen = m.boxes[2];
  cv::rectangle(m.rgb, cv::Point(b.br().x - 2, hyphen.y), cv::Point(hyphen.x + 2, hyphen.br().y),
                cv::Scalar::all(ink), cv::FILLED);
  CutMarking cut;
  ASSERT_TRUE(CutMarkingCharacters(m, &cut));
  EXPECT_EQ(cut.classes, "A12");
  EXPECT_EQ(NameCutPieces(m, ServicePieces(m)), "AB12");
  // Kept as a piece of no character where the classifiers learn to reject.
  ASSERT_TRUE(CutMarkingCharacters(m, &cut, true));
  EXPECT_EQ(cut.classes, std::string("A") + kRejectByte + "12");
  EXPECT_EQ(cut.rejects, 1);

  // A piece over no rendered character is named as none.
  m = Clean("AB-12");
  m.boxes.erase(m.boxes.begin() + 3);
  m.text = "AB-2";
  EXPECT_EQ(NameCutPieces(m, ServicePieces(m)), std::string("AB-") + kNoCharacter + "2");
  CutMarking cut2;
  ASSERT_TRUE(CutMarkingCharacters(m, &cut2, true));
  EXPECT_EQ(cut2.classes, std::string("AB-") + kRejectByte + "2");
}

}  // namespace
}  // namespace velmora::ocrgen
