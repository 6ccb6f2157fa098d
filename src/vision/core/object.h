#pragma once
// HObject: an ordered list of iconic objects, each an image or a region.
// Copies share the (immutable) elements.
#include <memory>
#include <variant>
#include <vector>

#include "vision/core/exception.h"
#include "vision/core/image.h"
#include "vision/core/region.h"

namespace vision {

class HObject {
 public:
  using Element = std::variant<Image, Region>;

  HObject() = default;
  HObject(Image img) { Push(std::move(img)); }
  HObject(Region reg) { Push(std::move(reg)); }

  long Count() const { return long(elems_.size()); }
  bool Empty() const { return elems_.empty(); }
  bool IsInitialized() const { return !elems_.empty(); }

  // Zero-based element access; raise an HException naming `op` when the
  // element does not exist or is of the other kind.
  bool IsImage(long i) const { return std::holds_alternative<Image>(*elems_.at(i)); }
  bool IsRegion(long i) const { return std::holds_alternative<Region>(*elems_.at(i)); }
  const Image& ImageAt(long i, const char* op = "") const;
  const Region& RegionAt(long i, const char* op = "") const;
  // The region of element i: the region itself, or an image's domain.
  const Region& RegionOrDomainAt(long i, const char* op = "") const;

  void Push(Image img) { elems_.push_back(std::make_shared<Element>(std::move(img))); }
  void Push(Region reg) { elems_.push_back(std::make_shared<Element>(std::move(reg))); }
  void Append(const HObject& o) { elems_.insert(elems_.end(), o.elems_.begin(), o.elems_.end()); }
  HObject Select(long i) const;  // zero-based, shares the element
  void Clear() { elems_.clear(); }

  // Image element i for writing when this object is its only holder, else
  // nullptr. An operator handed its input to keep (an rvalue) reuses the
  // planes through it instead of copying a large image; a plane is only
  // written when no other cv::Mat refers to it either (see PlaneExclusive).
  Image* ExclusiveImage(long i);

 private:
  std::vector<std::shared_ptr<Element>> elems_;
};

// True when `m` is the only reference to its pixels, so that writing them in
// place cannot change any other image.
inline bool PlaneExclusive(const cv::Mat& m) { return m.u != nullptr && m.u->refcount == 1; }

}  // namespace vision
