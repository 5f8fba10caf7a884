#include "containers/sync_scan.h"

#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnException.h>

#include "containers/sync_file.h"

namespace tarns {

namespace {

TarnChildren ChildrenOf(const TarnRef& node) {
  return node.is_null() ? TarnChildren(nullptr) : node->children();
}

// Of an object that may be deleted meanwhile.
bool IsAsRecorded(const std::string& name, const TarnRef& object, const TarnRef& record) {
  try {
    const SyncDigest digest = xcptref<SyncedBundleRevision>(record)->getDigest();
    return digest == DigestOf(TextOf(name, object));
  } catch (const TarnException& error) {
    if (error.getErrorID() != ErrorID::ObjectGone) throw;
    return false;
  }
}

}  // namespace

// Both lists are in the order of names. A second object of one name has no record of its own, so
// its name is returned, and looked at again under locks: the first may have been deleted meanwhile.
std::vector<std::string> FindUnnoticed(const xcptref<SyncedBundle>& bundle) {
  std::vector<std::string> suspects;
  const TarnChildren objects = ChildrenOf(bundle->getChildWithName(TarnBundle::kBundledChildren));
  const TarnChildren records = ChildrenOf(bundle->getChildWithName(SyncedBundle::kRevisions));
  auto object = objects.begin(), record = records.begin();
  while (object != objects.end() || record != records.end()) {
    const bool hasObject = object != objects.end(), hasRecord = record != records.end();
    const int order = !hasObject ? 1 : !hasRecord ? -1 : object->name.compare(record->name);
    if (order != 0 || !IsAsRecorded(object->name, object->child, record->child)) {
      suspects.push_back(order <= 0 ? object->name : record->name);
    }
    if (order <= 0) ++object;
    if (order >= 0) ++record;
  }
  return suspects;
}

}  // namespace tarns
