#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "vision/calib/camera_params.h"
#include "vision/calib/camera_setup.h"
#include "vision/geometry/pose_types.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/disparity_internal.h"
#include "vision/stereo/rectification.h"
#include "vision/stereo/stereo_model.h"

namespace vision {
namespace {

// Band-limited random texture: noise at several scales, 0..255.
cv::Mat Texture(int w, int h, unsigned seed) {
  std::mt19937 rng(seed);
  cv::Mat acc(h, w, CV_32F, cv::Scalar(0));
  for (double sigma : {1.0, 2.0, 5.0}) {
    cv::Mat n(h, w, CV_32F);
    cv::randn(n, 0, 1);
    cv::GaussianBlur(n, n, cv::Size(0, 0), sigma);
    cv::normalize(n, n, -1, 1, cv::NORM_MINMAX);
    acc += n;
  }
  cv::normalize(acc, acc, 20, 235, cv::NORM_MINMAX);
  return acc;
}

Image ByteImage(const cv::Mat& f) {
  cv::Mat b;
  f.convertTo(b, CV_8U);
  return Image::FromPlanes(PixelType::Byte, {b, b.clone(), b.clone()});
}

// Camera pair converging on a point 0.09 m in front of camera 1, 40 degrees
// apart, with lens distortion.
struct Rig {
  HTuple cam1 = HTuple::Reals({0.025, -800.0, 7.4e-6, 7.4e-6, 318.2, 243.1}).Append(HTuple(640)).Append(HTuple(480));
  HTuple cam2 = HTuple::Reals({0.0252, 500.0, 7.4e-6, 7.3e-6, 325.0, 236.5}).Append(HTuple(640)).Append(HTuple(480));
  Eigen::Isometry3d rel;  // camera 2 into camera 1
  Rig() {
    const double dist = 0.09, angle = 40 * M_PI / 180;
    const Eigen::Vector3d target(0, 0, dist);
    rel = Eigen::Isometry3d::Identity();
    rel.linear() = (Eigen::AngleAxisd(-angle, Eigen::Vector3d::UnitY()) *
                    Eigen::AngleAxisd(0.03, Eigen::Vector3d::UnitZ()) *
                    Eigen::AngleAxisd(0.02, Eigen::Vector3d::UnitX()))
                       .toRotationMatrix();
    // Camera 2 on a circle around the target, looking at it.
    rel.translation() = target - rel.linear() * Eigen::Vector3d(0.001, -0.002, dist);
  }
};

TEST(Rectification, WorldPointsLandOnOneRowAndTriangulateBack) {
  Rig rig;
  HObject map1, map2;
  HTuple r1, r2, pose1, pose2, relr;
  gen_binocular_rectification_map(&map1, &map2, rig.cam1, rig.cam2, IsometryToPose(rig.rel), 1,
                                  "geometric", "bilinear", &r1, &r2, &pose1, &pose2, &relr);
  const CamParams c1 = CamParams::FromTuple(rig.cam1, ""), c2 = CamParams::FromTuple(rig.cam2, "");
  const CamParams q1 = CamParams::FromTuple(r1, ""), q2 = CamParams::FromTuple(r2, "");
  EXPECT_EQ(q1.kappa, 0);
  EXPECT_EQ(q1.height, q2.height);
  const Eigen::Isometry3d rect1 = PoseToIsometry(pose1, ""), rect2 = PoseToIsometry(pose2, "");
  const Eigen::Isometry3d rr = PoseToIsometry(relr, "");
  // RelPoseRect agrees with the two rectified poses.
  EXPECT_LT((rect1.inverse() * rig.rel * rect2).matrix().isApprox(rr.matrix(), 1e-9) ? 0 : 1, 1);
  const Image& m1 = map1.ImageAt(0);
  const Image& m2 = map2.ImageAt(0);
  // Every entry of map 1 is camera 1's projection of its rectified pixel's
  // line of sight (or far outside where the camera cannot see it).
  size_t off = 0, refused = 0;
  for (int r = 0; r < q1.height; ++r)
    for (int c = 0; c < q1.width; ++c) {
      const Eigen::Vector3d d((c - q1.cx) * q1.sx, (r - q1.cy) * q1.sy, q1.focus);
      double row, col;
      const bool seen = c1.Project(rect1.linear() * d, &row, &col);
      refused += !seen;
      const float mr = m1.planes[0].at<float>(r, c), mc = m1.planes[1].at<float>(r, c);
      off += seen ? std::abs(mr - row) > 1e-3 || std::abs(mc - col) > 1e-3 : mr != -1e6f || mc != -1e6f;
    }
  EXPECT_EQ(off, 0u);
  EXPECT_LT(refused, size_t(q1.height) * q1.width);

  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-0.008, 0.008), t(-0.001, 0.001);
  // Points of a 16 x 16 x 2 mm part facing both cameras alike.
  const Eigen::Vector3d n = (Eigen::Vector3d::UnitZ() + rig.rel.linear() * Eigen::Vector3d::UnitZ()).normalized();
  const Eigen::Vector3d e1 = n.cross(Eigen::Vector3d::UnitY()).normalized(), e2 = n.cross(e1);
  auto inside = [](const CamParams& c, double r, double col) {
    return r > 2 && col > 2 && r < c.height - 3 && col < c.width - 3;
  };
  int tested = 0;
  for (int i = 0; i < 120; ++i) {
    const Eigen::Vector3d p = Eigen::Vector3d(0, 0, 0.09) + u(rng) * e1 + u(rng) * e2 + t(rng) * n;
    double row1, col1, row2, col2, a1, b1, a2, b2;
    if (!c1.Project(p, &row1, &col1) || !c2.Project(rig.rel.inverse() * p, &row2, &col2)) continue;
    if (!inside(c1, row1, col1) || !inside(c2, row2, col2)) continue;
    ASSERT_TRUE(q1.Project(rect1.inverse() * p, &a1, &b1));
    ASSERT_TRUE(q2.Project(rect2.inverse() * rig.rel.inverse() * p, &a2, &b2));
    EXPECT_NEAR(a1, a2, 0.05);
    // Disparities of the part the cameras converge on stay well inside +-120.
    EXPECT_LT(std::abs(b2 - b1), 80);
    // The maps show the original pixel at the rectified one.
    ASSERT_TRUE(a1 >= 0 && b1 >= 0 && a1 < q1.height - 1 && b1 < q1.width - 1);
    auto sample = [](const cv::Mat& m, double r, double c) {
      cv::Mat o;
      cv::getRectSubPix(m, cv::Size(1, 1), cv::Point2f(float(c), float(r)), o);
      return double(o.at<float>(0, 0));
    };
    EXPECT_NEAR(sample(m1.planes[0], a1, b1), row1, 0.02);
    EXPECT_NEAR(sample(m1.planes[1], a1, b1), col1, 0.02);
    EXPECT_NEAR(sample(m2.planes[0], a2, b2), row2, 0.02);
    EXPECT_NEAR(sample(m2.planes[1], a2, b2), col2, 0.02);

    // A one-pixel disparity image at the point's pixel gives the point back.
    const int rr0 = int(std::lround(a1)), cc0 = int(std::lround(b1));
    const Eigen::Vector3d pr = rect1.inverse() * p;
    // Move the point along its line of sight onto the integer pixel's ray.
    const Eigen::Vector3d ray = q1.Unproject(rr0, cc0);
    const Eigen::Vector3d pp = ray * (pr.z() / ray.z());
    double a3, b3;
    ASSERT_TRUE(q2.Project(rr.inverse() * pp, &a3, &b3));
    cv::Mat d(q1.height, q1.width, CV_32F, cv::Scalar(0));
    d.at<float>(rr0, cc0) = float(b3 - cc0);
    Image di = Image::FromPlanes(PixelType::Real, {d});
    di.domain = Region::Rectangle(rr0, cc0, rr0, cc0);
    HObject x, y, z;
    disparity_image_to_xyz(HObject(di), &x, &y, &z, r1, r2, relr);
    EXPECT_NEAR(x.ImageAt(0).planes[0].at<float>(rr0, cc0), pp.x(), 2e-6);
    EXPECT_NEAR(y.ImageAt(0).planes[0].at<float>(rr0, cc0), pp.y(), 2e-6);
    EXPECT_NEAR(z.ImageAt(0).planes[0].at<float>(rr0, cc0), pp.z(), 2e-6);
    EXPECT_EQ(z.ImageAt(0).domain, di.domain);
    ++tested;
  }
  EXPECT_GT(tested, 60);
}

TEST(Rectification, BadInputIsRefused) {
  Rig rig;
  HObject m1, m2;
  HTuple a, b, c, d, e;
  Eigen::Isometry3d away = rig.rel;
  away.linear() = Eigen::AngleAxisd(M_PI, Eigen::Vector3d::UnitY()).toRotationMatrix();  // looks back
  Eigen::Isometry3d same = Eigen::Isometry3d::Identity();
  struct Case { HTuple cam2, pose, sub, method; };
  const Case cases[] = {
      {rig.cam2, IsometryToPose(away), 1, "geometric"},
      {rig.cam2, IsometryToPose(same), 1, "geometric"},
      {rig.cam2, IsometryToPose(rig.rel), 2, "geometric"},
      {rig.cam2, IsometryToPose(rig.rel), 1, "viewing_direction"},
      {HTuple::Reals({0.025, 0, 7e-6}), IsometryToPose(rig.rel), 1, "geometric"},
  };
  for (const Case& k : cases)
    EXPECT_THROW(gen_binocular_rectification_map(&m1, &m2, rig.cam1, k.cam2, k.pose, k.sub, k.method,
                                                 "bilinear", &a, &b, &c, &d, &e),
                 HException);
}

TEST(MapImage, DomainIsWhereTheSourceIs) {
  cv::Mat rows(4, 5, CV_32F), cols(4, 5, CV_32F);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 5; ++c) {
      rows.at<float>(r, c) = float(r) * 0.5f;
      cols.at<float>(r, c) = float(c) - 1.5f;  // columns 0 and 1 fall left of the source
    }
  cv::Mat src(3, 4, CV_8U);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) src.at<uint8_t>(r, c) = uint8_t(10 * r + c);
  HObject out;
  map_image(HObject(Image::FromPlanes(PixelType::Byte, {src})), HObject(Image::FromPlanes(PixelType::Real, {rows, cols})), &out);
  const Image& img = out.ImageAt(0);
  EXPECT_EQ(img.domain, Region::Rectangle(0, 2, 3, 4));
  EXPECT_EQ(img.planes[0].at<uint8_t>(2, 3), uint8_t(std::lround(10 * 1.0 + 1.5)));
}

TEST(MapImage, InterpolatesAsOpenCvRemapsWithTheFloatMap) {
  // A map with fractional, outlying and mirrored coordinates over byte,
  // unsigned 16-bit and real planes.
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(-3.f, 40.f);
  cv::Mat rows(23, 31, CV_32F), cols(23, 31, CV_32F);
  for (int r = 0; r < rows.rows; ++r)
    for (int c = 0; c < rows.cols; ++c) {
      rows.at<float>(r, c) = r % 5 ? u(rng) * 0.7f : float(r) * 0.8f;
      cols.at<float>(r, c) = c % 7 ? u(rng) : 36.f - float(c);
    }
  const HObject map(Image::FromPlanes(PixelType::Real, {rows, cols}));
  cv::Mat b(29, 37, CV_8U), w(29, 37, CV_16U), f(29, 37, CV_32F);
  cv::randu(b, 0, 256);
  cv::randu(w, 0, 65536);
  cv::randu(f, -5, 5);
  const struct {
    PixelType type;
    std::vector<cv::Mat> planes;
  } cases[] = {{PixelType::Byte, {b, cv::Mat(255 - b), b.clone()}}, {PixelType::UInt2, {w}},
               {PixelType::Real, {f}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(int(c.type));
    HObject out;
    map_image(HObject(Image::FromPlanes(c.type, c.planes)), map, &out);
    const Image& img = out.ImageAt(0);
    ASSERT_EQ(img.planes.size(), c.planes.size());
    for (size_t k = 0; k < c.planes.size(); ++k) {
      cv::Mat want;
      cv::remap(c.planes[k], want, cols, rows, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
      EXPECT_EQ(cv::norm(img.planes[k], want, cv::NORM_INF), 0.0);
    }
  }
}

// A textured scene with a known disparity field: a slanted plane with a box
// standing 9 pixels of disparity in front of it, and a flat grey patch.
struct ShiftScene {
  cv::Mat i1, i2, truth;
  ShiftScene() {
    const int w = 400, h = 300;
    cv::Mat t = Texture(w + 200, h, 11);
    for (int y = 200; y < 260; ++y)
      for (int x = 40; x < 120; ++x) t.at<float>(y, x) = 128;  // no texture here
    constexpr double kY = 0.02, kS = 0.04;
    auto plane = [=](double x, double y) { return -12.0 + kS * x + kY * y; };
    auto inbox = [](double x, double y) { return x >= 200 && x < 300 && y >= 80 && y < 180; };
    truth = cv::Mat(h, w, CV_32F);
    i1 = t(cv::Rect(0, 0, w, h)).clone();
    cv::Mat mx(h, w, CV_32F), my(h, w, CV_32F);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        truth.at<float>(y, x) = float(plane(x, y) + (inbox(x, y) ? 9 : 0));
        // Image 2 at column x2 shows image 1's column x1 with x2 = x1 + d(x1).
        double x1 = (x - (-12.0 + kY * y)) / (1 + kS);
        const double xb = (x - (-12.0 + 9 + kY * y)) / (1 + kS);
        if (inbox(xb, y)) x1 = xb;  // the box is in front
        mx.at<float>(y, x) = float(x1);
        my.at<float>(y, x) = float(y);
      }
    cv::remap(t, i2, mx, my, cv::INTER_CUBIC, cv::BORDER_REFLECT);
    cv::Mat noise(h, w, CV_32F);
    cv::randn(noise, 0, 1.0);
    i2 += noise;
  }
  // The procedure's matching of the pair: disparity and Score.
  void Match(HObject* disp, HObject* score) const {
    binocular_disparity_ms(HObject(ByteImage(i1)), HObject(ByteImage(i2)), disp, score, -120, 120, 100, 100,
                           "sub_disparity", "true");
  }
};

TEST(BinocularDisparityMs, RecoversAKnownShiftFieldAndScoresItsReliability) {
  ShiftScene s;
  HObject disp, score;
  s.Match(&disp, &score);
  const Image& d = disp.ImageAt(0);
  const Image& sc = score.ImageAt(0);
  EXPECT_EQ(d.domain, sc.domain);
  double sum2 = 0;
  long kept = 0, kept_bad = 0, total = 0, flat_kept = 0;
  for (const vision::Run& r : d.domain.Runs())
    for (int x = r.cb; x <= r.ce; ++x) {
      const float err = d.planes[0].at<float>(r.row, x) - s.truth.at<float>(r.row, x);
      const bool flat = r.row >= 210 && r.row < 250 && x >= 50 && x < 110;
      const bool edge = std::abs(x - 200) < 8 || std::abs(x - 300) < 8 || std::abs(r.row - 80) < 8 ||
                        std::abs(r.row - 180) < 8;
      if (sc.planes[0].at<float>(r.row, x) < 200) continue;
      if (flat) ++flat_kept;
      if (edge) continue;
      ++kept;
      if (std::abs(err) > 0.5) ++kept_bad; else sum2 += err * err;
    }
  for (int y = 0; y < 300; ++y)
    for (int x = 20; x < 380; ++x) total++;
  EXPECT_GT(double(kept) / total, 0.8);
  EXPECT_LT(double(kept_bad) / kept, 0.01);
  EXPECT_LT(std::sqrt(sum2 / (kept - kept_bad)), 0.06);
  // The dropped ones are the doubtful ones: the flat patch and the edges.
  EXPECT_EQ(flat_kept, 0);  // no texture, no trusted disparity
}

// The Score claims a standard deviation (1000 / (1 + (sigma / 0.1)^2)); on
// a smooth field the true errors must spread as much as claimed, neither far
// more nor far less, and along the box's edges, where the window straddles a
// jump, the pixels kept at Score >= 200 must be as good as claimed too.
TEST(BinocularDisparityMs, ScoreClaimsTheErrorItDelivers) {
  ShiftScene s;
  HObject disp, score;
  s.Match(&disp, &score);
  const Image& d = disp.ImageAt(0);
  const Image& sc = score.ImageAt(0);
  double err2 = 0, claim2 = 0;
  long smooth = 0, edge_kept = 0, edge_bad = 0;
  for (const vision::Run& r : d.domain.Runs())
    for (int x = std::max(r.cb, 20); x <= std::min(r.ce, 379); ++x) {
      const float v = sc.planes[0].at<float>(r.row, x);
      const double err = d.planes[0].at<float>(r.row, x) - s.truth.at<float>(r.row, x);
      const bool near_x = std::abs(x - 200) < 6 || std::abs(x - 300) < 6;
      const bool near_y = std::abs(r.row - 80) < 6 || std::abs(r.row - 180) < 6;
      const bool on_box = x > 194 && x < 306 && r.row > 74 && r.row < 186;
      const bool flat = r.row >= 195 && r.row < 265 && x >= 35 && x < 125;
      if (on_box && (near_x || near_y)) {
        if (v < 200) continue;
        // Pixels matched to the other side of the jump are the discrete
        // search's business; here: the sub-pixel answers of the right side.
        if (std::abs(err) > 2) continue;
        ++edge_kept;
        const double claim = 0.1 * std::sqrt(1000.0 / v - 1);
        edge_bad += std::abs(err) > 3 * claim;
      } else if (!flat && std::abs(x - 200) > 12 && std::abs(x - 300) > 12 && std::abs(r.row - 80) > 12 &&
                 std::abs(r.row - 180) > 12 && r.row >= 20 && r.row < 280) {
        ++smooth;
        err2 += err * err;
        claim2 += 0.01 * (1000.0 / std::max(v, 1e-3f) - 1);
      }
    }
  ASSERT_GT(smooth, 50000);
  const double ratio = std::sqrt(err2 / claim2);
  EXPECT_GT(ratio, 0.7);
  EXPECT_LT(ratio, 1.5);
  ASSERT_GT(edge_kept, 100);
  // Without the field's departure from its neighbours in the claim, 15 % of
  // these lay beyond three claimed sigmas; with it about 4 %.
  EXPECT_LT(double(edge_bad) / edge_kept, 0.08);
}

// The refinement reads colour channels four to a vector; lanes past the last
// channel must weigh nothing. A channel that is 0 everywhere adds nothing
// either, so each pair of images must give the same disparities and scores
// with and without it (one channel and one group, four channels and a second
// group, which also takes the refinement's general path instead of the one
// for a single group); the width leaves the last vector of each row
// part-filled.
TEST(BinocularDisparityMs, EmptyExtraChannelChangesNothing) {
  ShiftScene s;
  const cv::Rect roi(0, 0, 397, 300);
  auto planes = [&](const cv::Mat& f, int n) {
    std::vector<cv::Mat> out;
    for (int k = 0; k < n; ++k) {
      cv::Mat b;
      // Channels that differ: the scene, its negative, and two contrasts.
      const double gain[] = {1.0, -1.0, 0.6, 0.8}, offset[] = {0.0, 255.0, 40.0, 20.0};
      f(roi).convertTo(b, CV_8U, gain[k], offset[k]);
      out.push_back(b);
    }
    return out;
  };
  for (int n : {1, 4}) {
    SCOPED_TRACE(testing::Message() << n << " channels");
    HObject d[2], sc[2];
    for (int extra = 0; extra < 2; ++extra) {
      std::vector<cv::Mat> p1 = planes(s.i1, n), p2 = planes(s.i2, n);
      if (extra) {
        p1.push_back(cv::Mat::zeros(p1[0].size(), CV_8U));
        p2.push_back(cv::Mat::zeros(p2[0].size(), CV_8U));
      }
      binocular_disparity_ms(HObject(Image::FromPlanes(PixelType::Byte, p1)),
                             HObject(Image::FromPlanes(PixelType::Byte, p2)), &d[extra], &sc[extra], -120, 120, 100,
                             100, "sub_disparity", "true");
    }
    const Image &d0 = d[0].ImageAt(0), &d1 = d[1].ImageAt(0);
    ASSERT_GT(d0.domain.Area(), 397 * 300 / 2);
    EXPECT_EQ(d0.domain, d1.domain);
    EXPECT_EQ(cv::norm(d0.planes[0], d1.planes[0], cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(sc[0].ImageAt(0).planes[0], sc[1].ImageAt(0).planes[0], cv::NORM_INF), 0.0);
  }
}

// Planes seen at a slant have disparity fields with steep gradients (a board
// viewed from low elevation changes disparity by a quarter pixel per row).
// The refined disparity must follow the field at each pixel, not drift towards
// the strongest texture under its window.
TEST(BinocularDisparityMs, FollowsSteepDisparityGradients) {
  struct Case { double d0, sx, sy; };
  const Case cases[] = {{-5.0, 0.0, 0.25}, {3.0, 0.15, -0.12}, {0.0, -0.2, 0.0}};
  const int w = 360, h = 260;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "slope " << c.sx << ", " << c.sy);
    const cv::Mat t = Texture(w + 300, h, 23);
    // Image 2 column x2 shows image 1 column x1 with x2 = x1 + d(x1, y),
    // d = d0 + sx (x - w / 2) + sy (y - h / 2).
    cv::Mat mx(h, w, CV_32F), my(h, w, CV_32F), truth(h, w, CV_32F);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const double off = c.d0 - c.sx * w / 2 + c.sy * (y - h / 2);
        mx.at<float>(y, x) = float((x - off) / (1 + c.sx));
        my.at<float>(y, x) = float(y);
        truth.at<float>(y, x) = float(off + c.sx * x);
      }
    cv::Mat i2;
    cv::remap(t, i2, mx, my, cv::INTER_CUBIC, cv::BORDER_REFLECT);
    HObject disp, score;
    binocular_disparity_ms(HObject(ByteImage(t(cv::Rect(0, 0, w, h)).clone())), HObject(ByteImage(i2)), &disp, &score,
                           -120, 120, 100, 100, "sub_disparity", "true");
    const Image& d = disp.ImageAt(0);
    double sum2 = 0;
    long n = 0;
    for (const vision::Run& r : d.domain.Runs())
      for (int x = std::max(r.cb, 20); x <= std::min(r.ce, w - 21); ++x) {
        if (r.row < 20 || r.row >= h - 20) continue;
        const double e = d.planes[0].at<float>(r.row, x) - truth.at<float>(r.row, x);
        sum2 += std::min(e * e, 1.0);
        ++n;
      }
    ASSERT_GT(n, (w - 40) * (h - 40) * 7 / 10);
    // Drifting towards the texture gave 0.09 to 0.12 pixels here.
    EXPECT_LT(std::sqrt(sum2 / n), 0.08);
  }
}

// The vector path of the scanline aggregation against the scalar one on
// random costs, with disparity ranges that move between neighbours by less
// and by more than the eight lanes hold.
TEST(BinocularDisparityMs, VectorAggregationEqualsScalar) {
  struct Case {
    int w, h, k, p1, p2, max_jump;
  };
  const Case cases[] = {
      {37, 23, 7, 8, 33, 0}, {37, 23, 7, 8, 33, 3}, {40, 17, 8, 1, 2, 12},
      {19, 31, 5, 20, 2000, 9}, {16, 16, 1, 8, 33, 2}, {45, 9, 7, 3, 40, 1},
      // Past eight lanes: the scalar path, or 32 lanes a pixel where the
      // processor has them.
      {21, 13, 31, 8, 33, 0}, {17, 10, 32, 8, 33, 0}, {23, 11, 9, 3, 40, 2}, {18, 9, 31, 8, 33, 40},
  };
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "k " << c.k << " p1 " << c.p1 << " p2 " << c.p2 << " jump " << c.max_jump);
    ASSERT_EQ(disparity_internal::VectorAggregation(c.k, c.p2), c.k <= 8);
    const size_t n = size_t(c.w) * c.h;
    std::vector<uint8_t> cost(n * c.k);
    for (uint8_t& v : cost) v = uint8_t(rng() % 49);
    // Bases drift by up to max_jump from the pixel on the left and above.
    std::vector<int> base(n);
    std::uniform_int_distribution<int> jump(-c.max_jump, c.max_jump);
    for (int y = 0; y < c.h; ++y)
      for (int x = 0; x < c.w; ++x) {
        const int from = x > 0 ? base[size_t(y) * c.w + x - 1] : y > 0 ? base[size_t(y - 1) * c.w] : 0;
        base[size_t(y) * c.w + x] = from + jump(rng);
      }
    using disparity_internal::AggregationPath;
    const auto scalar =
        disparity_internal::AggregateCosts(cost, base, c.w, c.h, c.k, c.p1, c.p2, AggregationPath::kScalar);
    // The 128-bit path, and the 256-bit one where the processor has it.
    for (AggregationPath path : {AggregationPath::kVector, AggregationPath::kWide}) {
      if (path == AggregationPath::kWide &&
          !(c.k <= 8 ? disparity_internal::WideAggregation() : disparity_internal::WideCoarse()))
        continue;
      if (path == AggregationPath::kVector && c.k > 8) continue;
      const auto vector = disparity_internal::AggregateCosts(cost, base, c.w, c.h, c.k, c.p1, c.p2, path);
      ASSERT_EQ(scalar.size(), vector.size());
      size_t differ = 0;
      for (size_t i = 0; i < scalar.size(); ++i) differ += scalar[i] != vector[i];
      EXPECT_EQ(differ, 0u) << "path " << int(path);
    }
  }
  EXPECT_FALSE(disparity_internal::VectorAggregation(9, 33));
  EXPECT_FALSE(disparity_internal::VectorAggregation(7, 5000));
}

// The winner by the minimum-position instruction against the first lowest
// of K sums and the parabola through its neighbours, with ties, winners at
// either end of the range and flat or downward parabolas.
TEST(BinocularDisparityMs, MinPosWinnerEqualsFirstLowest) {
  if (!disparity_internal::MinPosWinner()) GTEST_SKIP() << "no minimum-position instruction";
  std::mt19937 rng(11);
  for (int k : {1, 2, 3, 7, 8}) {
    SCOPED_TRACE(testing::Message() << "k " << k);
    const int n = 501;
    std::vector<uint16_t> sum(size_t(n) * 8);
    std::vector<int> base(n);
    for (int x = 0; x < n; ++x) {
      // Few distinct values, so that ties are common.
      for (int i = 0; i < 8; ++i) sum[size_t(x) * 8 + i] = i < k ? uint16_t(100 + rng() % 6) : 64000;
      base[x] = int(rng() % 241) - 120;
    }
    std::vector<float> d(n);
    std::vector<int> best(n);
    disparity_internal::WinnerRowMinPos(sum.data(), base.data(), n, k, d.data(), best.data());
    for (int x = 0; x < n; ++x) {
      const uint16_t* v = &sum[size_t(x) * 8];
      const int i = int(std::min_element(v, v + k) - v);
      float sub = 0;
      if (i > 0 && i < k - 1 && v[i - 1] - 2 * v[i] + v[i + 1] > 0)
        sub = 0.5f * float(v[i - 1] - v[i + 1]) / float(v[i - 1] - 2 * v[i] + v[i + 1]);
      ASSERT_EQ(best[x], v[i]) << x;
      ASSERT_EQ(d[x], float(base[x] + i) + sub) << x;
    }
  }
}

// The census eight centres a vector against the signature bit by bit (the
// first neighbour in the highest bit), on rows whose widths leave 0 to 7
// centres to the end, with ties (equal is not darker) and a padded border.
TEST(BinocularDisparityMs, WideCensusEqualsBitByBit) {
  if (!disparity_internal::WideAggregation()) GTEST_SKIP() << "no AVX2";
  std::mt19937 rng(5);
  for (int w : {1, 7, 8, 13, 16, 23, 64}) {
    SCOPED_TRACE(testing::Message() << "w " << w);
    const int stride = w + 6 + 3;  // padded by 3 each side, and a gap
    std::vector<float> img(size_t(stride) * 7);
    for (float& v : img) v = float(rng() % 5) * 0.5f;  // few values: many ties
    const float* c = &img[size_t(3) * stride + 3];
    std::vector<uint64_t> out(static_cast<size_t>(w));
    disparity_internal::CensusRowWide(c, size_t(stride), w, out.data());
    for (int x = 0; x < w; ++x) {
      uint64_t want = 0;
      for (int dy = -3; dy <= 3; ++dy)
        for (int dx = -3; dx <= 3; ++dx)
          if (dx != 0 || dy != 0) want = (want << 1) | uint64_t(c[dy * stride + x + dx] < c[x]);
      ASSERT_EQ(out[size_t(x)], want) << x;
    }
  }
}

// The census costs eight lanes a pixel against one Hamming distance at a
// time, with ranges that leave the row of image 2 on either side and
// columns outside its domain.
TEST(BinocularDisparityMs, WideCostEqualsOneAtATime) {
  if (!disparity_internal::WideCost()) GTEST_SKIP() << "no 512-bit population count";
  std::mt19937_64 rng(3);
  for (int k : {1, 5, 7, 8}) {
    SCOPED_TRACE(testing::Message() << "k " << k);
    const int w = 53, w2 = 41;
    std::vector<uint64_t> a(w), b(w2);
    for (uint64_t& v : a) v = rng() & ((uint64_t(1) << 48) - 1);
    for (uint64_t& v : b) v = rng() & ((uint64_t(1) << 48) - 1);
    std::vector<uint8_t> m2(w2);
    for (uint8_t& v : m2) v = rng() % 4 ? 255 : 0;
    std::vector<int> base(w);
    for (int& v : base) v = int(rng() % 81) - 60;  // x + base from -60 to 72
    std::vector<uint8_t> cost(size_t(w) * 8, 0);
    disparity_internal::CostRowWide(a.data(), b.data(), m2.data(), w, w2, k, base.data(), 40, cost.data());
    for (int x = 0; x < w; ++x)
      for (int i = 0; i < 8; ++i) {
        const int x2 = x + base[x] + i;
        const bool in = i < k && x2 >= 0 && x2 < w2 && m2[x2];
        const int want = in ? std::popcount(a[x] ^ b[x2]) : 40;
        ASSERT_EQ(int(cost[size_t(x) * 8 + i]), want) << x << " " << i;
      }
  }
}

// The refinement's resampling taps four pixels at a time against one at a
// time, bit for bit: fields that leave the row on either side, land on
// whole columns or just short of them, and values that are not numbers.
TEST(BinocularDisparityMs, VectorResamplingTapsEqualScalar) {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  struct Case {
    int w, w2;
    float lo, hi;                 // random disparities in [lo, hi]
    std::vector<float> specials;  // placed at the first pixels
  };
  const Case cases[] = {
      {640, 640, -130.f, 130.f, {}},
      {37, 37, -40.f, 40.f, {-0.f, 0.f, 1.f, -1.f, 0.99999994f, -0.99999994f, 35.f, 36.5f}},
      {23, 9, -30.f, 30.f, {nan, inf, -inf, 1e30f, -1e30f, -2.f, -3.f, 8.f}},
      {13, 1, -5.f, 5.f, {-2.0000002f, -1.9999999f, 2.f, 0.5f, nan}},
      {9, 640, -1e9f, 1e9f, {}},
  };
  std::mt19937 rng(11);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "w " << c.w << " w2 " << c.w2);
    std::uniform_real_distribution<float> dist(c.lo, c.hi);
    std::vector<float> d(size_t(c.w));
    for (float& v : d) v = dist(rng);
    // Every third pixel on a whole column.
    for (size_t i = 0; i < d.size(); i += 3) d[i] = std::round(d[i]);
    for (size_t i = 0; i < c.specials.size() && i < d.size(); ++i) d[i] = c.specials[i] - float(i);
    const auto scalar = disparity_internal::ResamplingTaps(d, c.w2, false);
    const auto vector = disparity_internal::ResamplingTaps(d, c.w2, true);
    ASSERT_EQ(scalar.size(), d.size() * 11);
    ASSERT_EQ(vector.size(), scalar.size());
    for (size_t i = 0; i < scalar.size(); ++i) {
      ASSERT_EQ(scalar[i], vector[i]) << "pixel " << i / 11 << " value " << i % 11;
      if (i % 11 < 4) {
        EXPECT_GE(scalar[i], 0);
        EXPECT_LT(scalar[i], c.w2);
      }
    }
  }
}

// The consistency check's nearest column against std::lround: halves,
// the floats either side of them and of whole columns, and random values.
TEST(BinocularDisparityMs, NearestColumnRoundsAsLround) {
  std::vector<float> xs = {0.f, 0.5f, 1.5f, 2.5f, 639.f, 638.5f, 1e6f + 0.5f, 8388608.f, 8388607.5f};
  for (float h : {0.5f, 1.f, 1.5f, 2.f, 2.5f, 100.5f, 639.f, 638.5f, 4194303.5f}) {
    xs.push_back(std::nextafter(h, 0.f));
    xs.push_back(std::nextafter(h, 1e9f));
  }
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> dist(0.f, 700.f);
  for (int i = 0; i < 10000; ++i) xs.push_back(dist(rng));
  for (float x : xs) ASSERT_EQ(disparity_internal::NearestColumn(x), int(std::lround(x))) << x;
}

TEST(StereoModel, ParametersRoundTripAndBadValuesAreRefused) {
  HTuple setup, model;
  create_camera_setup_model(4, &setup);
  EXPECT_THROW(create_stereo_model(HTuple(), "surface_pairwise", HTuple(), HTuple(), &model), HException);
  EXPECT_THROW(create_stereo_model(setup, "points_3d", HTuple(), HTuple(), &model), HException);
  create_stereo_model(setup, "surface_pairwise", HTuple(), HTuple(), &model);
  struct Row { const char* name; HTuple value; bool ok; };
  const Row rows[] = {
      {"sub_sampling_step", 1, true}, {"sub_sampling_step", 0, false},
      {"rectif_interpolation", "bilinear", true}, {"rectif_interpolation", "cubic", false},
      {"rectif_sub_sampling", 1, true}, {"binocular_method", "ncc", true},
      {"binocular_num_levels", 1, true}, {"binocular_mask_width", 19, true},
      {"binocular_mask_height", 19, true}, {"binocular_mask_height", 18, false},
      {"binocular_texture_thresh", 0, true}, {"binocular_score_thresh", 0.4, true},
      {"binocular_filter", "left_right_check", true}, {"binocular_sub_disparity", "interpolation", true},
      {"bounding_box", HTuple::Reals({-0.01, -0.01, -0.0015, 0.01, 0.01, 0.0015}), true},
      {"bounding_box", HTuple::Reals({0.01, -0.01, -0.0015, -0.01, 0.01, 0.0015}), false},
      {"persistence", 1, true}, {"no_such_param", 1, false},
  };
  for (const Row& r : rows) {
    if (!r.ok) {
      EXPECT_THROW(set_stereo_model_param(model, r.name, r.value), HException) << r.name;
      continue;
    }
    set_stereo_model_param(model, r.name, r.value);
    HTuple back;
    get_stereo_model_param(model, r.name, &back);
    EXPECT_EQ(back, r.value) << r.name;
  }
  set_stereo_model_image_pairs(model, HTuple::Ints({0, 2}), HTuple::Ints({1, 3}));
  HTuple from, to;
  get_stereo_model_image_pairs(model, &from, &to);
  EXPECT_EQ(from, HTuple::Ints({0, 2}));
  EXPECT_EQ(to, HTuple::Ints({1, 3}));
  EXPECT_THROW(set_stereo_model_image_pairs(model, HTuple::Ints({0}), HTuple::Ints({1, 3})), HException);
  EXPECT_THROW(set_stereo_model_image_pairs(model, HTuple::Ints({0}), HTuple::Ints({4})), HException);
  clear_stereo_model(model);
  EXPECT_THROW(get_stereo_model_image_pairs(model, &from, &to), HException);
}

}  // namespace
}  // namespace vision
