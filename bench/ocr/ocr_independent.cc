// bench_ocr_independent: the reader on markings made outside the training
// program. Text is laid out and rasterised by Pango/Cairo (`pango-view`, run
// by bench/ocr/independent.sh) in faces no classifier was trained on, with
// strings of this benchmark's own kinds (dates, expiry and lot codes, part
// numbers, words), and degraded here by a camera model of its own: signal-
// dependent noise, defocus, vignetting and a light gradient, a ground texture,
// inverted polarity, tilt done by Pango. Every marking is read three ways:
// in a host's window with 0.5 to 1.5 text heights of ground on each side, the
// same with "recognize_by_number" (the expected count is the text's length),
// and as a small marking somewhere in a whole 640x480 frame, read as the
// frame and with the "text_window" setting.
//
//   bench_ocr_independent plan --markings N [--seed S]   > plan.tsv
//   bench_ocr_independent read --dir DIR [--errors 1] [--confusions 1] [--frames 1]
//                                          (DIR holds plan.tsv and Pango's PNGs)
//
// --errors 1 lists every misread marking (window and text window) with its
// piece count; --confusions 1 adds where the lost characters come from
// (markings cut into the right number of pieces, into fewer, into more) and
// which characters become which where the count is right.
//
// --frames 1 also writes each whole frame as DIR/frame_<id>.png (for the
// processor time of the text window, bench/ocr/cpu.sh).
//
// `read` writes DIR/win_<id>.png and DIR/truth.tsv (window, family, grade,
// text without blanks, our text, our ms) for Tesseract beside us.
//
// Beside the figures, what the segmentation allows at most: a marking cut
// into as many pieces as it has characters can be read right, and a marking
// cut into k pieces for n characters loses at least |k - n| of them. That is
// an upper bound (a count that agrees may still join one pair and break
// another), not a measurement of the classifiers.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace {

double U(std::mt19937& rng, double a, double b) {
  return std::uniform_real_distribution<double>(a, b)(rng);
}
int I(std::mt19937& rng, int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); }

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> prev(b.size() + 1), cur(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) prev[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    cur[0] = i;
    for (size_t j = 1; j <= b.size(); ++j)
      cur[j] = std::min({prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (a[i - 1] != b[j - 1])});
    std::swap(prev, cur);
  }
  return prev[b.size()];
}

// The least-edit table of `truth` against `got`: d[i][j] edits turn the
// first i characters of one into the first j of the other.
std::vector<std::vector<size_t>> EditTable(const std::string& truth, const std::string& got) {
  const size_t n = truth.size(), m = got.size();
  std::vector<std::vector<size_t>> d(n + 1, std::vector<size_t>(m + 1));
  for (size_t i = 0; i <= n; ++i) d[i][0] = i;
  for (size_t j = 0; j <= m; ++j) d[0][j] = j;
  for (size_t i = 1; i <= n; ++i)
    for (size_t j = 1; j <= m; ++j)
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                          d[i - 1][j - 1] + (truth[i - 1] != got[j - 1])});
  return d;
}

// The index pairs (in truth, in got) a least-edit alignment sets against
// each other, kept or substituted, last first.
std::vector<std::pair<size_t, size_t>> AlignedPairs(const std::string& truth, const std::string& got) {
  const std::vector<std::vector<size_t>> d = EditTable(truth, got);
  std::vector<std::pair<size_t, size_t>> pairs;
  for (size_t i = truth.size(), j = got.size(); i > 0 && j > 0;) {
    if (d[i][j] == d[i - 1][j - 1] + (truth[i - 1] != got[j - 1])) {
      pairs.push_back({--i, --j});
    } else if (d[i][j] == d[i - 1][j] + 1) {
      --i;
    } else {
      --j;
    }
  }
  return pairs;
}

// Which characters of `got` an alignment with `truth` (least edits) keeps as
// they are: the others are substituted or inserted.
std::vector<bool> AlignedRight(const std::string& truth, const std::string& got) {
  std::vector<bool> right(got.size(), false);
  for (const auto& [i, j] : AlignedPairs(truth, got)) right[j] = truth[i] == got[j];
  return right;
}

// The substitutions (truth character, character read) of a least-edit
// alignment.
std::vector<std::pair<char, char>> Substitutions(const std::string& truth, const std::string& got) {
  std::vector<std::pair<char, char>> subs;
  for (const auto& [i, j] : AlignedPairs(truth, got))
    if (truth[i] != got[j]) subs.push_back({truth[i], got[j]});
  return subs;
}

// Where the errors of a reading come from: markings cut into as many pieces
// as they have characters (what is lost there, the classifiers lose, unless
// one merge and one break cancel), into fewer (merged pairs) or into more
// (broken strokes, specks); and which characters become which where the count
// is right.
struct ErrorSplit {
  size_t chars = 0, err[3] = {0, 0, 0}, marks[3] = {0, 0, 0};
  std::map<std::string, int> subs;
  void Add(const std::string& truth, const velmora::OcrTextRecord& rec) {
    chars += truth.size();
    const size_t e = std::min(EditDistance(truth, rec.text), truth.size());
    if (e == 0) return;
    const int kind = rec.rects.size() == truth.size() ? 0 : rec.rects.size() < truth.size() ? 1 : 2;
    err[kind] += e;
    ++marks[kind];
    if (kind == 0)
      for (const auto& [t, g] : Substitutions(truth, rec.text)) ++subs[std::string{t, '>', g}];
  }
  std::string Split() const {
    char b[160];
    std::snprintf(b, sizeof b, "%5.1f%% (%2zu) %5.1f%% (%2zu) %5.1f%% (%2zu)",
                  Pct(err[0]), marks[0], Pct(err[1]), marks[1], Pct(err[2]), marks[2]);
    return b;
  }
  double Pct(size_t e) const { return chars ? 100.0 * double(e) / double(chars) : 0; }
};

// The most frequent substitutions, "t>g count" separated by blanks.
std::string TopSubstitutions(const std::map<std::string, int>& subs, size_t n) {
  std::vector<std::pair<int, std::string>> v;
  for (const auto& [k, c] : subs) v.push_back({-c, k});
  std::sort(v.begin(), v.end());
  std::string out;
  for (size_t i = 0; i < v.size() && i < n; ++i)
    out += (i ? " " : "") + v[i].second + " " + std::to_string(-v[i].first);
  return out;
}

// How well the confidences tell right characters from wrong ones: right
// characters answered with at least 0.5, wrong ones (substituted or inserted)
// with less.
struct Confidence {
  size_t right = 0, right_high = 0, wrong = 0, wrong_low = 0;
  void Add(const std::string& truth, const velmora::OcrTextRecord& rec) {
    const std::vector<bool> ok = AlignedRight(truth, rec.text);
    for (size_t j = 0; j < ok.size() && j < rec.candidates.size(); ++j) {
      const double c = rec.candidates[j].empty() ? 0.0 : rec.candidates[j][0].confidence;
      if (ok[j]) {
        ++right;
        right_high += c >= 0.5;
      } else {
        ++wrong;
        wrong_low += c < 0.5;
      }
    }
  }
  double RightHigh() const { return right ? 100.0 * double(right_high) / double(right) : 0; }
  double WrongLow() const { return wrong ? 100.0 * double(wrong_low) / double(wrong) : 0; }
};

std::string NoBlanks(const std::string& s) {
  std::string o;
  for (char c : s)
    if (c != ' ') o += c;
  return o;
}

// Faces no training family uses (the training faces are listed in
// tools/ocr_train/markings.cc). DotPrint text is rasterised without
// antialiasing at 7 to 9 pixels of cap height, each pixel then printed as a
// dot: a bitmap coder font, not the training program's dot tables.
const std::map<std::string, std::vector<std::string>>& Faces() {
  static const std::map<std::string, std::vector<std::string>> f = {
      {"Industrial",
       {"Cantarell", "Cantarell Bold", "Inconsolata", "JetBrains Mono", "JetBrains Mono Bold",
        "Fira Code", "Fira Code Bold", "B612", "B612 Bold", "B612 Mono", "Lato", "Lato Bold",
        "Nimbus Sans Bold", "FreeSans Bold", "DejaVu Sans Mono Bold"}},
      {"Document",
       {"FreeSerif", "P052", "Linux Libertine O", "Linux Libertine O Bold", "Linux Biolinum O",
        "Cantarell", "Lato", "Liberation Sans Bold", "FreeSerif Bold"}},
      {"DotPrint", {"DejaVu Sans Mono", "Liberation Mono", "FreeMono Bold", "Noto Mono"}},
      {"OCRA", {"OCRA"}},
      {"OCRB", {"OCR B"}},
  };
  return f;
}

// Strings of this benchmark's own kinds; blanks separate words as printed.
std::string MakeText(const std::string& family, std::mt19937& rng) {
  const std::string D = "0123456789", L = "ABCDEFGHIJKLMNOPQRSTUVWXYZ",
                    l = "abcdefghijklmnopqrstuvwxyz";
  auto d = [&](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += D[size_t(I(rng, 0, 9))];
    return s;
  };
  auto up = [&](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += L[size_t(I(rng, 0, 25))];
    return s;
  };
  auto an = [&](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += I(rng, 0, 1) ? D[size_t(I(rng, 0, 9))] : L[size_t(I(rng, 0, 25))];
    return s;
  };
  if (family == "Document" && I(rng, 0, 2) == 0) {
    auto word = [&](int n) {
      std::string s(1, L[size_t(I(rng, 0, 25))]);
      for (int i = 1; i < n; ++i) s += l[size_t(I(rng, 0, 25))];
      return s;
    };
    switch (I(rng, 0, 4)) {
      case 0: return "Batch " + d(4) + "/" + d(1);
      case 1: return "Rev. " + up(1) + " (" + d(4) + ")";
      case 2: return "Exp. " + d(4) + "-" + d(2) + "-" + d(2);
      case 3: return word(I(rng, 3, 7)) + ": " + d(2) + "." + d(1) + "%";
      default: return word(I(rng, 4, 8)) + " " + word(I(rng, 2, 6));
    }
  }
  switch (I(rng, 0, 9)) {
    case 0: return "LOT " + d(1) + up(1) + "-" + d(4);
    case 1: return "EXP " + d(2) + "/" + d(4);
    case 2: return d(4) + "." + d(2) + "." + d(2);
    case 3: return "SN" + an(8);
    case 4: return "P/N " + d(4) + "-" + d(3);
    case 5: return d(2) + ":" + d(2) + " " + d(2) + "%";
    case 6: return "(" + d(2) + ")" + an(5);
    case 7: return "REF #" + d(4);
    case 8: return up(1) + "=" + d(3) + "*" + d(2);
    default: return an(I(rng, 4, 12));
  }
}

const char* kGrades[] = {"clean", "moderate", "hard"};

int Plan(int markings, uint32_t seed) {
  for (const auto& [family, faces] : Faces())
    for (int g = 0; g < 3; ++g) {
      std::mt19937 rng(seed + uint32_t(family.size()) * 7u + uint32_t(g) * 1009u);
      for (int i = 0; i < markings; ++i) {
        const std::string& face = faces[size_t(i) % faces.size()];
        const std::string text = MakeText(family, rng);
        const bool dots = family == "DotPrint";
        // Pixel font size: capitals come out at about 0.7 of it.
        const int px = dots ? I(rng, 10, 13) : I(rng, 29, 66);
        const double tilt = g == 0 ? 0.0 : U(rng, -1, 1) * (g == 1 ? 1.5 : 3.0);
        char id[64];
        std::snprintf(id, sizeof id, "%s_%s_%03d", family.c_str(), kGrades[g], i);
        std::printf("%s\t%s\t%s\t%s\t%d\t%.2f\t%s\n", id, family.c_str(), kGrades[g], face.c_str(),
                    px, dots ? 0.0 : tilt, text.c_str());
      }
    }
  return 0;
}

struct Degrade {
  double contrast, noise, blur, light, vignette, texture;
  bool inverted;
};

Degrade DrawDegrade(int grade, std::mt19937& rng) {
  Degrade d;
  if (grade == 0) d = {U(rng, 120, 200), U(rng, 0.3, 1.0), U(rng, 0.4, 0.8), U(rng, 0, 6), 0.0, 0.0, false};
  else if (grade == 1)
    d = {U(rng, 70, 150), U(rng, 1.5, 4.0), U(rng, 0.7, 1.4), U(rng, 0, 25), U(rng, 0, 0.15),
         U(rng, 0, 4), U(rng, 0, 1) < 0.25};
  else
    d = {U(rng, 50, 100), U(rng, 4.0, 8.0), U(rng, 1.2, 2.0), U(rng, 0, 40), U(rng, 0, 0.25),
         U(rng, 0, 8), U(rng, 0, 1) < 0.35};
  return d;
}

// Ink (1 = print) placed at `at` in a canvas of `size`, turned into a camera
// image: ground and print levels, light, texture, defocus, noise.
cv::Mat Expose(const cv::Mat& ink, cv::Size size, cv::Point at, const Degrade& d, uint32_t seed) {
  cv::Mat k = cv::Mat::zeros(size, CV_32F);
  const cv::Rect dst = cv::Rect(at, ink.size()) & cv::Rect(cv::Point(), size);
  ink(cv::Rect(dst.tl() - at, dst.size())).copyTo(k(dst));
  std::mt19937 rng(seed);
  double bg = U(rng, 150, 215), fg = bg - d.contrast;
  if (fg < 10) {
    bg += 10 - fg;
    fg = 10;
  }
  if (d.inverted) std::swap(bg, fg);
  // Ground texture: a few random ripples and streaks.
  cv::Mat tex = cv::Mat::zeros(size, CV_32F);
  if (d.texture > 0) {
    cv::RNG r(rng());
    cv::Mat n(size, CV_32F);
    r.fill(n, cv::RNG::UNIFORM, -1.0, 1.0);
    cv::GaussianBlur(n, n, cv::Size(0, 0), U(rng, 0.8, 4.0), U(rng, 0.8, 4.0));
    cv::normalize(n, tex, -d.texture, d.texture, cv::NORM_MINMAX);
  }
  const double ax = U(rng, -1, 1) * d.light, ay = U(rng, -1, 1) * d.light;
  const double cx = U(rng, 0.2, 0.8) * size.width, cy = U(rng, 0.2, 0.8) * size.height;
  const double rr = std::hypot(size.width, size.height) / 2;
  cv::Mat img(size, CV_32F);
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x) {
      const double v = 1.0 - d.vignette * std::pow(std::hypot(x - cx, y - cy) / rr, 2);
      const double light = ax * (double(x) / size.width - 0.5) + ay * (double(y) / size.height - 0.5);
      const double a = k.at<float>(y, x);
      img.at<float>(y, x) = float((bg + (fg - bg) * a + tex.at<float>(y, x) * (1 - a) + light) * v);
    }
  cv::GaussianBlur(img, img, cv::Size(0, 0), d.blur);
  // Camera noise: shot noise grows with the signal, read noise does not.
  cv::RNG r(rng());
  cv::Mat n(size, CV_32F);
  r.fill(n, cv::RNG::NORMAL, 0.0, 1.0);
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x) {
      float& p = img.at<float>(y, x);
      p += float(n.at<float>(y, x) * d.noise * (0.5 + 0.5 * std::sqrt(std::max(0.f, p) / 128.0)));
    }
  cv::Mat gray;
  img.convertTo(gray, CV_8U);
  cv::Mat rgb;
  cv::cvtColor(gray, rgb, cv::COLOR_GRAY2RGB);
  return rgb;
}

// Pango's PNG (dark text on white, maybe with alpha) as ink 0..1, cropped to
// the print. DotPrint: every print pixel becomes a round dot.
cv::Mat LoadInk(const std::string& path, bool dots, std::mt19937& rng) {
  cv::Mat src = cv::imread(path, cv::IMREAD_GRAYSCALE);
  if (src.empty()) return src;
  cv::Mat ink;
  src.convertTo(ink, CV_32F, -1.0 / 255.0, 1.0);
  cv::Mat mask = ink > 0.1;
  if (cv::countNonZero(mask) == 0) return cv::Mat();
  ink = ink(cv::boundingRect(mask)).clone();
  if (!dots) return ink;
  const double pitch = U(rng, 3.2, 5.5), dia = pitch * U(rng, 0.9, 1.25);
  const int pad = int(std::ceil(dia));
  const int ss = 4;
  cv::Mat big = cv::Mat::zeros(int((ink.rows - 1) * pitch + 2 * pad) * ss,
                               int((ink.cols - 1) * pitch + 2 * pad) * ss, CV_8U);
  for (int y = 0; y < ink.rows; ++y)
    for (int x = 0; x < ink.cols; ++x)
      if (ink.at<float>(y, x) > 0.5)
        cv::circle(big, cv::Point(int((x * pitch + pad) * ss), int((y * pitch + pad) * ss)),
                   int(dia / 2 * ss), cv::Scalar(255), cv::FILLED, cv::LINE_AA);
  cv::Mat out;
  cv::resize(big, out, cv::Size(big.cols / ss, big.rows / ss), 0, 0, cv::INTER_AREA);
  out.convertTo(out, CV_32F, 1.0 / 255.0);
  return out;
}

struct Score {
  size_t markings = 0, chars = 0, errors = 0, exact = 0;
  void Add(const std::string& truth, const std::string& got) {
    ++markings;
    chars += truth.size();
    const size_t e = std::min(EditDistance(truth, got), truth.size());
    errors += e;
    exact += e == 0;
  }
  double Char() const { return chars ? 100.0 * double(chars - errors) / double(chars) : 0; }
  double Mark() const { return markings ? 100.0 * double(exact) / double(markings) : 0; }
};

struct Row {
  Score window, ceiling, by_number, frame, frame_window;
  Confidence confidence;
  ErrorSplit window_errors, text_window_errors;
  std::vector<double> ms, frame_ms, frame_window_ms;
  size_t unread = 0;
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

velmora::OcrTextRecord Read(const cv::Mat& rgb, const std::string& family, long expected,
                            double* ms, bool text_window = false) {
  velmora::OcrSettings s;
  s.font_name = family;
  s.expected_count = expected;
  s.text_window = text_window;
  const auto img = velmora::ocrgen::ToVisionImage(rgb);
  const auto t0 = std::chrono::steady_clock::now();
  const auto recs = velmora::RecognizeText(img, rgb.cols, rgb.rows, s);
  *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  return recs.empty() ? velmora::OcrTextRecord() : recs[0];
}

int ReadAll(const std::string& dir, bool show_errors, bool confusions, bool frames) {
  std::ifstream plan(dir + "/plan.tsv");
  std::ofstream truth(dir + "/truth.tsv");
  std::map<std::pair<std::string, std::string>, Row> rows;
  std::vector<std::pair<std::string, std::string>> order;
  for (std::string line; std::getline(plan, line);) {
    std::istringstream in(line);
    std::string id, family, grade, face, px, tilt, text;
    std::getline(in, id, '\t');
    std::getline(in, family, '\t');
    std::getline(in, grade, '\t');
    std::getline(in, face, '\t');
    std::getline(in, px, '\t');
    std::getline(in, tilt, '\t');
    std::getline(in, text);
    const int g = grade == "clean" ? 0 : grade == "moderate" ? 1 : 2;
    const auto key = std::make_pair(family, grade);
    if (!rows.count(key)) order.push_back(key);
    Row& row = rows[key];
    std::mt19937 rng(uint32_t(std::hash<std::string>()(id)));
    const cv::Mat ink = LoadInk(dir + "/" + id + ".png", family == "DotPrint", rng);
    const std::string want = NoBlanks(text);
    if (ink.empty()) {
      ++row.unread;
      continue;
    }
    // Text height: the print's own height (capitals, descenders).
    const double th = ink.rows;
    const int ml = int(th * U(rng, 0.5, 1.5)), mr = int(th * U(rng, 0.5, 1.5)),
              mt = int(th * U(rng, 0.5, 1.5)), mb = int(th * U(rng, 0.5, 1.5));
    const Degrade d = DrawDegrade(g, rng);
    const uint32_t exposure = rng();
    const cv::Mat win =
        Expose(ink, cv::Size(ink.cols + ml + mr, ink.rows + mt + mb), cv::Point(ml, mt), d, exposure);
    double ms = 0;
    const velmora::OcrTextRecord rec = Read(win, family, 0, &ms);
    row.window.Add(want, rec.text);
    row.window_errors.Add(want, rec);
    row.confidence.Add(want, rec);
    row.ms.push_back(ms);
    if (show_errors && rec.text != want)
      std::printf("  %s [%s, %s px]: %s -> %s (%zu pieces)\n", id.c_str(), face.c_str(), px.c_str(),
                  want.c_str(), rec.text.c_str(), rec.rects.size());
    // The segmentation's bound: pieces against characters.
    const long pieces = long(rec.rects.size()), n = long(want.size());
    row.ceiling.markings++;
    row.ceiling.chars += size_t(n);
    row.ceiling.errors += size_t(std::min(n, std::labs(pieces - n)));
    row.ceiling.exact += pieces == n;
    const velmora::OcrTextRecord by_n = Read(win, family, n, &ms);
    row.by_number.Add(want, by_n.text);
    // A whole frame with the marking somewhere in it (markings too large for
    // the frame are shrunk to fit half of it).
    cv::Mat small = ink;
    const double fit = std::min({1.0, 320.0 / ink.cols, 240.0 / ink.rows});
    if (fit < 1.0) cv::resize(ink, small, cv::Size(), fit, fit, cv::INTER_AREA);
    const cv::Point at(I(rng, 20, 640 - 20 - small.cols), I(rng, 20, 480 - 20 - small.rows));
    const cv::Mat frame = Expose(small, cv::Size(640, 480), at, d, exposure);
    const velmora::OcrTextRecord fr = Read(frame, family, 0, &ms);
    row.frame.Add(want, fr.text);
    row.frame_ms.push_back(ms);
    const velmora::OcrTextRecord fw = Read(frame, family, 0, &ms, true);
    row.frame_window.Add(want, fw.text);
    row.text_window_errors.Add(want, fw);
    if (show_errors && fw.text != want)
      std::printf("  text window %s [%s, %s px]: %s -> %s (%zu pieces)\n", id.c_str(), face.c_str(),
                  px.c_str(), want.c_str(), fw.text.c_str(), fw.rects.size());
    row.frame_window_ms.push_back(ms);
    cv::Mat bgr;
    cv::cvtColor(win, bgr, cv::COLOR_RGB2BGR);
    cv::imwrite(dir + "/win_" + id + ".png", bgr);
    if (frames) {
      cv::cvtColor(frame, bgr, cv::COLOR_RGB2BGR);
      cv::imwrite(dir + "/frame_" + id + ".png", bgr);
    }
    truth << "win_" << id << ".png\t" << family << '\t' << grade << '\t' << want << '\t' << rec.text
          << '\t' << row.ms.back() << '\n';
  }
  std::printf(
      "%-10s %-9s %5s %6s %7s %7s %8s %8s %7s %7s %7s %7s %7s %7s %7s %7s %9s %9s %8s %8s\n",
      "family", "grade", "marks", "chars", "char%", "mark%", "cut_ch%", "cut_mk%", "num_ch%",
      "num_mk%", "frm_ch%", "frm_mk%", "tw_ch%", "tw_mk%", "med_ms", "mean_ms", "frame_ms",
      "tw_ms", "right_hi", "wrong_lo");
  for (const auto& key : order) {
    const Row& r = rows[key];
    double mean = 0;
    for (double x : r.ms) mean += x / double(r.ms.size());
    std::printf(
        "%-10s %-9s %5zu %6zu %7.2f %7.1f %8.2f %8.1f %7.2f %7.1f %7.2f %7.1f %7.2f %7.1f %7.2f "
        "%7.2f %9.2f %9.2f %8.1f %8.1f\n",
        key.first.c_str(), key.second.c_str(), r.window.markings, r.window.chars, r.window.Char(),
        r.window.Mark(), r.ceiling.Char(), r.ceiling.Mark(), r.by_number.Char(),
        r.by_number.Mark(), r.frame.Char(), r.frame.Mark(), r.frame_window.Char(),
        r.frame_window.Mark(), Median(r.ms), mean, Median(r.frame_ms), Median(r.frame_window_ms),
        r.confidence.RightHigh(), r.confidence.WrongLow());
    if (r.unread) std::printf("  (%zu markings without a Pango image)\n", r.unread);
  }
  if (!confusions) return 0;
  // Characters lost (edit distance, % of all characters, and the markings)
  // by how the cut went, then the substitutions where the count was right,
  // over the clean and moderate grades of each family.
  std::printf("\ncharacters lost where the cut has the right count / fewer pieces / more pieces\n");
  std::printf("%-10s %-9s %-44s %s\n", "family", "grade", "window", "frame, text window");
  std::map<std::string, std::map<std::string, int>> subs_w, subs_tw;
  for (const auto& key : order) {
    const Row& r = rows[key];
    std::printf("%-10s %-9s %-44s %s\n", key.first.c_str(), key.second.c_str(),
                r.window_errors.Split().c_str(), r.text_window_errors.Split().c_str());
    if (key.second == "hard") continue;
    for (const auto& [k, c] : r.window_errors.subs) subs_w[key.first][k] += c;
    for (const auto& [k, c] : r.text_window_errors.subs) subs_tw[key.first][k] += c;
  }
  std::printf("\nsubstitutions (true>read count) where the cut has the right count, clean and moderate\n");
  for (const auto& [family, subs] : subs_w) {
    std::printf("%-10s window:      %s\n", family.c_str(), TopSubstitutions(subs, 14).c_str());
    std::printf("%-10s text window: %s\n", "", TopSubstitutions(subs_tw[family], 14).c_str());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  if (argc < 2) {
    // bench/run.sh starts every benchmark without arguments; this one needs
    // Pango's images and runs through its script.
    std::printf("bench_ocr_independent: run bench/ocr/independent.sh BUILD N (results: "
                "bench/results/ocr_independent.txt)\n");
    return 0;
  }
  const std::string mode = argv[1];
  int markings = 100;
  uint32_t seed = 424242;
  std::string dir;
  bool show_errors = false, confusions = false, frames = false;
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string a = argv[i], v = argv[i + 1];
    if (a == "--markings") markings = std::stoi(v);
    else if (a == "--seed") seed = uint32_t(std::stoul(v));
    else if (a == "--dir") dir = v;
    else if (a == "--errors") show_errors = v == "1";
    else if (a == "--confusions") confusions = v == "1";
    else if (a == "--frames") frames = v == "1";
  }
  if (mode == "plan") return Plan(markings, seed);
  if (mode == "read" && !dir.empty()) return ReadAll(dir, show_errors, confusions, frames);
  std::fprintf(stderr, "bench_ocr_independent: unknown mode or missing --dir\n");
  return 2;
}
