// Accuracy and speed of the stereo reconstruction on the synthetic rigs,
// beside OpenCV's semi-global matcher on the same four camera pairs.
//
//   bench_stereo [--variants 0,1,2,3] [--pairs-only] [--no-sgbm]   (default: every rig variant)
//
// For each rig: the pairwise clouds of the add-in's operators (rectify, map,
// disparity, points, Score >= 200, height crop), the whole procedure with
// "Default", and StereoSGBM (OpenCV rectification, the same height crop, a
// statistical outlier filter); each compared with the true surface.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/flann.hpp>
#include <opencv2/imgproc.hpp>
#include <cstdlib>
#include <malloc.h>
#include <sys/resource.h>

#include "bench/stereo/surface_metrics.h"
#include "stereo/reconstruction.h"
#include "stereo/synthetic_rig.h"
#include "vision/core/serialized_item.h"
#include "vision/calib/camera_setup.h"
#include "vision/filter/image_ops.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/region/region_ops.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/rectification.h"
#include "vision/window/window.h"

using namespace velmora;
using Clock = std::chrono::steady_clock;

namespace {

double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + 1e-6 * (u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}


const int kFrom[4] = {0, 2, 4, 6}, kTo[4] = {1, 3, 5, 7};

vision::HObject ToImage(const cv::Mat& bgr) {
  std::vector<cv::Mat> ch;
  cv::split(bgr, ch);
  return vision::HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {ch[2], ch[1], ch[0]}));
}

bool InCrop(const Eigen::Vector3d& p) { return p.z() >= -0.1 && p.z() <= -0.0003; }

// The add-in's operators on one pair, as the procedure runs them.
struct PairTimes { double rectify = 0, map = 0, disparity = 0, xyz = 0; };
std::vector<Eigen::Vector3d> OursPair(const synth::Rig& rig, const std::vector<cv::Mat>& views, int a, int b,
                                      PairTimes* t) {
  auto t0 = Clock::now();
  const Eigen::Isometry3d rel = rig.cameras[a].camera_to_world.inverse() * rig.cameras[b].camera_to_world;
  vision::HObject m1, m2;
  vision::HTuple r1, r2, p1, p2, rr;
  vision::gen_binocular_rectification_map(&m1, &m2, rig.cameras[a].ParamTuple(), rig.cameras[b].ParamTuple(),
                                          vision::IsometryToPose(rel), 1, "geometric", "bilinear", &r1, &r2,
                                          &p1, &p2, &rr);
  t->rectify += Since(t0);
  t0 = Clock::now();
  vision::HObject i1, i2;
  vision::map_image(ToImage(views[a]), m1, &i1);
  vision::map_image(ToImage(views[b]), m2, &i2);
  t->map += Since(t0);
  t0 = Clock::now();
  vision::HObject disp, score;
  vision::binocular_disparity_ms(i1, i2, &disp, &score, -120, 120, 100, 100, "sub_disparity", "true");
  t->disparity += Since(t0);
  t0 = Clock::now();
  vision::HObject x, y, z, good;
  vision::disparity_image_to_xyz(disp, &x, &y, &z, r1, r2, rr);
  vision::threshold(score, &good, 200, 10000);
  const Eigen::Isometry3d world = rig.cameras[a].camera_to_world * vision::PoseToIsometry(p1, "");
  std::vector<Eigen::Vector3d> out;
  const vision::Region dom = good.RegionAt(0).Intersection(i1.ImageAt(0).domain).Intersection(i2.ImageAt(0).domain);
  for (const vision::Run& run : dom.Runs())
    for (int c = run.cb; c <= run.ce; ++c) {
      const Eigen::Vector3d p(x.ImageAt(0).planes[0].at<float>(run.row, c), y.ImageAt(0).planes[0].at<float>(run.row, c),
                              z.ImageAt(0).planes[0].at<float>(run.row, c));
      const Eigen::Vector3d w = world * p;
      if (InCrop(w)) out.push_back(w);
    }
  t->xyz += Since(t0);
  return out;
}

// OpenCV's camera model for a division camera: k1..k3 fitted to the
// division model's radial mapping over the image.
void OpenCvCamera(const vision::CamParams& c, cv::Mat* k, cv::Mat* dist) {
  *k = (cv::Mat_<double>(3, 3) << c.focus / c.sx, 0, c.cx, 0, c.focus / c.sy, c.cy, 0, 0, 1);
  // Distorted normalised radius rd = s * ru with s = 2 / (1 + sqrt(1 - 4 kappa f^2 ru^2)).
  cv::Mat a(0, 3, CV_64F), y(0, 1, CV_64F);
  const double rmax = std::hypot(c.width * c.sx, c.height * c.sy) / 2 / c.focus * 1.1;
  for (int i = 1; i <= 100; ++i) {
    const double ru = rmax * i / 100, u = ru * c.focus;
    const double s = 2 / (1 + std::sqrt(1 - 4 * c.kappa * u * u));
    const double r2 = ru * ru;
    cv::Mat row = (cv::Mat_<double>(1, 3) << r2, r2 * r2, r2 * r2 * r2);
    a.push_back(row);
    y.push_back(s - 1);
  }
  cv::Mat kk;
  cv::solve(a, y, kk, cv::DECOMP_SVD);
  *dist = (cv::Mat_<double>(1, 5) << kk.at<double>(0), kk.at<double>(1), 0, 0, kk.at<double>(2));
}

// Points farther from their neighbours than the mean by one standard
// deviation are dropped (k = 20 neighbours), as PCL's statistical filter.
std::vector<Eigen::Vector3d> StatisticalOutlierFilter(const std::vector<Eigen::Vector3d>& pts) {
  if (pts.size() < 30) return pts;
  cv::Mat data(int(pts.size()), 3, CV_32F);
  for (size_t i = 0; i < pts.size(); ++i)
    for (int j = 0; j < 3; ++j) data.at<float>(int(i), j) = float(pts[i][j]);
  cv::flann::Index index(data, cv::flann::KDTreeIndexParams(4));
  const int k = 21;
  cv::Mat idx, dists;
  index.knnSearch(data, idx, dists, k, cv::flann::SearchParams(32));
  std::vector<double> mean(pts.size());
  double m = 0, m2 = 0;
  for (size_t i = 0; i < pts.size(); ++i) {
    double s = 0;
    for (int j = 1; j < k; ++j) s += std::sqrt(dists.at<float>(int(i), j));
    mean[i] = s / (k - 1);
    m += mean[i];
    m2 += mean[i] * mean[i];
  }
  m /= pts.size();
  const double sd = std::sqrt(std::max(0.0, m2 / pts.size() - m * m));
  std::vector<Eigen::Vector3d> out;
  for (size_t i = 0; i < pts.size(); ++i)
    if (mean[i] <= m + sd) out.push_back(pts[i]);
  return out;
}

std::vector<Eigen::Vector3d> SgbmPair(const synth::Rig& rig, const std::vector<cv::Mat>& views, int a, int b,
                                      double* t_rectify, double* t_match, double* cpu_match) {
  auto t0 = Clock::now();
  const auto& ca = rig.cameras[a];
  const auto& cb = rig.cameras[b];
  const Eigen::Isometry3d a_from_b = ca.camera_to_world.inverse() * cb.camera_to_world;
  const Eigen::Isometry3d b_from_a = a_from_b.inverse();
  cv::Mat k1, d1, k2, d2;
  OpenCvCamera(ca.params, &k1, &d1);
  OpenCvCamera(cb.params, &k2, &d2);
  cv::Mat r(3, 3, CV_64F), t(3, 1, CV_64F);
  for (int i = 0; i < 3; ++i) {
    t.at<double>(i) = b_from_a.translation()[i];
    for (int j = 0; j < 3; ++j) r.at<double>(i, j) = b_from_a.linear()(i, j);
  }
  const cv::Size size(ca.params.width, ca.params.height);
  cv::Mat R1, R2, P1, P2, Q;
  cv::stereoRectify(k1, d1, k2, d2, size, r, t, R1, R2, P1, P2, Q, 0, -1, size);
  cv::Mat mx1, my1, mx2, my2, g1, g2, i1, i2;
  cv::initUndistortRectifyMap(k1, d1, R1, P1, size, CV_32FC1, mx1, my1);
  cv::initUndistortRectifyMap(k2, d2, R2, P2, size, CV_32FC1, mx2, my2);
  cv::remap(views[a], i1, mx1, my1, cv::INTER_LINEAR);
  cv::remap(views[b], i2, mx2, my2, cv::INTER_LINEAR);
  *t_rectify += Since(t0);
  // Disparity range of the board around the rig's centre, +-12 mm, and of
  // parts up to 2 mm high: what the matcher must search.
  double dlo = 1e9, dhi = -1e9;
  for (double x = -0.012; x <= 0.012; x += 0.004)
    for (double y = -0.012; y <= 0.012; y += 0.004)
      for (double z : {0.0, -0.002}) {
        const Eigen::Vector3d w(x, y, z);
        const Eigen::Vector3d pa = ca.camera_to_world.inverse() * w, pb = cb.camera_to_world.inverse() * w;
        cv::Mat va = R1 * (cv::Mat_<double>(3, 1) << pa.x(), pa.y(), pa.z());
        cv::Mat vb = R2 * (cv::Mat_<double>(3, 1) << pb.x(), pb.y(), pb.z());
        const double ua = P1.at<double>(0, 0) * va.at<double>(0) / va.at<double>(2) + P1.at<double>(0, 2);
        const double ub = P2.at<double>(0, 0) * vb.at<double>(0) / vb.at<double>(2) + P2.at<double>(0, 2);
        dlo = std::min(dlo, ua - ub);
        dhi = std::max(dhi, ua - ub);
      }
  const int min_disp = int(std::floor(dlo)) - 8;
  const int num = ((int(std::ceil(dhi)) + 8 - min_disp) + 15) / 16 * 16;
  t0 = Clock::now();
  const int bs = 5;
  auto sgbm = cv::StereoSGBM::create(min_disp, num, bs, 8 * 3 * bs * bs, 32 * 3 * bs * bs, 1, 0, 10, 100, 2,
                                     cv::StereoSGBM::MODE_SGBM);
  cv::Mat disp16, disp;
  const double c0 = CpuSeconds();
  sgbm->compute(i1, i2, disp16);
  *t_match += Since(t0);
  *cpu_match += CpuSeconds() - c0;
  disp16.convertTo(disp, CV_32F, 1.0 / 16);
  cv::Mat xyz;
  cv::reprojectImageTo3D(disp, xyz, Q, true);
  const Eigen::Isometry3d to_world = ca.camera_to_world;
  Eigen::Matrix3d r1;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r1(i, j) = R1.at<double>(i, j);
  std::vector<Eigen::Vector3d> out;
  for (int y = 0; y < xyz.rows; ++y)
    for (int x = 0; x < xyz.cols; ++x) {
      if (disp.at<float>(y, x) < min_disp) continue;
      const cv::Vec3f v = xyz.at<cv::Vec3f>(y, x);
      if (!std::isfinite(v[2]) || v[2] > 1) continue;
      const Eigen::Vector3d w = to_world * (r1.transpose() * Eigen::Vector3d(v[0], v[1], v[2]));
      if (InCrop(w)) out.push_back(w);
    }
  return out;
}

double LoadAverage() {
  double l[1] = {0};
  return getloadavg(l, 1) == 1 ? l[0] : -1;
}

long PeakRssMb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss / 1024;
}

}  // namespace

int main(int argc, char** argv) {
  // The heap as the add-in's process keeps it (src/app/main.cc): large
  // buffers stay in the heap between calls instead of fresh mappings.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  const std::vector<int> variants = bench::VariantsArg(argc, argv);
  bool pairs_only = false, sgbm = true;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--pairs-only")) pairs_only = true;
    else if (!std::strcmp(argv[i], "--no-sgbm")) sgbm = false;
  }
  cv::setNumThreads(2);
  std::printf("stereo reconstruction on the synthetic rigs, pairs (0,1) (2,3) (4,5) (6,7), 640 x 480, 2 threads\n");
  for (int v : variants) {
    const synth::Rig rig = synth::MakeRig(v);
    const std::vector<cv::Mat> views = synth::RenderViews(rig);
    std::printf("\n== variant %d\n", v);

    PairTimes pt;
    std::vector<Eigen::Vector3d> ours;
    for (int k = 0; k < 4; ++k) {
      auto p = OursPair(rig, views, kFrom[k], kTo[k], &pt);
      ours.insert(ours.end(), p.begin(), p.end());
    }
    std::printf("add-in pairwise clouds (Score >= 200, height crop): %s\n", bench::Format(bench::Evaluate(rig, ours)).c_str());
    std::printf("  times for 4 pairs: rectification maps %.3f s, map_image %.3f s, disparity %.3f s, points %.3f s\n",
                pt.rectify, pt.map, pt.disparity, pt.xyz);

    if (!pairs_only) {
      ReconstructionTimes rt;
      std::vector<uint8_t> none;
      vision::HTuple setup;
      vision::create_camera_setup_model(8, &setup);
      for (int c = 0; c < 8; ++c)
        vision::set_camera_setup_cam_param(setup, c, "area_scan_division", rig.cameras[c].ParamTuple(),
                                           rig.cameras[c].PoseTuple());
      vision::HTuple item;
      vision::serialize_camera_setup_model(setup, &item);
      std::vector<std::vector<uint8_t>> argb(8);
      for (int c = 0; c < 8; ++c) {
        argb[c].resize(size_t(640) * 480 * 4);
        for (int y = 0; y < 480; ++y)
          for (int x = 0; x < 640; ++x) {
            const cv::Vec3b p = views[c].at<cv::Vec3b>(y, x);
            uint8_t* o = &argb[c][(size_t(y) * 640 + x) * 4];
            o[0] = 255; o[1] = p[2]; o[2] = p[1]; o[3] = p[0];
          }
      }
      auto t0 = Clock::now();
      const double cpu0 = CpuSeconds();
      vision::HTuple window;
      vision::open_window(0, 0, 640, 480, 0, "invisible", "", &window);
      vision::HTuple model = ReconstructSurface(window, item, argb, "Default", &rt);
      vision::close_window(window);
      const double total = Since(t0);
      const double cpu = CpuSeconds() - cpu0;
      auto* m = vision::ObjectModel3DCast(model, "bench");
      std::vector<Eigen::Vector3d> pts;
      for (const auto& p : m->points) pts.push_back(p.cast<double>());
      std::printf("add-in action, \"Default\": %s, %zu triangles\n", bench::Format(bench::Evaluate(rig, pts)).c_str(),
                  m->triangles.size());
      std::printf("  %s; whole call %.3f s wall, %.3f s CPU (load average %.1f)\n", FormatTimes(rt).c_str(), total, cpu,
                  LoadAverage());
      vision::clear_object_model_3d(model);
      vision::clear_camera_setup_model(setup);
    }

    if (!sgbm) continue;
    const double scpu0 = CpuSeconds();
    double srect = 0, smatch = 0, smatch_cpu = 0;
    std::vector<Eigen::Vector3d> sg;
    for (int k = 0; k < 4; ++k) {
      auto p = SgbmPair(rig, views, kFrom[k], kTo[k], &srect, &smatch, &smatch_cpu);
      sg.insert(sg.end(), p.begin(), p.end());
    }
    auto t0 = Clock::now();
    sg = StatisticalOutlierFilter(sg);
    const double tfilter = Since(t0);
    std::printf("OpenCV StereoSGBM (height crop, statistical outlier filter): %s\n", bench::Format(bench::Evaluate(rig, sg)).c_str());
    std::printf("  times for 4 pairs: rectification %.3f s, matching %.3f s (%.3f s CPU), outlier filter %.3f s; %.3f s CPU in all\n",
                srect, smatch, smatch_cpu, tfilter, CpuSeconds() - scpu0);
  }
  std::printf("\npeak memory (max RSS) %ld MB\n", PeakRssMb());
  return 0;
}
