#include "goods/commit_upkeep.h"

namespace goods {

namespace {

commit_upkeep& function() {
  static commit_upkeep upkeep = nullptr;
  return upkeep;
}

}  // namespace

bool define_commit_upkeep(commit_upkeep upkeep) {
  function() = upkeep;
  return true;
}

commit_upkeep defined_commit_upkeep() { return function(); }

}  // namespace goods
