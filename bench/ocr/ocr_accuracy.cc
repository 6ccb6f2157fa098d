// bench_ocr_accuracy: character and whole-marking accuracy of the shipped
// classifiers on generated markings that training never saw (other seeds,
// other strings, held-out faces), per family and grade, with the time of one
// recognition (segmentation + classification, classifier files loaded each
// time as the service does). Under each row, the same figures for small,
// middle and large print (cap heights 20-27, 28-37 and 38-48 pixels), so that
// an integrator sees what character height the optics should give.
// Beside each figure, what the service's cut alone allows: the text of a
// classifier that names every cut piece as the rendered character it covers
// (a merged pair reads as one character, a broken one as two, a lost hyphen
// not at all), so that the classifiers' own errors and the cut's are apart.
//
//   bench_ocr_accuracy [--markings N] [--family NAME] [--seed N] [--dump DIR]
//                      [--errors 1] [--black N] [--margin M] [--text-window 1]
//
// --black N reads with the host's black level N (the text threshold moves by
// 10 gray values per unit).
// --margin M puts M cap heights of ground around every marking (on each
// side) instead of the generator's 0.35 to 0.8; --text-window 1 reads with
// the "text_window" setting.
// --dump writes every marking as PNG plus truth.tsv (file, family, grade,
// text, our text, our milliseconds) for bench/ocr/tesseract.sh.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "markings.h"
#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace {

using namespace velmora::ocrgen;

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

// Cap heights of the markings, and the top of each of the three size bands
// the figures are also given for.
constexpr int kCapLo = 20, kSizeTop[3] = {27, 37, 48};

// Character edits and exactly read markings of one reading of a set.
struct Score {
  size_t errors = 0, exact = 0;
  void Add(const std::string& text, const std::string& got) {
    errors += std::min(EditDistance(text, got), text.size());
    exact += got == text;
  }
  Score& operator+=(const Score& o) {
    errors += o.errors;
    exact += o.exact;
    return *this;
  }
};

// Character and whole-marking tallies of one set of markings: the
// classifiers' reading, and every cut piece named right.
struct Tally {
  size_t markings = 0, chars = 0;
  Score read, cut;
  void Add(const std::string& text, const std::string& got, const std::string& cut_text) {
    ++markings;
    chars += text.size();
    read.Add(text, got);
    cut.Add(text, cut_text);
  }
  Tally& operator+=(const Tally& o) {
    markings += o.markings;
    chars += o.chars;
    read += o.read;
    cut += o.cut;
    return *this;
  }
  // char%, marking%, cut_char% and cut_mark%, as the table prints them.
  std::string Figures() const {
    auto percent = [](size_t right, size_t of) {
      return of ? 100.0 * double(right) / double(of) : 0;
    };
    char out[64];
    std::snprintf(out, sizeof out, "%8.2f %9.1f %9.2f %9.1f", percent(chars - read.errors, chars),
                  percent(read.exact, markings), percent(chars - cut.errors, chars),
                  percent(cut.exact, markings));
    return out;
  }
};

double Percentile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[size_t(q * double(v.size() - 1) + 0.5)];
}

}  // namespace

int main(int argc, char** argv) {
  // The add-in's allocator settings (src/app/main.cc), so that the reader is
  // timed as it runs there.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  int markings = 200;
  uint32_t seed = 777001;  // training uses 20260 + k * 7919
  std::string only, dump;
  bool show_errors = false;
  long black = 0;
  double margin = 0;  // 0: the generator's own 0.35..0.8 cap heights
  bool text_window = false;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i], v = argv[i + 1];
    if (a == "--markings") markings = std::stoi(v);
    else if (a == "--family") only = v;
    else if (a == "--seed") seed = uint32_t(std::stoul(v));
    else if (a == "--dump") dump = v;
    else if (a == "--errors") show_errors = v == "1";
    else if (a == "--black") black = std::stol(v);
    else if (a == "--margin") margin = std::stod(v);
    else if (a == "--text-window") text_window = v == "1";
  }
  std::ofstream truth;
  if (!dump.empty()) {
    std::filesystem::create_directories(dump);
    truth.open(dump + "/truth.tsv");
  }
  std::printf("bench_ocr_accuracy: %d markings per family and grade, 5-16 characters, cap height "
              "20-48 px, seed %u%s\n", markings, seed,
              black ? (", black level " + std::to_string(black)).c_str() : "");
  std::printf("%-10s %-9s %8s %8s %9s %9s %9s %9s %9s %9s %9s\n", "family", "grade", "chars",
              "char%", "marking%", "cut_char%", "cut_mark%", "mean_ms", "median_ms", "p10_ms",
              "p90_ms");
  MarkingRenderer renderer;
  if (margin > 0) renderer.SetMarginRange(margin, margin);
  for (const auto& fam : Families()) {
    if (!only.empty() && fam.name != only) continue;
    for (Grade g : {Grade::Clean, Grade::Moderate, Grade::Hard}) {
      std::mt19937 rng(seed + uint32_t(&fam - &Families()[0]) * 131u + uint32_t(g) * 17u);
      Tally by_size[3];
      std::vector<double> ms;
      for (int i = 0; i < markings; ++i) {
        const Face& face = fam.eval_faces[size_t(i) % fam.eval_faces.size()];
        const int len = std::uniform_int_distribution<int>(5, 16)(rng);
        const int height = std::uniform_int_distribution<int>(kCapLo, kSizeTop[2])(rng);
        const std::string text = RandomText(fam.AllClasses(), fam.specials, len, rng);
        const Marking m = renderer.Render(text, face, height, g, rng);
        velmora::OcrSettings s;
        s.font_name = fam.name;
        s.black_level = black;
        s.text_window = text_window;
        const auto img = ToVisionImage(m.rgb);
        const auto t0 = std::chrono::steady_clock::now();
        const auto recs = velmora::RecognizeText(img, m.rgb.cols, m.rgb.rows, s);
        const auto t1 = std::chrono::steady_clock::now();
        ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        const velmora::OcrTextRecord read = recs.empty() ? velmora::OcrTextRecord() : recs[0];
        const std::string& got = read.text;
        const std::string cut = NameCutPieces(m, read.rects);
        by_size[std::lower_bound(kSizeTop, kSizeTop + 2, height) - kSizeTop].Add(text, got, cut);
        if (show_errors && got != text)
          std::printf("  %s %s [%s, cap %d px]: %s -> %s\n", fam.name.c_str(), GradeName(g),
                      face.Name().c_str(), height, text.c_str(), got.c_str());
        if (truth.is_open()) {
          char name[96];
          std::snprintf(name, sizeof name, "%s_%s_%03d.png", fam.name.c_str(), GradeName(g), i);
          cv::Mat bgr;
          cv::cvtColor(m.rgb, bgr, cv::COLOR_RGB2BGR);
          cv::imwrite(dump + "/" + name, bgr);
          truth << name << '\t' << fam.name << '\t' << GradeName(g) << '\t' << text << '\t' << got
                << '\t' << ms.back() << '\n';
        }
      }
      double mean = 0;
      for (double x : ms) mean += x / double(ms.size());
      Tally all;
      for (const Tally& t : by_size) all += t;
      std::printf("%-10s %-9s %8zu %s %9.2f %9.2f %9.2f %9.2f\n", fam.name.c_str(),
                  GradeName(g), all.chars, all.Figures().c_str(), mean, Percentile(ms, 0.5),
                  Percentile(ms, 0.1), Percentile(ms, 0.9));
      for (int k = 0; k < 3; ++k)
        std::printf("  cap %d-%d px %13zu %s   (%zu markings)\n", k ? kSizeTop[k - 1] + 1 : kCapLo,
                    kSizeTop[k], by_size[k].chars, by_size[k].Figures().c_str(),
                    by_size[k].markings);
      std::fflush(stdout);
    }
  }
  return 0;
}
