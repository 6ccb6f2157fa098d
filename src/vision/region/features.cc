// Shape features of regions, selection and sorting by them.
#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <optional>

#include <opencv2/imgproc.hpp>

#include "vision/region/features.h"
#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace vision {

namespace detail {

namespace {

// Minimum-area rectangle of a convex polygon by rotating calipers: one side of
// the optimum lies on a hull edge.
void MinAreaRect(const std::vector<cv::Point2d>& hull, const Moments& m, double* row, double* col,
                 double* phi, double* len1, double* len2) {
  if (hull.size() <= 1) {
    *row = hull.empty() ? 0 : hull[0].y;
    *col = hull.empty() ? 0 : hull[0].x;
    *phi = *len1 = *len2 = 0;
    return;
  }
  double best = std::numeric_limits<double>::infinity();
  double bu0 = 0, bu1 = 0, bv0 = 0, bv1 = 0, bux = 1, buy = 0;
  const size_t n = hull.size();
  // Axis directions to try: every hull edge, and the column axis first so that
  // ties (squares, axis-parallel shapes) keep the unrotated answer.
  std::vector<cv::Point2d> dirs{{1, 0}};
  for (size_t i = 0; i < n; ++i) {
    cv::Point2d d = hull[(i + 1) % n] - hull[i];
    double len = std::hypot(d.x, d.y);
    if (len > 0) dirs.push_back(d / len);
  }
  for (const auto& u : dirs) {
    double u0 = 1e300, u1 = -1e300, v0 = 1e300, v1 = -1e300;
    for (const auto& p : hull) {
      double a = p.x * u.x + p.y * u.y, b = -p.x * u.y + p.y * u.x;
      u0 = std::min(u0, a);
      u1 = std::max(u1, a);
      v0 = std::min(v0, b);
      v1 = std::max(v1, b);
    }
    // Degenerate (collinear) hulls have zero area for several directions;
    // the perimeter breaks those ties toward the tight fit.
    double area = (u1 - u0) * (v1 - v0) + 1e-9 * ((u1 - u0) + (v1 - v0));
    if (area < best - 1e-9) {
      best = area;
      bu0 = u0, bu1 = u1, bv0 = v0, bv1 = v1, bux = u.x, buy = u.y;
    }
  }
  double cu = (bu0 + bu1) / 2, cv = (bv0 + bv1) / 2;
  *col = cu * bux - cv * buy;
  *row = cu * buy + cv * bux;
  double lu = (bu1 - bu0) / 2, lv = (bv1 - bv0) / 2;
  // Direction of the long side in image coordinates (x = column, y = row).
  double dx = bux, dy = buy;
  if (lv > lu + 1e-12) {
    std::swap(lu, lv);
    dx = -buy;
    dy = bux;
  }
  double p = std::atan2(-dy, dx);  // rows point down: counter-clockwise is positive
  if (p > M_PI / 2 + 1e-12) p -= M_PI;
  if (p <= -M_PI / 2 + 1e-12) p += M_PI;
  *phi = p;
  *len1 = lu;
  *len2 = lv;
  (void)m;
}

}  // namespace

// Lazily computed intermediate results of one region.
struct FeatureCache::Impl {
  const Region& r;
  std::optional<Moments> m;
  std::optional<std::vector<cv::Point2d>> hull;
  std::optional<std::vector<Region>> holes, comps;
  int nb;
  explicit Impl(const Region& reg) : r(reg), nb(SystemNeighborhood()) {}

  const Moments& M() {
    if (!m) m = ComputeMoments(r);
    return *m;
  }
  const std::vector<cv::Point2d>& Hull() {
    if (!hull) hull = HullPoints(r);
    return *hull;
  }
  const std::vector<Region>& HoleList() {
    if (!holes) holes = Holes(r, nb);
    return *holes;
  }
  const std::vector<Region>& Comps() {
    if (!comps) comps = Components(r, nb);
    return *comps;
  }
  double MaxDistFromCentre() {
    double best = 0;
    for (const auto& p : Hull()) best = std::max(best, std::hypot(p.x - M().col, p.y - M().row));
    return best;
  }
  double ContLength(const char* op) {
    if (r.Empty()) return 0;
    int r0, c0;
    cv::Mat mask = MaskWithMargin(r, 1, &r0, &c0, op);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    double len = 0;
    for (const auto& c : contours)
      if (c.size() > 1) len += cv::arcLength(c, true);
    return len;
  }
  double HullArea(const char* op) {
    const auto& h = Hull();
    if (h.size() <= 2) return M().area;
    int r1, c1, r2, c2;
    r.BoundingBox(&r1, &c1, &r2, &c2);
    CheckRasterSize(int64_t(r2) - r1 + 1, int64_t(c2) - c1 + 1, op);
    cv::Mat mask = cv::Mat::zeros(r2 - r1 + 1, c2 - c1 + 1, CV_8UC1);
    std::vector<cv::Point> pts;
    for (const auto& p : h) pts.emplace_back(int(std::lround(p.x)) - c1, int(std::lround(p.y)) - r1);
    cv::fillConvexPoly(mask, pts, 255, cv::LINE_8);
    return std::max(double(cv::countNonZero(mask)), M().area);
  }
  double InnerRadius(const char* op) {
    if (r.Empty()) return 0;
    int r0, c0;
    cv::Mat mask = MaskWithMargin(r, 1, &r0, &c0, op);
    cv::Mat dist;
    cv::distanceTransform(mask, dist, cv::DIST_L2, cv::DIST_MASK_PRECISE);
    double mx = 0;
    cv::minMaxLoc(dist, nullptr, &mx);
    return std::max(0.0, mx - 1.0);
  }
  double Rectangularity(const char* op) {
    const Moments& mm = M();
    if (mm.area <= 0) return 0;
    double ra, rb, phi;
    EllipticAxis(mm, &ra, &rb, &phi);
    // A rectangle of half length a has variance a^2 / 3 along that side.
    double a = std::sqrt(3.0) * ra / 2.0, b = std::sqrt(3.0) * rb / 2.0;
    double cu = std::cos(phi), su = -std::sin(phi);  // long axis (column, row)
    double ext = std::ceil(std::hypot(a, b)) + 1;
    CheckRasterSize(int64_t(2 * ext + 1), int64_t(2 * ext + 1), op);
    int rr1 = int(std::floor(mm.row - ext)), rr2 = int(std::ceil(mm.row + ext));
    int cc1 = int(std::floor(mm.col - ext)), cc2 = int(std::ceil(mm.col + ext));
    double in_both = 0, rect_only = 0;
    for (int y = rr1; y <= rr2; ++y)
      for (int x = cc1; x <= cc2; ++x) {
        double dx = x - mm.col, dy = y - mm.row;
        double u = dx * cu + dy * su, v = -dx * su + dy * cu;
        if (std::fabs(u) <= a + 1e-6 && std::fabs(v) <= b + 1e-6) {
          if (r.Contains(y, x)) in_both += 1;
          else rect_only += 1;
        }
      }
    double region_only = mm.area - in_both;
    return std::max(0.0, 1.0 - (rect_only + region_only) / mm.area);
  }
};

FeatureCache::FeatureCache(const Region& r) : impl_(std::make_unique<Impl>(r)) {}
FeatureCache::~FeatureCache() = default;

double FeatureCache::Get(const std::string& f, const char* op) {
  Impl& c = *impl_;
  const Region& r = c.r;
  int r1, c1, r2, c2;
  r.BoundingBox(&r1, &c1, &r2, &c2);
  const bool empty = r.Empty();
  if (f == "area") return c.M().area;
  if (f == "row") return c.M().row;
  if (f == "column") return c.M().col;
  if (f == "row1") return r1;
  if (f == "column1") return c1;
  if (f == "row2") return r2;
  if (f == "column2") return c2;
  if (f == "width") return empty ? 0 : c2 - c1 + 1;
  if (f == "height") return empty ? 0 : r2 - r1 + 1;
  if (f == "ratio") return empty ? 0 : double(r2 - r1 + 1) / double(c2 - c1 + 1);
  if (f == "ra" || f == "rb" || f == "phi" || f == "anisometry" || f == "bulkiness" ||
      f == "struct_factor" || f == "orientation") {
    if (empty) return 0;
    double ra, rb, phi;
    EllipticAxis(c.M(), &ra, &rb, &phi);
    if (f == "ra") return ra;
    if (f == "rb") return rb;
    if (f == "phi") return phi;
    double aniso = rb > 0 ? ra / rb : 0;
    double bulk = M_PI * ra * rb / c.M().area;
    if (f == "anisometry") return aniso;
    if (f == "bulkiness") return bulk;
    if (f == "struct_factor") return aniso * bulk - 1.0;
    // orientation: the farthest contour point decides which half of the axis.
    double best = -1, px = 0;
    for (const auto& p : c.Hull()) {
      double d = std::hypot(p.x - c.M().col, p.y - c.M().row);
      if (d > best + 1e-9) best = d, px = p.x;
    }
    double o = phi;
    if (px < c.M().col - 1e-9) o += M_PI;
    if (o > M_PI) o -= 2 * M_PI;
    return o;
  }
  if (f == "circularity") {
    if (empty) return 0;
    double mx = c.MaxDistFromCentre();
    if (mx <= 0) return 1;
    return std::min(1.0, c.M().area / (mx * mx * M_PI));
  }
  if (f == "contlength") return c.ContLength(op);
  if (f == "compactness") {
    if (empty) return 0;
    double l = c.ContLength(op);
    return l * l / (4.0 * M_PI * c.M().area);
  }
  if (f == "convexity") return empty ? 0 : c.M().area / c.HullArea(op);
  if (f == "rectangularity") return c.Rectangularity(op);
  if (f == "outer_radius") {
    if (empty) return 0;
    std::vector<cv::Point2f> pts;
    for (const auto& p : c.Hull()) pts.emplace_back(float(p.x), float(p.y));
    cv::Point2f centre;
    float rad = 0;
    cv::minEnclosingCircle(pts, centre, rad);
    return rad;
  }
  if (f == "inner_radius") return c.InnerRadius(op);
  if (f == "max_diameter") {
    double best = 0;
    const auto& h = c.Hull();
    for (size_t i = 0; i < h.size(); ++i)
      for (size_t j = i + 1; j < h.size(); ++j) best = std::max(best, std::hypot(h[i].x - h[j].x, h[i].y - h[j].y));
    return best;
  }
  if (f == "holes_num") return double(c.HoleList().size());
  if (f == "area_holes") {
    double a = 0;
    for (const auto& h : c.HoleList()) a += double(h.Area());
    return a;
  }
  if (f == "connect_num") return double(c.Comps().size());
  if (f == "euler_number") return double(c.Comps().size()) - double(c.HoleList().size());
  throw HException(op, "Unknown shape feature '" + f + "'", kErrWrongParamValue);
}

void SmallestRectangle2(const Region& r, double* row, double* col, double* phi, double* len1,
                        double* len2) {
  Moments m = ComputeMoments(r);
  MinAreaRect(HullPoints(r), m, row, col, phi, len1, len2);
}

}  // namespace detail

void area_center(const HObject& regions, HTuple* area, HTuple* row, HTuple* column) {
  std::vector<Hlong> a;
  std::vector<double> rr, cc;
  // No copies of the regions: this runs after every threshold of a loop.
  for (long i = 0; i < regions.Count(); ++i) {
    double n, row, col;
    detail::AreaCenter(regions.RegionOrDomainAt(i, "area_center"), &n, &row, &col);
    a.push_back(Hlong(n));
    rr.push_back(row);
    cc.push_back(col);
  }
  *area = HTuple::Ints(a);
  *row = HTuple::Reals(rr);
  *column = HTuple::Reals(cc);
}

void smallest_rectangle1(const HObject& regions, HTuple* row1, HTuple* column1, HTuple* row2,
                         HTuple* column2) {
  std::vector<Hlong> a, b, c, d;
  for (const Region& r : detail::RegionRefs(regions, "smallest_rectangle1")) {
    int r1, c1, r2, c2;
    r.BoundingBox(&r1, &c1, &r2, &c2);
    a.push_back(r1), b.push_back(c1), c.push_back(r2), d.push_back(c2);
  }
  *row1 = HTuple::Ints(a);
  *column1 = HTuple::Ints(b);
  *row2 = HTuple::Ints(c);
  *column2 = HTuple::Ints(d);
}

void smallest_rectangle2(const HObject& regions, HTuple* row, HTuple* column, HTuple* phi,
                         HTuple* length1, HTuple* length2) {
  std::vector<double> v[5];
  for (const Region& r : detail::RegionRefs(regions, "smallest_rectangle2")) {
    double x[5];
    detail::SmallestRectangle2(r, &x[0], &x[1], &x[2], &x[3], &x[4]);
    for (int k = 0; k < 5; ++k) v[k].push_back(x[k]);
  }
  *row = HTuple::Reals(v[0]);
  *column = HTuple::Reals(v[1]);
  *phi = HTuple::Reals(v[2]);
  *length1 = HTuple::Reals(v[3]);
  *length2 = HTuple::Reals(v[4]);
}

namespace {
std::vector<std::string> FeatureNames(const HTuple& features, const char* op) {
  if (features.Empty()) throw HException(op, "Missing feature names", kErrWrongParamCount);
  std::vector<std::string> names;
  for (Hlong i = 0; i < features.Length(); ++i)
    names.push_back(ParamString(features, op, "Features", i));
  return names;
}
}  // namespace

void region_features(const HObject& regions, const HTuple& features, HTuple* value) {
  constexpr const char* op = "region_features";
  auto names = FeatureNames(features, op);
  HTuple out;
  for (const Region& r : detail::RegionRefs(regions, op)) {
    detail::FeatureCache cache(r);
    for (const auto& f : names) {
      // All values are reals, counts and coordinates included, as in the
      // reference.
      out.Append(HValue(cache.Get(f, op)));
    }
  }
  *value = std::move(out);
}

void select_shape(const HObject& regions, HObject* selected_regions, const HTuple& features,
                  const HTuple& operation, const HTuple& min, const HTuple& max) {
  constexpr const char* op = "select_shape";
  auto names = FeatureNames(features, op);
  const Hlong n = Hlong(names.size());
  ParamCountPer(min, op, "Min", n);
  ParamCountPer(max, op, "Max", n);
  std::string oper = ParamString(operation, op, "Operation");
  if (oper != "and" && oper != "or")
    throw HException(op, "Wrong value of Operation: 'and' or 'or' expected", kErrWrongParamValue);
  std::vector<double> lo(static_cast<size_t>(n)), hi(static_cast<size_t>(n));
  for (Hlong i = 0; i < n; ++i) {
    lo[size_t(i)] = ParamReal(min, op, "Min", i);
    hi[size_t(i)] = ParamReal(max, op, "Max", i);
  }
  HObject out;
  for (long k = 0; k < regions.Count(); ++k) {
    detail::FeatureCache cache(regions.RegionAt(k, op));
    bool ok = oper == "and";
    for (Hlong i = 0; i < n; ++i) {
      double v = cache.Get(names[size_t(i)], op);
      bool in = v >= lo[size_t(i)] && v <= hi[size_t(i)];
      if (oper == "and" && !in) { ok = false; break; }
      if (oper == "or" && in) { ok = true; break; }
    }
    if (ok) out.Append(regions.Select(k));
  }
  *selected_regions = std::move(out);
}

void sort_region(const HObject& regions, HObject* sorted_regions, const HTuple& sort_mode,
                 const HTuple& order, const HTuple& row_or_col) {
  constexpr const char* op = "sort_region";
  std::string mode = ParamString(sort_mode, op, "SortMode");
  std::string ord = ParamString(order, op, "Order");
  std::string dir = ParamString(row_or_col, op, "RowOrCol");
  if (ord != "true" && ord != "false")
    throw HException(op, "Wrong value of Order: 'true' or 'false' expected", kErrWrongParamValue);
  if (dir != "row" && dir != "column")
    throw HException(op, "Wrong value of RowOrCol: 'row' or 'column' expected", kErrWrongParamValue);
  struct Key { int row, col, r1, r2, c1; long index; };
  std::vector<Key> keys;
  for (long i = 0; i < regions.Count(); ++i) {
    const Region& r = regions.RegionAt(i, op);
    int r1, c1, r2, c2;
    r.BoundingBox(&r1, &c1, &r2, &c2);
    Key k{0, 0, r1, r2, c1, i};
    if (mode == "first_point") {
      if (!r.Empty()) k.row = r.Runs().front().row, k.col = r.Runs().front().cb;
    } else if (mode == "last_point") {
      if (!r.Empty()) k.row = r.Runs().back().row, k.col = r.Runs().back().ce;
    } else if (mode == "upper_left") {
      k.row = r1, k.col = c1;
    } else if (mode == "upper_right") {
      k.row = r1, k.col = c2;
    } else if (mode == "lower_left") {
      k.row = r2, k.col = c1;
    } else if (mode == "lower_right") {
      k.row = r2, k.col = c2;
    } else if (mode == "character") {
      k.row = r1, k.col = c1;
    } else {
      throw HException(op, "Wrong value of SortMode '" + mode + "'", kErrWrongParamValue);
    }
    keys.push_back(k);
  }
  const bool asc = ord == "true";
  if (mode == "character") {
    // Characters of one text line overlap in their rows: group lines top to
    // bottom, then order each line by its columns.
    std::stable_sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) { return a.r1 < b.r1; });
    std::vector<int> line(keys.size(), 0);
    int cur = 0, line_end = keys.empty() ? 0 : keys[0].r2;
    for (size_t i = 1; i < keys.size(); ++i) {
      if (keys[i].r1 > line_end) ++cur, line_end = keys[i].r2;
      else line_end = std::max(line_end, keys[i].r2);
      line[i] = cur;
    }
    for (size_t i = 0; i < keys.size(); ++i) keys[i].row = line[i];
    auto less = [&](const Key& a, const Key& b) {
      if (dir == "row") return a.row != b.row ? a.row < b.row : a.col < b.col;
      return a.col != b.col ? a.col < b.col : a.row < b.row;
    };
    std::stable_sort(keys.begin(), keys.end(), [&](const Key& a, const Key& b) {
      return asc ? less(a, b) : less(b, a);
    });
  } else {
    auto less = [&](const Key& a, const Key& b) {
      if (dir == "row") return a.row != b.row ? a.row < b.row : a.col < b.col;
      return a.col != b.col ? a.col < b.col : a.row < b.row;
    };
    std::stable_sort(keys.begin(), keys.end(), [&](const Key& a, const Key& b) {
      return asc ? less(a, b) : less(b, a);
    });
  }
  HObject out;
  for (const Key& k : keys) out.Append(regions.Select(k.index));
  *sorted_regions = std::move(out);
}

}  // namespace vision
