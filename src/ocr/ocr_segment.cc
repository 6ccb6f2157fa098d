#include "ocr/ocr_segment.h"

#include <algorithm>
#include <cmath>

#include "ocr/ocr_engine.h"
#include "imaging/halcon_utility.h"
#include "vision/filter/filters.h"
#include "vision/filter/image_ops.h"
#include "vision/region/region_ops.h"

namespace velmora {

using vision::HObject;
using vision::HTuple;

HObject PrepareOcrImage(HObject ho_Image, double width, double height, double angle,
                        float stretch_width, float stretch_height) {
  HObject ho_Rect, ho_Reduced, ho_Cropped, ho_Rotated, ho_Zoomed, ho_Emph;
  // Region of interest: the nominal size, which may differ from the bitmap's.
  // Each step's input is let go once the next is made.
  vision::gen_rectangle1(&ho_Rect, HTuple(0), HTuple(0), HTuple(height - 1), HTuple(width - 1));
  vision::reduce_domain(ho_Image, ho_Rect, &ho_Reduced);
  ho_Image.Clear();
  vision::crop_domain(ho_Reduced, &ho_Cropped);
  ho_Reduced.Clear();
  vision::rotate_image(ho_Cropped, &ho_Rotated, HTuple(angle), HTuple("constant"));
  ho_Cropped.Clear();
  if (stretch_width != 1.0f || stretch_height != 1.0f) {
    vision::zoom_image_factor(ho_Rotated, &ho_Zoomed, HTuple(double(stretch_width)),
                              HTuple(double(stretch_height)), HTuple("weighted"));
  } else {
    ho_Zoomed = ho_Rotated;
  }
  ho_Rotated.Clear();
  vision::emphasize(ho_Zoomed, &ho_Emph, HTuple(3), HTuple(3), HTuple(1));
  return ho_Emph;
}

void MakePrintDark(HObject* ho_S) {
  HObject ho_Bin, ho_Domain;
  HTuple hv_TextArea, hv_AllArea, hv_R, hv_C;
  vision::bin_threshold(*ho_S, &ho_Bin);
  vision::area_center(ho_Bin, &hv_TextArea, &hv_R, &hv_C);
  vision::get_domain(*ho_S, &ho_Domain);
  vision::area_center(ho_Domain, &hv_AllArea, &hv_R, &hv_C);
  // Integer division, as the areas are integers.
  if (hv_AllArea.L() / 2 < hv_TextArea.L()) {
    HObject ho_Inv;
    vision::invert_image(*ho_S, &ho_Inv);
    *ho_S = ho_Inv;
  }
}

OcrLineSegmentation SegmentOcrLine(HObject ho_Image, const OcrPassParams& p) {
  OcrLineSegmentation out;
  HObject ho_S;
  gen_image_smoothed(PrepareOcrImage(std::move(ho_Image), p.width, p.height, p.angle, p.stretch, 1.0f), &ho_S,
                     HTuple(1.0), HTuple(3.0));
  MakePrintDark(&ho_S);
  HTuple hv_Width, hv_Height;
  vision::get_image_size(ho_S, &hv_Width, &hv_Height);

  HObject ho_T, ho_T2;
  vision::threshold(ho_S, &ho_T, HTuple(0), HTuple(80 + 10 * p.black_level));
  vision::fill_up_shape(ho_T, &ho_T2, HTuple("area"), HTuple(1), HTuple(5));

  // Border cleaning: computed as the procedure does, but nothing uses it.
  {
    HObject ho_Domain, ho_Border, ho_Dil, ho_Compl, ho_Inter, ho_Conn, ho_Sel, ho_Clean;
    const double h = hv_Height.D();
    vision::get_domain(ho_S, &ho_Domain);
    vision::boundary(ho_Domain, &ho_Border, HTuple("inner"));
    const long dil = std::max(1L, long(0.1 * h));
    vision::dilation_rectangle1(ho_Border, &ho_Dil, HTuple(dil), HTuple(dil));
    vision::complement(ho_Dil, &ho_Compl);
    vision::intersection(ho_Compl, ho_T2, &ho_Inter);
    vision::connection(ho_Inter, &ho_Conn);
    vision::select_shape(ho_Conn, &ho_Sel, HTuple::Strings({"area", "height"}), HTuple("and"),
                         HTuple::Reals({0.07 * (0.07 * h * h), 0.07 * h}),
                         HTuple::Reals({99999, 99999}));
    vision::union1(ho_Sel, &ho_Clean);
  }

  // Stroke measure: mean distance of the stroke centre lines from the ground.
  HObject ho_Skeleton, ho_Dist;
  HTuple hv_M, hv_Dev;
  vision::skeleton(ho_T2, &ho_Skeleton);
  vision::distance_transform(ho_T2, &ho_Dist, HTuple("city-block"), HTuple("true"), hv_Width,
                             hv_Height);
  vision::intensity(ho_Skeleton, ho_Dist, &hv_M, &hv_Dev);

  // Text lines.
  HObject ho_Closed, ho_Lines, ho_Wide;
  HTuple hv_N;
  vision::closing_rectangle1(ho_T2, &ho_Closed, HTuple(300), HTuple(1));
  vision::connection(ho_Closed, &ho_Lines);
  vision::count_obj(ho_Lines, &hv_N);
  vision::select_shape(ho_Lines, &ho_Wide, HTuple("width"), HTuple("and"), hv_Width / HTuple(2),
                       hv_Width);
  out.line_count = hv_N.L();
  out.smoothed = ho_S;
  if (out.line_count == 0) return out;

  // The tallest line; ties keep the earlier one.
  long chosen = 1;
  if (out.line_count > 1) {
    int best = -1;
    for (long i = 1; i <= out.line_count; ++i) {
      HObject ho_Line, ho_LineText;
      vision::select_obj(ho_Lines, &ho_Line, HTuple(i));
      vision::intersection(ho_Line, ho_T, &ho_LineText);
      Rect r;
      HRegion2Rect(ho_LineText, &r);
      const int h = r.bottom - r.top;
      if (i == 1 || h > best || best == 0) {
        chosen = i;
        best = h;
      }
    }
  }

  HObject ho_Line, ho_LineText, ho_VClosed, ho_X, ho_Opened, ho_OpenConn, ho_Y, ho_XY, ho_C0, ho_C;
  vision::select_obj(ho_Lines, &ho_Line, HTuple(chosen));
  vision::intersection(ho_Line, ho_T, &ho_LineText);
  vision::closing_rectangle1(ho_LineText, &ho_VClosed, HTuple(1), HTuple(300));
  vision::connection(ho_VClosed, &ho_X);
  const long open_h = std::lround(hv_M.D());
  vision::opening_rectangle1(ho_X, &ho_Opened, HTuple(1), HTuple(open_h));
  vision::connection(ho_Opened, &ho_OpenConn);
  vision::select_shape(ho_OpenConn, &ho_Y, HTuple("area"), HTuple("and"), HTuple(30),
                       HTuple(99999));
  vision::intersection(ho_X, ho_Y, &ho_XY);
  vision::intersection(ho_XY, ho_T, &ho_C0);
  vision::sort_region(ho_C0, &ho_C, HTuple("first_point"), HTuple("true"), HTuple("column"));

  // Count correction: cut the line into equal columns when the number of
  // characters found is not the expected one.
  HTuple hv_Count;
  vision::count_obj(ho_C, &hv_Count);
  if (p.expected_count > 0 && hv_Count.L() != p.expected_count) {
    HObject ho_Union, ho_Filled, ho_Parts, ho_PartConn, ho_PartSel, ho_P1, ho_P2, ho_Circ, ho_Final;
    HTuple hv_R1, hv_C1, hv_R2, hv_C2;
    vision::union1(ho_C, &ho_Union);
    vision::smallest_rectangle1(ho_Union, &hv_R1, &hv_C1, &hv_R2, &hv_C2);
    vision::fill_up(ho_Union, &ho_Filled);
    const HTuple hv_Dist = (hv_C2 - hv_C1) / HTuple(p.expected_count);
    vision::partition_dynamic(ho_Filled, &ho_Parts, hv_Dist, HTuple(25));
    vision::connection(ho_Parts, &ho_PartConn);
    vision::select_shape(ho_PartConn, &ho_PartSel, HTuple("area"), HTuple("and"), HTuple(10),
                         HTuple(99999));
    vision::intersection(ho_Parts, ho_PartSel, &ho_P1);
    vision::intersection(ho_P1, ho_C0, &ho_P2);
    vision::closing_circle(ho_P2, &ho_Circ, HTuple(3.5));
    vision::select_shape(ho_Circ, &ho_Final, HTuple("area"), HTuple("and"), HTuple(1),
                         HTuple(99999));
    ho_C = ho_Final;
  }
  out.characters = ho_C;
  return out;
}

}  // namespace velmora
