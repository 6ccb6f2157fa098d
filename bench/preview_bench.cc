// The recognition preview (request 103) end to end over the request port and
// in process, at 320x240 up to 2560x1920, and the image conversions it is
// built from. Every benchmark repeats; the aggregates give median and spread,
// the counters the work size.
#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <unistd.h>

#include "imaging/halcon_utility.h"
#include "ocr/ocr_filtered_image.h"
#include "preview_addin.h"
#include "vision/core/region.h"

namespace {

using namespace velmora;
using preview_test::Marking;

testing::AddinProcess& SharedAddin() {
  static auto addin = std::make_unique<testing::AddinProcess>();
  return *addin;
}

// CPU seconds (user + system) the process has used so far, from /proc; lets
// the port benchmark show the add-in's own work apart from waiting on a busy
// machine.
double ProcessCpuSeconds(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(f, line);
  const size_t close = line.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream rest(line.substr(close + 2));
  std::string field;
  double utime = 0, stime = 0;
  for (int i = 3; rest >> field; ++i) {  // field 3 is the state
    if (i == 14) utime = std::stod(field);
    if (i == 15) {
      stime = std::stod(field);
      break;
    }
  }
  return (utime + stime) / double(sysconf(_SC_CLK_TCK));
}

void Sizes(benchmark::internal::Benchmark* b) {
  b->Args({320, 240})->Args({640, 480})->Args({1280, 960})->Args({2560, 1920});
}

void SetPixels(benchmark::State& st, int w, int h) {
  st.counters["pixels"] = double(w) * h;
  st.counters["width"] = w;
  st.counters["height"] = h;
}

void BM_PreviewRequestOverPort(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  auto& addin = SharedAddin();
  const auto block = preview_test::PreviewRequest(archive::MakeImage(Marking(w, h)), nullptr);
  size_t reply_bytes = 0;
  const double cpu0 = ProcessCpuSeconds(addin.pid());
  for (auto _ : st) {
    auto reply = preview_test::Send(addin, block);
    if (!reply || !reply->present) {
      st.SkipWithError("no preview reply");
      break;
    }
    reply_bytes = reply->data.size();
  }
  const double iterations = double(std::max<benchmark::IterationCount>(1, st.iterations()));
  st.counters["addin_cpu_ms"] = (ProcessCpuSeconds(addin.pid()) - cpu0) * 1000.0 / iterations;
  SetPixels(st, w, h);
  st.counters["request_bytes"] = double(block.size());
  st.counters["reply_bytes"] = double(reply_bytes);
}
BENCHMARK(BM_PreviewRequestOverPort)->Apply(Sizes)->Unit(benchmark::kMillisecond)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.2);

void BM_PreviewInProcess(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  const auto image = archive::MakeImage(Marking(w, h));
  for (auto _ : st) {
    auto tiff = ocrFilteredImage(image, nullptr, true);
    if (!tiff) {
      st.SkipWithError("preview failed");
      break;
    }
    benchmark::DoNotOptimize(tiff->data());
  }
  SetPixels(st, w, h);
}
BENCHMARK(BM_PreviewInProcess)->Apply(Sizes)->Unit(benchmark::kMillisecond)
    ->Repetitions(9)->ReportAggregatesOnly(true)->MinTime(0.2);

void BM_NSImage2HImage(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  const auto bitmap = Marking(w, h);
  for (auto _ : st) {
    vision::HObject img;
    RawBitmap2HImage(bitmap, &img);
    benchmark::DoNotOptimize(img);
  }
  SetPixels(st, w, h);
}
BENCHMARK(BM_NSImage2HImage)->Args({640, 480})->Args({2560, 1920})->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)->ReportAggregatesOnly(true);

void BM_HImage2NSImage(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  vision::HObject img;
  RawBitmap2HImage(Marking(w, h), &img);
  for (auto _ : st) {
    auto out = HImage2NSImage(img);  // includes the TIFF encoding
    benchmark::DoNotOptimize(out);
  }
  SetPixels(st, w, h);
}
BENCHMARK(BM_HImage2NSImage)->Args({640, 480})->Args({2560, 1920})->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)->ReportAggregatesOnly(true);

void BM_HRegion2HImage(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  // Text-like region: 40 columns of bars over the middle third.
  std::vector<vision::Run> runs;
  for (int y = h / 3; y < 2 * h / 3; ++y)
    for (int c = 0; c < 40; ++c) runs.push_back({y, c * w / 40, c * w / 40 + w / 120});
  vision::HObject region(vision::Region::FromRuns(runs));
  for (auto _ : st) {
    vision::HObject img;
    HRegion2HImage(region, &img, w, h);
    benchmark::DoNotOptimize(img);
  }
  SetPixels(st, w, h);
  st.counters["runs"] = double(runs.size());
}
BENCHMARK(BM_HRegion2HImage)->Args({640, 480})->Args({2560, 1920})->Unit(benchmark::kMicrosecond)
    ->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
