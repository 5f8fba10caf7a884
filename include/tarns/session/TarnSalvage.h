#pragma once

#include <tarns/tarns_api.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarns {

class TarnManager;

// What a salvage brought over, and what it could not.
struct TarnSalvageResult {
  std::uint64_t objects = 0;         // taken over
  std::uint64_t lostBranches = 0;    // put below the branch `lostName`
  std::string lostName;              // empty when there are none
  std::vector<std::string> missing;  // a line each, with path and object
};

// Brings everything that can still be read of a damaged database into a new one. The configuration
// file `from` names the damaged database, which nobody may have open, and to which nothing is
// written. `into` is connected to a database of as many storages in which nothing has been stored
// yet, not even its root; the calling thread is attached to it.
//
// What is found keeps its path, class and number. Where a node between cannot be read, a plain node
// takes its place. Where no path leads to a node any more, it is put below a branch of its own,
// "lost" (or "lost_0", ... when there is one), under its number; nodes that were deleted, and not
// collected yet, turn up there as well. Members that referred to what cannot be read are null;
// a value whose text cannot be read is missing.
// Of each object the newest state that can be read counts; it may be an older one only when what
// tells of newer ones is damaged, too.
//
// `progress`: called often, with the number of objects so far; what it throws ends the salvage, and
// `into` is of no use then. Errors: as goods::salvage, and those of writing.
TARNS_API TarnSalvageResult Salvage(const std::string& from, TarnManager& into,
                                    const std::function<void(std::uint64_t)>& progress = {});

}  // namespace tarns
