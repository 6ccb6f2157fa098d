#include "stereo/reconstruction.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <mutex>
#include <exception>
#include <thread>

#include <sys/resource.h>

#include "imaging/halcon_utility.h"
#include "messaging/log.h"
#include "stereo/dev_window_stack.h"
#include "stereo/disp_message.h"
#include "stereo/set_display_font.h"
#include "vision/calib/camera_setup.h"
#include "vision/core/system.h"
#include "vision/filter/image_ops.h"
#include "vision/geometry/pose.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/point_cloud.h"
#include "vision/region/region_ops.h"
#include "vision/stereo/disparity.h"
#include "vision/stereo/rectification.h"
#include "vision/stereo/stereo_model.h"
#include "vision/window/window.h"

namespace velmora {

using vision::HObject;
using vision::HTuple;
using vision::Hlong;

namespace {

using Clock = std::chrono::steady_clock;
double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// Processor seconds of the whole process so far.
double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + 1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// Wall-clock seconds, as the logged durations are measured.
double Now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

constexpr int kViews = 8;
constexpr int kViewWidth = 640, kViewHeight = 480;
constexpr size_t kPairsAtOnce = 2;

}  // namespace

void calc_rel_pose(HTuple hv_Pose1, HTuple hv_Pose2, HTuple* hv_RelPose) {
  HTuple hv_Pose1Inv;
  vision::pose_invert(hv_Pose1, &hv_Pose1Inv);
  vision::pose_compose(hv_Pose1Inv, hv_Pose2, hv_RelPose);
}

bool QualityPairs(const std::string& quality, HTuple* from, HTuple* to) {
  // Compared in this order; the first equal name wins.
  if (quality == "very fast") {
    *from = HTuple::Ints({4});
    *to = HTuple::Ints({5});
  } else if (quality == "fast") {
    *from = HTuple::Ints({0, 4});
    *to = HTuple::Ints({2, 6});
  } else if (quality == "Default") {
    *from = HTuple::Ints({0, 2, 4, 6});
    *to = HTuple::Ints({1, 3, 5, 7});
  } else if (quality == "accurate") {
    *from = HTuple::Ints({0, 1, 2, 3, 4, 5, 6, 7});
    *to = HTuple::Ints({1, 2, 3, 4, 5, 6, 7, 0});
  } else if (quality == "very accurate") {
    *from = HTuple::Ints({0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3});
    *to = HTuple::Ints({1, 2, 3, 4, 5, 6, 7, 0, 4, 5, 6, 7});
  } else {
    return false;
  }
  return true;
}

std::string FormatTimes(const ReconstructionTimes& t) {
  char buf[640];
  std::snprintf(buf, sizeof buf,
                "views %.3f s, rectification maps %.3f s, map_image %.3f s, disparity %.3f s, "
                "points %.3f s, pair components %.3f s, pairwise phase %.3f s (%.3f s CPU), merge and crop %.3f s, "
                "components %.3f s, sampling %.3f s, smoothing %.3f s, triangulation %.3f s "
                "(%.3f s CPU from the merge), total %.3f s",
                t.views, t.rectification, t.mapping, t.disparity, t.points, t.pair_components, t.pairwise,
                t.pairwise_cpu, t.merge, t.components, t.sampling, t.smoothing, t.triangulation, t.surface_cpu,
                t.total);
  return buf;
}

HTuple action(const HTuple& hv_WindowHandle, const HTuple& hv_SerializedItemHandle, const SideViews& Images) {
  return ReconstructSurface(hv_WindowHandle, hv_SerializedItemHandle, Images, "Default", nullptr);
}

HTuple ReconstructSurface(const HTuple& hv_WindowHandle, const HTuple& hv_SerializedItemHandle,
                          const SideViews& Images, const std::string& quality, ReconstructionTimes* times) {
  ReconstructionTimes local;
  ReconstructionTimes& tm = times ? *times : local;
  tm = ReconstructionTimes();
  const auto t_start = Clock::now();

  HTuple hv_CameraSetupModel;
  try {
    vision::deserialize_camera_setup_model(hv_SerializedItemHandle, &hv_CameraSetupModel);
  } catch (const vision::HException&) {
    // A bad item fails at the setup's first use below.
  }
  HDevWindowStack::Push(hv_WindowHandle);
  HDevWindowStack::SetActive(hv_WindowHandle);
  set_display_font(hv_WindowHandle, 24, "serif", "true", "false");
  vision::set_system("flush_graphic", "true");

  HTuple hv_StereoModel;
  vision::create_stereo_model(hv_CameraSetupModel, "surface_pairwise", HTuple(), HTuple(), &hv_StereoModel);
  vision::set_stereo_model_param(hv_StereoModel, "sub_sampling_step", 1);
  vision::set_stereo_model_param(hv_StereoModel, "rectif_interpolation", "bilinear");
  vision::set_stereo_model_param(hv_StereoModel, "rectif_sub_sampling", 1);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_method", "ncc");
  vision::set_stereo_model_param(hv_StereoModel, "binocular_num_levels", 1);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_mask_width", 19);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_mask_height", 19);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_texture_thresh", 0);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_score_thresh", 0.4);
  vision::set_stereo_model_param(hv_StereoModel, "binocular_filter", "left_right_check");
  vision::set_stereo_model_param(hv_StereoModel, "binocular_sub_disparity", "interpolation");
  vision::set_stereo_model_param(hv_StereoModel, "bounding_box",
                                 HTuple::Reals({-0.01, -0.01, -0.0015, 0.01, 0.01, 0.0015}));
  vision::set_stereo_model_param(hv_StereoModel, "persistence", 1);

  HTuple hv_From, hv_To;
  if (!QualityPairs(quality, &hv_From, &hv_To))
    throw vision::HException("set_stereo_model_image_pairs", "Unknown quality preset: " + quality,
                             vision::kErrWrongParamValue);
  vision::set_stereo_model_image_pairs(hv_StereoModel, hv_From, hv_To);

  auto t_stage = Clock::now();
  HObject ho_Image[kViews];
  if (Images.size() < size_t(kViews))
    throw vision::HException("HImageWithData", "Eight side views are needed", vision::kErrWrongParamCount);
  for (int i = 0; i < kViews; ++i) {
    HImageWithData(&ho_Image[i], Images[i].data(), Images[i].size(), kViewWidth, kViewHeight, 4, 1);
    HTuple hv_Width, hv_Height;
    vision::get_image_size(ho_Image[i], &hv_Width, &hv_Height);
    if (HDevWindowStack::IsOpen()) vision::disp_color(ho_Image[i], HDevWindowStack::GetActive());
  }
  tm.views = Since(t_stage);
  const double hv_T0 = Now();
  const auto t_pairwise = Clock::now();
  const double cpu_pairwise = CpuSeconds();

  vision::get_stereo_model_image_pairs(hv_StereoModel, &hv_From, &hv_To);
  const Hlong n = hv_From.Length();
  // Two pairs are reconstructed at a time (one per core); each pair's text
  // is drawn as it starts and the per-pair models are kept in pair order.
  struct PairResult {
    HTuple model;
    ReconstructionTimes times;
    std::exception_ptr error;
  };
  std::vector<PairResult> results(size_t(std::max<Hlong>(n, 0)));
  auto run_pair = [&](Hlong hv_Index) {
    PairResult& res = results[size_t(hv_Index - 1)];
    ReconstructionTimes& pt = res.times;
    try {
      const Hlong a = hv_From.L(hv_Index - 1), b = hv_To.L(hv_Index - 1);
      if (a < 0 || b < 0 || a >= kViews || b >= kViews)
        throw vision::HException("get_camera_setup_param", "Wrong camera index", vision::kErrWrongParamValue);
      const HObject& ho_ImageA = ho_Image[a];
      const HObject& ho_ImageB = ho_Image[b];
      const double hv_T1 = Now();
      auto t_stage = Clock::now();

      HTuple hv_PoseA, hv_PoseB, hv_RelPose, hv_CamParamA, hv_CamParamB;
      vision::get_camera_setup_param(hv_CameraSetupModel, a, "pose", &hv_PoseA);
      vision::get_camera_setup_param(hv_CameraSetupModel, b, "pose", &hv_PoseB);
      calc_rel_pose(hv_PoseA, hv_PoseB, &hv_RelPose);
      vision::get_camera_setup_param(hv_CameraSetupModel, a, "params", &hv_CamParamA);
      vision::get_camera_setup_param(hv_CameraSetupModel, b, "params", &hv_CamParamB);

      HObject ho_Map1, ho_Map2;
      HTuple hv_CamParamRect1, hv_CamParamRect2, hv_CamPoseRect1, hv_CamPoseRect2, hv_RelPoseRect;
      vision::gen_binocular_rectification_map(&ho_Map1, &ho_Map2, hv_CamParamA, hv_CamParamB, hv_RelPose, 1,
                                              "geometric", "bilinear", &hv_CamParamRect1, &hv_CamParamRect2,
                                              &hv_CamPoseRect1, &hv_CamPoseRect2, &hv_RelPoseRect);
      Log("%f", Now() - hv_T1);
      pt.rectification += Since(t_stage);

      t_stage = Clock::now();
      HObject ho_ImageRect1, ho_ImageRect2;
      vision::map_image(ho_ImageA, ho_Map1, &ho_ImageRect1);
      vision::map_image(ho_ImageB, ho_Map2, &ho_ImageRect2);
      pt.mapping += Since(t_stage);

      t_stage = Clock::now();
      HObject ho_Disparity, ho_Score;
      vision::binocular_disparity_ms(ho_ImageRect1, ho_ImageRect2, &ho_Disparity, &ho_Score, -120, 120, 100, 100,
                                     "sub_disparity", "true");
      pt.disparity += Since(t_stage);

      t_stage = Clock::now();
      HObject ho_X, ho_Y, ho_Z;
      vision::disparity_image_to_xyz(ho_Disparity, &ho_X, &ho_Y, &ho_Z, hv_CamParamRect1, hv_CamParamRect2,
                                     hv_RelPoseRect);
      HObject ho_ScoreRegion, ho_Both, ho_Valid;
      vision::threshold(ho_Score, &ho_ScoreRegion, 200, 10000);
      vision::intersection(ho_ImageRect1, ho_ImageRect2, &ho_Both);
      vision::intersection(ho_Both, ho_ScoreRegion, &ho_Valid);
      vision::reduce_domain(ho_X, ho_Valid, &ho_X);
      vision::reduce_domain(ho_Y, ho_Valid, &ho_Y);
      vision::reduce_domain(ho_Z, ho_Valid, &ho_Z);

      HObject ho_R, ho_G, ho_B;
      vision::decompose3(ho_ImageRect1, &ho_R, &ho_G, &ho_B);
      HTuple hv_Rows, hv_Columns, hv_Rvals, hv_Gvals, hv_Bvals;
      vision::get_region_points(ho_Valid, &hv_Rows, &hv_Columns);
      vision::get_grayval(ho_R, hv_Rows, hv_Columns, &hv_Rvals);
      vision::get_grayval(ho_G, hv_Rows, hv_Columns, &hv_Gvals);
      vision::get_grayval(ho_B, hv_Rows, hv_Columns, &hv_Bvals);

      HTuple hv_OM;
      vision::xyz_to_object_model_3d(ho_X, ho_Y, ho_Z, &hv_OM);
      vision::set_object_model_3d_attrib_mod(hv_OM, "&coord_r", "points", hv_Rvals);
      vision::set_object_model_3d_attrib_mod(hv_OM, "&coord_g", "points", hv_Gvals);
      vision::set_object_model_3d_attrib_mod(hv_OM, "&coord_b", "points", hv_Bvals);
      pt.points += Since(t_stage);

      t_stage = Clock::now();

      HTuple hv_Parts, hv_Big, hv_U;
      vision::connection_object_model_3d(hv_OM, "distance_3d", 0.0001, &hv_Parts);
      vision::select_object_model_3d(hv_Parts, "num_points", "and", 300, 1000000, &hv_Big);
      vision::union_object_model_3d(hv_Big, "points_surface", &hv_U);

      HTuple hv_WorldPose;
      vision::pose_compose(hv_PoseA, hv_CamPoseRect1, &hv_WorldPose);
      vision::rigid_trans_object_model_3d(hv_U, hv_WorldPose, &res.model);

      vision::clear_object_model_3d(hv_OM);
      if (!hv_Parts.Empty()) vision::clear_object_model_3d(hv_Parts);
      if (!hv_Big.Empty()) vision::clear_object_model_3d(hv_Big);
      vision::clear_object_model_3d(hv_U);
      pt.pair_components += Since(t_stage);
    } catch (...) {
      res.error = std::current_exception();
    }
  };
  {
    // The next pair starts as soon as any running one is done.
    std::mutex lock;
    std::condition_variable done;
    size_t active = 0;
    std::vector<std::thread> threads;
    for (Hlong hv_Index = 1; hv_Index <= n; ++hv_Index) {
      {
        std::unique_lock<std::mutex> g(lock);
        done.wait(g, [&] { return active < kPairsAtOnce; });
        ++active;
      }
      disp_message(hv_WindowHandle,
                   HTuple("Now Reconstructing Surface ... ") + HTuple(hv_Index) + HTuple("/") + HTuple(n),
                   "window", 36, 12, "black", "true");
      threads.emplace_back([&, hv_Index] {
        run_pair(hv_Index);
        {
          std::lock_guard<std::mutex> g(lock);
          --active;
        }
        done.notify_one();
      });
    }
    for (std::thread& t : threads) t.join();
  }
  // The first failing pair's error, as a sequential run would raise it; the
  // models made by the others are released.
  HTuple hv_Models;
  std::exception_ptr first_error;
  for (PairResult& r : results) {
    if (r.error && !first_error) first_error = r.error;
    if (!r.model.Empty()) hv_Models.Append(r.model);
    tm.rectification += r.times.rectification;
    tm.mapping += r.times.mapping;
    tm.disparity += r.times.disparity;
    tm.points += r.times.points;
    tm.pair_components += r.times.pair_components;
  }
  if (first_error) {
    if (!hv_Models.Empty()) vision::clear_object_model_3d(hv_Models);
    std::rethrow_exception(first_error);
  }
  Log("%f", Now() - hv_T0);
  tm.pairwise = Since(t_pairwise);
  tm.pairwise_cpu = CpuSeconds() - cpu_pairwise;

  disp_message(hv_WindowHandle, "Now Reconstructing Surface ... done ", "window", 36, 12, "black", "true");
  disp_message(hv_WindowHandle, "Now Proccessing Surface ...", "window", 60, 12, "black", "true");

  t_stage = Clock::now();
  const double cpu_surface = CpuSeconds();
  HTuple hv_All, hv_Sel;
  vision::union_object_model_3d(hv_Models, "points_surface", &hv_All);
  vision::select_points_object_model_3d(hv_All, "point_coord_z", -0.1, -0.0003, &hv_Sel);
  tm.merge = Since(t_stage);

  t_stage = Clock::now();
  HTuple hv_Parts2, hv_Big2, hv_U2;
  vision::connection_object_model_3d(hv_Sel, "distance_3d", 0.00005, &hv_Parts2);
  vision::select_object_model_3d(hv_Parts2, "num_points", "and", 1000, HTuple(vision::Hlong(100000000000000LL)),
                                 &hv_Big2);
  vision::union_object_model_3d(hv_Big2, "points_surface", &hv_U2);
  tm.components = Since(t_stage);

  t_stage = Clock::now();
  HTuple hv_Sampled, hv_Smoothed, hv_ObjectModel3D, hv_Information;
  vision::sample_object_model_3d(hv_U2, "fast", 0.00003, HTuple(), HTuple(), &hv_Sampled);
  tm.sampling = Since(t_stage);
  t_stage = Clock::now();
  vision::smooth_object_model_3d(hv_Sampled, "mls", HTuple(), HTuple(), &hv_Smoothed);
  tm.smoothing = Since(t_stage);
  t_stage = Clock::now();
  vision::triangulate_object_model_3d(hv_Smoothed, "greedy", HTuple(), HTuple(), &hv_ObjectModel3D,
                                      &hv_Information);
  tm.triangulation = Since(t_stage);
  tm.surface_cpu = CpuSeconds() - cpu_surface;

  if (HDevWindowStack::IsOpen()) vision::clear_window(HDevWindowStack::GetActive());

  if (!hv_Models.Empty()) vision::clear_object_model_3d(hv_Models);
  vision::clear_object_model_3d(hv_All);
  vision::clear_object_model_3d(hv_Sel);
  if (!hv_Parts2.Empty()) vision::clear_object_model_3d(hv_Parts2);
  if (!hv_Big2.Empty()) vision::clear_object_model_3d(hv_Big2);
  vision::clear_object_model_3d(hv_U2);
  vision::clear_object_model_3d(hv_Sampled);
  vision::clear_object_model_3d(hv_Smoothed);
  vision::clear_camera_setup_model(hv_CameraSetupModel);
  vision::clear_stereo_model(hv_StereoModel);
  tm.total = Since(t_start);
  return hv_ObjectModel3D;
}

}  // namespace velmora
