// The point-cloud operators built on neighbour searches: connected parts,
// moving-least-squares smoothing, greedy triangulation. The only file that
// includes PCL, so that its templates are compiled once.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>
#include <map>
#include <memory>
#include <set>
#include <numeric>
#include <thread>
#include <tuple>

#include <Eigen/Eigenvalues>
#include <pcl/console/print.h>
#include <pcl/point_cloud.h>
#include <pcl/point_types.h>
#include <pcl/search/search.h>
#include <pcl/surface/gp3.h>

#include "vision/core/param.h"
#include "vision/model3d/model3d_util.h"
#include "vision/model3d/neighbour_grid.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/point_cloud.h"

namespace vision {

using model3d::AppendModel;
using model3d::ModelsOf;
using model3d::NeighbourGrid;
using model3d::ParallelFor;

namespace {

class UnionFind {
 public:
  explicit UnionFind(size_t n) : parent_(n) { std::iota(parent_.begin(), parent_.end(), 0); }
  int32_t Find(int32_t a) {
    while (parent_[size_t(a)] != a) {
      parent_[size_t(a)] = parent_[size_t(parent_[size_t(a)])];
      a = parent_[size_t(a)];
    }
    return a;
  }
  void Join(int32_t a, int32_t b) {
    a = Find(a);
    b = Find(b);
    if (a != b) parent_[size_t(std::max(a, b))] = std::min(a, b);
  }

 private:
  std::vector<int32_t> parent_;
};

// Joins the points closer than `dist` on a grid of cells of edge `dist`:
// two such points lie in the same cell or in adjacent ones, so each cell is
// compared with itself and its 13 later neighbours. Gives each point a
// representative of its part (points without coordinates their own). False
// when the grid would be too fine.
bool JoinByCells(const std::vector<Eigen::Vector3f>& pts, double dist, std::vector<int32_t>* rep) {
  rep->resize(pts.size());
  std::iota(rep->begin(), rep->end(), 0);
  constexpr int64_t kMaxCells = int64_t(1) << 20;
  // A hair above the distance, so that rounding never puts two points
  // closer than it two cells apart.
  const double cell = dist * (1 + 1e-9), inv = 1 / cell;
  Eigen::Vector3d lo = Eigen::Vector3d::Constant(std::numeric_limits<double>::infinity()), hi = -lo;
  size_t finite = 0;
  for (const auto& p : pts) {
    if (!p.allFinite()) continue;
    ++finite;
    lo = lo.cwiseMin(p.cast<double>());
    hi = hi.cwiseMax(p.cast<double>());
  }
  if (finite == 0) return true;
  if (!((hi - lo).maxCoeff() / cell < double(kMaxCells - 4))) return false;
  // Cells are numbered along the cloud's shortest axis, then the middle
  // one, then the longest (so that the cells of one layer, and a layer and
  // the next, lie close together), from 1 with a spare cell at both ends of
  // each axis, so that a neighbour's number is the cell's plus a constant
  // and never wraps: cells in number order see their neighbours of each
  // direction in number order too.
  int ax[3] = {0, 1, 2};  // longest, middle, shortest
  const Eigen::Vector3d extent = hi - lo;
  std::sort(ax, ax + 3, [&](int a, int b) { return extent[a] > extent[b] || (extent[a] == extent[b] && a < b); });
  const uint64_t nx = uint64_t(extent[ax[2]] * inv) + 3;
  const uint64_t ny = uint64_t(extent[ax[1]] * inv) + 3;
  const uint64_t nz = uint64_t(extent[ax[0]] * inv) + 3;
  const uint64_t num_keys = nx * ny * nz;
  std::vector<uint64_t> key(finite);
  std::vector<int32_t> id(finite);
  {
    size_t k = 0;
    for (size_t i = 0; i < pts.size(); ++i) {
      if (!pts[i].allFinite()) continue;
      // Offsets from the low corner are never negative: truncation floors.
      const uint64_t cx = uint64_t((double(pts[i][ax[2]]) - lo[ax[2]]) * inv) + 1;
      const uint64_t cy = uint64_t((double(pts[i][ax[1]]) - lo[ax[1]]) * inv) + 1;
      const uint64_t cz = uint64_t((double(pts[i][ax[0]]) - lo[ax[0]]) * inv) + 1;
      key[k] = (cz * ny + cy) * nx + cx;
      id[k++] = int32_t(i);
    }
  }
  // Stable radix sort by cell number, 11 bits a pass: the points of a cell
  // stay in their order.
  {
    int bits = 0;
    while (bits < 64 && (num_keys >> bits) != 0) ++bits;
    std::vector<uint64_t> key2(finite);
    std::vector<int32_t> id2(finite);
    constexpr int kDigit = 11;
    std::vector<uint32_t> count(size_t(1) << kDigit);
    for (int shift = 0; shift < bits; shift += kDigit) {
      std::fill(count.begin(), count.end(), 0u);
      const uint64_t m = (uint64_t(1) << kDigit) - 1;
      for (size_t k = 0; k < finite; ++k) ++count[(key[k] >> shift) & m];
      uint32_t sum = 0;
      for (uint32_t& c : count) {
        const uint32_t n = c;
        c = sum;
        sum += n;
      }
      for (size_t k = 0; k < finite; ++k) {
        const uint32_t to = count[(key[k] >> shift) & m]++;
        key2[to] = key[k];
        id2[to] = id[k];
      }
      key.swap(key2);
      id.swap(id2);
    }
  }
  // Points in cell order, so that a cell's points are read from one place.
  std::vector<Eigen::Vector3f> sorted(finite);
  for (size_t k = 0; k < finite; ++k) sorted[k] = pts[size_t(id[k])];
  struct Cell {
    uint64_t key;
    uint32_t begin, end;
  };
  std::vector<Cell> cells;
  for (uint32_t k = 0; k < finite;) {
    uint32_t e = k + 1;
    while (e < finite && key[e] == key[k]) ++e;
    cells.push_back({key[k], k, e});
    k = e;
  }
  const float r2 = float(dist * dist);
  // Joined by position in cell order, where a cell's neighbours lie close
  // in memory.
  UnionFind local(finite);
  auto join_close = [&](uint32_t ab, uint32_t ae, uint32_t bb, uint32_t be, bool same) {
    for (uint32_t i = ab; i < ae; ++i)
      for (uint32_t j = same ? i + 1 : bb; j < be; ++j)
        if ((sorted[i] - sorted[j]).squaredNorm() < r2) local.Join(int32_t(i), int32_t(j));
  };
  // A cell whose points are all joined already (nearly every cell of a
  // dense surface) needs one close pair with another such cell, and none
  // once both belong to one part.
  std::vector<char> whole(cells.size(), 0);
  for (size_t c = 0; c < cells.size(); ++c) {
    const Cell& a = cells[c];
    join_close(a.begin, a.end, a.begin, a.end, true);
    const int32_t r = local.Find(int32_t(a.begin));
    bool all = true;
    for (uint32_t i = a.begin + 1; i < a.end && all; ++i) all = local.Find(int32_t(i)) == r;
    whole[c] = all;
  }
  auto join_first = [&](const Cell& a, const Cell& b) {
    for (uint32_t i = a.begin; i < a.end; ++i)
      for (uint32_t j = b.begin; j < b.end; ++j)
        if ((sorted[i] - sorted[j]).squaredNorm() < r2) {
          local.Join(int32_t(i), int32_t(j));
          return;
        }
  };
  auto visit = [&](size_t c, size_t bc) {
    const Cell& a = cells[c];
    const Cell& b = cells[bc];
    if (!whole[c] || !whole[bc]) {
      join_close(a.begin, a.end, b.begin, b.end, false);
    } else if (local.Find(int32_t(a.begin)) != local.Find(int32_t(b.begin))) {
      join_first(a, b);
    }
  };
  // The later neighbours: the next cell of the row, then three cells each of
  // the next row and of three rows of the next plane. One cursor per row of
  // neighbours walks the cells once.
  const uint64_t rows[4] = {nx, nx * ny - nx, nx * ny, nx * ny + nx};
  size_t cursor[4] = {0, 0, 0, 0};
  const size_t nc = cells.size();
  for (size_t c = 0; c < nc; ++c) {
    const uint64_t k = cells[c].key;
    if (c + 1 < nc && cells[c + 1].key == k + 1) visit(c, c + 1);
    for (int r = 0; r < 4; ++r) {
      const uint64_t first = k + rows[r] - 1;
      size_t& j = cursor[r];
      while (j < nc && cells[j].key < first) ++j;
      for (size_t t = j; t < nc && cells[t].key <= first + 2; ++t) visit(c, t);
    }
  }
  for (uint32_t k = 0; k < finite; ++k) (*rep)[size_t(id[k])] = id[size_t(local.Find(int32_t(k)))];
  return true;
}

// One model per component label (0..count-1), points in their order.
void SplitByLabel(const ObjectModel3DData& m, const std::vector<int32_t>& label, size_t count,
                  HTuple* out) {
  std::vector<ObjectModel3DPtr> parts(count);
  std::vector<size_t> sizes(count, 0);
  for (int32_t l : label) ++sizes[size_t(l)];
  for (size_t c = 0; c < count; ++c) {
    parts[c] = NewObjectModel3D();
  }
  // Each point's place in its part, then every array filled by place.
  std::vector<int32_t> local(m.NumPoints());
  {
    std::vector<int32_t> next(count, 0);
    for (size_t i = 0; i < m.NumPoints(); ++i) local[i] = next[size_t(label[i])]++;
  }
  const bool normals = m.HasNormals();
  for (size_t c = 0; c < count; ++c) {
    parts[c]->points.resize(sizes[c]);
    if (normals) parts[c]->normals.resize(sizes[c]);
  }
  for (size_t i = 0; i < m.NumPoints(); ++i) {
    ObjectModel3DData& p = *parts[size_t(label[i])];
    p.points[size_t(local[i])] = m.points[i];
    if (normals) p.normals[size_t(local[i])] = m.normals[i];
  }
  for (const auto& [name, v] : m.attribs) {
    if (v.size() != m.NumPoints()) {  // not one value a point: split as far as it goes
      for (size_t i = 0; i < v.size() && i < m.NumPoints(); ++i) parts[size_t(label[i])]->attribs[name].push_back(v[i]);
      continue;
    }
    std::vector<double*> dst(count);
    for (size_t c = 0; c < count; ++c) {
      std::vector<double>& a = parts[c]->attribs[name];
      a.resize(sizes[c]);
      dst[c] = a.data();
    }
    for (size_t i = 0; i < v.size(); ++i) dst[size_t(label[i])][local[i]] = v[i];
  }
  for (const auto& t : m.triangles)
    parts[size_t(label[size_t(t[0])])]->triangles.push_back(
        {local[size_t(t[0])], local[size_t(t[1])], local[size_t(t[2])]});
  for (auto& p : parts) AppendModel(out, std::move(p));
}

}  // namespace

void connection_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Feature,
                                const HTuple& Value, HTuple* ObjectModel3DConnected) {
  const char* op = "connection_object_model_3d";
  const bool by_distance = ParamStringIn(Feature, op, "Feature", {"distance_3d", "mesh"}) == "distance_3d";
  const double dist = ParamReal(Value, op, "Value");
  if (by_distance && !(dist >= 0)) ThrowParamValue(op, "Value", "negative distance");

  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    const size_t n = m->NumPoints();
    UnionFind uf(n);
    for (const auto& t : m->triangles) {
      uf.Join(t[0], t[1]);
      uf.Join(t[0], t[2]);
    }
    std::vector<int32_t> rep;
    // Without triangles the representatives name the parts themselves.
    bool by_rep = false;
    if (by_distance && dist > 0 && JoinByCells(m->points, dist, &rep)) {
      by_rep = m->triangles.empty();
      if (!by_rep)
        for (size_t i = 0; i < n; ++i) uf.Join(int32_t(i), rep[i]);
    } else if (by_distance && dist > 0) {
      const NeighbourGrid grid(m->points, dist);
      // Edges to later points are gathered in parallel, joined afterwards.
      std::vector<std::vector<std::pair<int32_t, int32_t>>> edges;
      std::mutex edges_lock;
      const float r2 = float(dist * dist);
      ParallelFor(grid.Size(), [&](size_t b, size_t e) {
        std::vector<std::pair<int32_t, int32_t>> mine;
        std::vector<int32_t> idx;
        std::vector<float> d2;
        for (size_t k = b; k < e; ++k) {
          const int32_t i = grid.Ids()[k];
          grid.Radius(m->points[size_t(i)], dist, &idx, &d2);
          for (size_t j = 0; j < idx.size(); ++j)
            if (idx[j] > i && d2[j] < r2) mine.emplace_back(i, idx[j]);
        }
        std::lock_guard<std::mutex> g(edges_lock);
        edges.push_back(std::move(mine));
      });
      for (const auto& list : edges)
        for (const auto& [a, b] : list) uf.Join(a, b);
    }
    std::vector<int32_t> label(n), comp_of_root(n, -1);
    size_t count = 0;
    for (size_t i = 0; i < n; ++i) {
      const int32_t r = by_rep ? rep[i] : uf.Find(int32_t(i));
      if (comp_of_root[size_t(r)] < 0) comp_of_root[size_t(r)] = int32_t(count++);
      label[i] = comp_of_root[size_t(r)];
    }
    SplitByLabel(*m, label, count, &out);
  }
  *ObjectModel3DConnected = std::move(out);
}

namespace {

// Normal of a weighted neighbourhood: smallest principal axis, and the
// weighted centroid it passes through.
struct Plane {
  Eigen::Vector3d c, n, u, v;
};

Plane FitPlane(const std::vector<Eigen::Vector3d>& q, const std::vector<double>& w) {
  Eigen::Vector3d c = Eigen::Vector3d::Zero();
  double ws = 0;
  for (size_t j = 0; j < q.size(); ++j) {
    c += w[j] * q[j];
    ws += w[j];
  }
  c /= ws;
  Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
  for (size_t j = 0; j < q.size(); ++j) {
    const Eigen::Vector3d d = q[j] - c;
    cov.noalias() += w[j] * d * d.transpose();
  }
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> es;
  es.computeDirect(cov);
  Plane p;
  p.c = c;
  p.n = es.eigenvectors().col(0).normalized();
  p.u = es.eigenvectors().col(2).normalized();
  p.v = p.n.cross(p.u);
  return p;
}

enum class Facing { NegativeZ, Origin };

Eigen::Vector3f Oriented(Eigen::Vector3d n, const Eigen::Vector3d& at, Facing f) {
  const bool flip = f == Facing::Origin ? n.dot(-at) < 0 : n.z() > 0;
  return (flip ? -n : n).cast<float>();
}

struct MlsParams {
  int knn = 60;
  int order = 2;
  double abs_sigma = -1, rel_sigma = 1.0;
  Facing facing = Facing::NegativeZ;
  bool move = true;  // false: only estimate normals
  bool weighted = true;  // false: every neighbour counts alike (plain PCA normals)
};

// Moves every finite point onto its local MLS surface (when p.move) and
// sets its normal; other points keep their place and get a zero normal.
void Mls(const ObjectModel3DData& m, const MlsParams& p, std::vector<Eigen::Vector3f>* points,
         std::vector<Eigen::Vector3f>* normals) {
  const NeighbourGrid grid(m.points, 0, p.knn);
  *points = m.points;
  normals->assign(m.NumPoints(), Eigen::Vector3f::Zero());
  // Threads take small runs of cells as they go, so that a thread slowed by
  // other work on the machine does not hold up the others.
  constexpr size_t kRun = 64;
  const size_t runs = (grid.NumCells() + kRun - 1) / kRun;
  std::atomic<size_t> next{0};
  ParallelFor(runs, [&](size_t, size_t) {
    NeighbourGrid::Scratch scratch;
    std::vector<Eigen::Vector3d> q;
    std::vector<double> w;
    std::vector<float> half;
    for (size_t r = next++; r < runs; r = next++)
    grid.KnnOfCells(r * kRun, std::min(grid.NumCells(), (r + 1) * kRun), p.knn, false, &scratch,
                    [&](int32_t i, const int32_t* idx, const float* d2, size_t n) {
      if (n < 3) return;
      const Eigen::Vector3d x = m.points[size_t(i)].cast<double>();
      // The Gaussian's width: mls_relative_sigma times the distance of the
      // k/2-th neighbour, or mls_abs_sigma.
      double h2;
      if (!p.weighted) {
        h2 = 0;
      } else if (p.abs_sigma > 0) {
        h2 = p.abs_sigma * p.abs_sigma;
      } else {
        half.assign(d2, d2 + n);
        const size_t mid = std::min(n - 1, size_t(p.knn) / 2);
        std::nth_element(half.begin(), half.begin() + ptrdiff_t(mid), half.end());
        h2 = p.rel_sigma * p.rel_sigma * double(half[mid]);
      }
      q.resize(n);
      w.resize(n);
      const double inv_h2 = h2 > 0 ? 1 / h2 : 0;
      for (size_t j = 0; j < n; ++j) {
        q[j] = m.points[size_t(idx[j])].cast<double>();
        w[j] = std::exp(-double(d2[j]) * inv_h2);
      }
      const Plane pl = FitPlane(q, w);
      Eigen::Vector3d pos = x, nrm = pl.n;
      const double xu = (x - pl.c).dot(pl.u), xv = (x - pl.c).dot(pl.v);
      if (p.order >= 2 && n >= 6) {
        // f(u, v) = a0 + a1 u + a2 v + a3 u^2 + a4 uv + a5 v^2, weighted LSQ.
        // The upper triangle summed by hand: Eigen's rank update of a 6 x 6
        // is not unrolled, and this loop is the heart of the smoothing.
        double sum[21] = {}, rhs_sum[6] = {};
        for (size_t j = 0; j < n; ++j) {
          const Eigen::Vector3d d = q[j] - pl.c;
          const double u = d.dot(pl.u), v = d.dot(pl.v), h = d.dot(pl.n);
          const double b[6] = {1, u, v, u * u, u * v, v * v};
          int k = 0;
          for (int r = 0; r < 6; ++r) {
            const double wb = w[j] * b[r];
            rhs_sum[r] += wb * h;
            for (int c = r; c < 6; ++c) sum[k++] += wb * b[c];
          }
        }
        Eigen::Matrix<double, 6, 6> A;
        Eigen::Matrix<double, 6, 1> rhs;
        for (int r = 0, k = 0; r < 6; ++r) {
          rhs[r] = rhs_sum[r];
          for (int c = r; c < 6; ++c, ++k) A(r, c) = A(c, r) = sum[k];
        }
        Eigen::LDLT<Eigen::Matrix<double, 6, 6>> ldlt(A);
        const Eigen::Matrix<double, 6, 1> a = ldlt.solve(rhs);
        if (ldlt.info() == Eigen::Success && a.allFinite()) {
          const double f = a[0] + a[1] * xu + a[2] * xv + a[3] * xu * xu + a[4] * xu * xv +
                           a[5] * xv * xv;
          const double fu = a[1] + 2 * a[3] * xu + a[4] * xv, fv = a[2] + a[4] * xu + 2 * a[5] * xv;
          pos = pl.c + xu * pl.u + xv * pl.v + f * pl.n;
          nrm = (pl.n - fu * pl.u - fv * pl.v).normalized();
        } else {
          pos = pl.c + xu * pl.u + xv * pl.v;
        }
      } else {
        pos = pl.c + xu * pl.u + xv * pl.v;
      }
      if (p.move) (*points)[size_t(i)] = pos.cast<float>();
      (*normals)[size_t(i)] = Oriented(nrm, pos, p.facing);
    });
  }, 1);
}

}  // namespace

void smooth_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                            const HTuple& GenParamName, const HTuple& GenParamValue,
                            HTuple* SmoothObjectModel3D) {
  const char* op = "smooth_object_model_3d";
  ParamStringIn(Method, op, "Method", {"mls"});
  const model3d::GenParams gp(GenParamName, GenParamValue, op,
                              {"mls_kNN", "mls_order", "mls_abs_sigma", "mls_relative_sigma",
                               "mls_force_inwards"});
  MlsParams p;
  p.knn = int(gp.Int("mls_kNN", 60));
  p.order = int(gp.Int("mls_order", 2));
  p.abs_sigma = gp.Real("mls_abs_sigma", -1);
  p.rel_sigma = gp.Real("mls_relative_sigma", 1.0);
  p.facing = gp.Bool("mls_force_inwards", false) ? Facing::Origin : Facing::NegativeZ;
  if (p.knn < 3 || p.knn > 10000) throw HException(op, "mls_kNN must be 3 or more", kErrWrongParamValue);
  if (p.order < 0 || p.order > 2) throw HException(op, "mls_order must be 0, 1 or 2", kErrWrongParamValue);
  if (!(p.rel_sigma > 0)) throw HException(op, "mls_relative_sigma must be positive", kErrWrongParamValue);

  HTuple out;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    auto s = NewObjectModel3D();
    Mls(*m, p, &s->points, &s->normals);
    s->triangles = m->triangles;
    s->attribs = m->attribs;
    AppendModel(&out, std::move(s));
  }
  *SmoothObjectModel3D = std::move(out);
}

namespace {

// Median distance of a point to its nearest neighbour, from a spread-out
// sample of the points.
double MedianSpacing(const NeighbourGrid& grid, const std::vector<Eigen::Vector3f>& pts) {
  std::vector<double> d;
  std::vector<int32_t> idx;
  std::vector<float> d2;
  NeighbourGrid::Scratch scratch;
  const size_t step = std::max<size_t>(1, grid.Size() / 2000);
  for (size_t k = 0; k < grid.Size(); k += step) {
    grid.Knn(pts[size_t(grid.Ids()[k])], 2, &idx, &d2, &scratch);
    if (d2.size() == 2) d.push_back(std::sqrt(double(d2[1])));
  }
  if (d.empty()) return 0;
  std::nth_element(d.begin(), d.begin() + ptrdiff_t(d.size() / 2), d.end());
  return d[d.size() / 2];
}

// The greedy triangulation's neighbour search. The triangulation asks for
// the k nearest neighbours of every point once, by index: they are all found
// beforehand, cell by cell on a NeighbourGrid, and handed out from a table.
class GridSearch : public pcl::search::Search<pcl::PointNormal> {
 public:
  explicit GridSearch(int k) : pcl::search::Search<pcl::PointNormal>("NeighbourGrid", true), k_(k) {}

  void setInputCloud(const PointCloudConstPtr& cloud,
                     const IndicesConstPtr& indices = IndicesConstPtr()) override {
    input_ = cloud;
    indices_ = indices;
    pts_.resize(cloud->size());
    for (size_t i = 0; i < cloud->size(); ++i) pts_[i] = (*cloud)[i].getVector3fMap();
    grid_ = std::make_unique<NeighbourGrid>(pts_, 0, k_);
    const size_t n = pts_.size();
    known_ = std::min<size_t>(size_t(k_), grid_->Size());
    table_idx_.assign(n * known_, -1);
    table_d2_.assign(n * known_, 0.f);
    count_.assign(n, 0);
    grid_->KnnOfCells(0, grid_->NumCells(), k_, true, &scratch_,
                      [&](int32_t i, const int32_t* idx, const float* d2, size_t m) {
      std::copy(idx, idx + m, table_idx_.begin() + ptrdiff_t(size_t(i) * known_));
      std::copy(d2, d2 + m, table_d2_.begin() + ptrdiff_t(size_t(i) * known_));
      count_[size_t(i)] = uint32_t(m);
    });
  }
  int nearestKSearch(const pcl::PointNormal& p, int k, pcl::Indices& idx,
                     std::vector<float>& d2) const override {
    grid_->Knn(p.getVector3fMap(), k, &tmp_, &d2, &scratch_);
    idx.assign(tmp_.begin(), tmp_.end());
    return int(idx.size());
  }
  int nearestKSearch(pcl::index_t index, int k, pcl::Indices& idx,
                     std::vector<float>& d2) const override {
    const size_t i = size_t(index);
    if (i < count_.size() && size_t(k) == known_ && count_[i] == known_) {
      const size_t at = i * known_;
      idx.assign(table_idx_.begin() + ptrdiff_t(at), table_idx_.begin() + ptrdiff_t(at + known_));
      d2.assign(table_d2_.begin() + ptrdiff_t(at), table_d2_.begin() + ptrdiff_t(at + known_));
      return int(known_);
    }
    return nearestKSearch((*input_)[i], k, idx, d2);
  }
  int radiusSearch(const pcl::PointNormal& p, double r, pcl::Indices& idx, std::vector<float>& d2,
                   unsigned int max_nn = 0) const override {
    grid_->Radius(p.getVector3fMap(), r, &tmp_, &d2);
    idx.assign(tmp_.begin(), tmp_.end());
    if (max_nn > 0 && idx.size() > max_nn) {
      idx.resize(max_nn);
      d2.resize(max_nn);
    }
    return int(idx.size());
  }
  using pcl::search::Search<pcl::PointNormal>::nearestKSearch;
  using pcl::search::Search<pcl::PointNormal>::radiusSearch;

 private:
  int k_;
  std::vector<Eigen::Vector3f> pts_;
  std::unique_ptr<NeighbourGrid> grid_;
  size_t known_ = 0;  // neighbours per point in the table
  std::vector<int32_t> table_idx_;
  std::vector<float> table_d2_;
  std::vector<uint32_t> count_;
  // One triangulation runs on one thread; its search needs no locking.
  mutable std::vector<int32_t> tmp_;
  mutable NeighbourGrid::Scratch scratch_;
};

}  // namespace

namespace {

struct Gp3Params {
  double radius, mu;
  int knn;
  double max_surface_angle;  // radians
  bool consistent_normals, consistent_ordering;
};

// Greedy projection triangulation of the points `subset` of `cloud`;
// triangles as indices into `cloud`.
std::vector<std::array<int32_t, 3>> Gp3(const pcl::PointCloud<pcl::PointNormal>& cloud,
                                        const std::vector<int32_t>& subset, const Gp3Params& p) {
  pcl::PointCloud<pcl::PointNormal>::Ptr part(new pcl::PointCloud<pcl::PointNormal>);
  part->reserve(subset.size());
  for (int32_t i : subset) part->push_back(cloud[size_t(i)]);
  std::vector<std::array<int32_t, 3>> tris;
  if (part->size() < 3) return tris;
  pcl::search::Search<pcl::PointNormal>::Ptr tree(new GridSearch(p.knn));
  pcl::GreedyProjectionTriangulation<pcl::PointNormal> gp3;
  gp3.setSearchRadius(p.radius);
  gp3.setMu(p.mu);
  gp3.setMaximumNearestNeighbors(std::min<int>(p.knn, int(part->size())));
  gp3.setMaximumSurfaceAngle(p.max_surface_angle);
  gp3.setMinimumAngle(M_PI / 18);
  gp3.setMaximumAngle(2 * M_PI / 3);
  gp3.setNormalConsistency(p.consistent_normals);
  gp3.setConsistentVertexOrdering(p.consistent_ordering);
  gp3.setInputCloud(part);
  gp3.setSearchMethod(tree);
  std::vector<pcl::Vertices> polygons;
  gp3.reconstruct(polygons);
  tris.reserve(polygons.size());
  for (const auto& poly : polygons) {
    if (poly.vertices.size() != 3) continue;
    std::array<int32_t, 3> t = {subset[poly.vertices[0]], subset[poly.vertices[1]],
                                subset[poly.vertices[2]]};
    if (p.consistent_ordering) {
      // Every triangle turns so that its face agrees with its corners'
      // normals: one rule for the whole mesh, however it was cut.
      const auto& a = cloud[size_t(t[0])];
      const auto& b = cloud[size_t(t[1])];
      const auto& c = cloud[size_t(t[2])];
      const Eigen::Vector3f face = (b.getVector3fMap() - a.getVector3fMap())
                                       .cross(c.getVector3fMap() - a.getVector3fMap());
      const Eigen::Vector3f n = a.getNormalVector3fMap() + b.getNormalVector3fMap() +
                                c.getNormalVector3fMap();
      if (face.dot(n) < 0) std::swap(t[1], t[2]);
    }
    tris.push_back(t);
  }
  return tris;
}

// Where the two halves chose differently next to the cut, small holes stay
// open: loops of a few open edges near the cut. Each is closed by a fan,
// turned like the triangles around it.
void FillSeamHoles(const std::vector<float>& coord, float cut, double band,
                   std::vector<std::array<int32_t, 3>>* tris) {
  auto near = [&](int32_t v) { return std::abs(double(coord[size_t(v)]) - cut) < band; };
  // Directed edges of the triangles; an edge used once, whose reverse is
  // missing, is open (one used twice lies where the halves overlap).
  std::map<std::pair<int32_t, int32_t>, int> directed;
  for (const auto& t : *tris) {
    if (!near(t[0]) && !near(t[1]) && !near(t[2])) continue;
    for (int k = 0; k < 3; ++k) ++directed[{t[size_t(k)], t[size_t((k + 1) % 3)]}];
  }
  // Open edges run opposite to their triangle's edge around a hole.
  std::map<int32_t, std::vector<int32_t>> next;
  for (const auto& [e, n] : directed)
    if (n == 1 && !directed.count({e.second, e.first}) && near(e.first) && near(e.second))
      next[e.second].push_back(e.first);
  std::set<int32_t> done;
  constexpr size_t kMaxLoop = 8;
  for (const auto& [start, outs] : next) {
    if (done.count(start) || outs.size() != 1) continue;
    std::vector<int32_t> loop = {start};
    int32_t v = outs[0];
    bool closed = false;
    while (loop.size() <= kMaxLoop) {
      if (v == start) {
        closed = true;
        break;
      }
      auto it = next.find(v);
      if (it == next.end() || it->second.size() != 1 || done.count(v)) break;
      loop.push_back(v);
      v = it->second[0];
    }
    if (!closed || loop.size() < 3) continue;
    for (int32_t u : loop) done.insert(u);
    for (size_t i = 1; i + 1 < loop.size(); ++i) tris->push_back({loop[0], loop[i], loop[i + 1]});
  }
}

// The greedy triangulation is sequential; large clouds are cut in two at
// the median of their longest extent and the halves triangulated on two
// threads. Each half sees the other's points up to twice the longest edge
// beyond the cut and keeps the triangles whose centre lies on its side, so
// that both meshes reach across the cut with the same neighbourhoods.
std::vector<std::array<int32_t, 3>> Gp3Split(const pcl::PointCloud<pcl::PointNormal>& cloud,
                                             const Gp3Params& p) {
  const size_t n = cloud.size();
  std::vector<int32_t> all(n);
  std::iota(all.begin(), all.end(), 0);
  Eigen::Vector3f lo = Eigen::Vector3f::Constant(std::numeric_limits<float>::infinity()), hi = -lo;
  for (const auto& q : cloud) {
    lo = lo.cwiseMin(q.getVector3fMap());
    hi = hi.cwiseMax(q.getVector3fMap());
  }
  int axis;
  const float extent = (hi - lo).maxCoeff(&axis);
  const double band = 2 * p.radius;
  constexpr size_t kMinSplit = 20000;
  if (n < kMinSplit || std::thread::hardware_concurrency() < 2 || !(4 * band < extent))
    return Gp3(cloud, all, p);
  std::vector<float> coord(n);
  for (size_t i = 0; i < n; ++i) coord[i] = cloud[i].getVector3fMap()[axis];
  std::vector<float> sorted = coord;
  std::nth_element(sorted.begin(), sorted.begin() + ptrdiff_t(n / 2), sorted.end());
  const float cut = sorted[n / 2];
  std::vector<int32_t> left, right;
  for (size_t i = 0; i < n; ++i) {
    if (coord[i] < cut + band) left.push_back(int32_t(i));
    if (coord[i] >= cut - band) right.push_back(int32_t(i));
  }
  std::vector<std::array<int32_t, 3>> lt, rt;
  ParallelFor(2, [&](size_t b, size_t e) {
    for (size_t k = b; k < e; ++k) (k == 0 ? lt : rt) = Gp3(cloud, k == 0 ? left : right, p);
  }, 1);
  auto centre = [&](const std::array<int32_t, 3>& t) {
    return (coord[size_t(t[0])] + coord[size_t(t[1])] + coord[size_t(t[2])]) / 3;
  };
  std::vector<std::array<int32_t, 3>> tris;
  tris.reserve(lt.size() + rt.size());
  for (const auto& t : lt)
    if (centre(t) < cut) tris.push_back(t);
  for (const auto& t : rt)
    if (centre(t) >= cut) tris.push_back(t);
  FillSeamHoles(coord, cut, band, &tris);
  return tris;
}

}  // namespace

void triangulate_object_model_3d(const HTuple& ObjectModel3D, const HTuple& Method,
                                 const HTuple& GenParamName, const HTuple& GenParamValue,
                                 HTuple* TriangulatedObjectModel3D, HTuple* Information) {
  const char* op = "triangulate_object_model_3d";
  ParamStringIn(Method, op, "Method", {"greedy"});
  const model3d::GenParams gp(
      GenParamName, GenParamValue, op,
      {"greedy_kNN", "greedy_radius_type", "greedy_radius_value", "greedy_neigh_orient_tol",
       "greedy_neigh_orient_consistent", "greedy_fix_flips", "greedy_output_all_points"});
  const int knn = int(gp.Int("greedy_kNN", 40));
  const std::string radius_type = gp.Str("greedy_radius_type", "auto");
  const double radius_value = gp.Real("greedy_radius_value", 2.0);
  const double orient_tol = gp.Real("greedy_neigh_orient_tol", 30);
  const bool consistent = gp.Bool("greedy_neigh_orient_consistent", false);
  const bool fix_flips = gp.Bool("greedy_fix_flips", true);
  const bool all_points = gp.Bool("greedy_output_all_points", false);
  if (knn < 3 || knn > 10000) throw HException(op, "greedy_kNN must be 3 or more", kErrWrongParamValue);
  if (radius_type != "auto" && radius_type != "fixed")
    throw HException(op, "greedy_radius_type must be 'auto' or 'fixed'", kErrWrongParamValue);
  if (!(radius_value > 0)) throw HException(op, "greedy_radius_value must be positive", kErrWrongParamValue);
  if (!(orient_tol > 0 && orient_tol <= 180))
    throw HException(op, "greedy_neigh_orient_tol must lie in (0, 180]", kErrWrongParamValue);

  // The greedy triangulation reports on the console where a point's fringe
  // lies beyond its greedy_kNN neighbours (that point becomes a boundary) and
  // how often it widened a neighbourhood: what it does by design, nothing a
  // user of the operator can act on. Its failures are found here from its
  // results. The library's output is switched off once for the process
  // (only this file uses the library).
  static const bool quiet = [] {
    pcl::console::setVerbosityLevel(pcl::console::L_ALWAYS);
    return true;
  }();
  (void)quiet;

  HTuple out, info;
  for (const ObjectModel3DData* m : ModelsOf(ObjectModel3D, op)) {
    std::vector<Eigen::Vector3f> normals = m->normals;
    if (!m->HasNormals()) {
      MlsParams np;
      np.knn = knn;
      np.order = 1;
      np.move = false;
      np.weighted = false;
      std::vector<Eigen::Vector3f> unused;
      Mls(*m, np, &unused, &normals);
    }
    // The triangulation runs on the points with a position and a normal.
    pcl::PointCloud<pcl::PointNormal>::Ptr cloud(new pcl::PointCloud<pcl::PointNormal>);
    std::vector<int32_t> ids;
    for (size_t i = 0; i < m->NumPoints(); ++i) {
      const Eigen::Vector3f& p = m->points[i];
      const Eigen::Vector3f& n = normals[i];
      if (!p.allFinite() || !n.allFinite() || n.squaredNorm() < 0.5f) continue;
      pcl::PointNormal q;
      q.x = p.x(); q.y = p.y(); q.z = p.z();
      q.normal_x = n.x(); q.normal_y = n.y(); q.normal_z = n.z();
      cloud->push_back(q);
      ids.push_back(int32_t(i));
    }
    std::vector<std::array<int32_t, 3>> tris;
    if (cloud->size() >= 3) {
      double radius, mu;
      if (radius_type == "fixed") {
        radius = radius_value;
        mu = std::numeric_limits<double>::max() / 4;  // the fixed radius alone limits edges
      } else {
        const double s = MedianSpacing(NeighbourGrid(m->points, 0, 2), m->points);
        mu = radius_value * 1.25;
        radius = std::max(s, 1e-12) * radius_value * 4;
      }
      Gp3Params gpp{radius, mu, knn, orient_tol * M_PI / 180, consistent, fix_flips};
      for (const auto& t : Gp3Split(*cloud, gpp))
        tris.push_back({ids[size_t(t[0])], ids[size_t(t[1])], ids[size_t(t[2])]});
    }
    // Unused points go unless asked for; attributes follow their points.
    std::vector<int32_t> keep;
    if (all_points) {
      keep.resize(m->NumPoints());
      std::iota(keep.begin(), keep.end(), 0);
    } else {
      std::vector<char> used(m->NumPoints(), 0);
      for (const auto& t : tris)
        for (int32_t v : t) used[size_t(v)] = 1;
      for (size_t i = 0; i < used.size(); ++i)
        if (used[i]) keep.push_back(int32_t(i));
    }
    ObjectModel3DData with_normals;
    with_normals.points = m->points;
    with_normals.normals = std::move(normals);
    with_normals.attribs = m->attribs;
    with_normals.triangles = std::move(tris);
    ObjectModel3DPtr t = model3d::SubsetOf(with_normals, keep);
    info.Append(HValue(Hlong(t->triangles.size())));
    AppendModel(&out, std::move(t));
  }
  *TriangulatedObjectModel3D = std::move(out);
  *Information = std::move(info);
}

}  // namespace vision
