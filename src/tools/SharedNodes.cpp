#include "tools/SharedNodes.h"

#include <tarns/core/TarnPath.h>

namespace tarns {

bool SharedNodes::entersHere(const TarnRef& node, const TarnRef& holder, std::string_view name) {
  if (node->getNumAbstractChildren() == 0) return true;
  const TarnRef parent = node->getParent();
  if (parent == holder && node->getName().view() == name) return true;
  for (TarnRef above = parent; !above.is_null(); above = above->getParent()) {
    if (above == top_) return false;
  }
  return entered_.insert(TarnObject::GetObjectID(node)).second;
}

std::string PlaceOf(const TarnRef& node) {
  TarnPath path;
  TarnObject::GetPath(node, path);
  return std::string(path.view());
}

}  // namespace tarns
