#include "ocr/ocr_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "vision/filter/image_ops.h"

namespace velmora {
namespace {

using vision::HException;
using vision::HObject;
using vision::HTuple;
using vision::Image;
using vision::PixelType;

HObject MakeImage(PixelType t, int w, int h, const std::vector<double>& v) {
  cv::Mat d(h, w, CV_64F);
  for (int i = 0; i < w * h; ++i) d.at<double>(i / w, i % w) = v[size_t(i)];
  cv::Mat p;
  d.convertTo(p, vision::PixelTypeCvDepth(t));
  return HObject(Image::FromPlanes(t, {p}));
}

double At(const HObject& o, int r, int c, int channel = 0) {
  cv::Mat d;
  o.ImageAt(0).planes[size_t(channel)].convertTo(d, CV_64F);
  return d.at<double>(r, c);
}

TEST(ScaleImageRange, LimitsClippingPerChannelAndEmptyRange) {
  struct Case {
    HTuple min, max;
    double in, out;
  } cases[] = {
      // One-element limits map onto 0..255.
      {HTuple(50), HTuple(150), 100, 128},  // 127.5 rounds up in a byte image
      {HTuple(50), HTuple(150), 40, 0},
      {HTuple(50), HTuple(150), 200, 255},
      // Two-element limits: [gray, target].
      {HTuple{50, 10}, HTuple{150, 110}, 100, 60},
      {HTuple{50, 10}, HTuple{150, 110}, 20, 10},   // below: the lower limit
      {HTuple{50, 10}, HTuple{150, 110}, 220, 110},  // above: the upper limit
      {HTuple{50, 10}, HTuple(150), 150, 255},
  };
  for (const Case& c : cases) {
    HObject out;
    scale_image_range(MakeImage(PixelType::Byte, 1, 1, {c.in}), &out, c.min, c.max);
    EXPECT_EQ(At(out, 0, 0), c.out) << c.min.ToString() << " " << c.max.ToString() << " "
                                    << c.in;
  }

  // Real images are not clipped by the scaling itself: the painting does it,
  // and each channel on its own.
  HObject a = MakeImage(PixelType::Real, 3, 1, {0, 5, 10});
  HObject b = MakeImage(PixelType::Real, 3, 1, {10, 2, 8});
  HObject rgb, out;
  vision::compose3(a, b, a, &rgb);
  scale_image_range(rgb, &out, HTuple{2, 0}, HTuple{8, 100});
  ASSERT_EQ(out.ImageAt(0).Channels(), 3);
  EXPECT_EQ(out.ImageAt(0).type, PixelType::Real);
  EXPECT_DOUBLE_EQ(At(out, 0, 0, 0), 0);
  EXPECT_NEAR(At(out, 0, 1, 0), 50, 1e-4);
  EXPECT_DOUBLE_EQ(At(out, 0, 2, 0), 100);
  EXPECT_DOUBLE_EQ(At(out, 0, 0, 1), 100);
  EXPECT_DOUBLE_EQ(At(out, 0, 1, 1), 0);
  EXPECT_NEAR(At(out, 0, 2, 1), 100, 1e-4);

  // An empty gray range raises.
  EXPECT_THROW(scale_image_range(MakeImage(PixelType::Byte, 1, 1, {3}), &out, 7, 7), HException);
  EXPECT_THROW(scale_image_range(MakeImage(PixelType::Byte, 1, 1, {3}), &out, HTuple{7.0, 0},
                                 HTuple{7, 9}), HException);
}

// Dark strokes on the left of a background lit from one side; the right part
// holds only the lighting ramp.
HObject Marking() {
  std::vector<double> v;
  for (int r = 0; r < 80; ++r)
    for (int c = 0; c < 240; ++c) {
      const double lit = 60 + 0.4 * c + 0.2 * r;  // slope below the gradient limit
      const bool stroke = r >= 20 && r < 60 && c >= 20 && c < 120 && (c - 20) % 20 < 8;
      v.push_back(stroke ? lit - 70 : lit);
    }
  return MakeImage(PixelType::Byte, 240, 80, v);
}

// Spread of the gray values in the stroke-free right part, and the mean of
// the stroke centres.
void Measure(const HObject& img, double* ramp_spread, double* stroke_mean) {
  double lo = 1e9, hi = -1e9, sum = 0;
  int n = 0;
  for (int r = 5; r < 75; ++r)
    for (int c = 150; c < 235; ++c) {
      lo = std::min(lo, At(img, r, c));
      hi = std::max(hi, At(img, r, c));
    }
  for (int r = 25; r < 55; ++r)
    for (int c = 22; c < 120; c += 20) {
      sum += At(img, r, c) + At(img, r, c + 3);
      n += 2;
    }
  *ramp_spread = hi - lo;
  *stroke_mean = sum / n;
}

TEST(GenImageSmoothed, FlattensUnevenLightKeepsStrokesDark) {
  const HObject in = Marking();
  double spread, strokes;
  Measure(in, &spread, &strokes);
  ASSERT_GT(spread, 40);  // the lighting this must remove

  // The preview's smoothing flattens a marking the same way.
  for (auto* smooth : {&gen_image_smoothed, &gen_image_smoothed_preview}) {
    SCOPED_TRACE(smooth == &gen_image_smoothed ? "smoothed" : "preview");
    HObject out;
    smooth(in, &out, 1.0, 3.0);
    const Image& img = out.ImageAt(0);
    EXPECT_EQ(img.type, PixelType::Byte);
    EXPECT_EQ(cv::Size(img.width, img.height), cv::Size(240, 80));
    Measure(out, &spread, &strokes);
    EXPECT_LT(spread, 12);
    EXPECT_LT(strokes, 40);
    EXPECT_GT(At(out, 40, 200), 200);
  }

  // A colour image is reduced to gray first: equal channels give the same result.
  HObject out, rgb, out_rgb;
  gen_image_smoothed(in, &out, 1.0, 3.0);
  vision::compose3(in, in, in, &rgb);
  gen_image_smoothed(rgb, &out_rgb, 1.0, 3.0);
  for (int r = 0; r < 80; r += 7)
    for (int c = 0; c < 240; c += 11) ASSERT_EQ(At(out_rgb, r, c), At(out, r, c));
}

// A uniform image leaves an empty gray range: the smoothing raises, the
// preview passes the image through.
TEST(GenImageSmoothed, UniformImageRaisesAndThePreviewCopiesIt) {
  const HObject flat = MakeImage(PixelType::Byte, 40, 30, std::vector<double>(1200, 90));
  HObject out;
  EXPECT_THROW(gen_image_smoothed(flat, &out, 1.0, 3.0), HException);
  EXPECT_THROW(gen_image_smoothed(flat, &out, 0.0, 3.0), HException);
  gen_image_smoothed_preview(flat, &out, 1.0, 3.0);
  EXPECT_EQ(At(out, 29, 39), 90);
}

// Degenerate sizes reach the borders of every step (one-pixel derivatives,
// odd transform sizes, a domain rectangle without area): a byte image of the
// input's size or a library error, never a crash.
TEST(GenImageSmoothed, TinyImagesGiveAnImageOrAnError) {
  for (auto [w, h] : {std::pair{1, 1}, {1, 7}, {9, 1}, {2, 2}, {3, 5}}) {
    std::vector<double> v;
    for (int i = 0; i < w * h; ++i) v.push_back((i * 37) % 200);
    HObject out;
    try {
      gen_image_smoothed(MakeImage(PixelType::Byte, w, h, v), &out, 1.0, 3.0);
    } catch (const HException&) {
      continue;
    }
    ASSERT_EQ(out.Count(), 1) << w << "x" << h;
    EXPECT_EQ(out.ImageAt(0).width, w);
    EXPECT_EQ(out.ImageAt(0).height, h);
    EXPECT_EQ(out.ImageAt(0).type, PixelType::Byte);
  }
}

}  // namespace
}  // namespace velmora
