#include "ocr/ocr_engine.h"

#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/statistics.h"
#include "vision/filter/tuple_ops.h"
#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace velmora {

using namespace vision;

namespace {

// The band of flat gradients: threshold the derivative image from
// -limit * factor to limit * factor while the flat part still covers more
// than 30 % of the domain's rectangle. The factor is decremented by 0.1 in
// floating point, which runs 1.0, 0.9, ... 0.3 (eight passes).
void flat_gradient_region(const HObject& ho_Derivative, HObject* ho_Flat, const HTuple& hv_Length1,
                          const HTuple& hv_Length2, const HTuple& hv_GradientLimit) {
  HTuple hv_Area, hv_Factor, hv_Row, hv_Column;
  hv_Area = hv_Length1 * hv_Length2;
  // Every step's area is counted in one pass over the pixels; only the step
  // the loop ends on is thresholded. Same limits, same decisions.
  if (ho_Derivative.Count() == 1 && ho_Derivative.IsImage(0)) {
    std::vector<HTuple> lo, hi;
    std::vector<double> lo_d, hi_d;
    for (hv_Factor = 1.0; hv_Factor.D() >= 0.3; hv_Factor = hv_Factor - 0.1) {
      lo.push_back(-hv_GradientLimit * hv_Factor);
      hi.push_back(hv_GradientLimit * hv_Factor);
      lo_d.push_back(lo.back().D());
      hi_d.push_back(hi.back().D());
    }
    std::vector<int64_t> areas;
    const double limit = (hv_Length1 * hv_Length2 * 0.3).D();
    if (!lo.empty() && hv_Area.D() > limit &&
        detail::RealRangeAreas(ho_Derivative.ImageAt(0), lo_d, hi_d, &areas)) {
      size_t last = 0;
      while (last + 1 < areas.size() && double(areas[last]) > limit) ++last;
      threshold(ho_Derivative, ho_Flat, lo[last], hi[last]);
      return;
    }
  }
  hv_Factor = 1.0;
  while (hv_Factor.D() >= 0.3) {
    if (hv_Area.D() > (hv_Length1 * hv_Length2 * 0.3).D()) {
      threshold(ho_Derivative, ho_Flat, -hv_GradientLimit * hv_Factor, hv_GradientLimit * hv_Factor);
      area_center(*ho_Flat, &hv_Area, &hv_Row, &hv_Column);
    }
    hv_Factor = hv_Factor - 0.1;
  }
}

// Steps shared by both smoothing procedures: gray image, Gaussian
// derivatives, flat regions, zeroed gradients, Poisson integration. Each
// full-frame intermediate is let go once the last step that reads it is
// done, and the painting and the integration work in their inputs' planes:
// on a large image the derivatives, the field and the solve share two
// planes instead of holding seven.
void gen_height_field(HObject ho_Image, HObject* ho_HeightField, HObject* ho_Domain,
                      const HTuple& hv_Sigma, const HTuple& hv_GradientLimit) {
  HObject ho_GrayImage, ho_ImageX, ho_ImageY, ho_RegionX, ho_RegionY, ho_RegionOpeningX;
  HObject ho_RegionOpeningY, ho_FlatRegion, ho_ImageXPainted, ho_ImageYPainted, ho_VectorField;
  HTuple hv_Row, hv_Column, hv_Phi, hv_Length1, hv_Length2;

  rgb1_to_gray(ho_Image, &ho_GrayImage);
  ho_Image.Clear();
  get_domain(ho_GrayImage, ho_Domain);
  derivate_gauss(ho_GrayImage, &ho_ImageX, hv_Sigma, "x");
  derivate_gauss(ho_GrayImage, &ho_ImageY, hv_Sigma, "y");
  ho_GrayImage.Clear();
  smallest_rectangle2(*ho_Domain, &hv_Row, &hv_Column, &hv_Phi, &hv_Length1, &hv_Length2);

  flat_gradient_region(ho_ImageX, &ho_RegionX, hv_Length1, hv_Length2, hv_GradientLimit);
  // Across columns the flat part is opened less than across rows.
  opening_circle(ho_RegionX, &ho_RegionOpeningX, 1.5);
  flat_gradient_region(ho_ImageY, &ho_RegionY, hv_Length1, hv_Length2, hv_GradientLimit);
  opening_circle(ho_RegionY, &ho_RegionOpeningY, 2.5);
  intersection(ho_RegionOpeningX, ho_RegionOpeningY, &ho_FlatRegion);

  paint_region(ho_FlatRegion, std::move(ho_ImageX), &ho_ImageXPainted, 0, "fill");
  paint_region(ho_FlatRegion, std::move(ho_ImageY), &ho_ImageYPainted, 0, "fill");
  real_to_vector_field(ho_ImageYPainted, ho_ImageXPainted, &ho_VectorField, "vector_field_relative");
  ho_ImageXPainted.Clear();
  ho_ImageYPainted.Clear();
  reconstruct_height_field_from_gradient(std::move(ho_VectorField), ho_HeightField, "poisson", HTuple(),
                                         HTuple());
}

}  // namespace

void gen_image_smoothed(HObject ho_Image, HObject* ho_ImageSmoothed, const HTuple& hv_Sigma,
                        const HTuple& hv_GradientLimit) {
  HObject ho_HeightField, ho_Domain, ho_ImageScaled;
  HTuple hv_Min, hv_Max, hv_Range;

  gen_height_field(std::move(ho_Image), &ho_HeightField, &ho_Domain, hv_Sigma, hv_GradientLimit);
  min_max_gray(ho_HeightField, ho_HeightField, 10, &hv_Min, &hv_Max, &hv_Range);
  scale_image_range(std::move(ho_HeightField), &ho_ImageScaled, HTuple{hv_Min, 0}, HTuple{hv_Max, 255});
  convert_image_type(ho_ImageScaled, ho_ImageSmoothed, "byte");
}

void scale_image_range(HObject ho_Image, HObject* ho_ImageScaled, const HTuple& hv_Min,
                       const HTuple& hv_Max) {
  HObject ho_ImageWork, ho_SelectedChannel, ho_LowerRegion, ho_UpperRegion, ho_Result;
  HTuple hv_MinGray = hv_Min, hv_MaxGray = hv_Max;
  HTuple hv_LowerLimit, hv_UpperLimit, hv_Mult, hv_Add, hv_Channels, hv_MinValue, hv_MaxValue;
  HTuple hv_RangeValue, hv_Span, hv_Bounds, hv_LowerBound, hv_UpperBound;

  if (hv_MinGray.Length() == 2) {
    hv_LowerLimit = HTuple(hv_MinGray[1]);
    hv_MinGray = HTuple(hv_MinGray[0]);
  } else {
    hv_LowerLimit = 0.0;
  }
  if (hv_MaxGray.Length() == 2) {
    hv_UpperLimit = HTuple(hv_MaxGray[1]);
    hv_MaxGray = HTuple(hv_MaxGray[0]);
  } else {
    hv_UpperLimit = 255.0;
  }
  tuple_real(hv_UpperLimit - hv_LowerLimit, &hv_Span);
  hv_Mult = hv_Span / (hv_MaxGray - hv_MinGray);  // raises for an empty gray range
  hv_Add = -hv_Mult * hv_MinGray + hv_LowerLimit;
  // The input is scaled "in place": a working copy stands in for it (the
  // input's own planes when the caller handed it over).
  scale_image(std::move(ho_Image), &ho_ImageWork, hv_Mult, hv_Add);

  count_channels(ho_ImageWork, &hv_Channels);
  for (Hlong k = 1; k <= hv_Channels.L(0); ++k) {
    access_channel(ho_ImageWork, &ho_SelectedChannel, k);
    // After the last channel is taken the working image is not needed, and
    // the channel's plane is painted where it is.
    if (k == hv_Channels.L(0)) ho_ImageWork.Clear();
    min_max_gray(ho_SelectedChannel, ho_SelectedChannel, 0, &hv_MinValue, &hv_MaxValue, &hv_RangeValue);
    tuple_concat(hv_MinValue, hv_LowerLimit, &hv_Bounds);
    tuple_min(hv_Bounds, &hv_LowerBound);
    threshold(ho_SelectedChannel, &ho_LowerRegion, hv_LowerBound, hv_LowerLimit);
    paint_region(ho_LowerRegion, std::move(ho_SelectedChannel), &ho_SelectedChannel, hv_LowerLimit, "fill");
    tuple_concat(hv_UpperLimit, hv_MaxValue, &hv_Bounds);
    tuple_max(hv_Bounds, &hv_UpperBound);
    threshold(ho_SelectedChannel, &ho_UpperRegion, hv_UpperLimit, hv_UpperBound);
    paint_region(ho_UpperRegion, std::move(ho_SelectedChannel), &ho_SelectedChannel, hv_UpperLimit, "fill");
    if (k == 1) {
      copy_obj(ho_SelectedChannel, &ho_Result, 1, 1);
    } else {
      append_channel(ho_Result, ho_SelectedChannel, &ho_Result);
    }
  }
  *ho_ImageScaled = ho_Result;
}

void gen_image_smoothed_preview(HObject ho_Image, HObject* ho_ImageSmoothed,
                                const HTuple& hv_Sigma, const HTuple& hv_GradientLimit) {
  HObject ho_HeightField, ho_Domain, ho_ImageScaled;
  HTuple hv_Min0, hv_Max0, hv_Range0, hv_Step, hv_Min10, hv_Max10, hv_Range10;
  HTuple hv_AbsoluteHisto, hv_RelativeHisto, hv_First, hv_Last, hv_Selected, hv_Sum;

  gen_height_field(ho_Image, &ho_HeightField, &ho_Domain, hv_Sigma, hv_GradientLimit);
  min_max_gray(ho_HeightField, ho_HeightField, 0, &hv_Min0, &hv_Max0, &hv_Range0);
  hv_Step = hv_Range0 / 256;
  if (!(hv_Step.D() > 0)) {
    copy_image(ho_Image, ho_ImageSmoothed);
    return;
  }
  min_max_gray(ho_HeightField, ho_HeightField, 10, &hv_Min10, &hv_Max10, &hv_Range10);
  gray_histo(ho_Domain, ho_HeightField, &hv_AbsoluteHisto, &hv_RelativeHisto);
  tuple_floor((hv_Min10 - hv_Min0) / hv_Step, &hv_First);
  tuple_ceil((hv_Max10 - hv_Min0) / hv_Step, &hv_Last);
  // When the top tenth of the height field lies in its highest bin the range
  // ends one past the last bin; the bins summed are the same without it, and
  // the sum decides nothing (see below), so the range stops at the last bin
  // instead of failing the preview.
  HTuple hv_LastCandidates;
  tuple_concat(hv_Last, HTuple(hv_RelativeHisto.Length() - 1), &hv_LastCandidates);
  tuple_min(hv_LastCandidates, &hv_Last);
  tuple_select_range(hv_RelativeHisto, hv_First, hv_Last, &hv_Selected);
  tuple_sum(hv_Selected, &hv_Sum);
  // A relative histogram never sums to 10; the test is kept as it stands, and
  // the other branch leaves the output untouched.
  if (hv_Sum.D() < 10) {
    scale_image_range(std::move(ho_HeightField), &ho_ImageScaled, HTuple{hv_Min10, 0},
                      HTuple{hv_Max10, 255});
    convert_image_type(ho_ImageScaled, ho_ImageSmoothed, "byte");
  }
}

}  // namespace velmora
