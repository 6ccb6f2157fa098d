// Region operators on synthetic binary scenes: blobs of varied size on a
// grid, as a thresholded print image gives them. Every benchmark repeats and
// reports median and spread (--benchmark_repetitions is preset below) plus
// the work size as counters.
#include <benchmark/benchmark.h>

#include <random>

#include <opencv2/imgproc.hpp>

#include "vision/region/region_ops.h"

namespace {

using namespace vision;

// `blobs` filled ellipses with holes now and then, spread over a w x h frame.
cv::Mat BlobMask(int w, int h, int blobs, unsigned seed = 1) {
  cv::Mat m = cv::Mat::zeros(h, w, CV_8UC1);
  std::mt19937 rng(seed);
  int cols = int(std::ceil(std::sqrt(blobs * double(w) / h)));
  int rows = (blobs + cols - 1) / cols;
  int cw = w / cols, ch = h / rows;
  for (int i = 0; i < blobs; ++i) {
    int cx = (i % cols) * cw + cw / 2, cy = (i / cols) * ch + ch / 2;
    std::uniform_int_distribution<int> ax(std::max(2, cw / 6), std::max(3, cw / 2 - 2));
    std::uniform_int_distribution<int> ay(std::max(2, ch / 6), std::max(3, ch / 2 - 2));
    std::uniform_int_distribution<int> ang(0, 179);
    cv::ellipse(m, {cx, cy}, {ax(rng), ay(rng)}, ang(rng), 0, 360, 255, cv::FILLED);
    if (i % 3 == 0) cv::circle(m, {cx, cy}, 2, 0, cv::FILLED);
  }
  return m;
}

void SetCounters(benchmark::State& st, const Region& r, int w, int h) {
  st.counters["pixels"] = double(w) * h;
  st.counters["runs"] = double(r.Runs().size());
}

void BM_ConnectionSelectShape(benchmark::State& st) {
  const int w = int(st.range(0)), h = int(st.range(1));
  // 200 blobs at 640 x 480, as many per pixel at other sizes.
  const int blobs = int(200.0 * w * h / (640.0 * 480.0));
  HObject region(Region::FromMask(BlobMask(w, h, blobs)));
  Hlong found = 0;
  for (auto _ : st) {
    HObject parts, selected;
    connection(region, &parts);
    select_shape(parts, &selected, HTuple("area"), HTuple("and"), HTuple(30), HTuple(99999));
    found = selected.Count();
    benchmark::DoNotOptimize(found);
  }
  SetCounters(st, region.RegionAt(0), w, h);
  st.counters["blobs"] = double(blobs);
  st.counters["selected"] = double(found);
}
BENCHMARK(BM_ConnectionSelectShape)
    ->Args({320, 240})->Args({640, 480})->Args({1280, 960})->Args({2560, 1920})
    ->Unit(benchmark::kMicrosecond)->Repetitions(15)->ReportAggregatesOnly(true);

void BM_Threshold(benchmark::State& st) {
  cv::Mat gray(480, 640, CV_8UC1);
  cv::GaussianBlur(BlobMask(640, 480, 200), gray, {7, 7}, 2);
  HObject img(Image::FromPlanes(PixelType::Byte, {gray}));
  for (auto _ : st) {
    HObject r;
    threshold(img, &r, HTuple(0), HTuple(80));
    benchmark::DoNotOptimize(r);
  }
  st.counters["pixels"] = 640.0 * 480;
}
BENCHMARK(BM_Threshold)->Unit(benchmark::kMicrosecond)->Repetitions(15)->ReportAggregatesOnly(true);

using Op2 = void (*)(const HObject&, HObject*, const HTuple&, const HTuple&);
using Op1 = void (*)(const HObject&, HObject*, const HTuple&);

template <Op2 op>
void BM_Rect(benchmark::State& st) {
  HObject region(Region::FromMask(BlobMask(640, 480, 200)));
  for (auto _ : st) {
    HObject out;
    op(region, &out, HTuple(int(st.range(0))), HTuple(int(st.range(1))));
    benchmark::DoNotOptimize(out);
  }
  SetCounters(st, region.RegionAt(0), 640, 480);
}

template <Op1 op>
void BM_Disc(benchmark::State& st) {
  HObject region(Region::FromMask(BlobMask(640, 480, 200)));
  const double radius = double(st.range(0)) / 10.0;
  for (auto _ : st) {
    HObject out;
    op(region, &out, HTuple(radius));
    benchmark::DoNotOptimize(out);
  }
  SetCounters(st, region.RegionAt(0), 640, 480);
  st.counters["radius"] = radius;
}

#define RECT(op) \
  BENCHMARK_TEMPLATE(BM_Rect, op)->Args({300, 1})->Args({1, 300})->Args({15, 15}) \
      ->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true)
#define DISC(op) \
  BENCHMARK_TEMPLATE(BM_Disc, op)->Arg(15)->Arg(25)->Arg(35) \
      ->Unit(benchmark::kMicrosecond)->Repetitions(9)->ReportAggregatesOnly(true)
RECT(dilation_rectangle1);
RECT(erosion_rectangle1);
RECT(opening_rectangle1);
RECT(closing_rectangle1);
DISC(dilation_circle);
DISC(erosion_circle);
DISC(opening_circle);
DISC(closing_circle);

void BM_FillUpSkeletonDistance(benchmark::State& st) {
  HObject region(Region::FromMask(BlobMask(640, 480, 200)));
  for (auto _ : st) {
    HObject filled, sk, dist;
    fill_up(region, &filled);
    skeleton(region, &sk);
    distance_transform(region, &dist, HTuple("city-block"), HTuple("true"), HTuple(640), HTuple(480));
    benchmark::DoNotOptimize(dist);
  }
  SetCounters(st, region.RegionAt(0), 640, 480);
}
BENCHMARK(BM_FillUpSkeletonDistance)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
