#include "stereo/reconstruction.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <mutex>

#include <gtest/gtest.h>

#include "stereo/disp_message.h"
#include "stereo/set_display_font.h"
#include "stereo/synthetic_rig.h"
#include "vision/calib/camera_setup.h"
#include "vision/core/serialized_item.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HTuple;

// Hashes of every canvas a visible window shows, in order.
class Recorder : public vision::WindowPresenter {
 public:
  void WindowOpened(uint64_t, int, int, int, int) override {}
  void WindowChanged(uint64_t, const cv::Mat& rgb) override {
    std::lock_guard<std::mutex> lock(m_);
    frames_.push_back(Hash(rgb));
  }
  void WindowClosed(uint64_t) override {}
  std::vector<size_t> Frames() {
    std::lock_guard<std::mutex> lock(m_);
    return frames_;
  }
  static size_t Hash(const cv::Mat& m) {
    cv::Mat c = m.isContinuous() ? m : m.clone();
    return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(c.data), c.total() * c.elemSize()));
  }

 private:
  std::mutex m_;
  std::vector<size_t> frames_;
};

struct RigInput {
  synth::Rig rig;
  HTuple item;
  SideViews views;
};

const RigInput& Demo() {
  static const RigInput in = [] {
    RigInput r{synth::MakeRig(0), {}, {}};
    HTuple setup;
    vision::create_camera_setup_model(8, &setup);
    for (int c = 0; c < 8; ++c)
      vision::set_camera_setup_cam_param(setup, c, "area_scan_division", r.rig.cameras[c].ParamTuple(),
                                         r.rig.cameras[c].PoseTuple());
    vision::serialize_camera_setup_model(setup, &r.item);
    vision::clear_camera_setup_model(setup);
    for (const cv::Mat& v : synth::RenderViews(r.rig)) {
      std::vector<uint8_t> argb(size_t(v.total()) * 4);
      for (size_t i = 0; i < v.total(); ++i) {
        const cv::Vec3b p = v.at<cv::Vec3b>(int(i / v.cols), int(i % v.cols));
        argb[4 * i] = 255;
        argb[4 * i + 1] = p[2];
        argb[4 * i + 2] = p[1];
        argb[4 * i + 3] = p[0];
      }
      r.views.push_back(std::move(argb));
    }
    return r;
  }();
  return in;
}

HTuple OpenWindow(const char* mode) {
  HTuple w;
  vision::open_window(0, 0, 640, 480, 0, mode, "", &w);
  return w;
}

TEST(Reconstruction, DemoRigGivesTheTrueSurfaceWithFourProgressTextsInOrder) {
  const RigInput& in = Demo();
  auto recorder = std::make_shared<Recorder>();
  vision::SetWindowPresenter(recorder);
  HTuple window = OpenWindow("visible");
  HTuple model = action(window, in.item, in.views);
  vision::SetWindowPresenter(nullptr);

  // The canvas right after each progress text: the last view with the text
  // drawn over the previous ones, redrawn here in a window of our own.
  HTuple ref = OpenWindow("invisible");
  set_display_font(ref, 24, "serif", "true", "false");
  vision::HObject last;
  {
    const auto& v = in.views[7];
    cv::Mat r(480, 640, CV_8U), g(480, 640, CV_8U), b(480, 640, CV_8U);
    for (int i = 0; i < 640 * 480; ++i) {
      r.data[i] = v[4 * i + 1];
      g.data[i] = v[4 * i + 2];
      b.data[i] = v[4 * i + 3];
    }
    last = vision::HObject(vision::Image::FromPlanes(vision::PixelType::Byte, {r, g, b}));
  }
  vision::disp_color(last, ref);
  const std::vector<size_t> frames = recorder->Frames();
  size_t at = 0;
  for (int k = 1; k <= 4; ++k) {
    disp_message(ref, HTuple("Now Reconstructing Surface ... ") + HTuple(k) + HTuple("/") + HTuple(4), "window", 36,
                 12, "black", "true");
    vision::HObject canvas;
    vision::dump_window_image(&canvas, ref);
    const vision::Image& c = canvas.ImageAt(0);
    cv::Mat rgb;
    cv::merge(std::vector<cv::Mat>{c.planes[0], c.planes[1], c.planes[2]}, rgb);
    auto it = std::find(frames.begin() + at, frames.end(), Recorder::Hash(rgb));
    ASSERT_NE(it, frames.end()) << "text " << k << "/4 not shown after the previous one";
    at = size_t(it - frames.begin()) + 1;
  }
  // The window is cleared before the model is shown.
  {
    HTuple blank = OpenWindow("invisible");
    vision::HObject canvas;
    vision::dump_window_image(&canvas, blank);
    const vision::Image& c = canvas.ImageAt(0);
    cv::Mat rgb;
    cv::merge(std::vector<cv::Mat>{c.planes[0], c.planes[1], c.planes[2]}, rgb);
    EXPECT_EQ(frames.back(), Recorder::Hash(rgb));
    vision::close_window(blank);
  }
  vision::close_window(ref);
  vision::close_window(window);

  auto* m = vision::ObjectModel3DCast(model, "test");
  ASSERT_GT(m->NumPoints(), 20000u);
  EXPECT_GT(m->triangles.size(), m->NumPoints());
  ASSERT_EQ(m->attribs.count("&coord_r"), 1u);
  size_t near = 0;
  for (const Eigen::Vector3f& p : m->points) {
    // Cropped to -0.1 .. -0.0003, then smoothed by a few micrometres.
    EXPECT_GE(p.z(), -0.1f);
    EXPECT_LE(p.z(), -0.0003f + 50e-6f);
    // Vertical distance to the true height field, a bound on the distance.
    const double dz = std::abs(p.z() - in.rig.surface.ZAt(p.x(), p.y()));
    near += dz <= 50e-6;
  }
  EXPECT_GT(double(near) / m->NumPoints(), 0.95);
  vision::clear_object_model_3d(model);
}

TEST(Reconstruction, BadInputRaisesTheLibrarysException) {
  const RigInput& in = Demo();
  HTuple window = OpenWindow("invisible");
  SideViews seven(in.views.begin(), in.views.begin() + 7);
  SideViews short_view = in.views;
  short_view[3].resize(640 * 480 * 4 - 1);
  SideViews flat(8, std::vector<uint8_t>(640 * 480 * 4, 128));
  HTuple damaged;
  {
    vision::HTuple ptr, size;
    vision::get_serialized_item_ptr(in.item, &ptr, &size);
    std::vector<uint8_t> bytes(reinterpret_cast<const uint8_t*>(intptr_t(ptr.L())),
                               reinterpret_cast<const uint8_t*>(intptr_t(ptr.L())) + size.L());
    bytes[bytes.size() / 2] ^= 0x5a;
    damaged = vision::NewSerializedItem(std::move(bytes));
  }
  struct Case { const char* what; HTuple item; const SideViews* views; };
  const Case cases[] = {
      {"seven views", in.item, &seven},
      {"a short view", in.item, &short_view},
      {"a damaged setup", damaged, &in.views},
  };
  for (const Case& c : cases) EXPECT_THROW(action(window, c.item, *c.views), vision::HException) << c.what;
  // Views without texture give no surface: an empty model or the exception.
  try {
    HTuple model = ReconstructSurface(window, in.item, flat, "very fast", nullptr);
    EXPECT_EQ(vision::ObjectModel3DCast(model, "test")->NumPoints(), 0u);
  } catch (const vision::HException&) {
  }
  EXPECT_THROW(ReconstructSurface(window, in.item, in.views, "medium", nullptr), vision::HException);
  vision::close_window(window);
}

// Distance of p to the true height field: the nearest of its samples on a
// fine grid around p (steep walls make the vertical offset meaningless).
double DistanceToTruth(const synth::Surface& s, const Eigen::Vector3f& p) {
  double best = std::numeric_limits<double>::infinity();
  constexpr double kReach = 60e-6, kStep = 2e-6;
  for (double dy = -kReach; dy <= kReach; dy += kStep)
    for (double dx = -kReach; dx <= kReach; dx += kStep) {
      const double x = p.x() + dx, y = p.y() + dy;
      best = std::min(best, std::sqrt(dx * dx + dy * dy + std::pow(p.z() - s.ZAt(x, y), 2)));
    }
  return best;
}

TEST(Reconstruction, EveryPresetGivesASurfaceNearTheTruth) {
  // The merged cloud joins at a fixed 50 um. One pair's points lie about as
  // far apart on this rig (one or two pairs leave rows of points that do not
  // join into parts of 1000), so the sparse presets may give little or
  // nothing; what they do give must lie on the truth. The crop sees
  // noisy points: the smoothing may lift a few that it kept by their noise
  // back onto the true surface a little above the crop level, never away
  // from the truth.
  const RigInput& in = Demo();
  struct Row { const char* name; size_t min_points; double min_near; };
  const Row rows[] = {
      {"very fast", 0, 0.93},
      {"fast", 0, 0.97},
      {"Default", 60000, 0.97},
      {"accurate", 90000, 0.97},
      {"very accurate", 100000, 0.97},
  };
  HTuple window = OpenWindow("invisible");
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    HTuple model = ReconstructSurface(window, in.item, in.views, r.name, nullptr);
    auto* m = vision::ObjectModel3DCast(model, "test");
    EXPECT_GE(m->NumPoints(), r.min_points);
    if (m->NumPoints() == 0) {
      vision::clear_object_model_3d(model);
      continue;
    }
    EXPECT_GT(m->triangles.size(), m->NumPoints());
    size_t near = 0, above = 0;
    double sum_above = 0;
    for (const Eigen::Vector3f& p : m->points) {
      near += std::abs(p.z() - in.rig.surface.ZAt(p.x(), p.y())) <= 50e-6;
      if (p.z() > -0.0003f) {
        ++above;
        sum_above += DistanceToTruth(in.rig.surface, p);
      }
    }
    EXPECT_GT(double(near) / double(m->NumPoints()), r.min_near);
    EXPECT_LT(double(above), 0.001 * double(m->NumPoints()));
    // The points above the crop level lie as near the truth as the others.
    if (above) EXPECT_LT(sum_above / double(above), 30e-6);
    vision::clear_object_model_3d(model);
  }
  vision::close_window(window);
}

TEST(Reconstruction, PresetsAndRelativePoses) {
  struct Row { const char* name; std::vector<vision::Hlong> from, to; };
  const Row rows[] = {
      {"very fast", {4}, {5}},
      {"fast", {0, 4}, {2, 6}},
      {"Default", {0, 2, 4, 6}, {1, 3, 5, 7}},
      {"accurate", {0, 1, 2, 3, 4, 5, 6, 7}, {1, 2, 3, 4, 5, 6, 7, 0}},
      {"very accurate", {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3}, {1, 2, 3, 4, 5, 6, 7, 0, 4, 5, 6, 7}},
  };
  for (const Row& r : rows) {
    HTuple from, to;
    ASSERT_TRUE(QualityPairs(r.name, &from, &to));
    EXPECT_EQ(from, HTuple::Ints(r.from));
    EXPECT_EQ(to, HTuple::Ints(r.to));
  }
  HTuple from, to;
  EXPECT_FALSE(QualityPairs("default", &from, &to));

  const synth::Rig& rig = Demo().rig;
  HTuple rel;
  calc_rel_pose(rig.cameras[0].PoseTuple(), rig.cameras[1].PoseTuple(), &rel);
  const Eigen::Isometry3d want = rig.cameras[0].camera_to_world.inverse() * rig.cameras[1].camera_to_world;
  EXPECT_TRUE(vision::PoseToIsometry(rel, "").matrix().isApprox(want.matrix(), 1e-9));
}

}  // namespace
}  // namespace velmora
