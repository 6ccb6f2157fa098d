#include "vision/model3d/object_model_3d.h"

#include <thread>

#include <gtest/gtest.h>

namespace vision {
namespace {

HTuple Points(const std::vector<Eigen::Vector3f>& p) {
  std::vector<double> x, y, z;
  for (const auto& q : p) {
    x.push_back(q.x());
    y.push_back(q.y());
    z.push_back(q.z());
  }
  HTuple om;
  gen_object_model_3d_from_points(HTuple::Reals(x), HTuple::Reals(y), HTuple::Reals(z), &om);
  return om;
}

HTuple Param(const HTuple& om, const char* name) {
  HTuple v;
  get_object_model_3d_params(om, name, &v);
  return v;
}

void ExpectReals(const HTuple& got, const std::vector<double>& want, double tol = 1e-6) {
  ASSERT_EQ(got.Length(), Hlong(want.size())) << got.ToString();
  for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got.D(Hlong(i)), want[i], tol) << i;
}

TEST(ObjectModel3D, ParamsOfKnownPoints) {
  const HTuple om = Points({{0, 0, 0}, {2, 0, -1}, {1, 4, 3}});
  struct Case {
    const char* name;
    std::vector<double> want;
  } cases[] = {
      {"num_points", {3}},
      {"num_triangles", {0}},
      {"center", {1, 2, 1}},
      {"bounding_box1", {0, 0, -1, 2, 4, 3}},
      {"diameter_axis_aligned_bounding_box", {std::sqrt(4.0 + 16 + 16)}},
      {"point_coord_x", {0, 2, 1}},
      {"point_coord_y", {0, 0, 4}},
      {"point_coord_z", {0, -1, 3}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectReals(Param(om, c.name), c.want);
  }
  EXPECT_EQ(Param(om, "has_points"), HTuple("true"));
  EXPECT_EQ(Param(om, "has_triangles"), HTuple("false"));
  // Several models and names: values of each model in turn.
  const HTuple two = HTuple{om, Points({{5, 5, 5}})};
  HTuple v;
  get_object_model_3d_params(two, HTuple{"num_points", "has_triangles"}, &v);
  EXPECT_EQ(v, (HTuple{3, "false", 1, "false"}));
  // An empty model has no extent.
  const HTuple empty = Points({});
  EXPECT_EQ(Param(empty, "num_points"), HTuple(0));
  EXPECT_EQ(Param(empty, "has_points"), HTuple("false"));
  EXPECT_THROW(Param(empty, "center"), HException);
  EXPECT_THROW(Param(om, "&missing"), HException);
  EXPECT_THROW(gen_object_model_3d_from_points(HTuple{1.0, 2.0}, HTuple{1.0}, HTuple{1.0}, &v),
               HException);
}

// A real image of the given values whose domain is `domain`.
HObject RealImage(const std::vector<std::vector<float>>& rows, const Region& domain) {
  cv::Mat m(int(rows.size()), int(rows[0].size()), CV_32F);
  for (int r = 0; r < m.rows; ++r)
    for (int c = 0; c < m.cols; ++c) m.at<float>(r, c) = rows[size_t(r)][size_t(c)];
  Image img = Image::FromPlanes(PixelType::Real, {m});
  img.domain = domain;
  return HObject(img);
}

TEST(ObjectModel3D, XyzPointsFollowTheDomainRuns) {
  // X = column, Y = row, Z = 10 * row + column: each point names its pixel.
  std::vector<std::vector<float>> xs(3, std::vector<float>(4)), ys = xs, zs = xs;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) {
      xs[size_t(r)][size_t(c)] = float(c);
      ys[size_t(r)][size_t(c)] = float(r);
      zs[size_t(r)][size_t(c)] = float(10 * r + c);
    }
  const Region dom = Region::FromRuns({{0, 1, 2}, {1, 0, 0}, {1, 3, 3}, {2, 0, 3}});
  // The Z image's smaller domain cuts the common domain: pixel (2, 3) goes.
  const Region zdom = dom.Difference(Region::FromRuns({{2, 3, 3}}));
  HTuple om;
  xyz_to_object_model_3d(RealImage(xs, Region::Rectangle(0, 0, 2, 3)), RealImage(ys, dom),
                         RealImage(zs, zdom), &om);
  const std::vector<double> want_z = {1, 2, 10, 13, 20, 21, 22};
  ExpectReals(Param(om, "point_coord_z"), want_z);
  ExpectReals(Param(om, "point_coord_x"), {1, 2, 0, 3, 0, 1, 2});
  ExpectReals(Param(om, "point_coord_y"), {0, 0, 1, 1, 2, 2, 2});
  EXPECT_THROW(xyz_to_object_model_3d(RealImage(xs, dom), RealImage({{1.f}}, Region::Rectangle(0, 0, 0, 0)),
                                      RealImage(zs, dom), &om),
               HException);
}

TEST(ObjectModel3D, ExtendedAttributes) {
  const HTuple om = Points({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}});
  // Attribute-major values: all of the first attribute, then the second.
  set_object_model_3d_attrib_mod(om, HTuple{"&coord_r", "&coord_g"}, "points",
                                 HTuple{10, 11, 12, 20, 21, 22});
  ExpectReals(Param(om, "&coord_r"), {10, 11, 12});
  ExpectReals(Param(om, "&coord_g"), {20, 21, 22});
  set_object_model_3d_attrib_mod(om, "&coord_b", HTuple(), 7);  // one value for all
  ExpectReals(Param(om, "&coord_b"), {7, 7, 7});
  set_object_model_3d_attrib_mod(om, "point_coord_z", "points", HTuple{5, 6, 7});
  ExpectReals(Param(om, "point_coord_z"), {5, 6, 7});
  EXPECT_EQ(Param(om, "num_extended_attribute"), HTuple(3));

  struct Bad {
    HTuple name, to, values;
  } bad[] = {
      {"&x", "points", HTuple{1, 2}},         // too few values
      {"coord_r", "points", HTuple{1, 2, 3}},  // neither standard nor "&"
      {"&x", "triangles", HTuple{1, 2, 3}},   // not attached to points
  };
  for (const Bad& b : bad)
    EXPECT_THROW(set_object_model_3d_attrib_mod(om, b.name, b.to, b.values), HException)
        << b.name.ToString();
}

TEST(ObjectModel3D, RigidTransformOfKnownPoints) {
  struct Case {
    std::vector<double> pose;
    Eigen::Vector3f p, want_p, n, want_n;
  } cases[] = {
      {{1, 2, 3, 0, 0, 0, 0}, {1, 1, 1}, {2, 3, 4}, {0, 0, 1}, {0, 0, 1}},
      // Rx(90): y -> z, z -> -y.
      {{0, 0, 0, 90, 0, 0, 0}, {0, 1, 2}, {0, -2, 1}, {0, 1, 0}, {0, 0, 1}},
      // Rz(90) then shift: x -> y.
      {{0, 0, 1, 0, 0, 90, 0}, {1, 0, 0}, {0, 1, 1}, {1, 0, 0}, {0, 1, 0}},
      // Ry(90): z -> x.
      {{0, 0, 0, 0, 90, 0, 0}, {0, 0, 1}, {1, 0, 0}, {0, 0, -1}, {-1, 0, 0}},
  };
  for (const Case& c : cases) {
    const HTuple om = Points({c.p});
    set_object_model_3d_attrib_mod(om, HTuple{"point_normal_x", "point_normal_y", "point_normal_z"},
                                   HTuple(), HTuple{c.n.x(), c.n.y(), c.n.z()});
    set_object_model_3d_attrib_mod(om, "&coord_r", "points", 99);
    HTuple t;
    rigid_trans_object_model_3d(om, HTuple::Reals(c.pose), &t);
    ExpectReals(Param(t, "point_coord_x"), {c.want_p.x()}, 1e-6);
    ExpectReals(Param(t, "point_coord_y"), {c.want_p.y()}, 1e-6);
    ExpectReals(Param(t, "point_coord_z"), {c.want_p.z()}, 1e-6);
    ExpectReals(Param(t, "point_normal_x"), {c.want_n.x()}, 1e-6);
    ExpectReals(Param(t, "point_normal_y"), {c.want_n.y()}, 1e-6);
    ExpectReals(Param(t, "point_normal_z"), {c.want_n.z()}, 1e-6);
    ExpectReals(Param(t, "&coord_r"), {99});
    ExpectReals(Param(om, "point_coord_x"), {c.p.x()});  // the input is untouched
  }
  // One pose per model.
  const HTuple two = HTuple{Points({{0, 0, 0}}), Points({{0, 0, 0}})};
  HTuple t;
  rigid_trans_object_model_3d(two, HTuple{1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0}, &t);
  ASSERT_EQ(t.Length(), 2);
  ExpectReals(Param(t, "point_coord_x"), {1, 0});
  ExpectReals(Param(t, "point_coord_y"), {0, 2});
  EXPECT_THROW(rigid_trans_object_model_3d(two, HTuple{1, 0, 0}, &t), HException);
}

TEST(ObjectModel3D, UnionKeepsWhatAllModelsShare) {
  const HTuple a = Points({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
  const HTuple b = Points({{5, 0, 0}, {6, 0, 0}, {5, 1, 0}});
  ObjectModel3DCast(a, "test")->triangles = {{0, 1, 2}};
  ObjectModel3DCast(b, "test")->triangles = {{2, 1, 0}};
  set_object_model_3d_attrib_mod(a, HTuple{"&coord_r", "&only_a"}, "points", HTuple{1, 2, 3, 0, 0, 0});
  set_object_model_3d_attrib_mod(b, "&coord_r", "points", HTuple{4, 5, 6});
  HTuple u;
  union_object_model_3d(HTuple{a, Points({}), b}, "points_surface", &u);
  ASSERT_EQ(u.Length(), 1);
  ExpectReals(Param(u, "point_coord_x"), {0, 1, 0, 5, 6, 5});
  ExpectReals(Param(u, "triangles"), {0, 1, 2, 5, 4, 3});
  ExpectReals(Param(u, "&coord_r"), {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(Param(u, "extended_attribute_names"), HTuple("&coord_r"));
  // Nothing to join gives an empty model.
  union_object_model_3d(HTuple(), "points_surface", &u);
  EXPECT_EQ(Param(u, "num_points"), HTuple(0));
  EXPECT_THROW(union_object_model_3d(a, "points", &u), HException);
}

TEST(ObjectModel3D, CopyIsDeepAndClearReleases) {
  const HTuple a = Points({{1, 2, 3}});
  HTuple c;
  copy_object_model_3d(a, "all", &c);
  set_object_model_3d_attrib_mod(c, "point_coord_x", "points", 9);
  ExpectReals(Param(a, "point_coord_x"), {1});
  ExpectReals(Param(c, "point_coord_x"), {9});

  const HTuple both = HTuple{a, c};
  clear_object_model_3d(both);
  EXPECT_THROW(Param(a, "num_points"), HException);
  EXPECT_THROW(Param(c, "num_points"), HException);
  EXPECT_NO_THROW(clear_object_model_3d(a));  // a second clear does no harm
  EXPECT_THROW(clear_object_model_3d(HTuple{1}), HException);
}

TEST(ObjectModel3D, HandlesMadeAndClearedOnAWorkerThread) {
  // The main thread keeps reading its model while a worker creates, transforms
  // and clears its own, as the reconstruction does on its queue.
  const HTuple mine = Points({{1, 1, 1}, {2, 2, 2}});
  HTuple handed_over;
  std::thread worker([&] {
    for (int i = 0; i < 200; ++i) {
      const HTuple p = Points({{float(i), 0, 0}});
      HTuple t;
      rigid_trans_object_model_3d(p, HTuple{0, 0, 1, 0, 0, 0, 0}, &t);
      clear_object_model_3d(HTuple{p, t});
    }
    handed_over = Points({{7, 7, 7}});
  });
  for (int i = 0; i < 200; ++i) ASSERT_EQ(Param(mine, "num_points"), HTuple(2));
  worker.join();
  ExpectReals(Param(handed_over, "point_coord_x"), {7});
  clear_object_model_3d(handed_over);
}

}  // namespace
}  // namespace vision
