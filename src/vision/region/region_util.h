#pragma once
// Helpers shared by the region operators (not part of the public interface).
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "vision/core/object.h"
#include "vision/core/region.h"
#include "vision/core/tuple.h"

namespace vision::detail {

// Control parameter readers: element i (or the single element, broadcast) of a
// tuple, raising the operator's exception with the parameter name.
double ParamDouble(const HTuple& t, const char* op, const char* name, Hlong i = 0);
Hlong ParamInt(const HTuple& t, const char* op, const char* name, Hlong i = 0);
std::string ParamString(const HTuple& t, const char* op, const char* name, Hlong i = 0);
// Length of a parameter that may be given once for all or once per element.
void CheckBroadcast(const HTuple& t, Hlong n, const char* op, const char* name);

// Every region of an object list (images contribute their domains).
std::vector<Region> RegionsOf(const HObject& obj, const char* op);
HObject ObjectOf(std::vector<Region> regions);

// Connected components, ordered by their first run; neighborhood 4 or 8.
std::vector<Region> Components(const Region& r, int neighborhood);
// Holes: the components of the background, in the neighbourhood dual to the
// foreground's, that do not reach the outside.
std::vector<Region> Holes(const Region& r, int foreground_neighborhood);
Region FillHoles(const Region& r, int foreground_neighborhood);

// Rows shifted by dr (positive down).
Region ShiftRows(const Region& r, int dr);
// Every run widened by left/right columns (negative values shrink it; runs that
// vanish are dropped).
Region GrowRuns(const Region& r, int left, int right);

// Raw and central second moments over the pixel centres.
struct Moments {
  double area = 0, row = 0, col = 0;   // area, centre of gravity
  double mrr = 0, mcc = 0, mrc = 0;    // central moments divided by the area
};
Moments ComputeMoments(const Region& r);
// Equivalent ellipse: half axes and angle as the reference's elliptic_axis.
void EllipticAxis(const Moments& m, double* ra, double* rb, double* phi);

// Convex hull of the pixel centres (x = column, y = row).
std::vector<cv::Point2d> HullPoints(const Region& r);

// Raises when a rows x cols raster would not fit in memory sensibly.
void CheckRasterSize(int64_t rows, int64_t cols, const char* op);

// Rasterised into a mask with a one pixel margin; (0,0) of the mask lies at
// (*row0, *col0).
cv::Mat MaskWithMargin(const Region& r, int margin, int* row0, int* col0, const char* op);

}  // namespace vision::detail
