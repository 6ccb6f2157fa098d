#include "ocr/ocr_image.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "ocr/ocr_fonts.h"
#include "vision/ocr/ocr_mlp.h"

namespace velmora {
namespace {

using vision::HObject;
using vision::HTuple;
namespace fs = std::filesystem;

// Dark text on a light ground, in Hershey strokes thick enough to segment.
// Images are tight crops around the text, as the host sends them: the
// background flattening scales between the 10 % quantiles and needs print
// to cover more than that share of the image.
struct Line {
  std::string text;
  cv::Point at;
  double scale = 1.6;
};
cv::Mat TextImage(cv::Size size, const std::vector<Line>& lines) {
  cv::Mat m(size, CV_8U, cv::Scalar(215));
  for (const auto& l : lines)
    cv::putText(m, l.text, l.at, cv::FONT_HERSHEY_SIMPLEX, l.scale, cv::Scalar(25), 4, cv::LINE_AA);
  return m;
}

HObject ToHObject(const cv::Mat& gray) {
  return HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {gray, gray, gray}));
}

// A fresh folder of the library's classifiers, named by VELMORA_VISION_DIR while
// it lives.
struct TempVisionDir {
  explicit TempVisionDir(const std::string& tag)
      : path(fs::temp_directory_path() / (tag + std::to_string(::getpid()))) {
    fs::create_directories(path / "ocr");
    setenv("VELMORA_VISION_DIR", path.c_str(), 1);
  }
  ~TempVisionDir() { fs::remove_all(path); }
  // Writes an untrained classifier of `classes` as the font file `name`.
  void Add(const char* name, const std::vector<std::string>& classes) const {
    HTuple h;
    vision::create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"), HTuple("default"),
                                 HTuple::Strings(classes), HTuple(4), HTuple("none"), HTuple(10),
                                 HTuple(1), &h);
    vision::write_ocr_class_mlp(h, HTuple((path / "ocr" / name).string()));
  }
  const fs::path path;
};

OcrSettings Industrial() {
  OcrSettings s;
  s.font_name = "Industrial";
  return s;
}

// The three Industrial files have the classes "F", "D" and "L" first, so that
// a fake classifier can tell which slot it was given.
class OcrImageTest : public ::testing::Test {
 protected:
  OcrImageTest() {
    dir_.Add("Industrial_NoRej.omc", {"F", "0"});
    dir_.Add("Industrial_0-9_NoRej.omc", {"D", "1"});
    dir_.Add("Industrial_A-Z+_NoRej.omc", {"L", "M"});
  }

  // Answers with a list chosen per slot, so that format rules can be observed.
  static void Fake(const HObject&, const HObject&, const HTuple& handle, const HTuple& num,
                   HTuple* klass, HTuple* conf) {
    HTuple w, h, interp, feat, chars, hidden, prep, comp;
    vision::get_params_ocr_class_mlp(handle, &w, &h, &interp, &feat, &chars, &hidden, &prep, &comp);
    const std::string slot = chars.S(0);
    const std::vector<std::string> answer =
        slot == "F" ? std::vector<std::string>{"F", "7", "-", "x", "y", "z", "q"}
        : slot == "D" ? std::vector<std::string>{"5", "6"}
                      : std::vector<std::string>{"Q", "/", "R"};
    klass->Clear();
    conf->Clear();
    for (size_t i = 0; i < answer.size() && long(i) < num.L(); ++i) {
      klass->Append(HTuple(answer[i]));
      conf->Append(HTuple(0.9 / double(i + 1)));
    }
  }
  static std::vector<OcrTextRecord> Read(const cv::Mat& img, const OcrSettings& s) {
    return RecognizeText(ToHObject(img), img.cols, img.rows, s, Fake);
  }

  TempVisionDir dir_{"ocr_image_test_"};
};

// Procedure 0 always applies the format, procedure 1 only with the flag; it
// asks for 10 candidates, of which the record keeps 5, best first.
TEST_F(OcrImageTest, FormatRulesChooseSlotsFiltersAndLiterals) {
  const cv::Mat img = TextImage({200, 72}, {{"AB1CD", {15, 53}}});
  struct Case {
    const char* format;
    long procedure;
    bool by_format;
    std::string text;
    std::string first;  // the first character's candidates
    double third;       // the confidence of the third character's best candidate
  };
  const Case cases[] = {
      {"?+@#$", 0, false, "Q_QF5", "Q", 0.9},  // one candidate: "+" finds no special
      {"$$-$$", 1, true, "55-55", "56", 1.0},  // a literal has confidence 1.0
      {"$$-$$", 1, false, "FFFFF", "F7-xy", 0.9},  // without the flag: full font, no literal
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.format) + " procedure " + std::to_string(c.procedure));
    OcrSettings s = Industrial();
    s.format = c.format;
    s.format_flag = c.procedure == 0 || c.by_format;
    s.num = c.procedure == 1 ? 10 : 1;
    const auto recs = Read(img, s);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].text, c.text);
    ASSERT_EQ(recs[0].candidates.size(), 5u);
    std::string first;
    for (const Candidate& k : recs[0].candidates[0]) first += k.klass;
    EXPECT_EQ(first, c.first);
    EXPECT_EQ(recs[0].candidates[2][0].confidence, c.third);
  }
}

TEST_F(OcrImageTest, ReadsOnlyTheTallestLineLeftToRight) {
  const cv::Mat img = TextImage({210, 130}, {{"ABCDEF", {10, 35}, 1.0}, {"XYZ", {10, 110}, 2.2}});
  const auto recs = Read(img, Industrial());
  ASSERT_EQ(recs.size(), 1u);
  ASSERT_EQ(recs[0].rects.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_GT(recs[0].rects[i].top, 50) << "a character of the small line was read";
    if (i) EXPECT_GT(recs[0].rects[i].left, recs[0].rects[i - 1].right);
  }
}

TEST_F(OcrImageTest, CountCorrectionCutsOnlyWhenTheCountDiffers) {
  const cv::Mat img = TextImage({225, 72}, {{"ABCDEF", {15, 53}}});
  for (const auto [expected, found] : {std::pair<long, size_t>{0, 6}, {6, 6}, {3, 3}}) {
    OcrSettings s = Industrial();
    s.expected_count = expected;
    const auto recs = Read(img, s);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].rects.size(), found) << "expected count " << expected;
  }
}

TEST_F(OcrImageTest, ReversedPassReadsTheImageTurned) {
  // Text near the left edge: the turned pass sees it near the right edge.
  const cv::Mat img = TextImage({160, 72}, {{"ABC", {8, 53}}});
  OcrSettings s = Industrial();
  s.reverse = true;
  const auto recs = Read(img, s);
  ASSERT_EQ(recs.size(), 2u);
  EXPECT_EQ(recs[0].angle, 0);
  EXPECT_EQ(recs[1].angle, 180);
  ASSERT_EQ(recs[1].rects.size(), 3u);
  EXPECT_LT(recs[0].rects[0].left, 20);
  EXPECT_GT(recs[1].rects[0].left, 40);
  // The turned pass's first character is the original's last, mirrored.
  EXPECT_NEAR(recs[1].rects[0].left, img.cols - 1 - recs[0].rects[2].right, 2);
  EXPECT_NEAR(recs[1].rects[0].top, img.rows - 1 - recs[0].rects[2].bottom, 2);
}

TEST_F(OcrImageTest, StretchedRectanglesMapBackToTheImage) {
  const cv::Mat img = TextImage({200, 72}, {{"AB1CD", {15, 53}}});
  OcrSettings wide = Industrial();
  wide.stretch = 2.0f;
  const auto a = Read(img, Industrial()), b = Read(img, wide);
  ASSERT_EQ(a.size(), 1u);
  ASSERT_EQ(b.size(), 1u);
  ASSERT_EQ(a[0].rects.size(), b[0].rects.size());
  for (size_t i = 0; i < a[0].rects.size(); ++i) {
    EXPECT_NEAR(a[0].rects[i].left, b[0].rects[i].left, 2);
    EXPECT_NEAR(a[0].rects[i].right, b[0].rects[i].right, 2);
    EXPECT_EQ(a[0].rects[i].top, b[0].rects[i].top);
  }
}

// A small line in a whole frame: without the setting the flattening scales
// the line away with the ground (print under a tenth of the image), with it
// the window around the line is read and its boxes come back in the frame's
// coordinates, on the printed characters.
TEST_F(OcrImageTest, TextWindowReadsASmallLineInAWholeFrame) {
  cv::Mat frame(480, 640, CV_8U, cv::Scalar(200));
  const cv::Mat line = TextImage({200, 72}, {{"AB1CD", {15, 53}}});
  line.copyTo(frame(cv::Rect(300, 250, 200, 72)));
  const auto whole = Read(frame, Industrial());
  EXPECT_TRUE(whole.empty() || whole[0].rects.size() != 5u);
  OcrSettings s = Industrial();
  s.text_window = true;
  const auto windowed = Read(frame, s), crop = Read(line, Industrial());
  ASSERT_EQ(windowed.size(), 1u);
  ASSERT_EQ(crop.size(), 1u);
  ASSERT_EQ(windowed[0].rects.size(), 5u);
  ASSERT_EQ(crop[0].rects.size(), 5u);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_NEAR(windowed[0].rects[i].left, crop[0].rects[i].left + 300, 1) << i;
    EXPECT_NEAR(windowed[0].rects[i].top, crop[0].rects[i].top + 250, 1) << i;
    EXPECT_NEAR(windowed[0].rects[i].right, crop[0].rects[i].right + 300, 1) << i;
  }
  // An empty frame has no line: the whole frame is read, as without the key.
  const cv::Mat empty(480, 640, CV_8U, cv::Scalar(200));
  EXPECT_TRUE(Read(empty, s).empty());
}

// Small print is enlarged before it is read: the boxes still come back on
// the printed characters, in the frame's coordinates, for both the outline
// families' narrow window and dot print's wider one.
TEST_F(OcrImageTest, TextWindowBoxesOfEnlargedSmallPrintLieOnTheCharacters) {
  for (const char* family : {"Industrial", "DotPrint"}) {
    if (std::string(family) == "DotPrint") {
      dir_.Add("DotPrint.omc", {"F", "0"});
      dir_.Add("DotPrint_0-9.omc", {"D", "1"});
      dir_.Add("DotPrint_A-Z+.omc", {"L", "M"});
    }
    cv::Mat frame(480, 640, CV_8U, cv::Scalar(200));
    for (int i = 0; i < 5; ++i)
      cv::putText(frame, std::string(1, "AB1CD"[i]), {300 + 22 * i, 260}, cv::FONT_HERSHEY_SIMPLEX,
                  0.8, cv::Scalar(30), 2, cv::LINE_AA);
    // The characters' own boxes: one dark blob each.
    cv::Mat labels, stats, centroids;
    const int n = cv::connectedComponentsWithStats(frame < 120, labels, stats, centroids, 8);
    std::vector<cv::Rect> ink;
    for (int i = 1; i < n; ++i)
      ink.emplace_back(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                       stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT));
    std::sort(ink.begin(), ink.end(), [](const cv::Rect& a, const cv::Rect& b) { return a.x < b.x; });
    ASSERT_EQ(ink.size(), 5u);
    OcrSettings s;
    s.font_name = family;
    s.text_window = true;
    const auto recs = Read(frame, s);
    ASSERT_EQ(recs.size(), 1u) << family;
    ASSERT_EQ(recs[0].rects.size(), 5u) << family;
    for (size_t i = 0; i < 5; ++i) {
      const Rect& r = recs[0].rects[i];
      EXPECT_NEAR(r.left, ink[i].x, 2) << family << " " << i;
      EXPECT_NEAR(r.right, ink[i].br().x - 1, 2) << family << " " << i;
      EXPECT_NEAR(r.top, ink[i].y, 2) << family << " " << i;
      EXPECT_NEAR(r.bottom, ink[i].br().y - 1, 2) << family << " " << i;
    }
  }
}

// No classifiers loaded (no font; a wrong or unknown name loads none either,
// see OcrFonts), and a font one of whose files is missing.
TEST_F(OcrImageTest, FailuresAreLoggedAndEndTheRun) {
  const cv::Mat img = TextImage({200, 72}, {{"AB1CD", {15, 53}}});
  fs::remove(dir_.path / "ocr" / "Industrial_0-9_NoRej.omc");
  for (const auto& font : {std::optional<std::string>(), {"Industrial"}}) {
    OcrSettings s;
    s.font_name = font;
    testing::internal::CaptureStderr();
    const auto recs = RecognizeText(ToHObject(img), img.cols, img.rows, s);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(recs.empty());
    EXPECT_NE(log.find("-[AppDelegate ocrImage:attribute:] exception:"), std::string::npos) << log;
  }
}

TEST(OcrSettings, ReadFromTheAttributeDictionary) {
  EXPECT_EQ(ReadOcrSettings(nullptr).font_name, "Industrial");
  EXPECT_FALSE(ReadOcrSettings(nullptr).text_window);
  auto with_window = archive::MakeDictionary();
  EXPECT_FALSE(ReadOcrSettings(with_window).text_window);
  with_window->Set("text_window", archive::MakeBool(true));
  EXPECT_TRUE(ReadOcrSettings(with_window).text_window);

  // Procedure 1 asks for 10 candidates and applies the format only when
  // "recognize_by_format" says so (absent here); procedure 0 always applies it
  // (set false here) and alone checks the reverse and counts "match_string".
  struct Case {
    int procedure;
    bool by_number;
    long num;
    bool format_flag, reverse;
    long expected_count;
  };
  const Case cases[] = {
      {1, true, 10, false, false, 7}, {0, true, 1, true, true, 3},
      {2, true, 1, true, false, 0},   {0, false, 1, true, true, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "procedure " << c.procedure << " by number " << c.by_number);
    auto d = archive::MakeDictionary();
    d->Set("ocr_proc", archive::MakeInt32(c.procedure));
    if (c.procedure != 1) d->Set("recognize_by_format", archive::MakeBool(false));
    d->Set("check_reverse", archive::MakeBool(true));
    d->Set("recognize_by_number", archive::MakeBool(c.by_number));
    d->Set("number_of_letters", archive::MakeInt32(7));
    d->Set("match_string", archive::MakeString("ABC"));
    d->Set("black_level", archive::MakeInt32(-3));
    const OcrSettings s = ReadOcrSettings(d);
    EXPECT_FALSE(s.font_name.has_value());
    EXPECT_EQ(s.num, c.num);
    EXPECT_EQ(s.format_flag, c.format_flag);
    EXPECT_EQ(s.reverse, c.reverse);
    EXPECT_EQ(s.expected_count, c.expected_count);
    EXPECT_EQ(s.black_level, -3);
  }
}

TEST(OcrRecords, LayoutOfTheReply) {
  OcrTextRecord r;
  r.text = "A1";
  r.rects = {{10, 20, 30, 40}, {-1, 300, 2, 301}};
  r.candidates = {{{"A", 0.75}}, {{"1", 0.5}, {"7", 0.25}}};
  r.angle = 180;
  auto d = archive::AsDictionary(TextRecordObject(r));
  ASSERT_TRUE(d);
  ASSERT_EQ(d->size(), 4u);
  const char* keys[] = {"ocr_text", "ocr_rect", "ocr_confidences", "ocr_angle"};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(archive::AsString(d->entries()[i].first)->text, keys[i]);
  auto rects = archive::AsArray(d->Get("ocr_rect"));
  ASSERT_EQ(rects->items.size(), 2u);
  auto second = archive::AsData(rects->items[1]);
  ASSERT_EQ(second->bytes.size(), 8u);
  std::vector<int16_t> v(4);  // top, left, bottom, right in host byte order
  std::memcpy(v.data(), second->bytes.data(), 8);
  EXPECT_EQ(v, (std::vector<int16_t>{-1, 300, 2, 301}));
  auto confs = archive::AsArray(d->Get("ocr_confidences"));
  auto c1 = archive::AsArray(confs->items[1]);
  ASSERT_EQ(c1->items.size(), 2u);
  EXPECT_EQ(archive::ReadString(c1->items[1], "class"), "7");
  EXPECT_EQ(archive::ReadDouble(c1->items[1], "confidence"), 0.25);
  EXPECT_EQ(archive::ReadInt(d, "ocr_angle"), 180);

  auto absent = archive::AsArray(ocrImage(nullptr, nullptr, false));
  ASSERT_TRUE(absent);
  EXPECT_TRUE(absent->items.empty());
}

TEST(OcrFonts, CatalogueAndFileTable) {
  auto list = archive::AsArray(installedFonts());
  ASSERT_EQ(list->items.size(), 4u);
  const char* names[] = {"Industrial", "Document", "DotPrint", "OCRA"};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(archive::ReadString(list->items[i], "fontName"), names[i]);
    EXPECT_TRUE(archive::ReadBool(list->items[i], "has0-9"));
    EXPECT_TRUE(archive::ReadBool(list->items[i], "hasA-Z"));
  }

  const TempVisionDir dir("ocr_fonts_test_");
  for (const char* f : {"OCRB.omc", "OCRB_0-9.omc", "OCRB_A-Z+.omc", "DotPrint.omc",
                        "DotPrint_0-9.omc", "DotPrint_A-Z+.omc"})
    dir.Add(f, {"A", "B"});
  struct Case {
    std::optional<std::string> name;
    bool loads, raises;
  };
  const Case cases[] = {
      {"OCRB", true, false},      {"DotPrint", true, false}, {"ocrb", false, false},
      {std::nullopt, false, false}, {"Industrial", false, true},  // "_NoRej" files are absent
  };
  for (const auto& c : cases) {
    HTuple slots[3];
    if (c.raises) {
      EXPECT_THROW(readOCRFont(c.name, slots), vision::HException);
      continue;
    }
    readOCRFont(c.name, slots);
    for (const auto& s : slots) EXPECT_EQ(s.Length(), c.loads ? 1 : 0) << c.name.value_or("nil");
  }
}

// Dot print's text window: a piece of two joined cells that the classifier
// takes for no character (its rejection class, however sure) is re-cut, and
// its parts are read; the host's window keeps the piece (read `_`).
TEST_F(OcrImageTest, TextWindowRecutsDotPrintPiecesReadAsNoCharacter) {
  dir_.Add("DotPrint.omc", {"F", "0"});
  dir_.Add("DotPrint_0-9.omc", {"D", "1"});
  dir_.Add("DotPrint_A-Z+.omc", {"L", "M"});
  // Wide pieces are no character, narrow ones an A; both answered surely.
  const auto by_width = [](const HObject& ch, const HObject&, const HTuple&, const HTuple& num,
                           HTuple* klass, HTuple* conf) {
    int r1, c1, r2, c2;
    ch.RegionAt(0).BoundingBox(&r1, &c1, &r2, &c2);
    klass->Clear();
    conf->Clear();
    klass->Append(HTuple(c2 - c1 + 1 > 40 ? std::string(1, char(0x80)) : std::string("A")));
    conf->Append(HTuple(0.95));
    if (num.L() > 1) {
      klass->Append(HTuple("B"));
      conf->Append(HTuple(0.03));
    }
  };
  // Five cells 24 pixels wide and 12 apart; the second and third joined at
  // their foot.
  cv::Mat frame(480, 640, CV_8U, cv::Scalar(200));
  for (int i = 0; i < 5; ++i) frame(cv::Rect(200 + 36 * i, 200, 24, 60)).setTo(30);
  frame(cv::Rect(260, 254, 12, 6)).setTo(30);
  OcrSettings s;
  s.font_name = "DotPrint";
  const cv::Mat crop = frame(cv::Rect(170, 170, 235, 120));
  const auto window = RecognizeText(ToHObject(crop), crop.cols, crop.rows, s, by_width);
  ASSERT_EQ(window.size(), 1u);
  EXPECT_EQ(window[0].text, "A_AA");
  s.text_window = true;
  const auto framed = RecognizeText(ToHObject(frame), frame.cols, frame.rows, s, by_width);
  ASSERT_EQ(framed.size(), 1u);
  EXPECT_EQ(framed[0].text, "AAAAA");
  ASSERT_EQ(framed[0].rects.size(), 5u);
  EXPECT_NEAR(framed[0].rects[1].left, 236, 2);
  EXPECT_NEAR(framed[0].rects[2].right, 295, 2);
}

}  // namespace
}  // namespace velmora
