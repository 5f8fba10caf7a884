// Brings what can still be read of a damaged database into a new one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <goods/goods_api.h>
#include <goods/object_ref.h>

namespace goods {

class database;

// A reference to an object that could not be read; it is null now.
struct lost_reference {
  object_id from;
  std::string member;      // of it
  std::string class_name;  // of it
  object_id target;
};

// An entry of an index that could not be taken over as it was: the index is empty now, or missing.
struct loose_entry {
  object_id index;
  std::string name;
  object_id target;
  bool is_lost = false;  // the target could not be read, so there is only its name
};

struct salvage_result {
  std::uint64_t objects = 0;  // taken over
  std::vector<lost_reference> lost;
  std::vector<loose_entry> loose;
  // Ranges of objects that could not be read, as far as they existed: first and last.
  std::vector<std::pair<object_id, object_id>> lost_ranges;
};

// Copies all objects that can be read, with their numbers, from the storages that the
// configuration file `from` names into `into`, an open database of as many storages without any
// object. References to objects that could not be read become null. Indexes that are whole are
// copied; of others the entries are returned, and whoever knows the owners puts them back.
//
// Never writes to the damaged storages, which nobody may have open meanwhile. Objects are read as
// their stored layouts say; no code of their classes is run.
// `progress`: called often with the number of objects copied so far; what it throws ends this.
// Memory: a byte for each object number, some 50 bytes for each stored segment, and the result.
// Errors: usage for a configuration file that cannot be understood, input_output for a storage that
// has no file; those of committing to `into`.
GOODS_API salvage_result salvage(const std::string& from, database& into,
                                 const std::function<void(std::uint64_t)>& progress);

}  // namespace goods
