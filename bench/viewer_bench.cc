// The 3D view's costs on a reconstruction-sized surface: one redraw of a
// 640 x 480 view (what every drag event costs) and the coordinate images (what
// every release costs). Surface: 200,000 points and 400,000 triangles, a 20 mm
// coloured part seen from the viewer's fixed start pose.
#include <benchmark/benchmark.h>

#include <cmath>

#include "viewer/view_procedures.h"
#include "vision/core/object.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/render_3d.h"
#include "vision/window/window.h"

namespace {

using vision::HTuple;

HTuple Surface() {
  auto m = vision::NewObjectModel3D();
  const int nx = 500, ny = 400;  // 200,000 points
  auto& r = m->attribs["&coord_r"];
  auto& g = m->attribs["&coord_g"];
  auto& b = m->attribs["&coord_b"];
  for (int j = 0; j < ny; ++j)
    for (int i = 0; i < nx; ++i) {
      const float x = -0.01f + 0.02f * i / (nx - 1), y = -0.008f + 0.016f * j / (ny - 1);
      const float z = -0.0005f - 0.001f * std::exp(-(x * x + y * y) / 2e-5f) + 0.0001f * std::sin(900 * x);
      m->points.emplace_back(x, y, z);
      r.push_back(60 + 190.0 * i / nx);
      g.push_back(60 + 190.0 * j / ny);
      b.push_back(150);
    }
  for (int j = 0; j + 1 < ny; ++j)
    for (int i = 0; i + 1 < nx; ++i) {
      const int a = j * nx + i;
      m->triangles.push_back({a, a + 1, a + nx});
      m->triangles.push_back({a + 1, a + nx + 1, a + nx});
    }
  // Up to 400,000 faces: the first rows once more (a reconstruction overlaps too).
  for (size_t k = 0; m->triangles.size() < 400000; ++k) m->triangles.push_back(m->triangles[k]);
  return vision::ObjectModel3DHandle(m);
}

const HTuple kStart = HTuple({HTuple::Reals({0.000117024, 0.00137401, 0.112615, 305.904, 1.90921, 3.92779}), HTuple(0)});
const HTuple kNames = HTuple::Strings({"point_size", "intensity_red", "intensity_green", "intensity_blue"});
const HTuple kValues = HTuple{1, "&coord_r", "&coord_g", "&coord_b"};

struct Scene {
  HTuple model = Surface(), window, cam;
  Scene() {
    vision::open_window(0, 0, 640, 480, 0, "buffer", "", &window);
    HTuple w, h, lr, lc, pose, tb;
    velmora::init_display_parameter(window, model, &w, &h, &cam, &lr, &lc, &pose, &tb);
  }
};

Scene& TheScene() {
  static Scene s;
  return s;
}

void BM_Redraw640x480(benchmark::State& state) {
  Scene& s = TheScene();
  for (auto _ : state) velmora::display_model(s.window, s.model, s.cam, kStart, kNames, kValues);
}
BENCHMARK(BM_Redraw640x480)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_ObjectModelToXyz640x480(benchmark::State& state) {
  Scene& s = TheScene();
  for (auto _ : state) {
    vision::HObject x, y, z;
    vision::object_model_3d_to_xyz(&x, &y, &z, s.model, "cartesian", s.cam, kStart);
    benchmark::DoNotOptimize(z);
  }
}
BENCHMARK(BM_ObjectModelToXyz640x480)->Unit(benchmark::kMillisecond)->Repetitions(9)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
