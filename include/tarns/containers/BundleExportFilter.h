#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

namespace tarns {

// Decides which objects of a block an export shows as used, see
// TarnBundleBlock::exportToTempFile(). The base takes all of them.
class TARNS_API BundleExportFilter {
 public:
  BundleExportFilter() = default;
  BundleExportFilter(const BundleExportFilter&) = delete;
  BundleExportFilter& operator=(const BundleExportFilter&) = delete;
  virtual ~BundleExportFilter();

  virtual bool shouldExport(xcptref<TarnObject> child);
};

}  // namespace tarns
