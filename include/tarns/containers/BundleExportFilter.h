#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

namespace tarns {

// Decides which objects of a bundle an export has: those of a block that it shows as used
// (TarnBundleBlock::exportToTempFile()), or those that BundleSync gives to others. The base takes
// all of them.
//
// BundleSync asks within its transaction: a filter reads what it needs and changes nothing; what it
// throws ends the export. It is not asked about deletions, which name what was deleted. What
// partners make of what was kept back is in docs/sync.md.
class TARNS_API BundleExportFilter {
 public:
  BundleExportFilter() = default;
  BundleExportFilter(const BundleExportFilter&) = delete;
  BundleExportFilter& operator=(const BundleExportFilter&) = delete;
  virtual ~BundleExportFilter();

  virtual bool shouldExport(xcptref<TarnObject> child);
};

}  // namespace tarns
