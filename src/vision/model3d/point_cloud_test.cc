#include "vision/model3d/point_cloud.h"

#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "vision/model3d/object_model_3d.h"

namespace vision {
namespace {

using Pts = std::vector<Eigen::Vector3f>;

// A model of the points, with "&coord_r" = point index so that every test
// can see which input point an output point came from.
HTuple Model(const Pts& p) {
  auto m = NewObjectModel3D();
  m->points = p;
  std::vector<double>& r = m->attribs["&coord_r"];
  for (size_t i = 0; i < p.size(); ++i) r.push_back(double(i));
  return ObjectModel3DHandle(m);
}

const ObjectModel3DData& Data(const HTuple& t, Hlong i = 0) {
  return *ObjectModel3DCast(t, "test", i);
}

// An n x n grid with the given spacing, lifted by f(x, y) and noise.
Pts Grid(int n, double step, Eigen::Vector3f origin,
         const std::function<double(double, double)>& f = nullptr, double noise = 0,
         unsigned seed = 1) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0, noise > 0 ? noise : 1);
  Pts p;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      const double x = j * step, y = i * step;
      const double z = (f ? f(x, y) : 0) + (noise > 0 ? g(rng) : 0);
      p.push_back(origin + Eigen::Vector3f(float(x), float(y), float(z)));
    }
  return p;
}

// Points spread over a sphere (Fibonacci lattice), optionally noisy in radius.
Pts Sphere(int n, double radius, double noise = 0, unsigned seed = 2) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0, noise > 0 ? noise : 1);
  Pts p;
  const double golden = M_PI * (3 - std::sqrt(5.0));
  for (int i = 0; i < n; ++i) {
    const double z = 1 - 2 * (i + 0.5) / n, r = std::sqrt(1 - z * z), a = golden * i;
    const double rad = radius + (noise > 0 ? g(rng) : 0);
    p.emplace_back(float(rad * r * std::cos(a)), float(rad * r * std::sin(a)), float(rad * z));
  }
  return p;
}

Pts Concat(Pts a, const Pts& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(PointCloud, ConnectionSplitsByDistance) {
  const Pts blob_a = Grid(10, 5e-5, {0, 0, -0.001f});
  const Pts blob_b = Grid(7, 5e-5, {0.01f, 0, -0.001f});
  // Interleave the two blobs' points: the parts still come out whole.
  Pts mixed;
  for (size_t i = 0; i < std::max(blob_a.size(), blob_b.size()); ++i) {
    if (i < blob_a.size()) mixed.push_back(blob_a[i]);
    if (i < blob_b.size()) mixed.push_back(blob_b[i]);
  }
  struct Case {
    const char* what;
    Pts pts;
    double dist;
    std::vector<size_t> sizes;
  } cases[] = {
      {"two blobs", mixed, 1e-4, {100, 49}},
      // A spacing of 2^-13 is exact in float: equal to the distance is not closer.
      {"spacing equal to the distance", Grid(3, 0x1p-13, {0, 0, 0}), 0x1p-13, std::vector<size_t>(9, 1)},
      {"spacing just below", Grid(3, 0x1p-13, {0, 0, 0}), 0x1.01p-13, {9}},
      {"lone points", Pts{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, 0.5, {1, 1, 1}},
      {"nothing", Pts{}, 1e-4, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    HTuple parts;
    connection_object_model_3d(Model(c.pts), "distance_3d", c.dist, &parts);
    ASSERT_EQ(parts.Length(), Hlong(c.sizes.size()));
    double prev_first = -1;
    for (Hlong k = 0; k < parts.Length(); ++k) {
      const ObjectModel3DData& d = Data(parts, k);
      EXPECT_EQ(d.NumPoints(), c.sizes[size_t(k)]);
      // Points keep their order and their attribute, parts follow their first point.
      const std::vector<double>& id = d.attribs.at("&coord_r");
      ASSERT_EQ(id.size(), d.NumPoints());
      EXPECT_GT(id[0], prev_first);
      prev_first = id[0];
      for (size_t i = 0; i < d.NumPoints(); ++i) {
        EXPECT_EQ(d.points[i], c.pts[size_t(id[i])]);
        if (i) EXPECT_GT(id[i], id[i - 1]);
      }
    }
  }
}

TEST(PointCloud, ConnectionMatchesAllPairs) {
  // Parts against a union of every pair closer than the distance, on clouds
  // whose neighbours lie in every direction of the grid of cells.
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-5e-4f, 5e-4f);
  Pts box, sheet, lattice;
  for (int i = 0; i < 1500; ++i) box.emplace_back(u(rng), u(rng), u(rng));
  for (int i = 0; i < 1500; ++i) sheet.emplace_back(u(rng), u(rng), 0.5f * u(rng) * 1e-2f);
  // Far points make a long grid along z.
  sheet.emplace_back(0.f, 0.f, 0.5f);
  sheet.emplace_back(1e-5f, 0.f, 0.5f);
  sheet.emplace_back(-3e-4f, 2e-4f, -0.25f);
  // A lattice just finer than the distance, every other point missing.
  for (int z = -4; z < 4; ++z)
    for (int y = -4; y < 4; ++y)
      for (int x = -4; x < 4; ++x)
        if (rng() % 2) lattice.emplace_back(x * 0.99e-4f, y * 0.99e-4f, z * 0.99e-4f);
  Pts with_nan = box;
  with_nan[3] = Eigen::Vector3f(std::nanf(""), 0.f, 0.f);
  struct Case {
    const char* what;
    Pts pts;
    double dist;
  } cases[] = {{"box", box, 6e-5}, {"sheet with far points", sheet, 3e-5},
               {"lattice", lattice, 1e-4}, {"a point without coordinates", with_nan, 6e-5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const size_t n = c.pts.size();
    std::vector<size_t> root(n);
    std::iota(root.begin(), root.end(), size_t(0));
    std::function<size_t(size_t)> find = [&](size_t a) { return root[a] == a ? a : root[a] = find(root[a]); };
    const float r2 = float(c.dist * c.dist);
    for (size_t i = 0; i < n; ++i)
      for (size_t j = i + 1; j < n; ++j)
        if ((c.pts[i] - c.pts[j]).squaredNorm() < r2) root[find(j)] = find(i);
    std::map<size_t, size_t> size_of_root;
    for (size_t i = 0; i < n; ++i) ++size_of_root[find(i)];
    HTuple parts;
    connection_object_model_3d(Model(c.pts), "distance_3d", c.dist, &parts);
    ASSERT_EQ(size_t(parts.Length()), size_of_root.size());
    std::set<size_t> seen;
    for (Hlong k = 0; k < parts.Length(); ++k) {
      const std::vector<double>& id = Data(parts, k).attribs.at("&coord_r");
      const size_t r = find(size_t(id[0]));
      EXPECT_TRUE(seen.insert(r).second);
      EXPECT_EQ(id.size(), size_of_root[r]);
      for (double i : id) EXPECT_EQ(find(size_t(i)), r);
    }
  }
}

TEST(PointCloud, ConnectionOfMeshes) {
  // Two triangles far apart, joined by their edges only.
  auto m = NewObjectModel3D();
  m->points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 5, 5}, {6, 5, 5}, {5, 6, 5}, {9, 9, 9}};
  m->triangles = {{0, 1, 2}, {5, 4, 3}};
  HTuple parts;
  connection_object_model_3d(ObjectModel3DHandle(m), "mesh", 0, &parts);
  ASSERT_EQ(parts.Length(), 3);
  EXPECT_EQ(Data(parts, 1).triangles, (std::vector<std::array<int32_t, 3>>{{2, 1, 0}}));
  EXPECT_EQ(Data(parts, 2).NumPoints(), 1u);
  // With distance_3d a triangle is never torn apart, however long its edges.
  connection_object_model_3d(ObjectModel3DHandle(m), "distance_3d", 0.01, &parts);
  ASSERT_EQ(parts.Length(), 3);
  EXPECT_EQ(Data(parts, 0).triangles.size(), 1u);
}

TEST(PointCloud, SelectByNumberOfPoints) {
  // Parts of 299 and 300 points, as the reconstruction's lower bound sees them.
  Pts line299, line300;
  for (int i = 0; i < 299; ++i) line299.emplace_back(i * 1e-5f, 0.f, 0.f);
  for (int i = 0; i < 300; ++i) line300.emplace_back(i * 1e-5f, 1.f, 0.f);
  HTuple two;
  connection_object_model_3d(Model(Concat(line299, line300)), "distance_3d", 1e-4, &two);
  ASSERT_EQ(two.Length(), 2);
  struct Case {
    HTuple op, lo, hi;
    std::vector<size_t> kept;
  } cases[] = {
      {"and", 300, 1000000, {300}},
      {"and", 1000, Hlong(100000000000000), {}},
      {"and", 299, Hlong(100000000000000), {299, 300}},
      {"and", 0, 299, {299}},
      {"or", 300, 300.0, {300}},
  };
  for (const Case& c : cases) {
    HTuple sel;
    select_object_model_3d(two, "num_points", c.op, c.lo, c.hi, &sel);
    ASSERT_EQ(sel.Length(), Hlong(c.kept.size())) << c.lo.ToString();
    for (Hlong k = 0; k < sel.Length(); ++k) EXPECT_EQ(Data(sel, k).NumPoints(), c.kept[size_t(k)]);
  }
  // The selection outlives the parts it came from: both are cleared in turn.
  HTuple sel;
  select_object_model_3d(two, "num_points", "and", 300, 1000000, &sel);
  clear_object_model_3d(two);
  EXPECT_EQ(Data(sel).NumPoints(), 300u);
  HTuple none;
  EXPECT_THROW(select_object_model_3d(sel, "num_points", "xor", 0, 1, &none), HException);
  EXPECT_THROW(select_object_model_3d(sel, "volume", "and", 0, 1, &none), HException);
}

TEST(PointCloud, SelectPointsBoundsAreInclusive) {
  const std::vector<float> zs = {-0.1f, -0.0003f, 0.0f, -0.00029f, -0.1000001f, -0.05f, 0.001f};
  Pts p;
  for (float z : zs) p.emplace_back(0.f, 0.f, z);
  HTuple sel;
  select_points_object_model_3d(Model(p), "point_coord_z", -0.1, -0.0003, &sel);
  EXPECT_EQ(Data(sel).attribs.at("&coord_r"), (std::vector<double>{0, 1, 5}));
  // Several attributes: all must hold; triangles go with their corners.
  auto m = NewObjectModel3D();
  m->points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
  m->triangles = {{0, 1, 2}, {1, 3, 2}};
  m->attribs["&coord_r"] = {0, 0, 0, 255};
  select_points_object_model_3d(ObjectModel3DHandle(m), HTuple{"point_coord_x", "&coord_r"},
                                HTuple{0, 0}, HTuple{1, 100}, &sel);
  EXPECT_EQ(Data(sel).NumPoints(), 3u);
  EXPECT_EQ(Data(sel).triangles, (std::vector<std::array<int32_t, 3>>{{0, 1, 2}}));
  EXPECT_THROW(select_points_object_model_3d(ObjectModel3DHandle(m), "&nope", 0, 1, &sel), HException);
}

TEST(PointCloud, SampleFastAveragesEachVoxel) {
  // Eight points in the voxel [0, 1)^3, two in [1, 2) x [0, 1)^2, one alone.
  Pts p;
  for (int i = 0; i < 8; ++i) p.emplace_back(0.1f + 0.1f * (i & 1), 0.2f + 0.1f * ((i >> 1) & 1), 0.5f + 0.1f * (i >> 2));
  p.emplace_back(1.2f, 0.5f, 0.5f);
  p.emplace_back(1.4f, 0.5f, 0.5f);
  p.emplace_back(3.5f, 3.5f, 3.5f);
  HTuple s;
  sample_object_model_3d(Model(p), "fast", 1.0, HTuple(), HTuple(), &s);
  const ObjectModel3DData& d = Data(s);
  ASSERT_EQ(d.NumPoints(), 3u);
  EXPECT_TRUE(d.points[0].isApprox(Eigen::Vector3f(0.15f, 0.25f, 0.55f)));
  EXPECT_TRUE(d.points[1].isApprox(Eigen::Vector3f(1.3f, 0.5f, 0.5f)));
  EXPECT_EQ(d.attribs.at("&coord_r"), (std::vector<double>{3.5, 8.5, 10}));
  sample_object_model_3d(Model(p), "fast", 1.0, "min_num_points", 2, &s);
  EXPECT_EQ(Data(s).NumPoints(), 2u);
  // A dense plane keeps about one point per voxel.
  sample_object_model_3d(Model(Grid(40, 0.25, {0, 0, 0})), "fast", 1.0, HTuple(), HTuple(), &s);
  EXPECT_EQ(Data(s).NumPoints(), 100u);
  struct Bad {
    HTuple method, dist, name, value;
  } bad[] = {{"accurate", 1.0, HTuple(), HTuple()},
             {"fast", 0.0, HTuple(), HTuple()},
             {"fast", 1.0, "max_angle_diff", 30}};
  for (const Bad& b : bad)
    EXPECT_THROW(sample_object_model_3d(Model(p), b.method, b.dist, b.name, b.value, &s), HException);
}

// RMS distance of the points from the surface, given by its signed distance.
double Rms(const Pts& p, const std::function<double(const Eigen::Vector3f&)>& dist) {
  double s = 0;
  for (const auto& q : p) s += dist(q) * dist(q);
  return std::sqrt(s / double(p.size()));
}

TEST(PointCloud, SmoothMlsOnKnownShapes) {
  const double noise = 2e-5;
  struct Case {
    const char* what;
    Pts pts;
    std::function<double(const Eigen::Vector3f&)> dist;      // to the true surface
    std::function<Eigen::Vector3f(const Eigen::Vector3f&)> normal;  // expected, up to sign
    HTuple names, values;
    std::function<bool(const Eigen::Vector3f& p, const Eigen::Vector3f& n)> facing;
  } cases[] = {
      {"noisy plane", Grid(60, 5e-5, {0, 0, -0.001f}, nullptr, noise),
       [](const Eigen::Vector3f& p) { return p.z() + 0.001; },
       [](const Eigen::Vector3f&) { return Eigen::Vector3f(0, 0, 1); }, HTuple(), HTuple(),
       [](const Eigen::Vector3f&, const Eigen::Vector3f& n) { return n.z() < 0; }},
      {"curved sheet", Grid(60, 5e-5, {0, 0, 0}, [](double x, double y) { return -0.001 - 50 * (x * x + y * y); }, noise),
       [](const Eigen::Vector3f& p) {
         return (p.z() + 0.001 + 50 * (double(p.x()) * p.x() + double(p.y()) * p.y())) /
                std::sqrt(1 + 1e4 * (double(p.x()) * p.x() + double(p.y()) * p.y()));
       },
       [](const Eigen::Vector3f& p) { return Eigen::Vector3f(100 * p.x(), 100 * p.y(), 1).normalized(); },
       HTuple(), HTuple(), [](const Eigen::Vector3f&, const Eigen::Vector3f& n) { return n.z() < 0; }},
      {"noisy sphere, normals inwards", Sphere(4000, 0.002, noise),
       [](const Eigen::Vector3f& p) { return p.norm() - 0.002; },
       [](const Eigen::Vector3f& p) { return p.normalized(); }, "mls_force_inwards", "true",
       [](const Eigen::Vector3f& p, const Eigen::Vector3f& n) { return n.dot(p) < 0; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    HTuple out;
    smooth_object_model_3d(Model(c.pts), "mls", c.names, c.values, &out);
    const ObjectModel3DData& d = Data(out);
    ASSERT_EQ(d.NumPoints(), c.pts.size());
    ASSERT_EQ(d.normals.size(), c.pts.size());
    EXPECT_EQ(d.attribs.at("&coord_r"), Data(Model(c.pts)).attribs.at("&coord_r"));
    const double before = Rms(c.pts, c.dist), after = Rms(d.points, c.dist);
    EXPECT_LT(after, 0.4 * before) << before << " -> " << after;
    size_t wrong_dir = 0, wrong_side = 0;
    for (size_t i = 0; i < d.NumPoints(); ++i) {
      if (std::abs(d.normals[i].dot(c.normal(d.points[i]))) < 0.97) ++wrong_dir;
      if (!c.facing(d.points[i], d.normals[i])) ++wrong_side;
    }
    EXPECT_LT(wrong_dir, d.NumPoints() / 50);
    EXPECT_EQ(wrong_side, 0u);
  }
  // Order 0 projects onto the local plane: a plane stays where it was.
  HTuple flat;
  const Pts plane = Grid(20, 1e-4, {0, 0, 0.5f});
  smooth_object_model_3d(Model(plane), "mls", HTuple{"mls_order", "mls_kNN"}, HTuple{0, 20}, &flat);
  for (const auto& q : Data(flat).points) EXPECT_NEAR(q.z(), 0.5, 1e-6);
  EXPECT_THROW(smooth_object_model_3d(Model(plane), "mls", "mls_order", 3, &flat), HException);
  EXPECT_THROW(smooth_object_model_3d(Model(plane), "gauss", HTuple(), HTuple(), &flat), HException);
}

// Edges of the mesh: every triangle's three sides.
double LongestEdge(const ObjectModel3DData& d) {
  double l = 0;
  for (const auto& t : d.triangles)
    for (int k = 0; k < 3; ++k)
      l = std::max(l, double((d.points[size_t(t[k])] - d.points[size_t(t[(k + 1) % 3])]).norm()));
  return l;
}

TEST(PointCloud, TriangulateGreedyCoversSurfaces) {
  struct Case {
    const char* what;
    Pts pts;
    double spacing;
  } cases[] = {
      {"plane", Grid(50, 5e-5, {0, 0, -0.001f}), 5e-5},
      {"dome", Grid(50, 5e-5, {-0.00125f, -0.00125f, 0}, [](double x, double y) { return -0.001 - 30 * (x * x + y * y); }), 5e-5},
      {"sphere", Sphere(3000, 0.002), 0.002 * std::sqrt(4 * M_PI / 3000)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    HTuple smoothed, out, info;
    smooth_object_model_3d(Model(c.pts), "mls", HTuple(), HTuple(), &smoothed);
    triangulate_object_model_3d(smoothed, "greedy", HTuple(), HTuple(), &out, &info);
    const ObjectModel3DData& d = Data(out);
    // A closed cover of N points has about 2N triangles; an open sheet a
    // little fewer at its border.
    EXPECT_GT(double(d.triangles.size()), 1.8 * double(c.pts.size()));
    EXPECT_EQ(info, HTuple(Hlong(d.triangles.size())));
    EXPECT_LT(LongestEdge(d), 4 * c.spacing);
    EXPECT_GT(d.NumPoints(), c.pts.size() * 95 / 100);
    ASSERT_EQ(d.normals.size(), d.NumPoints());
    // Points carry their colour into the mesh.
    const std::vector<double>& id = d.attribs.at("&coord_r");
    ASSERT_EQ(id.size(), d.NumPoints());
    for (size_t i = 0; i < d.NumPoints(); i += 97)
      EXPECT_LT((d.points[i] - c.pts[size_t(id[i])]).norm(), 1e-5);
  }
  // Triangles of a flat sheet all turn the same way; every point stays on request.
  HTuple out, info;
  const Pts plane = Grid(30, 1e-4, {0, 0, 0});
  triangulate_object_model_3d(Model(Concat(plane, {{5, 5, 5}})), "greedy", "greedy_output_all_points",
                              "true", &out, &info);
  const ObjectModel3DData& d = Data(out);
  EXPECT_EQ(d.NumPoints(), plane.size() + 1);
  size_t up = 0;
  for (const auto& t : d.triangles) {
    const Eigen::Vector3f n = (d.points[size_t(t[1])] - d.points[size_t(t[0])])
                                  .cross(d.points[size_t(t[2])] - d.points[size_t(t[0])]);
    up += n.z() > 0;
  }
  EXPECT_TRUE(up == 0 || up == d.triangles.size()) << up << " of " << d.triangles.size();
  EXPECT_THROW(triangulate_object_model_3d(Model(plane), "greedy", "greedy_radius_type", "z", &out, &info),
               HException);
  EXPECT_THROW(triangulate_object_model_3d(Model(plane), "polygon_triangulation", HTuple(), HTuple(), &out, &info),
               HException);
}

TEST(PointCloud, TriangulateGreedyLargeCloudInTwoHalves) {
  // Large enough to be triangulated in two halves on two threads: the mesh
  // must still cover the sheet once, without a crack or an overlapping strip
  // at the cut (the area would show either).
  constexpr int kSide = 160;
  constexpr double kStep = 5e-5;
  const Pts sheet = Grid(kSide, kStep, {0, 0, -0.001f}, [](double x, double y) { return 20 * x * y; });
  HTuple out, info;
  triangulate_object_model_3d(Model(sheet), "greedy", HTuple(), HTuple(), &out, &info);
  const ObjectModel3DData& d = Data(out);
  double area = 0;
  std::map<std::pair<int32_t, int32_t>, int> edges;
  for (const auto& t : d.triangles) {
    area += 0.5 * double((d.points[size_t(t[1])] - d.points[size_t(t[0])])
                             .cross(d.points[size_t(t[2])] - d.points[size_t(t[0])])
                             .norm());
    for (int k = 0; k < 3; ++k) {
      const int32_t a = t[size_t(k)], b = t[size_t((k + 1) % 3)];
      ++edges[{std::min(a, b), std::max(a, b)}];
    }
  }
  // The sheet z = 20xy over the square: its area, by a fine sum.
  const double side = (kSide - 1) * kStep;
  double want = 0;
  for (int i = 0; i < 400; ++i)
    for (int j = 0; j < 400; ++j) {
      const double x = (j + 0.5) * side / 400, y = (i + 0.5) * side / 400;
      want += std::sqrt(1 + 400 * (x * x + y * y)) * (side / 400) * (side / 400);
    }
  EXPECT_NEAR(area / want, 1.0, 0.005);
  size_t open = 0, over = 0;
  for (const auto& [e, n] : edges) {
    open += n == 1;
    over += n > 2;
  }
  // The greedy triangulation itself leaves a few edges with three triangles;
  // the two halves' differing choices along the cut add some, never a strip.
  EXPECT_LT(over, size_t(kSide / 4));
  EXPECT_LT(double(open), 1.1 * 4 * (kSide - 1));  // the sheet's border, hardly more
}

TEST(PointCloud, TuplesAndWorkerThreads) {
  const HTuple a = Model(Grid(30, 5e-5, {0, 0, 0}, nullptr, 1e-5, 3));
  const HTuple b = Model(Sphere(2000, 0.001, 1e-5));
  // Several models in, one result each.
  HTuple smoothed, sampled, sel;
  smooth_object_model_3d(HTuple{a, b}, "mls", HTuple(), HTuple(), &smoothed);
  sample_object_model_3d(HTuple{a, b}, "fast", 1e-4, HTuple(), HTuple(), &sampled);
  select_points_object_model_3d(HTuple{a, b}, "point_coord_z", -1, 0, &sel);
  EXPECT_EQ(smoothed.Length(), 2);
  EXPECT_EQ(sampled.Length(), 2);
  EXPECT_EQ(sel.Length(), 2);
  // Two workers smoothing at once get what one thread gets alone.
  HTuple ta, tb;
  std::thread wa([&] { smooth_object_model_3d(a, "mls", HTuple(), HTuple(), &ta); });
  std::thread wb([&] { smooth_object_model_3d(b, "mls", HTuple(), HTuple(), &tb); });
  wa.join();
  wb.join();
  EXPECT_EQ(Data(ta).points, Data(smoothed, 0).points);
  EXPECT_EQ(Data(tb).points, Data(smoothed, 1).points);
  EXPECT_EQ(Data(tb).normals, Data(smoothed, 1).normals);
}

}  // namespace
}  // namespace vision
