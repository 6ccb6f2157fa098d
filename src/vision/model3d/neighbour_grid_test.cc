#include "vision/model3d/neighbour_grid.h"

#include <algorithm>
#include <random>
#include <set>

#include <gtest/gtest.h>

namespace vision::model3d {
namespace {

// The grid's answers against brute force on clouds of different shapes:
// a thin noisy sheet (the usual case), a volume, two far clusters (queries
// that must look far), duplicates and non-finite points.
TEST(NeighbourGrid, MatchesBruteForce) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(0, 1);
  std::vector<std::pair<const char*, std::vector<Eigen::Vector3f>>> clouds;
  {
    std::vector<Eigen::Vector3f> p;
    for (int i = 0; i < 3000; ++i) p.emplace_back(u(rng) * 0.02f, u(rng) * 0.02f, u(rng) * 2e-5f);
    clouds.emplace_back("sheet", p);
  }
  {
    std::vector<Eigen::Vector3f> p;
    for (int i = 0; i < 2000; ++i) p.emplace_back(u(rng), u(rng), u(rng));
    clouds.emplace_back("volume", p);
  }
  {
    std::vector<Eigen::Vector3f> p;
    for (int i = 0; i < 500; ++i) p.emplace_back(u(rng) * 1e-3f, u(rng) * 1e-3f, 0.f);
    for (int i = 0; i < 30; ++i) p.emplace_back(5 + u(rng) * 1e-3f, u(rng) * 1e-3f, 0.f);
    p.emplace_back(std::nanf(""), 0.f, 0.f);
    p.push_back(p[3]);  // a duplicate
    clouds.emplace_back("far clusters", p);
  }
  for (const auto& [what, pts] : clouds) {
    SCOPED_TRACE(what);
    for (int k : {1, 7, 60}) {
      const NeighbourGrid grid(pts, 0, k);
      NeighbourGrid::Scratch s;
      std::vector<int32_t> idx;
      std::vector<float> d2;
      for (size_t q = 0; q < pts.size(); q += 13) {
        if (!pts[q].allFinite()) continue;
        grid.Knn(pts[q], k, &idx, &d2, &s);
        std::vector<float> all;
        for (const auto& p : pts)
          if (p.allFinite()) all.push_back((p - pts[q]).squaredNorm());
        std::sort(all.begin(), all.end());
        all.resize(std::min<size_t>(size_t(k), all.size()));
        ASSERT_EQ(d2, all) << "query " << q << " k " << k;
        for (size_t j = 0; j < idx.size(); ++j)
          EXPECT_EQ((pts[size_t(idx[j])] - pts[q]).squaredNorm(), d2[j]);
      }
    }
    // All points' neighbours cell by cell, in two runs of cells as two
    // threads take them: each point once, the same as brute force, sorted
    // or just the right set.
    for (int k : {1, 7, 60})
      for (bool sorted : {true, false}) {
        const NeighbourGrid grid(pts, 0, k);
        std::vector<int> seen(pts.size(), 0);
        const size_t half = grid.NumCells() / 2;
        for (auto [b, e] : {std::pair<size_t, size_t>{0, half}, {half, grid.NumCells()}}) {
          NeighbourGrid::Scratch s;
          grid.KnnOfCells(b, e, k, sorted, &s, [&](int32_t q, const int32_t* idx, const float* d2, size_t n) {
            if (seen[size_t(q)]++ || q % 7) return;  // brute force for a sample
            std::vector<float> all, got(d2, d2 + n);
            for (const auto& p : pts)
              if (p.allFinite()) all.push_back((p - pts[size_t(q)]).squaredNorm());
            std::sort(all.begin(), all.end());
            all.resize(std::min<size_t>(size_t(k), all.size()));
            if (!sorted) std::sort(got.begin(), got.end());
            // Distances summed in another order may differ in the last bit.
            ASSERT_EQ(got.size(), all.size()) << "query " << q << " k " << k;
            for (size_t j = 0; j < n; ++j) {
              EXPECT_NEAR(got[j], all[j], 1e-6f * all[j]) << "query " << q << " k " << k;
              EXPECT_NEAR((pts[size_t(idx[j])] - pts[size_t(q)]).squaredNorm(), d2[j], 1e-6f * d2[j]);
            }
          });
        }
        for (size_t i = 0; i < pts.size(); ++i) EXPECT_EQ(seen[i], pts[i].allFinite() ? 1 : 0) << i;
      }
    // Radius: the same set as brute force, bound included.
    const double r = what == std::string("volume") ? 0.1 : 2e-4;
    const NeighbourGrid grid(pts, r);
    std::vector<int32_t> idx;
    std::vector<float> d2;
    for (size_t q = 0; q < pts.size(); q += 17) {
      if (!pts[q].allFinite()) continue;
      grid.Radius(pts[q], r, &idx, &d2);
      std::set<int32_t> got(idx.begin(), idx.end()), want;
      for (size_t i = 0; i < pts.size(); ++i)
        if (pts[i].allFinite() && (pts[i] - pts[q]).squaredNorm() <= float(r * r)) want.insert(int32_t(i));
      EXPECT_EQ(got, want) << q;
    }
  }
}

}  // namespace
}  // namespace vision::model3d
