// bench_ocr_cpu: the processor time of our window reads on the markings of
// the independent benchmark (DIR/truth.tsv and the DIR/win_*.png windows
// that `bench_ocr_independent read` writes), per family and grade. Each
// window is read --repeat times on this thread and its least thread
// processor time counts, so that other processes on a shared machine add
// as little as they can; the sum is in ms per window. bench/ocr/cpu.sh
// runs it beside Tesseract's processor time on the same windows.
//
// Where `read --frames 1` left the whole frame of a marking
// (DIR/frame_<id>.png), the frame is also read with the text window (which
// finds the line and reads its windows), its least thread time likewise:
// the second column.
//
//   bench_ocr_cpu --dir DIR [--repeat R]
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "ocr/ocr_image.h"
#include "sample_cut.h"

namespace {

double ThreadMs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

struct Window {
  std::string family, grade;
  cv::Mat rgb, frame;  // frame: empty without a frame file
  double best_ms = 1e300, best_tw_ms = 1e300;
};

}  // namespace

int main(int argc, char** argv) {
  // The heap as the add-in's process keeps it.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  std::string dir;
  int repeat = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    if (a == "--dir") dir = argv[i + 1];
    if (a == "--repeat") repeat = std::max(1, std::stoi(argv[i + 1]));
  }
  if (dir.empty()) {
    // bench/run.sh starts every benchmark without arguments.
    std::printf("bench_ocr_cpu: run bench/ocr/cpu.sh BUILD N (needs the independent benchmark's windows)\n");
    return 0;
  }
  std::ifstream truth(dir + "/truth.tsv");
  std::vector<Window> windows;
  std::vector<std::pair<std::string, std::string>> order;
  for (std::string line; std::getline(truth, line);) {
    std::istringstream in(line);
    std::string file;
    Window w;
    std::getline(in, file, '\t');
    std::getline(in, w.family, '\t');
    std::getline(in, w.grade, '\t');
    const cv::Mat bgr = cv::imread(dir + "/" + file, cv::IMREAD_COLOR);
    if (bgr.empty()) continue;
    cv::cvtColor(bgr, w.rgb, cv::COLOR_BGR2RGB);
    const cv::Mat frame = cv::imread(dir + "/frame_" + file.substr(4), cv::IMREAD_COLOR);
    if (file.rfind("win_", 0) == 0 && !frame.empty()) cv::cvtColor(frame, w.frame, cv::COLOR_BGR2RGB);
    const auto key = std::make_pair(w.family, w.grade);
    if (std::find(order.begin(), order.end(), key) == order.end()) order.push_back(key);
    windows.push_back(std::move(w));
  }
  if (windows.empty()) {
    std::fprintf(stderr, "bench_ocr_cpu: no windows in %s\n", dir.c_str());
    return 1;
  }
  // Rounds over all windows, so that one busy moment of the machine does not
  // fall on every repetition of the same window.
  for (int r = 0; r < repeat; ++r)
    for (Window& w : windows) {
      velmora::OcrSettings s;
      s.font_name = w.family;
      const auto image = velmora::ocrgen::ToVisionImage(w.rgb);
      const double t0 = ThreadMs();
      const auto records = velmora::RecognizeText(image, w.rgb.cols, w.rgb.rows, s);
      w.best_ms = std::min(w.best_ms, ThreadMs() - t0);
      if (w.frame.empty()) continue;
      s.text_window = true;
      const auto frame = velmora::ocrgen::ToVisionImage(w.frame);
      const double t1 = ThreadMs();
      const auto tw = velmora::RecognizeText(frame, w.frame.cols, w.frame.rows, s);
      w.best_tw_ms = std::min(w.best_tw_ms, ThreadMs() - t1);
    }
  std::printf("%-10s %-9s %5s %9s %9s\n", "family", "grade", "marks", "ours_cpu", "tw_cpu");
  for (const auto& [family, grade] : order) {
    double sum = 0, tw_sum = 0;
    int n = 0, tw_n = 0;
    for (const Window& w : windows)
      if (w.family == family && w.grade == grade) {
        sum += w.best_ms, ++n;
        if (!w.frame.empty()) tw_sum += w.best_tw_ms, ++tw_n;
      }
    std::printf("%-10s %-9s %5d %9.3f %9.3f\n", family.c_str(), grade.c_str(), n, sum / n,
                tw_n ? tw_sum / tw_n : 0.0);
  }
  return 0;
}
