// What the disparity Score promises against the error it delivers, on the
// synthetic rigs.
//
//   bench_stereo_score [--variants 0,1,2,3]   (default: every rig variant)
//
// Score = 1000 / (1 + (sigma / 0.1)^2) claims that a disparity's expected
// standard deviation is sigma pixels. Per rig, the four pairs of "Default"
// are rectified and matched with the procedure's constants; every pixel's
// true disparity comes from the point where its line of sight meets the true
// surface. Pixels are grouped by where they look (the parts' top surfaces,
// their steep flanks, the board) and by the sigma their Score claims; each
// group reports the RMS of the true error in pixels against the claim.
// Per part: the share of its top pixels with Score >= 200 and their true
// RMS error.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/stereo/surface_metrics.h"
#include "stereo/synthetic_rig.h"
#include "vision/calib/camera_params.h"
#include "vision/geometry/pose_types.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/rectification.h"

using namespace velmora;
using vision::HObject;
using vision::HTuple;

namespace {

const int kFrom[4] = {0, 2, 4, 6}, kTo[4] = {1, 3, 5, 7};

HObject ToImage(const cv::Mat& bgr) {
  std::vector<cv::Mat> ch;
  cv::split(bgr, ch);
  return HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {ch[2], ch[1], ch[0]}));
}

// Where a point looks: 0 board, 1 a part's top (at least 0.4 mm up, slope
// under 45 degrees), 2 a part elsewhere (flanks, bevels, low rims).
int Kind(const synth::Rig& rig, const Eigen::Vector3d& q, int* part) {
  const synth::Surface& s = rig.surface;
  const long r = std::lround((q.y() - s.y0) / s.step), c = std::lround((q.x() - s.x0) / s.step);
  *part = 0;
  if (r < 0 || c < 0 || r >= s.rows || c >= s.cols) return 0;
  *part = rig.part_of_sample[size_t(r) * size_t(s.cols) + size_t(c)];
  if (*part == 0) return 0;
  const Eigen::Vector3d n = bench::SurfaceNormal(s, q);
  return q.z() <= -0.4e-3 && std::abs(n.z()) > std::cos(M_PI / 4) ? 1 : 2;
}

// The line of sight from `eye` through p meets the surface: first near p,
// else anywhere within 2 mm of it.
Eigen::Vector3d TruePoint(const synth::Surface& s, const Eigen::Vector3d& eye, const Eigen::Vector3d& p) {
  Eigen::Vector3d hit;
  return bench::MarchToSurface(s, eye, p, 0.3e-3, &hit) ? hit : bench::ExactDepth(s, eye, p);
}

// Bands of the disparity field's slope |grad d| (pixels a pixel).
const double kSlope[] = {0, 0.1, 0.2, 0.35, 0.5, 0.7, 1e9};
constexpr int kSlopes = 6;
// Bands of the field's detail |d - Gaussian mean of d (sigma 2)| (pixels).
const double kDetail[] = {0, 0.02, 0.05, 0.1, 0.2, 0.4, 1e9};
constexpr int kDetails = 6;

// Claimed sigma bands (pixels).
const double kBand[] = {0, 0.05, 0.1, 0.15, 0.2, 0.3, 0.5, 1e9};
constexpr int kBands = 7;

struct Acc {
  size_t n = 0, far = 0;  // far: true error above three times the claim
  double e2 = 0, s2 = 0, e1 = 0;
  std::vector<float> abs_err;
  void Add(double err, double sigma) {
    ++n;
    e1 += err;
    e2 += err * err;
    s2 += sigma * sigma;
    far += std::abs(err) > 3 * sigma;
    abs_err.push_back(float(std::abs(err)));
  }
  // The standard deviation a normal error with the same median |error| has:
  // the spread of the bulk, mismatches aside.
  double Robust() {
    if (abs_err.empty()) return 0;
    std::nth_element(abs_err.begin(), abs_err.begin() + ptrdiff_t(abs_err.size() / 2), abs_err.end());
    return 1.4826 * abs_err[abs_err.size() / 2];
  }
};

}  // namespace

int main(int argc, char** argv) {
  const std::vector<int> variants = bench::VariantsArg(argc, argv);
  cv::setNumThreads(2);
  std::printf("the Score's claimed sigma against the true disparity error (pixels), pairs of \"Default\"\n");
  const char* kKind[] = {"board", "tops", "flanks"};
  for (int v : variants) {
    const synth::Rig rig = synth::MakeRig(v);
    const std::vector<cv::Mat> views = synth::RenderViews(rig);
    const int np = int(rig.parts.size());
    Acc band[3][kBands];
    std::vector<size_t> top_n(size_t(np) + 1, 0), top_ok(size_t(np) + 1, 0);
    std::vector<Acc> top_acc(size_t(np) + 1);
    Acc slope_band[3][kSlopes], detail_band[3][kDetails];
    std::vector<std::vector<Acc>> part_band(size_t(np) + 1, std::vector<Acc>(kBands));
    for (int k = 0; k < 4; ++k) {
      const int a = kFrom[k], b = kTo[k];
      const synth::RigCamera& ca = rig.cameras[size_t(a)];
      const Eigen::Isometry3d rel = ca.camera_to_world.inverse() * rig.cameras[size_t(b)].camera_to_world;
      HObject m1, m2, i1, i2, disp, score, x, y, z;
      HTuple r1, r2, p1, p2, rr;
      vision::gen_binocular_rectification_map(&m1, &m2, ca.ParamTuple(), rig.cameras[size_t(b)].ParamTuple(),
                                              vision::IsometryToPose(rel), 1, "geometric", "bilinear", &r1, &r2,
                                              &p1, &p2, &rr);
      vision::map_image(ToImage(views[size_t(a)]), m1, &i1);
      vision::map_image(ToImage(views[size_t(b)]), m2, &i2);
      vision::binocular_disparity_ms(i1, i2, &disp, &score, -120, 120, 100, 100, "sub_disparity", "true");
      vision::disparity_image_to_xyz(disp, &x, &y, &z, r1, r2, rr);
      const Eigen::Isometry3d world = ca.camera_to_world * vision::PoseToIsometry(p1, "");
      const vision::CamParams cr = vision::CamParams::FromTuple(r1, "bench");
      const double fb = cr.focus / cr.sx * vision::PoseToIsometry(rr, "").translation().norm();
      const vision::Region dom =
          disp.ImageAt(0).domain.Intersection(i1.ImageAt(0).domain).Intersection(i2.ImageAt(0).domain);
      const cv::Mat &X = x.ImageAt(0).planes[0], &Y = y.ImageAt(0).planes[0], &Z = z.ImageAt(0).planes[0];
      const cv::Mat& S = score.ImageAt(0).planes[0];
      const cv::Mat& D = disp.ImageAt(0).planes[0];
      const vision::Region& ddom = disp.ImageAt(0).domain;
      cv::Mat MD;
      cv::GaussianBlur(D, MD, cv::Size(13, 13), 2.0, 2.0, cv::BORDER_REPLICATE);
      for (const vision::Run& run : dom.Runs())
        for (int c = run.cb; c <= run.ce; ++c) {
          const Eigen::Vector3d pr(X.at<float>(run.row, c), Y.at<float>(run.row, c), Z.at<float>(run.row, c));
          const Eigen::Vector3d pw = world * pr;
          if (pw.z() > -0.1e-3 || pw.z() < -2e-3) continue;  // the board and gross mismatches aside
          const Eigen::Vector3d qw = TruePoint(rig.surface, world.translation(), pw);
          if (qw == pw) continue;
          const double zt = (world.inverse() * qw).z();
          const double err = fb * (1 / zt - 1 / pr.z());
          const double sc = std::max(1e-3f, S.at<float>(run.row, c));
          const double sigma = 0.1 * std::sqrt(std::max(0.0, 1000 / sc - 1));
          int part = 0;
          const int kind = Kind(rig, qw, &part);
          int bi = 0;
          while (bi + 1 < kBands && sigma >= kBand[bi + 1]) ++bi;
          band[kind][bi].Add(err, sigma);
          const int r0 = run.row;
          if (sc >= 200 && c > 0 && c + 1 < D.cols && r0 > 0 && r0 + 1 < D.rows && ddom.Contains(r0, c - 1) &&
              ddom.Contains(r0, c + 1) && ddom.Contains(r0 - 1, c) && ddom.Contains(r0 + 1, c)) {
            const double gx = 0.5 * (D.at<float>(r0, c + 1) - D.at<float>(r0, c - 1));
            const double gy = 0.5 * (D.at<float>(r0 + 1, c) - D.at<float>(r0 - 1, c));
            const double g = std::hypot(gx, gy);
            int si = 0;
            while (si + 1 < kSlopes && g >= kSlope[si + 1]) ++si;
            slope_band[kind][si].Add(err, sigma);
          }
          if (sc >= 200) {
            const double det = std::abs(D.at<float>(r0, c) - MD.at<float>(r0, c));
            int di = 0;
            while (di + 1 < kDetails && det >= kDetail[di + 1]) ++di;
            detail_band[kind][di].Add(err, sigma);
          }
          if (kind == 1) {
            part_band[size_t(part)][size_t(bi)].Add(err, sigma);
            ++top_n[size_t(part)];
            if (sc >= 200) {
              ++top_ok[size_t(part)];
              top_acc[size_t(part)].Add(err, sigma);
            }
          }
        }
    }
    std::printf("\n== variant %d\n%-9s %-12s %8s %12s %12s %10s %8s %14s %8s\n", v, "where", "claim px", "pixels",
                "true RMS px", "robust sd px", "claim RMS", "ratio", "beyond 3 claim", "mean");
    auto row = [&](const char* where, int bi, Acc& q) {
      if (!q.n) return;
      const double t = std::sqrt(q.e2 / double(q.n)), s = std::sqrt(q.s2 / double(q.n)), r = q.Robust();
      char range[32];
      std::snprintf(range, sizeof range, bi + 1 < kBands ? "%.2f-%.2f" : "%.2f-", kBand[bi], kBand[bi + 1]);
      std::printf("%-9s %-12s %8zu %12.3f %12.3f %10.3f %8.2f %12.2f %% %8.3f\n", where, range, q.n, t, r, s, r / s,
                  100.0 * double(q.far) / double(q.n), q.e1 / double(q.n));
    };
    for (int kind = 0; kind < 3; ++kind)
      for (int bi = 0; bi < kBands; ++bi) row(kKind[kind], bi, band[kind][bi]);
    // Kept pixels by bands of one property of the field (lower bounds `lower`).
    auto by_band = [&](const char* title, const char* name, const double* lower, int count, Acc (*acc)[kSlopes]) {
      std::printf("Score >= 200 by the field's %s:\n", title);
      for (int kind = 0; kind < 3; ++kind)
        for (int i = 0; i < count; ++i) {
          Acc& q = acc[kind][i];
          if (!q.n) continue;
          size_t big = 0;
          for (float e : q.abs_err) big += e > 0.25f;
          std::printf("%-9s %s %4.2f- %8zu  robust sd %6.3f  claim RMS %6.3f  |err| > 0.25 px %6.2f %%\n",
                      kKind[kind], name, lower[i], q.n, q.Robust(), std::sqrt(q.s2 / double(q.n)),
                      100.0 * double(big) / double(q.n));
        }
    };
    by_band("slope |grad d| (px/px)", "slope", kSlope, kSlopes, slope_band);
    static_assert(kDetails == kSlopes, "both band tables share one row type");
    by_band("detail |d - mean d| (px)", "detail", kDetail, kDetails, detail_band);
    for (int pi = 1; pi <= np; ++pi)
      for (int bi = 0; bi < kBands; ++bi)
        row((std::string("top ") + rig.parts[size_t(pi - 1)].kind).c_str(), bi, part_band[size_t(pi)][size_t(bi)]);
    std::printf("%-9s %12s %14s %12s %10s\n", "part", "top pixels", "Score >= 200", "true RMS px", "claim RMS");
    for (int pi = 1; pi <= np; ++pi) {
      const Acc& q = top_acc[size_t(pi)];
      std::printf("%-9s %12zu %12.2f %% %12.3f %10.3f\n", rig.parts[size_t(pi - 1)].kind.c_str(), top_n[size_t(pi)],
                  top_n[size_t(pi)] ? 100.0 * double(top_ok[size_t(pi)]) / double(top_n[size_t(pi)]) : 0.0,
                  q.n ? std::sqrt(q.e2 / double(q.n)) : 0.0, q.n ? std::sqrt(q.s2 / double(q.n)) : 0.0);
    }
  }
  return 0;
}
