// Projects one million points of the rig's camera frame with the rig camera
// (distortion on) and reports points per second on one core: the vector loop
// behind project_3d_point (x, y, z in separate arrays), a plain per-point loop
// over the same points (CamParams::Project on 3-vectors), and the operator on
// tuples. Each figure is the median of repeated runs with its spread.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <ctime>
#include <vector>

#include "vision/calib/camera.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Stats {
  double median, min, max;  // wall-clock seconds per run
  double cpu_median;        // seconds this thread was on a core, per run
};

double ThreadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

Stats Time(int runs, const std::function<void()>& f) {
  f();  // warm caches and pages
  std::vector<double> t, c;
  for (int i = 0; i < runs; ++i) {
    const double c0 = ThreadSeconds();
    const auto a = Clock::now();
    f();
    t.push_back(std::chrono::duration<double>(Clock::now() - a).count());
    c.push_back(ThreadSeconds() - c0);
  }
  std::sort(t.begin(), t.end());
  std::sort(c.begin(), c.end());
  return {t[t.size() / 2], t.front(), t.back(), c[c.size() / 2]};
}

// The machine is shared, so besides wall-clock time the rate per second of
// CPU time of this thread is given: what one core does when it runs the loop.
void Report(const char* what, size_t n, const Stats& s, double check) {
  std::printf("%-32s %7.1f Mpoints/s per CPU second, %7.1f per wall second"
              " (wall median %.2f ms, min %.2f, max %.2f; checksum %.6e)\n",
              what, n / s.cpu_median / 1e6, n / s.median / 1e6, s.median * 1e3, s.min * 1e3,
              s.max * 1e3, check);
}

}  // namespace

int main() {
  using namespace vision;
  const CamParams cam = CamParams::FromTuple(
      HTuple{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480}, "bench");
  const size_t n = 1000000;
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> xy(-0.02, 0.02), depth(0.06, 0.1);
  std::vector<double> x(n), y(n), z(n), row(n), col(n);
  std::vector<Eigen::Vector3d> p(n);
  for (size_t i = 0; i < n; ++i) {
    x[i] = xy(rng); y[i] = xy(rng); z[i] = depth(rng);
    p[i] = {x[i], y[i], z[i]};
  }
  auto sum = [&] {
    double s = 0;
    for (size_t i = 0; i < n; i += 997) s += row[i] + col[i];
    return s;
  };
  std::printf("project_3d_point, %zu points, camera [0.025, -120, 7.4e-6, 7.4e-6, 321.5, 238, 640, 480], one core\n", n);

  Stats vec = Time(31, [&] { ProjectPoints(cam, x.data(), y.data(), z.data(), n, row.data(), col.data()); });
  Report("vector loop (SoA arrays)", n, vec, sum());

  Stats scalar = Time(31, [&] {
    for (size_t i = 0; i < n; ++i)
      if (!cam.Project(p[i], &row[i], &col[i])) row[i] = col[i] = -1;
  });
  Report("plain loop (CamParams::Project)", n, scalar, sum());

  HTuple tx = HTuple::Reals(x), ty = HTuple::Reals(y), tz = HTuple::Reals(z), camt = cam.ToTuple();
  HTuple trow, tcol;
  Stats op = Time(5, [&] { project_3d_point(tx, ty, tz, camt, &trow, &tcol); });
  Report("project_3d_point on tuples", n, op, trow.D(0) + tcol.D(0));

  std::printf("vector loop / plain loop: %.2fx (CPU time), %.2fx (wall median)\n",
              scalar.cpu_median / vec.cpu_median, scalar.median / vec.median);
  if (FILE* f = std::fopen("/proc/loadavg", "r")) {  // how busy the machine was
    double l1 = 0;
    if (std::fscanf(f, "%lf", &l1) == 1) std::printf("load average (1 min) at the end: %.2f\n", l1);
    std::fclose(f);
  }
  return 0;
}
