#pragma once
// The large-frame request image of the memory benches: "LOT-4711" in the
// first Industrial evaluation face, 64 pixels high, in the middle of a light
// side x side RGBA canvas. The canvas and the bitmap are let go as soon as
// the image holds the pixels, so that only the image stays.
#include <memory>
#include <random>

#include <opencv2/imgproc.hpp>

#include "archive/archive.h"
#include "markings.h"

namespace velmora::ocrgen {

inline std::shared_ptr<archive::Image> CentredMarkingImage(int side) {
  MarkingRenderer renderer;
  std::mt19937 rng(7);
  const Marking m = renderer.Render("LOT-4711", Families()[0].eval_faces[0], 64, Grade::Clean, rng);
  cv::Mat canvas(side, side, CV_8UC4, cv::Scalar(235, 235, 235, 255));
  cv::Mat rgba;
  cv::cvtColor(m.rgb, rgba, cv::COLOR_RGB2RGBA);
  rgba.copyTo(canvas(cv::Rect((side - rgba.cols) / 2, (side - rgba.rows) / 2, rgba.cols, rgba.rows)));
  archive::RawBitmap bm;
  bm.width = bm.height = side;
  bm.samples_per_pixel = 4;
  bm.bits_per_sample = 8;
  bm.bytes_per_row = size_t(side) * 4;
  bm.has_alpha = true;
  bm.data.assign(canvas.data, canvas.data + canvas.total() * 4);
  canvas.release();
  return archive::MakeImage(bm);
}

}  // namespace velmora::ocrgen
