// Times gen_image_smoothed and its main operators on a synthetic print image
// (dark strokes, uneven lighting, noise) at 320x240 up to 2560x1920. Each
// case runs 9 repetitions; the report shows their median, mean and spread.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include "ocr/ocr_engine.h"
#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/statistics.h"
#include "vision/region/region_ops.h"

namespace {

using vision::HObject;
using vision::HTuple;

// Three-channel byte image: rows of character-sized strokes under a lighting
// ramp, with Gaussian noise (fixed seed).
HObject Marking(int w, int h) {
  cv::Mat gray(h, w, CV_8U);
  cv::RNG rng(12345);
  const int ch = std::max(8, h / 8), cw = std::max(5, ch * 2 / 3), stroke = std::max(2, ch / 6);
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      const double lit = 120 + 60.0 * c / w + 30.0 * r / h;
      const int line = r / (2 * ch), rr = r % (2 * ch), cc = c % (cw + cw / 2);
      const bool in_line = line % 2 == 1 && rr >= ch / 2 && rr < ch / 2 + ch;
      const bool ink = in_line && cc < cw && (cc < stroke || cc >= cw - stroke || std::abs(rr - ch) < stroke / 2 + 1);
      gray.at<uint8_t>(r, c) = cv::saturate_cast<uint8_t>((ink ? lit - 90 : lit) + rng.gaussian(2.0));
    }
  return HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {gray, gray.clone(), gray.clone()}));
}

void SetPixels(benchmark::State& state) {
  state.counters["pixels"] = double(state.range(0) * state.range(1));
}

void BM_GenImageSmoothed(benchmark::State& state) {
  const HObject img = Marking(int(state.range(0)), int(state.range(1)));
  HObject out;
  for (auto _ : state) {
    velmora::gen_image_smoothed(img, &out, 1.0, 3.0);
    benchmark::DoNotOptimize(out);
  }
  SetPixels(state);
}

void BM_DerivateGaussXY(benchmark::State& state) {
  HObject gray, gx, gy;
  vision::rgb1_to_gray(Marking(int(state.range(0)), int(state.range(1))), &gray);
  for (auto _ : state) {
    vision::derivate_gauss(gray, &gx, 1.0, "x");
    vision::derivate_gauss(gray, &gy, 1.0, "y");
    benchmark::DoNotOptimize(gy);
  }
  SetPixels(state);
}

void BM_FlatRegion(benchmark::State& state) {
  // Eight threshold + area_center passes and the opening, as one direction of
  // the smoothing does.
  HObject gray, gx, reg, opened;
  vision::rgb1_to_gray(Marking(int(state.range(0)), int(state.range(1))), &gray);
  vision::derivate_gauss(gray, &gx, 1.0, "x");
  HTuple a, r, c;
  for (auto _ : state) {
    for (double f = 1.0; f >= 0.3; f -= 0.1) {
      vision::threshold(gx, &reg, -3.0 * f, 3.0 * f);
      vision::area_center(reg, &a, &r, &c);
    }
    vision::opening_circle(reg, &opened, 1.5);
    benchmark::DoNotOptimize(opened);
  }
  SetPixels(state);
}

void BM_PaintRegion(benchmark::State& state) {
  HObject gray, gx, reg, out;
  vision::rgb1_to_gray(Marking(int(state.range(0)), int(state.range(1))), &gray);
  vision::derivate_gauss(gray, &gx, 1.0, "x");
  vision::threshold(gx, &reg, -0.9, 0.9);
  for (auto _ : state) {
    vision::paint_region(reg, gx, &out, 0, "fill");
    benchmark::DoNotOptimize(out);
  }
  SetPixels(state);
}

void BM_PoissonReconstruction(benchmark::State& state) {
  HObject gray, gx, gy, vf, hf;
  vision::rgb1_to_gray(Marking(int(state.range(0)), int(state.range(1))), &gray);
  vision::derivate_gauss(gray, &gx, 1.0, "x");
  vision::derivate_gauss(gray, &gy, 1.0, "y");
  vision::real_to_vector_field(gy, gx, &vf, "vector_field_relative");
  for (auto _ : state) {
    vision::reconstruct_height_field_from_gradient(vf, &hf, "poisson", HTuple(), HTuple());
    benchmark::DoNotOptimize(hf);
  }
  SetPixels(state);
}

void BM_MinMaxGray10(benchmark::State& state) {
  HObject gray, real;
  vision::rgb1_to_gray(Marking(int(state.range(0)), int(state.range(1))), &gray);
  vision::convert_image_type(gray, &real, "real");
  HTuple mn, mx, rg;
  for (auto _ : state) {
    vision::min_max_gray(real, real, 10, &mn, &mx, &rg);
    benchmark::DoNotOptimize(mx);
  }
  SetPixels(state);
}

void BM_Emphasize(benchmark::State& state) {
  const HObject img = Marking(int(state.range(0)), int(state.range(1)));
  HObject out;
  for (auto _ : state) {
    vision::emphasize(img, &out, 3, 3, 1);
    benchmark::DoNotOptimize(out);
  }
  SetPixels(state);
}

void Sizes(benchmark::internal::Benchmark* b) {
  for (auto [w, h] : {std::pair{320, 240}, {640, 480}, {1280, 960}, {2560, 1920}}) b->Args({w, h});
  // Process CPU time, so that any worker threads of OpenCV count too.
  b->ArgNames({"w", "h"})->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true)->MeasureProcessCPUTime();
}

BENCHMARK(BM_GenImageSmoothed)->Apply(Sizes);
BENCHMARK(BM_DerivateGaussXY)->Apply(Sizes);
BENCHMARK(BM_FlatRegion)->Apply(Sizes);
BENCHMARK(BM_PaintRegion)->Apply(Sizes);
BENCHMARK(BM_PoissonReconstruction)->Apply(Sizes);
BENCHMARK(BM_MinMaxGray10)->Apply(Sizes);
BENCHMARK(BM_Emphasize)->Apply(Sizes);

}  // namespace

BENCHMARK_MAIN();
