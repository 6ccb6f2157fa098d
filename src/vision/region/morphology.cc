// Morphology on runs (rectangles and discs), skeleton and distance transform.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include <opencv2/imgproc.hpp>

#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace vision {

using detail::GrowRuns;
using detail::ParamDouble;
using detail::ParamInt;
using detail::RegionsOf;
using detail::ShiftRows;

namespace {

// Union of the region shifted down by 0..n-1 rows, by doubling: O(runs log n).
Region UnionOfShifts(const Region& r, int n) {
  Region y = r;
  int covered = 1;
  while (covered * 2 <= n) {
    y = y.Union(ShiftRows(y, covered));
    covered *= 2;
  }
  if (covered < n) y = y.Union(ShiftRows(y, n - covered));
  return y;
}

// Intersection of the region shifted up by 0..n-1 rows.
Region IntersectionOfShifts(const Region& r, int n) {
  Region y = r;
  int covered = 1;
  while (covered * 2 <= n && !y.Empty()) {
    y = y.Intersection(ShiftRows(y, -covered));
    covered *= 2;
  }
  if (covered < n && !y.Empty()) y = y.Intersection(ShiftRows(y, -(n - covered)));
  return y;
}

// The rectangle reaches (w-1)/2 columns left and w/2 right of its reference
// point, and (h-1)/2 rows up and h/2 down.
Region DilateRect(const Region& r, int w, int h) {
  if (r.Empty()) return r;
  Region g = GrowRuns(r, (w - 1) / 2, w / 2);
  return ShiftRows(UnionOfShifts(g, h), -((h - 1) / 2));
}

Region ErodeRect(const Region& r, int w, int h) {
  if (r.Empty()) return r;
  Region g = GrowRuns(r, -((w - 1) / 2), -(w / 2));
  return ShiftRows(IntersectionOfShifts(g, h), (h - 1) / 2);
}

void RectSize(const HTuple& width, const HTuple& height, const char* op, int* w, int* h) {
  Hlong ww = ParamInt(width, op, "Width"), hh = ParamInt(height, op, "Height");
  if (ww < 1 || hh < 1 || ww > (1 << 16) || hh > (1 << 16))
    throw HException(op, "Wrong size of the structuring rectangle", kErrWrongParamValue);
  *w = int(ww);
  *h = int(hh);
}

// One row of a structuring element: columns lo..hi at row offset dr.
struct ElementRow { int dr, lo, hi; };

// The disc's rows. A radius like 1.5 or 3.5 gives an odd diameter centred on
// the reference point (pixel centres within the radius); an integer radius
// gives an even diameter whose centre lies half a pixel right of and below the
// reference point, the translation the reference warns about for such radii.
std::vector<ElementRow> DiscRows(const HTuple& radius, const char* op) {
  double r = ParamDouble(radius, op, "Radius");
  if (r < 0.5 || r > 4096)
    throw HException(op, "Wrong value of Radius: 0.5 or more expected", kErrWrongParamValue);
  const bool even = std::fabs(r - std::round(r)) < 1e-9;
  const double c = even ? 0.5 : 0.0;
  const int k = int(std::ceil(r + 1));
  std::vector<ElementRow> rows;
  for (int dr = -k; dr <= k; ++dr) {
    double y = dr - c, rest = r * r - y * y + 1e-9;
    if (rest < 0) continue;
    double half = std::sqrt(rest);
    int lo = int(std::ceil(c - half)), hi = int(std::floor(c + half));
    if (lo <= hi) rows.push_back({dr, lo, hi});
  }
  return rows;
}

Region DilateDisc(const Region& r, const std::vector<ElementRow>& disc) {
  if (r.Empty()) return r;
  // Union of the region's rows widened by each element row, merged pairwise.
  std::vector<Region> parts;
  for (const ElementRow& e : disc) parts.push_back(ShiftRows(GrowRuns(r, -e.lo, e.hi), e.dr));
  while (parts.size() > 1) {
    std::vector<Region> next;
    for (size_t i = 0; i + 1 < parts.size(); i += 2) next.push_back(parts[i].Union(parts[i + 1]));
    if (parts.size() % 2) next.push_back(std::move(parts.back()));
    parts = std::move(next);
  }
  return std::move(parts[0]);
}

Region ErodeDisc(const Region& r, const std::vector<ElementRow>& disc) {
  if (r.Empty()) return r;
  // A pixel stays when, for every element row, row + dr holds columns
  // col + lo .. col + hi.
  std::optional<Region> y;
  for (const ElementRow& e : disc) {
    Region part = ShiftRows(GrowRuns(r, e.lo, -e.hi), -e.dr);
    y = y ? y->Intersection(part) : std::move(part);
    if (y->Empty()) break;
  }
  return y ? std::move(*y) : Region();
}

template <class F>
void ForEach(const HObject& in, HObject* out, const char* op, F f) {
  HObject res;
  for (const Region& r : RegionsOf(in, op)) res.Push(f(r));
  *out = std::move(res);
}

}  // namespace

void dilation_rectangle1(const HObject& region, HObject* region_dilation, const HTuple& width,
                         const HTuple& height) {
  int w, h;
  RectSize(width, height, "dilation_rectangle1", &w, &h);
  ForEach(region, region_dilation, "dilation_rectangle1", [&](const Region& r) { return DilateRect(r, w, h); });
}

void erosion_rectangle1(const HObject& region, HObject* region_erosion, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "erosion_rectangle1", &w, &h);
  ForEach(region, region_erosion, "erosion_rectangle1", [&](const Region& r) { return ErodeRect(r, w, h); });
}

void opening_rectangle1(const HObject& region, HObject* region_opening, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "opening_rectangle1", &w, &h);
  ForEach(region, region_opening, "opening_rectangle1",
          [&](const Region& r) { return DilateRect(ErodeRect(r, w, h), w, h); });
}

void closing_rectangle1(const HObject& region, HObject* region_closing, const HTuple& width,
                        const HTuple& height) {
  int w, h;
  RectSize(width, height, "closing_rectangle1", &w, &h);
  ForEach(region, region_closing, "closing_rectangle1",
          [&](const Region& r) { return ErodeRect(DilateRect(r, w, h), w, h); });
}

void dilation_circle(const HObject& region, HObject* region_dilation, const HTuple& radius) {
  auto half = DiscRows(radius, "dilation_circle");
  ForEach(region, region_dilation, "dilation_circle", [&](const Region& r) { return DilateDisc(r, half); });
}

void erosion_circle(const HObject& region, HObject* region_erosion, const HTuple& radius) {
  auto half = DiscRows(radius, "erosion_circle");
  ForEach(region, region_erosion, "erosion_circle", [&](const Region& r) { return ErodeDisc(r, half); });
}

void opening_circle(const HObject& region, HObject* region_opening, const HTuple& radius) {
  auto half = DiscRows(radius, "opening_circle");
  ForEach(region, region_opening, "opening_circle",
          [&](const Region& r) { return DilateDisc(ErodeDisc(r, half), half); });
}

void closing_circle(const HObject& region, HObject* region_closing, const HTuple& radius) {
  auto half = DiscRows(radius, "closing_circle");
  ForEach(region, region_closing, "closing_circle",
          [&](const Region& r) { return ErodeDisc(DilateDisc(r, half), half); });
}

namespace {

// Zhang-Suen thinning of a mask with a zero border; keeps 8-connectivity.
// Only the remaining foreground pixels are visited in each sub-iteration.
void Thin(cv::Mat& m) {
  std::vector<cv::Point> fg, keep, del;
  for (int y = 1; y < m.rows - 1; ++y) {
    const uint8_t* p = m.ptr<uint8_t>(y);
    for (int x = 1; x < m.cols - 1; ++x)
      if (p[x]) fg.emplace_back(x, y);
  }
  // Removal decision of both sub-iterations for every 8-neighbourhood, bit k
  // holding p2..p9 clockwise from the pixel above.
  static const auto lut = [] {
    std::array<std::array<bool, 256>, 2> t{};
    for (int code = 0; code < 256; ++code) {
      int p[10];
      for (int k = 0; k < 8; ++k) p[k + 2] = (code >> k) & 1;
      int b = 0, a = 0;
      for (int k = 2; k <= 9; ++k) {
        b += p[k];
        a += !p[k] && p[k == 9 ? 2 : k + 1];
      }
      bool base = b >= 2 && b <= 6 && a == 1;
      t[0][size_t(code)] = base && !(p[2] && p[4] && p[6]) && !(p[4] && p[6] && p[8]);
      t[1][size_t(code)] = base && !(p[2] && p[4] && p[8]) && !(p[2] && p[6] && p[8]);
    }
    return t;
  }();
  bool changed = true;
  while (changed) {
    changed = false;
    for (int pass = 0; pass < 2; ++pass) {
      del.clear();
      keep.clear();
      for (const cv::Point& q : fg) {
        const uint8_t* up = m.ptr<uint8_t>(q.y - 1) + q.x;
        const uint8_t* mid = m.ptr<uint8_t>(q.y) + q.x;
        const uint8_t* dn = m.ptr<uint8_t>(q.y + 1) + q.x;
        int code = (up[0] != 0) | (up[1] != 0) << 1 | (mid[1] != 0) << 2 | (dn[1] != 0) << 3 |
                   (dn[0] != 0) << 4 | (dn[-1] != 0) << 5 | (mid[-1] != 0) << 6 | (up[-1] != 0) << 7;
        bool removable = lut[pass][code];
        (removable ? del : keep).push_back(q);
      }
      for (const auto& q : del) m.at<uint8_t>(q) = 0;
      if (!del.empty()) changed = true;
      fg.swap(keep);
    }
  }
}


// City-block (4-neighbourhood) or chessboard (8) distance of every measured
// (non-zero) pixel to the nearest source pixel (zero), outside the image
// counting as a source when `outside_source`.
void ChamferDistance(const cv::Mat& inside, bool eight, bool outside_source, cv::Mat* dist) {
  const int h = inside.rows, w = inside.cols;
  const int32_t inf = std::numeric_limits<int32_t>::max() / 2;
  const int32_t border = outside_source ? 0 : inf;
  cv::Mat d(h, w, CV_32S);
  for (int y = 0; y < h; ++y) {
    const uint8_t* in = inside.ptr<uint8_t>(y);
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) p[x] = in[x] ? inf : 0;
  }
  auto at = [&](int y, int x) -> int32_t {
    return (y < 0 || y >= h || x < 0 || x >= w) ? border : d.at<int32_t>(y, x);
  };
  for (int y = 0; y < h; ++y) {
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = 0; x < w; ++x) {
      if (!p[x]) continue;
      int32_t m = std::min(at(y, x - 1), at(y - 1, x));
      if (eight) m = std::min({m, at(y - 1, x - 1), at(y - 1, x + 1)});
      p[x] = std::min(p[x], m + 1);
    }
  }
  for (int y = h - 1; y >= 0; --y) {
    int32_t* p = d.ptr<int32_t>(y);
    for (int x = w - 1; x >= 0; --x) {
      if (!p[x]) continue;
      int32_t m = std::min(at(y, x + 1), at(y + 1, x));
      if (eight) m = std::min({m, at(y + 1, x + 1), at(y + 1, x - 1)});
      p[x] = std::min(p[x], m + 1);
    }
  }
  d.setTo(0, d >= inf);  // no source at all
  *dist = d;
}

// Octagonal distance: breadth-first growth from the sources that alternates
// the 4-neighbourhood (odd steps) and the 8-neighbourhood (even steps).
void OctagonalDistance(const cv::Mat& inside, bool outside_source, cv::Mat* dist) {
  const int h = inside.rows, w = inside.cols;
  cv::Mat d(h, w, CV_32S, cv::Scalar(0));
  cv::Mat done(h, w, CV_8U, cv::Scalar(0));
  std::vector<cv::Point> frontier, next;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if (!inside.at<uint8_t>(y, x)) {
        done.at<uint8_t>(y, x) = 1;
        frontier.emplace_back(x, y);
      }
  for (int step = 1;; ++step) {
    next.clear();
    const bool n8 = step % 2 == 0;
    auto visit = [&](int x, int y) {
      if (x < 0 || y < 0 || x >= w || y >= h || done.at<uint8_t>(y, x)) return;
      done.at<uint8_t>(y, x) = 1;
      d.at<int32_t>(y, x) = step;
      next.emplace_back(x, y);
    };
    for (const auto& p : frontier) {
      visit(p.x + 1, p.y), visit(p.x - 1, p.y), visit(p.x, p.y + 1), visit(p.x, p.y - 1);
      if (n8) visit(p.x + 1, p.y + 1), visit(p.x - 1, p.y - 1), visit(p.x + 1, p.y - 1), visit(p.x - 1, p.y + 1);
    }
    if (step == 1 && outside_source) {
      // The ring just outside the image reaches the border pixels first.
      for (int x = 0; x < w; ++x) visit(x, 0), visit(x, h - 1);
      for (int y = 0; y < h; ++y) visit(0, y), visit(w - 1, y);
    }
    if (next.empty()) break;
    std::swap(frontier, next);
  }
  *dist = d;
}

}  // namespace

void skeleton(const HObject& region, HObject* skeleton_out) {
  ForEach(region, skeleton_out, "skeleton", [](const Region& r) {
    if (r.Empty()) return r;
    int r0, c0;
    cv::Mat m = detail::MaskWithMargin(r, 1, &r0, &c0, "skeleton");
    Thin(m);
    return Region::FromMask(m, r0, c0);
  });
}

void distance_transform(const HObject& region, HObject* distance_image, const HTuple& metric,
                        const HTuple& foreground, const HTuple& width, const HTuple& height) {
  constexpr const char* op = "distance_transform";
  std::string met = detail::ParamString(metric, op, "Metric");
  std::string fg = detail::ParamString(foreground, op, "Foreground");
  if (met != "city-block" && met != "chessboard" && met != "octagonal" && met != "euclidean")
    throw HException(op, "Wrong value of Metric '" + met + "'", kErrWrongParamValue);
  if (fg != "true" && fg != "false")
    throw HException(op, "Wrong value of Foreground: 'true' or 'false' expected", kErrWrongParamValue);
  Hlong w = ParamInt(width, op, "Width"), h = ParamInt(height, op, "Height");
  if (w < 1 || h < 1 || w > 32768 || h > 32768)
    throw HException(op, "Wrong image size", kErrWrongParamValue);
  detail::CheckRasterSize(h, w, op);
  HObject out;
  for (const Region& r : RegionsOf(region, op)) {
    cv::Mat mask = r.ToMask(int(h), int(w));
    // Measured pixels are the region (or its complement); the sources are the
    // others. Outside the image counts as a source for the foreground, as the
    // region ends there.
    cv::Mat inside = fg == "true" ? mask : (255 - mask);
    cv::Mat dist(int(h), int(w), CV_32S, cv::Scalar(0));
    if (met == "euclidean") {
      cv::Mat padded;
      cv::copyMakeBorder(inside, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, fg == "true" ? 0 : 255);
      cv::Mat d;
      cv::distanceTransform(padded, d, cv::DIST_L2, cv::DIST_MASK_PRECISE);
      d(cv::Rect(1, 1, int(w), int(h))).convertTo(dist, CV_32S);  // rounds to nearest
      if (fg == "false" && cv::countNonZero(inside) == inside.total()) dist.setTo(0);
    } else if (met != "octagonal") {
      // Two chamfer passes are exact for the 4- and 8-neighbourhood metrics.
      ChamferDistance(inside, met == "chessboard", fg == "true", &dist);
    } else {
      OctagonalDistance(inside, fg == "true", &dist);
    }
    Image img = Image::FromPlanes(PixelType::Int4, {dist});
    out.Push(std::move(img));
  }
  *distance_image = std::move(out);
}

}  // namespace vision
