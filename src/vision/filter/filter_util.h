#pragma once
// Helpers shared by the image operators of this area: plane conversions.
// Control parameters are read with vision/core/param.h.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "vision/core/exception.h"
#include "vision/core/image.h"
#include "vision/core/object.h"
#include "vision/core/param.h"
#include "vision/core/tuple.h"

namespace vision::filter_detail {

// Solves the Poisson equation with Neumann borders in place (f: CV_32F,
// the right-hand side in, the solution with zero mean out). The pivots of
// the column sweeps are kept whole when they take at most
// `whole_plane_bytes`, else in checkpoint rows and computed again; both
// ways give the same bits.
void SolveNeumannPoisson(cv::Mat& f, size_t whole_plane_bytes = size_t(4) << 20);
// The same, with the cosine transform down the columns (for short ones).
void SolveNeumannPoissonByColumns(cv::Mat& f);

// Every element of `obj` must be an image; returns them in order.
std::vector<const Image*> Images(const HObject& obj, const char* op);

// Value range of an integer pixel type (real: +-FLT_MAX).
double TypeMin(PixelType t);
double TypeMax(PixelType t);

// Writes the values of a plane of any depth into a plane of the given type:
// integer types round to nearest (halves away from zero) and clip to their
// range; real keeps the values.
cv::Mat FromDouble(const cv::Mat& values, PixelType t);
// Same, truncating toward zero as the type conversion operator does.
cv::Mat FromDoubleTruncate(const cv::Mat& values, PixelType t);

inline cv::Mat ToFloat(const cv::Mat& plane) {
  cv::Mat f;
  plane.convertTo(f, CV_32F);
  return f;
}
inline cv::Mat ToDouble(const cv::Mat& plane) {
  cv::Mat d;
  plane.convertTo(d, CV_64F);
  return d;
}

// Image with the same geometry and domain as `like`, new planes.
inline Image Derived(const Image& like, PixelType type, std::vector<cv::Mat> planes) {
  Image out;
  out.width = like.width;
  out.height = like.height;
  out.type = type;
  out.planes = std::move(planes);
  out.domain = like.domain;
  return out;
}

inline void RequireNotVectorField(const Image& img, const char* op) {
  if (img.type == PixelType::VectorField)
    throw HException(op, "Image type vector_field is not supported", kErrWrongObject);
}

// Sampled Gaussian (sum 1) and its first derivative as a correlation kernel
// that answers 1 on a ramp of slope 1.
inline void GaussKernels(double sigma, cv::Mat* smooth, cv::Mat* deriv) {
  const int r = std::max(1, int(std::ceil(4.0 * sigma)));
  cv::Mat g(2 * r + 1, 1, CV_64F), d(2 * r + 1, 1, CV_64F);
  double sum = 0, moment = 0;
  for (int i = -r; i <= r; ++i) {
    const double v = std::exp(-0.5 * i * i / (sigma * sigma));
    g.at<double>(i + r) = v;
    sum += v;
    moment += double(i) * i * v;
  }
  for (int i = -r; i <= r; ++i) d.at<double>(i + r) = i * g.at<double>(i + r) / moment;
  g /= sum;
  g.convertTo(*smooth, CV_32F);
  d.convertTo(*deriv, CV_32F);
}

}  // namespace vision::filter_detail
