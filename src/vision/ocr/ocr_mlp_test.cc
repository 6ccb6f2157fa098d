#include "vision/ocr/ocr_mlp.h"
#include "vision/ocr/mlp.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

namespace vision {
namespace {

namespace fs = std::filesystem;

// A light image with one dark shape drawn at (row, col); returns the image
// and the shape's region (pixels darker than the middle gray).
struct Drawn {
  HObject image, region;
};

Drawn DrawShape(char shape, int row, int col, int size) {
  cv::Mat m(120, 160, CV_8U, cv::Scalar(220));
  const cv::Point c(col, row), half(0, size / 2);
  const cv::Point slant(size / 3, size / 2), back(-size / 3, size / 2);
  const int stroke = std::max(2, size / 6);
  if (shape == 'O') cv::circle(m, c, size / 2, cv::Scalar(30), stroke);
  if (shape == 'I') cv::line(m, c - half, c + half, cv::Scalar(30), stroke);
  if (shape == 'X') {
    cv::line(m, c - slant, c + slant, cv::Scalar(30), stroke);
    cv::line(m, c + back, c - back, cv::Scalar(30), stroke);
  }
  return {HObject(Image::FromPlanes(PixelType::Byte, {m})), HObject(Region::FromMask(m < 128))};
}

HTuple Create(const HTuple& features, const HTuple& classes, int hidden = 8, int seed = 1) {
  HTuple ocr;
  create_ocr_class_mlp(HTuple(8), HTuple(10), HTuple("constant"), features, classes, HTuple(hidden),
                       HTuple("normalization"), HTuple(10), HTuple(seed), &ocr);
  return ocr;
}

// Trains `ocr` for `passes` passes over the samples `add` appends to a new set.
template <class AddSamples>
HTuple Train(const HTuple& ocr, int passes, AddSamples add) {
  HTuple set, err, log;
  create_ocr_train_samples(&set);
  add(set);
  trainf_ocr_class_mlp(ocr, set, HTuple(passes), HTuple(1.0), HTuple(0.0), &err, &log);
  EXPECT_EQ(log.Length(), passes);
  EXPECT_LT(err.D(), log.D(0));  // training lowered the error
  return ocr;
}

// O, I and X at twelve sizes; trained once for all tests.
const HTuple& Shapes() {
  static const HTuple ocr =
      Train(Create("default", HTuple::Strings({"O", "I", "X"}), 16, 7), 200, [](const HTuple& set) {
        for (int size = 16; size <= 60; size += 4)
          for (char s : {'O', 'I', 'X'}) {
            const Drawn d = DrawShape(s, 40 + size / 3, 50 + size, size);
            append_ocr_trainf(d.region, d.image, HTuple(std::string(1, s)), set);
          }
      });
  return ocr;
}

HTuple Classify(const HTuple& ocr, const Drawn& d, int num, HTuple* conf = nullptr) {
  HTuple klass, ignored;
  do_ocr_single_class_mlp(d.region, d.image, ocr, HTuple(num), &klass, conf ? conf : &ignored);
  return klass;
}

// X shapes given as pieces of no character: a classifier with the rejection
// class names them with it, one without it spreads its confidence over O and I,
// and both still read O and I.
TEST(OcrMlpReject, PiecesOfNoCharacterAreRejectedOrDoubted) {
  auto add = [](const HTuple& set) {
    for (int size = 16; size <= 60; size += 4)
      for (char s : {'O', 'I', 'X'}) {
        const Drawn d = DrawShape(s, 40 + size / 3, 50 + size, size);
        append_ocr_trainf(d.region, d.image,
                          HTuple(s == 'X' ? kOcrRejectClass : std::string(1, s)), set);
      }
  };
  const HTuple with = Train(Create("default", HTuple::Strings({"O", "I", kOcrRejectClass}), 16, 7),
                            200, add);
  const HTuple without = Train(Create("default", HTuple::Strings({"O", "I"}), 16, 7), 200, add);
  const Drawn x = DrawShape('X', 50, 80, 34), o = DrawShape('O', 50, 80, 34),
              i = DrawShape('I', 50, 80, 34);
  HTuple conf;
  EXPECT_EQ(Classify(with, x, 1).S(0), kOcrRejectClass);
  EXPECT_EQ(Classify(with, o, 1).S(0), "O");
  Classify(without, x, 2, &conf);
  EXPECT_LT(conf.D(0), 0.7);
  EXPECT_EQ(Classify(without, o, 1, &conf).S(0), "O");
  EXPECT_GT(conf.D(0), 0.9);
  EXPECT_EQ(Classify(without, i, 1).S(0), "I");
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

// Each test has its own temporary folder for the files it writes.
class OcrMlp : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(dir_); }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const char* name) const { return (dir_ / name).string(); }
  std::string Write(const HTuple& ocr, const char* name) const {
    write_ocr_class_mlp(ocr, HTuple(Path(name)));
    return Path(name);
  }
  // Reads `bytes` as a classifier file: "" when it loads, else the error.
  std::string ReadError(const std::string& bytes) const {
    std::ofstream(Path("bytes.omc"), std::ios::binary | std::ios::trunc) << bytes;
    HTuple h;
    try {
      read_ocr_class_mlp(HTuple(Path("bytes.omc")), &h);
    } catch (const HException& e) {
      return e.ErrorMessage();
    }
    return "";
  }

  const fs::path dir_ = fs::temp_directory_path() / ("vision_ocr_test_" + std::to_string(getpid()));
};

TEST_F(OcrMlp, ClassifiesUnseenSizesBestFirst) {
  for (char s : {'O', 'I', 'X'})
    for (int size : {22, 50}) {
      HTuple conf;
      const HTuple klass = Classify(Shapes(), DrawShape(s, 60, 80, size), 3, &conf);
      ASSERT_EQ(klass.Length(), 3);
      EXPECT_EQ(klass.S(0), std::string(1, s)) << "size " << size;
      EXPECT_GE(conf.D(0), conf.D(1));
      EXPECT_GE(conf.D(1), conf.D(2));
      EXPECT_LE(conf.D(0) + conf.D(1) + conf.D(2), 1.0 + 1e-5);
      EXPECT_GT(conf.D(2), -1e-9);
    }
}

TEST_F(OcrMlp, FileRoundTripKeepsOutputsAndRejectsDamage) {
  const std::string path = Write(Shapes(), "shapes.omc");
  HTuple again, c1, c2;
  read_ocr_class_mlp(HTuple(path), &again);
  const Drawn d = DrawShape('X', 55, 70, 40);
  EXPECT_EQ(Classify(Shapes(), d, 3, &c1), Classify(again, d, 3, &c2));
  for (int i = 0; i < 3; ++i) EXPECT_FLOAT_EQ(float(c1.D(i)), float(c2.D(i)));

  const std::string bytes = BytesOf(path);
  std::string flipped = bytes;
  flipped[bytes.size() / 2] ^= 0x10;
  const std::pair<const char*, std::string> damages[] = {
      {"truncated", bytes.substr(0, bytes.size() - 9)},
      {"one bit flipped", flipped},
      {"empty", ""},
      {"wrong magic", "XXXX" + bytes.substr(4)},
  };
  for (const auto& [what, content] : damages) EXPECT_NE(ReadError(content), "") << what;
  EXPECT_THROW(read_ocr_class_mlp(HTuple(Path("missing.omc")), &again), HException);
}

TEST_F(OcrMlp, ClearedOrEmptyHandleAndBadInputsRaise) {
  const HTuple ocr = Create("default", HTuple::Strings({"O", "I", "X"}));
  const Drawn d = DrawShape('O', 60, 80, 30);
  EXPECT_THROW(Classify(HTuple(), d, 1), HException);
  EXPECT_THROW(Classify(ocr, {d.image, HObject(Region())}, 1), HException);
  EXPECT_THROW(Classify(ocr, d, 0), HException);
  // A region entirely outside the image has nothing to classify.
  const HObject outside(Region::Rectangle(500, 500, 510, 510));
  EXPECT_THROW(Classify(ocr, {d.image, outside}, 1), HException);
  // Num larger than the class count gives every class once.
  EXPECT_EQ(Classify(ocr, d, 10).Length(), 3);
  clear_ocr_class_mlp(ocr);
  EXPECT_THROW(Classify(ocr, d, 1), HException);
  EXPECT_THROW(Create("default", HTuple::Strings({"A", "A"})), HException);
  EXPECT_THROW(Create("colour", HTuple::Strings({"A", "B"})), HException);
}

TEST_F(OcrMlp, TrainingFileMatchesInMemorySamples) {
  const std::string path = Path("samples.trf");
  const Drawn o = DrawShape('O', 60, 80, 30), i = DrawShape('I', 50, 40, 24);
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
}

// A line "H-o" with a second line far above: the band of each character is
// the rows of the capital H (rows 40..69), never the other line (rows 5..14).
TEST_F(OcrMlp, LineBandSpansTheNeighboursOfItsOwnLineOnly) {
  cv::Mat m(100, 200, CV_8U, cv::Scalar(200));
  cv::rectangle(m, cv::Rect(10, 5, 150, 10), cv::Scalar(40), cv::FILLED);  // other line
  cv::rectangle(m, cv::Rect(20, 40, 4, 30), cv::Scalar(40), cv::FILLED);   // H
  cv::rectangle(m, cv::Rect(36, 40, 4, 30), cv::Scalar(40), cv::FILLED);
  cv::rectangle(m, cv::Rect(20, 53, 20, 4), cv::Scalar(40), cv::FILLED);
  cv::rectangle(m, cv::Rect(46, 55, 10, 3), cv::Scalar(40), cv::FILLED);   // -
  cv::rectangle(m, cv::Rect(62, 52, 14, 18), cv::Scalar(40), cv::FILLED);  // o
  cv::rectangle(m, cv::Rect(65, 55, 8, 12), cv::Scalar(200), cv::FILLED);
  const HObject image(Image::FromPlanes(PixelType::Byte, {m}));
  const std::pair<const char*, cv::Rect> boxes[] = {
      {"capital", {20, 40, 20, 30}}, {"small letter", {62, 52, 14, 18}},
      {"hyphen", {46, 55, 10, 3}}};
  for (const auto& [what, box] : boxes) {
    const Region r = Region::FromMask(m(box) < 128).Translated(box.y, box.x);
    const OcrSample s = OcrCutSample(r, image.ImageAt(0), "test");
    EXPECT_EQ(box.y + s.band_top, 40) << what;
    EXPECT_EQ(box.y + s.band_bottom, 69) << what;
  }
  // At the image border the band stops at the first and last rows.
  int top = 0, bottom = 0;
  OcrLineBand(cv::Mat(20, 20, CV_8U, cv::Scalar(0)), 5, 5, 10, 10, 100, &top, &bottom);
  EXPECT_EQ(top, 0);
  EXPECT_EQ(bottom, 19);
}

// The cut of an ellipse (the same pixels for both classes of a pair) drawn
// into `m` within `o` with the given stroke.
Drawn EllipseIn(const cv::Mat& m, const cv::Rect& o, int stroke) {
  cv::ellipse(m, (o.tl() + o.br()) / 2, o.size() / 2, 0, 0, 360, cv::Scalar(30), stroke);
  const cv::Rect cut(o.x - stroke, o.y - stroke, o.width + 2 * stroke, o.height + 2 * stroke);
  return {HObject(Image::FromPlanes(PixelType::Byte, {m})),
          HObject(Region::FromMask(m(cut) < 128).Translated(cut.y, cut.x))};
}

// The ellipse beside an l of its own height (a capital O) or of one and a
// half times it (a small o).
Drawn OBesideL(int size, bool small) {
  cv::Mat m(4 * size, 4 * size, CV_8U, cv::Scalar(210));
  const int base = 3 * size, stroke = std::max(2, size / 8);
  const int l_height = small ? size * 3 / 2 : size;
  cv::rectangle(m, cv::Rect(size / 4, base - l_height, stroke, l_height), cv::Scalar(30),
                cv::FILLED);
  return EllipseIn(m, cv::Rect(size, base - size, size * 3 / 4, size), stroke);
}

// The ellipse between two bars of the same height: bars narrower than the
// ellipse make it a wide letter O, bars wider than it a narrow digit 0.
Drawn OBetweenBars(int size, bool wide) {
  const int stroke = std::max(2, size / 8), ow = size * 3 / 4;
  const int bar = wide ? ow / 2 : ow * 3 / 2, gap = size / 4;
  cv::Mat m(3 * size, 2 * gap + 3 * (ow + bar + gap), CV_8U, cv::Scalar(205));
  cv::rectangle(m, cv::Rect(gap, size, bar, size), cv::Scalar(35), cv::FILLED);
  cv::rectangle(m, cv::Rect(3 * gap + bar + ow, size, bar, size), cv::Scalar(35), cv::FILLED);
  const cv::Rect o(2 * gap + bar + stroke, size + stroke, ow - 2 * stroke, size - 2 * stroke);
  return EllipseIn(m, o, stroke);
}

// Two classes drawn alike but for their neighbours: `draw(size, true)` is `first`.
struct Pair {
  Drawn (*draw)(int size, bool first);
  const char *first, *other;
};
const Pair kCase{OBesideL, "o", "O"}, kPitch{OBetweenBars, "O", "0"};

HTuple TrainPair(const char* feature, const Pair& p) {
  const HTuple ocr =
      Create(HTuple::Strings({"default", feature}), HTuple::Strings({p.first, p.other}), 8, 3);
  return Train(ocr, 300, [&](const HTuple& set) {
    for (int size = 14; size <= 40; size += 2)
      for (bool first : {true, false}) {
        const Drawn d = p.draw(size, first);
        append_ocr_trainf(d.region, d.image, HTuple(first ? p.first : p.other), set);
      }
  });
}

// How many of the pair's six unseen drawings `ocr` reads right.
int CorrectReads(const HTuple& ocr, const Pair& p) {
  int n = 0;
  for (int size : {17, 25, 31})
    for (bool first : {true, false})
      n += Classify(ocr, p.draw(size, first), 1).S(0) == (first ? p.first : p.other);
  return n;
}

// The pitch is the median run: two bars and the ellipse give the bars' width.
TEST_F(OcrMlp, LinePitchIsTheMedianRunAroundTheCharacter) {
  for (bool wide : {true, false}) {
    const Drawn d = OBetweenBars(32, wide);
    const OcrSample s = OcrCutSample(d.region.RegionAt(0), d.image.ImageAt(0), "test");
    EXPECT_EQ(s.pitch, wide ? 12 : 36) << wide;
  }
  EXPECT_EQ(OcrLinePitch(cv::Mat(10, 10, CV_8U, cv::Scalar(255)), 0, 9, 4, 5, 100), 0);
}

// Each line feature separates its pair, also read back from its file: the
// band tells o from O by the neighbouring l, band_pixels does so from the
// band's rows on the pixel grid, and only the pitch tells O from 0; the band
// sees the same input for both and reads one of each pair.
TEST_F(OcrMlp, LineFeaturesTellApartWhatThePixelsCannot) {
  const struct {
    const char* feature;
    const Pair& pair;
    int correct;
  } cases[] = {{"line_band", kCase, 6}, {"band_pixels", kCase, 6}, {"line_pitch", kPitch, 6},
               {"line_band", kPitch, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.feature);
    HTuple again;
    read_ocr_class_mlp(HTuple(Write(TrainPair(c.feature, c.pair), "pair.omc")), &again);
    EXPECT_EQ(CorrectReads(again, c.pair), c.correct);
  }
}

// Version 1 knows no line band, versions up to 2 neither band_pixels nor
// line_pitch: such files are refused by the feature's name.
TEST_F(OcrMlp, OlderFileVersionsRefuseFeaturesTheyDoNotKnow) {
  const struct {
    const char* feature;
    char version;
    bool loads;
  } cases[] = {{"default", 1, true}, {"line_band", 1, false}, {"line_band", 2, true},
               {"band_pixels", 2, false}, {"line_pitch", 2, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.feature) + " in version " + char('0' + c.version));
    const std::string file = Write(Create(c.feature, HTuple::Strings({"A", "B"})), "v.omc");
    const std::string error = ReadError(Relabel(BytesOf(file), c.version));
    if (c.loads) EXPECT_EQ(error, "");
    else EXPECT_NE(error.find(std::string("Feature ") + c.feature), std::string::npos) << error;
  }
}

// The input scaling is computed with correctly rounded operations only, so
// that the training program writes the same classifier files on every
// processor (an approximate reciprocal square root differs between them).
// Column k holds k+1 plus or minus k+1: its mean and variance are exact in
// single precision, so the expected scale is known to the last bit.
TEST(OcrMlpTraining, InputScalingIsExactToTheLastBit) {
  constexpr int kRows = 64, kCols = 48;
  ocr_detail::MatF x(kRows, kCols);
  for (int r = 0; r < kRows; ++r)
    for (int k = 0; k < kCols; ++k) x(r, k) = float(k + 1) + (r % 2 ? 1.f : -1.f) * float(k + 1);
  ocr_detail::Mlp net;
  net.Init(kCols, 4, 2, 1);
  ocr_detail::TrainParams p;
  p.epochs = 1;
  ocr_detail::Train(&net, x, std::vector<int>(kRows, 0), p);
  for (int k = 0; k < kCols; ++k) {
    const float var = float((k + 1) * (k + 1));
    EXPECT_EQ(net.mean[k], float(k + 1)) << k;
    EXPECT_EQ(net.inv_std[k], 1.f / std::sqrt(var + 1e-4f)) << k;
  }
}

}  // namespace
}  // namespace vision
