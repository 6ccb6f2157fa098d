#pragma once
// Shape features of one region by the reference library's names (internal).
#include <memory>
#include <string>

#include "vision/core/region.h"

namespace vision::detail {

// Computes features on demand and keeps the intermediate results (moments,
// convex hull, holes) for the next feature of the same region.
class FeatureCache {
 public:
  explicit FeatureCache(const Region& r);
  ~FeatureCache();
  FeatureCache(const FeatureCache&) = delete;
  FeatureCache& operator=(const FeatureCache&) = delete;
  // Raises HException(op, ...) for an unknown feature name.
  double Get(const std::string& feature, const char* op);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

void SmallestRectangle2(const Region& r, double* row, double* col, double* phi, double* len1,
                        double* len2);

}  // namespace vision::detail
