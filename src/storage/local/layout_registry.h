// The class layouts that a store keeps.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/store_reader.h"

namespace goods {

// All layouts in memory, by number (1 upwards, none missing) and by their bytes.
// Threads: any.
class layout_registry {
 public:
  explicit layout_registry(const std::string& store) : store_(store) {}

  // Throws corrupt_data when one is damaged or missing.
  void load(store_reader& reader, const store_state& state);

  // 0 when it is not known.
  class_number find(std::span<const std::byte> layout) const;
  // The number that the next one gets. Throws storage_full when there are 65535.
  class_number next_number() const;
  // Takes a layout under next_number(): prepared before it becomes durable, which must not be
  // forgotten then. One thread at a time may have one prepared.
  using entry = std::unordered_map<std::string, class_number>::node_type;
  entry prepare(std::span<const std::byte> layout);
  void add(entry&& prepared) noexcept;

  std::size_t count() const;
  std::vector<layout_record> all() const;

 private:
  const std::string& store_;
  mutable guarded_mutex lock_;
  std::unordered_map<std::string, class_number> numbers_ GUARDED_BY(lock_);
};

}  // namespace goods
