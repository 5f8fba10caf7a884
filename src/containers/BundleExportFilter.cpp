#include <tarns/containers/BundleExportFilter.h>

namespace tarns {

BundleExportFilter::~BundleExportFilter() = default;

bool BundleExportFilter::shouldExport(xcptref<TarnObject>) { return true; }

}  // namespace tarns
