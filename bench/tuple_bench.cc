// Tuple-heavy work outside projection: tuple arithmetic and tuple operators
// on long numeric tuples, building tuples element by element (numeric and
// mixed), element reads, and the tuple-vectorised 3D operators. Each line is
// the median processor time of this thread over repeated runs, so figures
// taken on a busy machine stay comparable.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "vision/calib/camera.h"
#include "vision/filter/tuple_ops.h"
#include "vision/geometry/pose.h"

namespace {

using vision::HTuple;
using vision::Hlong;

double ThreadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

// Median CPU seconds of `runs` calls after one warm-up call.
double Median(int runs, const std::function<void()>& f) {
  f();
  std::vector<double> c;
  for (int i = 0; i < runs; ++i) {
    const double c0 = ThreadSeconds();
    f();
    c.push_back(ThreadSeconds() - c0);
  }
  std::sort(c.begin(), c.end());
  return c[c.size() / 2];
}

// The check value is read after the timing (argument order is unspecified).
void Report(const char* what, size_t items, double seconds, const std::function<double()>& check_fn) {
  const double check = check_fn();
  std::printf("%-44s %9.3f ms CPU %9.1f M items/s  (check %.6e)\n", what, seconds * 1e3,
              items / seconds / 1e6, check);
}

}  // namespace

int main() {
  using namespace vision;
  const size_t n = 1000000;
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(0.5, 2.0);
  std::vector<double> a(n), b(n);
  std::vector<Hlong> ia(n), ib(n);
  for (size_t i = 0; i < n; ++i) {
    a[i] = u(rng); b[i] = u(rng);
    ia[i] = Hlong(rng() % 1000); ib[i] = Hlong(1 + rng() % 1000);
  }
  const HTuple ta = HTuple::Reals(a), tb = HTuple::Reals(b), tia = HTuple::Ints(ia), tib = HTuple::Ints(ib);
  std::printf("tuple work, %zu-element tuples unless said, one thread, median CPU time\n", n);
  HTuple r;

  Report("reals * reals + reals", n, Median(7, [&] { r = ta * tb + ta; }), [&] { return r.D(n / 2); });
  Report("ints / ints", n, Median(7, [&] { r = tia / tib; }), [&] { return r.D(n / 2); });
  Report("reals * 2 (broadcast)", n, Median(7, [&] { r = ta * HTuple(2); }), [&] { return r.D(n / 2); });
  Report("tuple_sqrt", n, Median(7, [&] { tuple_sqrt(ta, &r); }), [&] { return r.D(n / 2); });
  Report("tuple_sum", n, Median(7, [&] { tuple_sum(ta, &r); }), [&] { return r.D(0); });
  Report("tuple_sort", n, Median(5, [&] { tuple_sort(ta, &r); }), [&] { return r.D(n / 2); });
  Report("tuple_select_range (half)", n / 2,
         Median(7, [&] { tuple_select_range(ta, HTuple(Hlong(n / 4)), HTuple(Hlong(3 * n / 4 - 1)), &r); }), [&] { return r.D(0); });
  Report("tuple_concat", 2 * n, Median(7, [&] { tuple_concat(ta, tb, &r); }), [&] { return r.D(n); });
  Report("ToDVec", n, Median(7, [&] { r = HTuple(ta.ToDVec()[n / 2]); }), [&] { return r.D(0); });
  double s = 0;
  Report("D(i) over all elements", n, Median(7, [&] {
           s = 0;
           for (Hlong i = 0; i < Hlong(n); ++i) s += ta.D(i);
         }), [&] { return s; });
  Report("Append reals one by one", n, Median(7, [&] {
           HTuple t;
           for (size_t i = 0; i < n; ++i) t.Append(HTuple(a[i]));
           r = t;
         }), [&] { return r.D(n - 1); });
  const size_t m = n / 10;
  Report("Append int, real, string (mixed)", 3 * m, Median(7, [&] {
           HTuple t;
           for (size_t i = 0; i < m; ++i) t.Append(HTuple(Hlong(i))).Append(HTuple(a[i])).Append(HTuple("ab"));
           r = t;
         }), [&] { return r.D(3 * m - 2); });
  Report("copy of a real tuple", n, Median(7, [&] { r = ta; }), [&] { return r.D(n - 1); });

  HTuple mat, qx, qy, qz;
  hom_mat3d_identity(&mat);
  hom_mat3d_rotate(mat, HTuple(0.3), HTuple("z"), HTuple(0.0), HTuple(0.0), HTuple(0.0), &mat);
  hom_mat3d_translate(mat, HTuple(0.01), HTuple(0.02), HTuple(0.03), &mat);
  Report("affine_trans_point_3d", n, Median(7, [&] { affine_trans_point_3d(mat, ta, tb, ta, &qx, &qy, &qz); }), [&] { return qz.D(n / 2); });
  const HTuple cam = HTuple{0.025, -120.0, 7.4e-06, 7.4e-06, 321.5, 238.0, 640, 480};
  HTuple px, py, pz;
  Report("get_line_of_sight", n, Median(7, [&] { get_line_of_sight(ta, tb, cam, &px, &py, &pz, &qx, &qy, &qz); }), [&] { return qx.D(n / 2); });

  const size_t k = 10000;
  std::vector<double> tx(k), rx(k);
  for (size_t i = 0; i < k; ++i) { tx[i] = u(rng); rx[i] = 100 * u(rng); }
  HTuple poses, mats, back, inv, quats;
  const HTuple ttx = HTuple::Reals(tx), trx = HTuple::Reals(rx);
  Report("create_pose", k, Median(7, [&] {
           create_pose(ttx, ttx, ttx, trx, trx, trx, HTuple("Rp+T"), HTuple("gba"), HTuple("point"), &poses);
         }), [&] { return poses.D(7 * k - 4); });
  Report("pose_to_hom_mat3d", k, Median(7, [&] { pose_to_hom_mat3d(poses, &mats); }), [&] { return mats.D(12 * k - 1); });
  Report("hom_mat3d_to_pose", k, Median(7, [&] { hom_mat3d_to_pose(mats, &back); }), [&] { return back.D(7 * k - 4); });
  Report("hom_mat3d_compose", k, Median(7, [&] { hom_mat3d_compose(mats, mats, &back); }), [&] { return back.D(12 * k - 1); });
  Report("hom_mat3d_invert", k, Median(7, [&] { hom_mat3d_invert(mats, &inv); }), [&] { return inv.D(12 * k - 1); });
  Report("pose_compose", k, Median(7, [&] { pose_compose(poses, poses, &back); }), [&] { return back.D(7 * k - 4); });
  Report("pose_to_quat", k, Median(7, [&] { pose_to_quat(poses, &quats); }), [&] { return quats.D(4 * k - 1); });
  Report("quat_compose", k, Median(7, [&] { quat_compose(quats, quats, &back); }), [&] { return back.D(4 * k - 1); });
  Report("quat_to_hom_mat3d", k, Median(7, [&] { quat_to_hom_mat3d(quats, &back); }), [&] { return back.D(12 * k - 1); });

  if (FILE* f = std::fopen("/proc/loadavg", "r")) {
    double l1 = 0;
    if (std::fscanf(f, "%lf", &l1) == 1) std::printf("load average (1 min) at the end: %.2f\n", l1);
    std::fclose(f);
  }
  return 0;
}
