// Point-cloud operators of the reconstruction on clouds like the stereo
// pairs give them: about 150,000 points with 20 um noise, coloured, on a
// gently curved 10 x 10 mm patch (a rig camera's pixel covers about 22 um of
// the part at its working distance, so one pair's 150,000 points cover about
// that much); and the four pairs' clouds merged (four grids, each shifted by
// a fraction of the spacing). The operators use both cores: the figures are
// wall-clock times, with the CPU time of all threads beside them.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/point_cloud.h"

namespace {

using namespace vision;

// One pair's cloud: a 390 x 390 grid over 10 x 10 mm (about 26 um spacing),
// height a shallow dome of 1 mm (world frame: the part stands at negative z),
// shifted in x and y by (dx, dy) spacings.
HTuple PairCloud(unsigned seed, double dx, double dy) {
  constexpr int kSide = 390;
  constexpr double kSize = 0.01, kStep = kSize / kSide;
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, 20e-6);
  std::vector<double> x, y, z, r, g, b;
  for (int i = 0; i < kSide; ++i)
    for (int j = 0; j < kSide; ++j) {
      const double px = (j + dx) * kStep - kSize / 2, py = (i + dy) * kStep - kSize / 2;
      const double rr = (px * px + py * py) / (0.006 * 0.006);
      x.push_back(px);
      y.push_back(py);
      z.push_back(-0.0003 - 0.001 * std::max(0.0, 1.0 - rr) + noise(rng));
      r.push_back(double(i % 256));
      g.push_back(double(j % 256));
      b.push_back(128);
    }
  HTuple om;
  gen_object_model_3d_from_points(HTuple::Reals(x), HTuple::Reals(y), HTuple::Reals(z), &om);
  set_object_model_3d_attrib_mod(om, HTuple{"&coord_r", "&coord_g", "&coord_b"}, "points",
                                 HTuple::Reals(r).Append(HTuple::Reals(g)).Append(HTuple::Reals(b)));
  return om;
}

const HTuple& Single() {
  static const HTuple om = PairCloud(1, 0, 0);
  return om;
}

const HTuple& Merged() {
  static const HTuple om = [] {
    HTuple parts = {PairCloud(1, 0, 0), PairCloud(2, 0.5, 0), PairCloud(3, 0, 0.5),
                    PairCloud(4, 0.5, 0.5)};
    HTuple u;
    union_object_model_3d(parts, "points_surface", &u);
    return u;
  }();
  return om;
}

const HTuple& Input(benchmark::State& st) { return st.range(0) ? Merged() : Single(); }

Hlong NumPoints(const HTuple& om) {
  HTuple n;
  get_object_model_3d_params(om, "num_points", &n);
  return n.L(0);
}

// Sampled once per input, as the reconstruction feeds smoothing and
// triangulation.
const HTuple& Sampled(benchmark::State& st) {
  static HTuple cache[2];
  HTuple& c = cache[st.range(0) ? 1 : 0];
  if (c.Empty()) sample_object_model_3d(Input(st), "fast", 0.00003, HTuple(), HTuple(), &c);
  return c;
}

const HTuple& Smoothed(benchmark::State& st) {
  static HTuple cache[2];
  HTuple& c = cache[st.range(0) ? 1 : 0];
  if (c.Empty()) smooth_object_model_3d(Sampled(st), "mls", HTuple(), HTuple(), &c);
  return c;
}

void BM_Connection(benchmark::State& st) {
  const HTuple& in = Input(st);
  const double dist = st.range(0) ? 0.00005 : 0.0001;
  Hlong parts = 0;
  for (auto _ : st) {
    HTuple out;
    connection_object_model_3d(in, "distance_3d", dist, &out);
    parts = out.Length();
    clear_object_model_3d(out);
  }
  st.counters["points"] = double(NumPoints(in));
  st.counters["parts"] = double(parts);
}

void BM_SampleFast(benchmark::State& st) {
  const HTuple& in = Input(st);
  Hlong n = 0;
  for (auto _ : st) {
    HTuple out;
    sample_object_model_3d(in, "fast", 0.00003, HTuple(), HTuple(), &out);
    n = NumPoints(out);
    clear_object_model_3d(out);
  }
  st.counters["points"] = double(NumPoints(in));
  st.counters["sampled"] = double(n);
}

void BM_SmoothMls(benchmark::State& st) {
  const HTuple& in = Sampled(st);
  for (auto _ : st) {
    HTuple out;
    smooth_object_model_3d(in, "mls", HTuple(), HTuple(), &out);
    clear_object_model_3d(out);
  }
  st.counters["points"] = double(NumPoints(in));
}

void BM_TriangulateGreedy(benchmark::State& st) {
  const HTuple& in = Smoothed(st);
  Hlong tris = 0;
  for (auto _ : st) {
    HTuple out, info;
    triangulate_object_model_3d(in, "greedy", HTuple(), HTuple(), &out, &info);
    tris = info.L(0);
    clear_object_model_3d(out);
  }
  st.counters["points"] = double(NumPoints(in));
  st.counters["triangles"] = double(tris);
}

// Steps 16 to 18 of the reconstruction in one go.
void BM_SampleSmoothTriangulate(benchmark::State& st) {
  const HTuple& in = Input(st);
  for (auto _ : st) {
    HTuple s, m, t, info;
    sample_object_model_3d(in, "fast", 0.00003, HTuple(), HTuple(), &s);
    smooth_object_model_3d(s, "mls", HTuple(), HTuple(), &m);
    triangulate_object_model_3d(m, "greedy", HTuple(), HTuple(), &t, &info);
    clear_object_model_3d(HTuple{s, m, t});
  }
  st.counters["points"] = double(NumPoints(in));
}

// Arg 0: one pair's cloud; 1: four pairs merged.
#define MODEL3D_BENCH(fn)                                                              \
  BENCHMARK(fn)->ArgName("merged")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)       \
      ->UseRealTime()->MeasureProcessCPUTime()->Repetitions(5)->ReportAggregatesOnly(true)
MODEL3D_BENCH(BM_Connection);
MODEL3D_BENCH(BM_SampleFast);
MODEL3D_BENCH(BM_SmoothMls);
MODEL3D_BENCH(BM_TriangulateGreedy);
MODEL3D_BENCH(BM_SampleSmoothTriangulate);

}  // namespace

BENCHMARK_MAIN();
