#include "vision/core/object.h"

#include <string>

namespace vision {

namespace {
void CheckIndex(long i, long n, const char* op) {
  if (i < 0 || i >= n)
    throw HException(op, "Object index " + std::to_string(i + 1) + " out of range (" +
                             std::to_string(n) + " objects)", kErrWrongParamValue);
}
}  // namespace

const Image& HObject::ImageAt(long i, const char* op) const {
  CheckIndex(i, Count(), op);
  if (auto* p = std::get_if<Image>(elems_[size_t(i)].get())) return *p;
  throw HException(op, "Wrong type of iconic object: image expected", kErrWrongObject);
}

const Region& HObject::RegionAt(long i, const char* op) const {
  CheckIndex(i, Count(), op);
  if (auto* p = std::get_if<Region>(elems_[size_t(i)].get())) return *p;
  throw HException(op, "Wrong type of iconic object: region expected", kErrWrongObject);
}

const Region& HObject::RegionOrDomainAt(long i, const char* op) const {
  CheckIndex(i, Count(), op);
  if (auto* p = std::get_if<Region>(elems_[size_t(i)].get())) return *p;
  return std::get<Image>(*elems_[size_t(i)]).domain;
}

HObject HObject::Select(long i) const {
  CheckIndex(i, Count(), "select_obj");
  HObject o;
  o.elems_.push_back(elems_[size_t(i)]);
  return o;
}

Image* HObject::ExclusiveImage(long i) {
  if (i < 0 || i >= Count() || elems_[size_t(i)].use_count() != 1) return nullptr;
  return std::get_if<Image>(elems_[size_t(i)].get());
}

}  // namespace vision
