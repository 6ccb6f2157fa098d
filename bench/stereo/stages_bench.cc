// Where the reconstruction loses the top surfaces of the synthetic rigs,
// stage by stage.
//
//   bench_stereo_stages [--variants 0,1,2,3]   (default: every rig variant)
//
// The procedure's operators run one after the other with its constants, as
// the reconstruction does, and after each step the top-surface coverage
// (a point within 60 um of a top sample) is measured, per part and in all:
// every disparity of a pair, Score >= 200, the pair's components (100 um, at
// least 300 points), the merged cloud's components (50 um, at least 1000
// points), sampling (30 um), smoothing and triangulation. Beside it, per
// part, the facts that decide the steps: the pixel footprint of the
// rectified views on the top surfaces (the spacing of one pair's points),
// the spread of the Score >= 200 points about the true surface, the share of
// the merged points in components of fewer than 1000 points, the coverage of
// the pixels whose noise-free texture allows 0.2 pixel at best against the
// camera noise (the Cramer-Rao bound of a shift over the matching's window
// and over a 19 x 19 mask), and the final points' 95th percentile distance.
// Last, steps k to 18 once more on the same pixels with their exact depths
// (every disparity, and Score >= 200): what the later steps keep of a pixel
// set when its depths carry no error.
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
#include "vision/filter/image_ops.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/point_cloud.h"
#include "vision/region/region_ops.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/rectification.h"

using namespace velmora;
using vision::HObject;
using vision::HTuple;

namespace {

const int kFrom[4] = {0, 2, 4, 6}, kTo[4] = {1, 3, 5, 7};
using Cloud = std::vector<Eigen::Vector3d>;

HObject ToImage(const cv::Mat& bgr) {
  std::vector<cv::Mat> ch;
  cv::split(bgr, ch);
  return HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {ch[2], ch[1], ch[0]}));
}

Cloud PointsOf(const HTuple& models) {
  Cloud out;
  for (vision::Hlong i = 0; i < models.Length(); ++i)
    for (const auto& p : vision::ObjectModel3DCast(models, "bench", i)->points) out.push_back(p.cast<double>());
  return out;
}

Cloud Cropped(const Cloud& pts) {
  Cloud out;
  for (const auto& p : pts)
    if (p.z() >= -0.1 && p.z() <= -0.0003) out.push_back(p);
  return out;
}

// The part (1-based; 0 the board) under a world point.
int PartAt(const synth::Rig& rig, const Eigen::Vector3d& p) {
  const synth::Surface& s = rig.surface;
  const long r = std::lround((p.y() - s.y0) / s.step), c = std::lround((p.x() - s.x0) / s.step);
  if (r < 0 || c < 0 || r >= s.rows || c >= s.cols) return 0;
  return rig.part_of_sample[size_t(r) * size_t(s.cols) + size_t(c)];
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + ptrdiff_t(v.size() / 2), v.end());
  return v[v.size() / 2];
}

double Pct(size_t a, size_t b) { return b ? 100.0 * double(a) / double(b) : 0; }

struct PairClouds {
  Cloud all, scored, components;  // every disparity, Score >= 200, after the pair's components (cropped)
  Cloud all_raw, scored_raw;       // the same in the world frame, not cropped
  Cloud bound_g, bound_b;         // every disparity where the texture's bound reaches 0.2 pixel
  HTuple model;                   // the pair's cloud in the world frame, as the procedure keeps it
  Eigen::Vector3d eye;            // the rectified camera 1's centre
};

// One pair through steps d to l of the procedure. Also the footprint of one
// rectified pixel on the tangent plane of each top sample the pair sees,
// along the rows (u) and across them (v).
PairClouds RunPair(const synth::Rig& rig, const std::vector<cv::Mat>& views, const std::vector<cv::Mat>& clean,
                   int a, int b, const std::vector<bench::TopSample>& tops, std::vector<double>* foot_u,
                   std::vector<double>* foot_v, std::vector<int>* foot_part, std::vector<double>* depth_per_px) {
  const synth::RigCamera& ca = rig.cameras[size_t(a)];
  const Eigen::Isometry3d rel = ca.camera_to_world.inverse() * rig.cameras[size_t(b)].camera_to_world;
  HObject m1, m2;
  HTuple r1, r2, p1, p2, rr;
  vision::gen_binocular_rectification_map(&m1, &m2, ca.ParamTuple(), rig.cameras[size_t(b)].ParamTuple(),
                                          vision::IsometryToPose(rel), 1, "geometric", "bilinear", &r1, &r2, &p1,
                                          &p2, &rr);
  HObject i1, i2, disp, score, x, y, z;
  vision::map_image(ToImage(views[size_t(a)]), m1, &i1);
  vision::map_image(ToImage(views[size_t(b)]), m2, &i2);
  vision::binocular_disparity_ms(i1, i2, &disp, &score, -120, 120, 100, 100, "sub_disparity", "true");
  vision::disparity_image_to_xyz(disp, &x, &y, &z, r1, r2, rr);
  const Eigen::Isometry3d world = ca.camera_to_world * vision::PoseToIsometry(p1, "");
  HObject both, scored, valid;
  vision::intersection(i1, i2, &both);
  vision::threshold(score, &scored, 200, 10000);
  vision::intersection(both, scored, &valid);

  // The precision any estimator of a constant shift over a window can
  // reach at best (the Cramer-Rao bound): the camera noise of both images
  // over the gradient energy of the noise-free texture in all three colour
  // channels, for the matching's window (Gaussian, sigma 2 pixels) and for a
  // 19 x 19 mask.
  cv::Mat energy_g, energy_b;
  {
    HObject ci;
    vision::map_image(ToImage(clean[size_t(a)]), m1, &ci);
    const vision::Image& img = ci.ImageAt(0);
    energy_g = cv::Mat::zeros(img.height, img.width, CV_32F);
    energy_b = energy_g.clone();
    for (const cv::Mat& plane : img.planes) {
      cv::Mat f, gx, g2, eg, eb;
      plane.convertTo(f, CV_32F);
      cv::Sobel(f, gx, CV_32F, 1, 0, 3, 1.0 / 8.0, 0, cv::BORDER_REPLICATE);
      g2 = gx.mul(gx);
      cv::GaussianBlur(g2, eg, cv::Size(13, 13), 2.0, 2.0, cv::BORDER_REPLICATE);
      cv::boxFilter(g2, eb, CV_32F, cv::Size(19, 19), cv::Point(-1, -1), false, cv::BORDER_REPLICATE);
      // Gaussian weights count as (sum w)^2 / sum w^2 = 4 pi sigma^2 pixels.
      energy_g += eg * float(4 * M_PI * 4.0);
      energy_b += eb;
    }
  }
  const double noise2 = rig.noise_sigma * rig.noise_sigma + 1.0 / 12;  // camera noise and quantisation

  PairClouds out;
  {
    HObject xa, ya, za;
    vision::reduce_domain(x, both, &xa);
    vision::reduce_domain(y, both, &ya);
    vision::reduce_domain(z, both, &za);
    HTuple om, wm;
    vision::xyz_to_object_model_3d(xa, ya, za, &om);
    vision::rigid_trans_object_model_3d(om, vision::IsometryToPose(world), &wm);
    out.all_raw = PointsOf(wm);
    out.all = Cropped(out.all_raw);
    // The same points where the bound reaches 0.2 pixel.
    HTuple rows, cols;
    vision::get_region_points(both, &rows, &cols);
    const cv::Mat& X = x.ImageAt(0).planes[0];
    const cv::Mat& Y = y.ImageAt(0).planes[0];
    const cv::Mat& Z = z.ImageAt(0).planes[0];
    for (vision::Hlong i = 0; i < rows.Length(); ++i) {
      const int r = int(rows.L(i)), c = int(cols.L(i));
      if (!disp.ImageAt(0).domain.Contains(r, c)) continue;
      const Eigen::Vector3d q = world * Eigen::Vector3d(X.at<float>(r, c), Y.at<float>(r, c), Z.at<float>(r, c));
      if (std::sqrt(2 * noise2 / std::max(1e-9f, energy_g.at<float>(r, c))) <= 0.2) out.bound_g.push_back(q);
      if (std::sqrt(2 * noise2 / std::max(1e-9f, energy_b.at<float>(r, c))) <= 0.2) out.bound_b.push_back(q);
    }
    out.bound_g = Cropped(out.bound_g);
    out.bound_b = Cropped(out.bound_b);
    vision::clear_object_model_3d(om);
    vision::clear_object_model_3d(wm);
  }
  HObject xv, yv, zv;
  vision::reduce_domain(x, valid, &xv);
  vision::reduce_domain(y, valid, &yv);
  vision::reduce_domain(z, valid, &zv);
  HTuple om, parts, big, u, wm;
  vision::xyz_to_object_model_3d(xv, yv, zv, &om);
  vision::rigid_trans_object_model_3d(om, vision::IsometryToPose(world), &wm);
  out.scored_raw = PointsOf(wm);
  out.scored = Cropped(out.scored_raw);
  vision::clear_object_model_3d(wm);
  vision::connection_object_model_3d(om, "distance_3d", 0.0001, &parts);
  vision::select_object_model_3d(parts, "num_points", "and", 300, 1000000, &big);
  vision::union_object_model_3d(big, "points_surface", &u);
  vision::rigid_trans_object_model_3d(u, vision::IsometryToPose(world), &out.model);
  out.components = Cropped(PointsOf(out.model));
  vision::clear_object_model_3d(om);
  if (!parts.Empty()) vision::clear_object_model_3d(parts);
  if (!big.Empty()) vision::clear_object_model_3d(big);
  vision::clear_object_model_3d(u);

  // Footprints: the rays through neighbouring pixel centres meet the
  // sample's tangent plane.
  const vision::CamParams cr = vision::CamParams::FromTuple(r1, "bench");
  const Eigen::Vector3d eye = world.translation();
  const synth::Surface& s = rig.surface;
  const double baseline = vision::PoseToIsometry(rr, "").translation().norm();
  for (const bench::TopSample& t : tops) {
    if (!bench::SeenBy(rig, a, t.p) || !bench::SeenBy(rig, b, t.p)) continue;
    // Depth along the line of sight per pixel of disparity: Z^2 / (f B).
    const double zc = (world.inverse() * t.p).z();
    depth_per_px->push_back(zc * zc / (cr.focus / cr.sx * baseline));
    const Eigen::Vector2d f = bench::PixelFootprint(cr, world, t.p, bench::SurfaceNormal(s, t.p));
    foot_u->push_back(f.x());
    foot_v->push_back(f.y());
    foot_part->push_back(rig.part_of_sample[size_t(t.r) * size_t(s.cols) + size_t(t.c)]);
  }
  out.eye = eye;
  return out;
}

// Steps 13 to 18 of the reconstruction on the pairs' clouds; the models are
// cleared with the steps.
struct SurfaceSteps {
  HTuple all, sel, parts2, big2, u2, sampled, smoothed, tri, info;
  explicit SurfaceSteps(const HTuple& models) {
    vision::union_object_model_3d(models, "points_surface", &all);
    vision::select_points_object_model_3d(all, "point_coord_z", -0.1, -0.0003, &sel);
    vision::connection_object_model_3d(sel, "distance_3d", 0.00005, &parts2);
    vision::select_object_model_3d(parts2, "num_points", "and", 1000, HTuple(vision::Hlong(100000000000000LL)), &big2);
    vision::union_object_model_3d(big2, "points_surface", &u2);
    vision::sample_object_model_3d(u2, "fast", 0.00003, HTuple(), HTuple(), &sampled);
    vision::smooth_object_model_3d(sampled, "mls", HTuple(), HTuple(), &smoothed);
    vision::triangulate_object_model_3d(smoothed, "greedy", HTuple(), HTuple(), &tri, &info);
  }
  ~SurfaceSteps() {
    for (const HTuple* h : {&all, &sel, &u2, &sampled, &smoothed, &tri}) vision::clear_object_model_3d(*h);
    if (!parts2.Empty()) vision::clear_object_model_3d(parts2);
    if (!big2.Empty()) vision::clear_object_model_3d(big2);
  }
};

// Steps k to 18 on clouds given per pair (world frame, not cropped): the
// top-surface coverage after the merged components and after the
// triangulation.
void FromPairClouds(const std::vector<Cloud>& clouds, const std::vector<bench::TopSample>& tops, double* merged,
                    double* final) {
  HTuple models;
  for (const Cloud& c : clouds) {
    HTuple om, parts, big, u;
    om = [&] {
      std::vector<double> x, y, z;
      for (const auto& p : c) {
        x.push_back(p.x());
        y.push_back(p.y());
        z.push_back(p.z());
      }
      HTuple m;
      vision::gen_object_model_3d_from_points(HTuple::Reals(x), HTuple::Reals(y), HTuple::Reals(z), &m);
      return m;
    }();
    vision::connection_object_model_3d(om, "distance_3d", 0.0001, &parts);
    vision::select_object_model_3d(parts, "num_points", "and", 300, 1000000, &big);
    vision::union_object_model_3d(big, "points_surface", &u);
    models.Append(u);
    vision::clear_object_model_3d(om);
    if (!parts.Empty()) vision::clear_object_model_3d(parts);
    if (!big.Empty()) vision::clear_object_model_3d(big);
  }
  const SurfaceSteps steps(models);
  auto pct = [&](const HTuple& m) {
    const std::vector<bool> c = bench::CoveredTops(tops, PointsOf(m));
    return Pct(size_t(std::count(c.begin(), c.end(), true)), c.size());
  };
  *merged = pct(steps.u2);
  *final = pct(steps.tri);
  vision::clear_object_model_3d(models);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<int> variants = bench::VariantsArg(argc, argv);
  cv::setNumThreads(2);
  std::printf("top-surface coverage of the synthetic rigs after each step of the reconstruction (\"Default\")\n");
  for (int v : variants) {
    const synth::Rig rig = synth::MakeRig(v);
    const std::vector<cv::Mat> views = synth::RenderViews(rig);
    synth::Rig quiet = rig;
    quiet.noise_sigma = 0;
    const std::vector<cv::Mat> clean = synth::RenderViews(quiet);
    const std::vector<bench::TopSample> tops = bench::TopSurface(rig);
    const int np = int(rig.parts.size());
    std::vector<int> part(tops.size());
    for (size_t i = 0; i < tops.size(); ++i)
      part[i] = rig.part_of_sample[size_t(tops[i].r) * size_t(rig.surface.cols) + size_t(tops[i].c)];

    std::vector<PairClouds> pairs;
    std::vector<double> fu, fv;
    std::vector<int> fp;
    std::vector<double> dpp;
    for (int k = 0; k < 4; ++k)
      pairs.push_back(RunPair(rig, views, clean, kFrom[k], kTo[k], tops, &fu, &fv, &fp, &dpp));

    // Steps 13 to 18 on the pairs' clouds.
    HTuple models;
    for (const PairClouds& p : pairs) models.Append(p.model);
    const SurfaceSteps steps(models);
    const HTuple &sel = steps.sel, &parts2 = steps.parts2, &u2 = steps.u2, &sampled = steps.sampled,
                 &smoothed = steps.smoothed, &tri = steps.tri;

    // Coverage after each stage.
    const char* kStage[] = {"disparity", "Score>=200", "pair comp.", "merged comp.", "sampled", "smoothed",
                            "triangulated"};
    constexpr int kStages = 7;
    std::vector<std::vector<bool>> cov(kStages);
    auto union_of = [&](Cloud PairClouds::*m) {
      Cloud c;
      for (const PairClouds& p : pairs) c.insert(c.end(), (p.*m).begin(), (p.*m).end());
      return c;
    };
    cov[0] = bench::CoveredTops(tops, union_of(&PairClouds::all));
    cov[1] = bench::CoveredTops(tops, union_of(&PairClouds::scored));
    cov[2] = bench::CoveredTops(tops, union_of(&PairClouds::components));
    cov[3] = bench::CoveredTops(tops, PointsOf(u2));
    cov[4] = bench::CoveredTops(tops, PointsOf(sampled));
    cov[5] = bench::CoveredTops(tops, PointsOf(smoothed));
    cov[6] = bench::CoveredTops(tops, PointsOf(tri));
    const std::vector<bool> bound_g = bench::CoveredTops(tops, union_of(&PairClouds::bound_g));
    const std::vector<bool> bound_b = bench::CoveredTops(tops, union_of(&PairClouds::bound_b));

    // Per part: points of the merged, cropped cloud and those in components
    // under 1000 points; spread of the Score >= 200 points about the truth.
    const Cloud merged = PointsOf(sel);
    std::vector<size_t> merged_n(size_t(np) + 1, 0), dropped_n(size_t(np) + 1, 0);
    for (const auto& p : merged) ++merged_n[size_t(PartAt(rig, p))];
    for (vision::Hlong i = 0; i < parts2.Length(); ++i) {
      const auto* m = vision::ObjectModel3DCast(parts2, "bench", i);
      if (m->points.size() >= 1000) continue;
      for (const auto& p : m->points) ++dropped_n[size_t(PartAt(rig, p.cast<double>()))];
    }
    std::vector<std::vector<double>> final_d(size_t(np) + 1);
    for (const auto& p : PointsOf(tri)) final_d[size_t(PartAt(rig, p))].push_back(bench::DistanceToSurface(rig.surface, p) * 1e6);
    std::vector<std::vector<double>> spread(size_t(np) + 1);
    for (const auto& p : union_of(&PairClouds::scored)) {
      const int pi = PartAt(rig, p);
      if (pi > 0 && p.z() < -0.35e-3) spread[size_t(pi)].push_back(bench::DistanceToSurface(rig.surface, p) * 1e6);
    }

    std::printf("\n== variant %d: %zu top samples, %ld components of the merged cloud at 50 um; on the tops one pixel "
                "of disparity is %.0f um of depth (median)\n", v, tops.size(), long(parts2.Length()), Median(dpp) * 1e6);
    std::printf("%-9s %6s |", "part", "tops");
    for (const char* s : kStage) std::printf(" %12s", s);
    std::printf(" | footprint u x v um | spread um (median, p90) | merged pts in comps < 1000 |"
                " bound <= 0.2 px (ours, 19x19) | final pts, p95 um\n");
    for (int pi = 0; pi <= np + 1; ++pi) {
      const bool all_parts = pi == np + 1;
      if (pi == 0) {
        std::vector<double> d = final_d[0];
        std::sort(d.begin(), d.end());
        std::printf("%-9s final points on the board %zu, p95 %.1f um\n", "board", d.size(),
                    d.empty() ? 0 : d[d.size() * 95 / 100]);
        continue;
      }
      size_t n = 0, c[kStages] = {}, ok_g = 0, ok_b = 0;
      for (size_t i = 0; i < tops.size(); ++i) {
        if (!all_parts && part[i] != pi) continue;
        ++n;
        for (int s = 0; s < kStages; ++s) c[s] += cov[size_t(s)][i];
        ok_g += bound_g[i];
        ok_b += bound_b[i];
      }
      std::vector<double> fd;
      for (int q = 1; q <= np; ++q)
        if (all_parts || q == pi) fd.insert(fd.end(), final_d[size_t(q)].begin(), final_d[size_t(q)].end());
      std::sort(fd.begin(), fd.end());
      std::vector<double> u, w, sp;
      for (size_t i = 0; i < fu.size(); ++i)
        if (all_parts || fp[i] == pi) {
          u.push_back(fu[i] * 1e6);
          w.push_back(fv[i] * 1e6);
        }
      size_t mn = 0, dn = 0;
      for (int q = 1; q <= np; ++q)
        if (all_parts || q == pi) {
          mn += merged_n[size_t(q)];
          dn += dropped_n[size_t(q)];
          sp.insert(sp.end(), spread[size_t(q)].begin(), spread[size_t(q)].end());
        }
      std::sort(sp.begin(), sp.end());
      std::printf("%-9s %6zu |", all_parts ? "all parts" : rig.parts[size_t(pi - 1)].kind.c_str(), n);
      for (int s = 0; s < kStages; ++s) std::printf(" %10.2f %%", Pct(c[s], n));
      std::printf(" | %5.1f x %5.1f | %5.1f %5.1f | %6.2f %% of %zu | %6.2f %% %6.2f %% | %zu, %.1f\n", Median(u),
                  Median(w), sp.empty() ? 0 : sp[sp.size() / 2], sp.empty() ? 0 : sp[sp.size() * 9 / 10], Pct(dn, mn),
                  mn, Pct(ok_g, n), Pct(ok_b, n), fd.size(), fd.empty() ? 0 : fd[fd.size() * 95 / 100]);
    }
    // The same steps on the same pixels with their exact depths: what the
    // later steps keep of a pixel set when the disparities carry no error.
    for (int which = 0; which < 2; ++which) {
      std::vector<Cloud> exact;
      for (const PairClouds& p : pairs) {
        Cloud c;
        for (const auto& q : which ? p.scored_raw : p.all_raw) c.push_back(bench::ExactDepth(rig.surface, p.eye, q));
        exact.push_back(std::move(c));
      }
      double merged_pct, final_pct;
      FromPairClouds(exact, tops, &merged_pct, &final_pct);
      std::printf("exact depths on the pixels of %s: merged components %.2f %%, triangulated %.2f %%\n",
                  which ? "Score >= 200" : "every disparity", merged_pct, final_pct);
    }
    vision::clear_object_model_3d(models);
  }
  return 0;
}
