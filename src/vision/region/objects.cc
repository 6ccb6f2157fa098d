// Creation of regions and handling of object lists.
#include <algorithm>
#include <cmath>
#include <string>

#include "vision/region/region_ops.h"
#include "vision/region/region_util.h"

namespace vision {


void gen_rectangle1(HObject* rectangle, const HTuple& row1, const HTuple& column1,
                    const HTuple& row2, const HTuple& column2) {
  constexpr const char* op = "gen_rectangle1";
  Hlong n = std::max({row1.Length(), column1.Length(), row2.Length(), column2.Length()});
  if (n == 0) throw HException(op, "Missing rectangle coordinates", kErrWrongParamCount);
  for (const HTuple* t : {&row1, &column1, &row2, &column2})
    ParamCountPer(*t, op, "Row1/Column1/Row2/Column2", n);
  HObject out;
  for (Hlong i = 0; i < n; ++i) {
    // Reals are rounded to the nearest pixel as the reference does.
    double r1 = ParamReal(row1, op, "Row1", i), c1 = ParamReal(column1, op, "Column1", i);
    double r2 = ParamReal(row2, op, "Row2", i), c2 = ParamReal(column2, op, "Column2", i);
    for (double v : {r1, c1, r2, c2})
      if (std::fabs(v) > 1e8) throw HException(op, "Rectangle coordinate out of range", kErrWrongParamValue);
    int ir1 = int(std::lround(r1)), ic1 = int(std::lround(c1));
    int ir2 = int(std::lround(r2)), ic2 = int(std::lround(c2));
    if (ir2 < ir1 || ic2 < ic1)
      throw HException(op, "Wrong rectangle: Row2 < Row1 or Column2 < Column1", kErrWrongParamValue);
    out.Push(Region::Rectangle(ir1, ic1, ir2, ic2));
  }
  *rectangle = std::move(out);
}

void gen_empty_region(HObject* empty_region) { *empty_region = HObject(Region()); }

void gen_empty_obj(HObject* empty_object) { *empty_object = HObject(); }

void concat_obj(const HObject& objects1, const HObject& objects2, HObject* objects_concat) {
  HObject out = objects1;
  out.Append(objects2);
  *objects_concat = std::move(out);
}

void select_obj(const HObject& objects, HObject* object_selected, const HTuple& index) {
  constexpr const char* op = "select_obj";
  ParamCount(index, op, "Index", 1, -1);
  HObject out;
  for (Hlong i = 0; i < index.Length(); ++i) {
    Hlong k = ParamInt(index, op, "Index", i);
    if (k < 1 || k > objects.Count())
      throw HException(op, "Index " + std::to_string(k) + " out of range (" +
                               std::to_string(objects.Count()) + " objects)", kErrWrongParamValue);
    out.Append(objects.Select(long(k - 1)));
  }
  *object_selected = std::move(out);
}

void count_obj(const HObject& objects, HTuple* number) { *number = HTuple(Hlong(objects.Count())); }

void copy_obj(const HObject& objects, HObject* objects_selected, const HTuple& index,
              const HTuple& num) {
  constexpr const char* op = "copy_obj";
  Hlong k = ParamInt(index, op, "Index"), n = ParamInt(num, op, "NumObj");
  Hlong count = objects.Count();
  if (k < 1 || (count > 0 && k > count) || (count == 0 && k != 1))
    throw HException(op, "Index out of range", kErrWrongParamValue);
  if (n == -1) n = count - k + 1;
  if (n < 0 || k - 1 + n > count) throw HException(op, "Number of objects out of range", kErrWrongParamValue);
  HObject out;
  for (Hlong i = 0; i < n; ++i) out.Append(objects.Select(long(k - 1 + i)));
  *objects_selected = std::move(out);
}

void get_domain(const HObject& image, HObject* domain) {
  HObject out;
  for (long i = 0; i < image.Count(); ++i) out.Push(image.ImageAt(i, "get_domain").domain);
  *domain = std::move(out);
}

void reduce_domain(const HObject& image, const HObject& region, HObject* image_reduced) {
  constexpr const char* op = "reduce_domain";
  if (region.Count() != 1 && region.Count() != image.Count())
    throw HException(op, "Number of regions must be 1 or that of the images", kErrWrongParamCount);
  HObject out;
  for (long i = 0; i < image.Count(); ++i) {
    Image img = image.ImageAt(i, op);  // shares the planes
    const Region& r = region.RegionAt(region.Count() == 1 ? 0 : i, op);
    img.domain = img.domain.Intersection(r);
    out.Push(std::move(img));
  }
  *image_reduced = std::move(out);
}

void select_region_point(const HObject& regions, HObject* dest_regions, const HTuple& row,
                         const HTuple& column) {
  constexpr const char* op = "select_region_point";
  double r = ParamReal(row, op, "Row"), c = ParamReal(column, op, "Column");
  int ir = int(std::lround(std::clamp(r, -1e9, 1e9))), ic = int(std::lround(std::clamp(c, -1e9, 1e9)));
  HObject out;
  for (long i = 0; i < regions.Count(); ++i)
    if (regions.RegionAt(i, op).Contains(ir, ic)) out.Append(regions.Select(i));
  *dest_regions = std::move(out);
}

void get_region_points(const HObject& region, HTuple* rows, HTuple* columns) {
  constexpr const char* op = "get_region_points";
  if (region.Count() != 1) throw HException(op, "Exactly one region expected", kErrWrongParamCount);
  const Region& reg = region.RegionAt(0, op);
  std::vector<Hlong> rr, cc;
  rr.reserve(size_t(reg.Area()));
  cc.reserve(size_t(reg.Area()));
  for (const Run& x : reg.Runs())
    for (int c = x.cb; c <= x.ce; ++c) {
      rr.push_back(x.row);
      cc.push_back(c);
    }
  *rows = HTuple::Ints(std::move(rr));
  *columns = HTuple::Ints(std::move(cc));
}

}  // namespace vision
