#include "vision/ocr/ocr_mlp.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

namespace vision {
namespace {

// A light image with one dark shape drawn at (row, col); returns the image
// and the shape's region (pixels darker than the middle gray).
struct Drawn {
  HObject image, region;
};

Drawn DrawShape(char shape, int row, int col, int size) {
  cv::Mat m(120, 160, CV_8U, cv::Scalar(220));
  const cv::Point c(col, row);
  if (shape == 'O') cv::circle(m, c, size / 2, cv::Scalar(30), std::max(2, size / 6));
  if (shape == 'I') cv::line(m, c - cv::Point(0, size / 2), c + cv::Point(0, size / 2), cv::Scalar(30), std::max(2, size / 6));
  if (shape == 'X') {
    cv::line(m, c - cv::Point(size / 3, size / 2), c + cv::Point(size / 3, size / 2), cv::Scalar(30), std::max(2, size / 6));
    cv::line(m, c + cv::Point(-size / 3, size / 2), c - cv::Point(-size / 3, size / 2), cv::Scalar(30), std::max(2, size / 6));
  }
  Drawn d;
  d.image = HObject(Image::FromPlanes(PixelType::Byte, {m}));
  d.region = HObject(Region::FromMask(m < 128));
  return d;
}

HTuple TrainedClassifier() {
  HTuple ocr, set, err, log;
  create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"), HTuple("default"),
                       HTuple::Strings({"O", "I", "X"}), HTuple(16), HTuple("normalization"),
                       HTuple(10), HTuple(7), &ocr);
  create_ocr_train_samples(&set);
  for (int size = 16; size <= 60; size += 4)
    for (char s : {'O', 'I', 'X'}) {
      Drawn d = DrawShape(s, 40 + size / 3, 50 + size, size);
      append_ocr_trainf(d.region, d.image, HTuple(std::string(1, s)), set);
    }
  trainf_ocr_class_mlp(ocr, set, HTuple(200), HTuple(1.0), HTuple(0.0), &err, &log);
  EXPECT_EQ(log.Length(), 200);
  EXPECT_LT(err.D(), log.D(0));  // training lowered the error
  return ocr;
}

TEST(OcrMlp, ClassifiesUnseenSizesBestFirst) {
  const HTuple ocr = TrainedClassifier();
  for (char s : {'O', 'I', 'X'})
    for (int size : {22, 50}) {
      Drawn d = DrawShape(s, 60, 80, size);
      HTuple klass, conf;
      do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(3), &klass, &conf);
      ASSERT_EQ(klass.Length(), 3);
      EXPECT_EQ(klass.S(0), std::string(1, s)) << "size " << size;
      EXPECT_GE(conf.D(0), conf.D(1));
      EXPECT_GE(conf.D(1), conf.D(2));
      EXPECT_LE(conf.D(0) + conf.D(1) + conf.D(2), 1.0 + 1e-5);
      EXPECT_GT(conf.D(2), -1e-9);
    }
}

// Writes `ocr` as `name` into the temporary folder `folder` (made when
// missing); returns the file's path.
std::string WriteInTempFolder(const HTuple& ocr, const char* folder, const char* name) {
  const auto dir = std::filesystem::temp_directory_path() / folder;
  std::filesystem::create_directories(dir);
  const std::string path = (dir / name).string();
  write_ocr_class_mlp(ocr, HTuple(path));
  return path;
}

TEST(OcrMlp, FileRoundTripKeepsOutputsAndRejectsDamage) {
  const HTuple ocr = TrainedClassifier();
  const std::string path = WriteInTempFolder(ocr, "vision_ocr_test", "shapes.omc");
  const auto dir = std::filesystem::path(path).parent_path();
  HTuple again;
  read_ocr_class_mlp(HTuple(path), &again);
  Drawn d = DrawShape('X', 55, 70, 40);
  HTuple k1, c1, k2, c2;
  do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(3), &k1, &c1);
  do_ocr_single_class_mlp(d.region, d.image, again, HTuple(3), &k2, &c2);
  EXPECT_EQ(k1, k2);
  for (int i = 0; i < 3; ++i) EXPECT_FLOAT_EQ(float(c1.D(i)), float(c2.D(i)));

  std::string bytes;
  {
    std::ifstream f(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(f), {});
  }
  struct Damage {
    const char* what;
    std::string content;
  };
  std::string flipped = bytes;
  flipped[bytes.size() / 2] ^= 0x10;
  const Damage damages[] = {
      {"truncated", bytes.substr(0, bytes.size() - 9)},
      {"one bit flipped", flipped},
      {"empty", ""},
      {"wrong magic", "XXXX" + bytes.substr(4)},
  };
  for (const auto& dmg : damages) {
    const std::string bad = (dir / "bad.omc").string();
    std::ofstream(bad, std::ios::binary | std::ios::trunc) << dmg.content;
    HTuple h;
    EXPECT_THROW(read_ocr_class_mlp(HTuple(bad), &h), HException) << dmg.what;
  }
  HTuple h;
  EXPECT_THROW(read_ocr_class_mlp(HTuple((dir / "missing.omc").string()), &h), HException);
  std::filesystem::remove_all(dir);
}

TEST(OcrMlp, BareNameResolvesInTheLibraryFolder) {
  const HTuple ocr = TrainedClassifier();
  const auto dir = std::filesystem::temp_directory_path() / "vision_ocr_folder";
  std::filesystem::create_directories(dir / "ocr");
  write_ocr_class_mlp(ocr, HTuple((dir / "ocr" / "Shapes.omc").string()));
  setenv("VELMORA_VISION_DIR", dir.c_str(), 1);
  HTuple h;
  EXPECT_NO_THROW(read_ocr_class_mlp(HTuple("Shapes.omc"), &h));
  EXPECT_THROW(read_ocr_class_mlp(HTuple("shapes.omc"), &h), HException);  // case matters
  std::filesystem::remove_all(dir);
}

TEST(OcrMlp, ClearedOrEmptyHandleAndBadInputsRaise) {
  const HTuple ocr = TrainedClassifier();
  Drawn d = DrawShape('O', 60, 80, 30);
  HTuple k, c;
  EXPECT_THROW(do_ocr_single_class_mlp(d.region, d.image, HTuple(), HTuple(1), &k, &c), HException);
  EXPECT_THROW(do_ocr_single_class_mlp(HObject(Region()), d.image, ocr, HTuple(1), &k, &c), HException);
  EXPECT_THROW(do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(0), &k, &c), HException);
  // A region entirely outside the image has nothing to classify.
  EXPECT_THROW(do_ocr_single_class_mlp(HObject(Region::Rectangle(500, 500, 510, 510)), d.image, ocr,
                                       HTuple(1), &k, &c), HException);
  // Num larger than the class count gives every class once.
  do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(10), &k, &c);
  EXPECT_EQ(k.Length(), 3);
  clear_ocr_class_mlp(ocr);
  EXPECT_THROW(do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(1), &k, &c), HException);
  HTuple h;
  EXPECT_THROW(create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"), HTuple("default"),
                                    HTuple::Strings({"A", "A"}), HTuple(8), HTuple("none"),
                                    HTuple(10), HTuple(1), &h), HException);
  EXPECT_THROW(create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"), HTuple("colour"),
                                    HTuple::Strings({"A", "B"}), HTuple(8), HTuple("none"),
                                    HTuple(10), HTuple(1), &h), HException);
}

TEST(OcrMlp, TrainingFileMatchesInMemorySamples) {
  const auto path = (std::filesystem::temp_directory_path() / "vision_ocr_test.trf").string();
  std::remove(path.c_str());
  Drawn o = DrawShape('O', 60, 80, 30), i = DrawShape('I', 50, 40, 24);
  append_ocr_trainf(o.region, o.image, HTuple("O"), HTuple(path));
  append_ocr_trainf(i.region, i.image, HTuple("I"), HTuple(path));
  HTuple set;
  read_ocr_trainf_samples(HTuple(path), &set);
  const auto& s = HandleCast<OcrTrainSamples>(set, "test")->samples;
  ASSERT_EQ(s.size(), 2u);
  EXPECT_EQ(s[0].klass, "O");
  EXPECT_EQ(s[1].klass, "I");
  // The cut is the region's bounding box: a circle of radius 15 with stroke 5.
  EXPECT_NEAR(s[0].gray.cols, 35, 2);
  EXPECT_EQ(s[0].gray.size(), s[0].mask.size());
  EXPECT_EQ(cv::countNonZero(s[0].mask), o.region.RegionAt(0).Area());
  // The text line band and pitch travel with the sample (a lone shape: the
  // box, and its own width).
  EXPECT_EQ(s[0].band_top, 0);
  EXPECT_EQ(s[0].band_bottom, s[0].gray.rows - 1);
  EXPECT_NEAR(s[0].pitch, s[0].gray.cols, 2);
  EXPECT_NEAR(s[1].pitch, s[1].gray.cols, 2);
  std::remove(path.c_str());
}

// A line "H-o" with a second line far above: the band of each character is
// the rows of the capital H (rows 40..69), never the other line (rows 5..14).
TEST(OcrMlp, LineBandSpansTheNeighboursOfItsOwnLineOnly) {
  cv::Mat m(100, 200, CV_8U, cv::Scalar(200));
  cv::rectangle(m, cv::Rect(10, 5, 150, 10), cv::Scalar(40), cv::FILLED);  // other line
  cv::rectangle(m, cv::Rect(20, 40, 4, 30), cv::Scalar(40), cv::FILLED);   // H
  cv::rectangle(m, cv::Rect(36, 40, 4, 30), cv::Scalar(40), cv::FILLED);
  cv::rectangle(m, cv::Rect(20, 53, 20, 4), cv::Scalar(40), cv::FILLED);
  cv::rectangle(m, cv::Rect(46, 55, 10, 3), cv::Scalar(40), cv::FILLED);   // -
  cv::rectangle(m, cv::Rect(62, 52, 14, 18), cv::Scalar(40), cv::FILLED);  // o
  cv::rectangle(m, cv::Rect(65, 55, 8, 12), cv::Scalar(200), cv::FILLED);
  const HObject image(Image::FromPlanes(PixelType::Byte, {m}));
  struct Case {
    const char* what;
    cv::Rect box;
    int top, bottom;  // expected band rows in the image
  };
  const Case cases[] = {
      {"capital", {20, 40, 20, 30}, 40, 69},
      {"small letter", {62, 52, 14, 18}, 40, 69},
      {"hyphen", {46, 55, 10, 3}, 40, 69},
  };
  for (const Case& c : cases) {
    const Region box = Region::FromMask(m(c.box) < 128).Translated(c.box.y, c.box.x);
    const OcrSample s = OcrCutSample(box, image.ImageAt(0), "test");
    EXPECT_EQ(c.box.y + s.band_top, c.top) << c.what;
    EXPECT_EQ(c.box.y + s.band_bottom, c.bottom) << c.what;
  }
  // At the image border the band stops at the first and last rows.
  int top = 0, bottom = 0;
  cv::Mat full(20, 20, CV_8U, cv::Scalar(0));
  OcrLineBand(full, 5, 5, 10, 10, 100, &top, &bottom);
  EXPECT_EQ(top, 0);
  EXPECT_EQ(bottom, 19);
}

// The same ellipse (identical pixels for both classes) beside an l of its
// own height (a capital O) or of one and a half times it (a small o).
Drawn OBesideL(int size, bool small) {
  cv::Mat m(4 * size, 4 * size, CV_8U, cv::Scalar(210));
  const int base = 3 * size, stroke = std::max(2, size / 8);
  const int l_height = small ? size * 3 / 2 : size;
  cv::rectangle(m, cv::Rect(size / 4, base - l_height, stroke, l_height), cv::Scalar(30),
                cv::FILLED);
  const cv::Rect o(size, base - size, size * 3 / 4, size);
  cv::ellipse(m, (o.tl() + o.br()) / 2, o.size() / 2, 0, 0, 360, cv::Scalar(30), stroke);
  Drawn d;
  d.image = HObject(Image::FromPlanes(PixelType::Byte, {m}));
  const cv::Rect cut(o.x - stroke, o.y - stroke, o.width + 2 * stroke, o.height + 2 * stroke);
  d.region = HObject(Region::FromMask(m(cut) < 128).Translated(cut.y, cut.x));
  return d;
}

// A two-class classifier with `default` and one line feature, trained on one
// shape drawn in two settings by `draw(size, first)`: class `first_class`
// when `first`, else `other_class`.
using DrawPair = Drawn (*)(int size, bool first);
HTuple TrainPairClassifier(const char* feature, DrawPair draw, const char* first_class,
                           const char* other_class) {
  HTuple ocr, set, err, log;
  create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"),
                       HTuple::Strings({"default", feature}),
                       HTuple::Strings({first_class, other_class}), HTuple(8),
                       HTuple("normalization"), HTuple(10), HTuple(3), &ocr);
  create_ocr_train_samples(&set);
  for (int size = 14; size <= 40; size += 2)
    for (bool first : {true, false}) {
      const Drawn d = draw(size, first);
      append_ocr_trainf(d.region, d.image, HTuple(first ? first_class : other_class), set);
    }
  trainf_ocr_class_mlp(ocr, set, HTuple(300), HTuple(1.0), HTuple(0.0), &err, &log);
  return ocr;
}

// An o/O classifier with the given position feature, trained on OBesideL.
HTuple TrainCaseClassifier(const char* position_feature) {
  return TrainPairClassifier(position_feature, OBesideL, "o", "O");
}

void ExpectCaseRead(const HTuple& ocr) {
  for (int size : {17, 31})
    for (bool small : {true, false}) {
      const Drawn d = OBesideL(size, small);
      HTuple k, c;
      do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(1), &k, &c);
      EXPECT_EQ(k.S(0), small ? "o" : "O") << "size " << size;
    }
}

std::string BytesOf(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// The same bytes labelled as an older version, with the byte-wise FNV-1a
// checksum those versions carry.
std::string Relabel(std::string bytes, char version) {
  bytes[4] = version;
  uint32_t h = 2166136261u;
  for (size_t i = 0; i + 4 < bytes.size(); ++i) h = (h ^ uint8_t(bytes[i])) * 16777619u;
  std::memcpy(&bytes[bytes.size() - 4], &h, 4);
  return bytes;
}

// With the line band, one shape is a small or a capital o by its neighbour, and
// the feature survives the file. Labelled version 2 the same bytes load;
// labelled version 1 they must be refused, as version 1 knows no line band;
// a version 1 file of `default` loads.
TEST(OcrMlp, LineBandSeparatesCaseAndKeepsFileVersions) {
  const HTuple ocr = TrainCaseClassifier("line_band");
  const std::string path = WriteInTempFolder(ocr, "vision_ocr_band", "case.omc");
  const auto dir = std::filesystem::path(path).parent_path();
  HTuple again;
  read_ocr_class_mlp(HTuple(path), &again);
  ExpectCaseRead(again);
  const std::string old_band = (dir / "old_band.omc").string();
  std::ofstream(old_band, std::ios::binary) << Relabel(BytesOf(path), 1);
  HTuple h;
  EXPECT_THROW(read_ocr_class_mlp(HTuple(old_band), &h), HException);
  std::ofstream(old_band, std::ios::binary) << Relabel(BytesOf(path), 2);
  EXPECT_NO_THROW(read_ocr_class_mlp(HTuple(old_band), &h));
  const std::string plain = (dir / "plain.omc").string(), old_plain = (dir / "old_plain.omc").string();
  write_ocr_class_mlp(TrainedClassifier(), HTuple(plain));
  std::ofstream(old_plain, std::ios::binary) << Relabel(BytesOf(plain), 1);
  EXPECT_NO_THROW(read_ocr_class_mlp(HTuple(old_plain), &h));
  std::filesystem::remove_all(dir);
}

// The band's rows carried on the pixel grid separate the same two shapes
// without the four band values; such a file cannot claim an older version.
TEST(OcrMlp, BandPixelsSeparateCaseOnTheGrid) {
  const HTuple ocr = TrainCaseClassifier("band_pixels");
  ExpectCaseRead(ocr);
  const std::string path = WriteInTempFolder(ocr, "vision_ocr_band_pixels", "case.omc");
  const auto dir = std::filesystem::path(path).parent_path();
  const std::string older = Relabel(BytesOf(path), 2);  // read before the rewrite truncates
  std::ofstream(path, std::ios::binary) << older;
  HTuple again;
  EXPECT_THROW(read_ocr_class_mlp(HTuple(path), &again), HException);
  std::filesystem::remove_all(dir);
}

// One ellipse (the same pixels for both classes) between two bars of the same
// height: bars narrower than the ellipse make it a wide letter O, bars wider
// than it a narrow digit 0. Only the line's pitch tells them apart.
Drawn OBetweenBars(int size, bool wide) {
  const int stroke = std::max(2, size / 8), ow = size * 3 / 4;
  const int bar = wide ? ow / 2 : ow * 3 / 2, gap = size / 4;
  cv::Mat m(3 * size, 2 * gap + 3 * (ow + bar + gap), CV_8U, cv::Scalar(205));
  const int top = size;
  int x = gap;
  cv::rectangle(m, cv::Rect(x, top, bar, size), cv::Scalar(35), cv::FILLED);
  x += bar + gap;
  const cv::Rect o(x + stroke, top + stroke, ow - 2 * stroke, size - 2 * stroke);
  cv::ellipse(m, (o.tl() + o.br()) / 2, o.size() / 2, 0, 0, 360, cv::Scalar(35), stroke);
  x += ow + gap;
  cv::rectangle(m, cv::Rect(x, top, bar, size), cv::Scalar(35), cv::FILLED);
  Drawn d;
  d.image = HObject(Image::FromPlanes(PixelType::Byte, {m}));
  const cv::Rect cut(o.x - stroke, o.y - stroke, o.width + 2 * stroke, o.height + 2 * stroke);
  d.region = HObject(Region::FromMask(m(cut) < 128).Translated(cut.y, cut.x));
  return d;
}

// The pitch is the median run: two bars and the ellipse give the bars' width.
// A classifier with it reads O and 0 correctly, also from its file; with
// the same network on the line band alone it cannot. A file that names
// line_pitch cannot claim an older version.
TEST(OcrMlp, LinePitchTellsAWideLetterFromANarrowDigit) {
  for (bool wide : {true, false}) {
    const Drawn d = OBetweenBars(32, wide);
    const OcrSample s = OcrCutSample(d.region.RegionAt(0), d.image.ImageAt(0), "test");
    EXPECT_EQ(s.pitch, wide ? 12 : 36) << wide;
  }
  EXPECT_EQ(OcrLinePitch(cv::Mat(10, 10, CV_8U, cv::Scalar(255)), 0, 9, 4, 5, 100), 0);
  auto train = [](const char* feature) {
    return TrainPairClassifier(feature, OBetweenBars, "O", "0");
  };
  auto correct = [](const HTuple& ocr) {
    int n = 0;
    for (int size : {17, 25, 31})
      for (bool wide : {true, false}) {
        const Drawn d = OBetweenBars(size, wide);
        HTuple k, c;
        do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(1), &k, &c);
        n += k.S(0) == (wide ? "O" : "0");
      }
    return n;
  };
  const std::string path = WriteInTempFolder(train("line_pitch"), "vision_ocr_pitch", "pitch.omc");
  const auto dir = std::filesystem::path(path).parent_path();
  HTuple again;
  read_ocr_class_mlp(HTuple(path), &again);
  EXPECT_EQ(correct(again), 6);
  EXPECT_EQ(correct(train("line_band")), 3);  // the same input for both: one of each pair
  const std::string older = Relabel(BytesOf(path), 2);  // read before the rewrite truncates
  std::ofstream(path, std::ios::binary) << older;
  try {
    read_ocr_class_mlp(HTuple(path), &again);
    ADD_FAILURE() << "a version 2 file naming line_pitch was read";
  } catch (const HException& e) {
    EXPECT_NE(e.ErrorMessage().find("line_pitch"), std::string::npos) << e.what();
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace vision
