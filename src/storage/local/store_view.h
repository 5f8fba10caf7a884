// A store as it was at one moment.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include <goods/dbs_storage.h>

#include "storage/local/open_store.h"

namespace goods {

// Reads the database in a snapshot of its own, with what had not been merged laid over.
//
// Not through the mapped file, which is of no use once somebody cuts it: whoever checks a store has
// a reason.
// Threads: made by the holder of the writer's turn, used by one thread.
class store_view : public storage_view {
 public:
  // `next_object`: above all numbers that were given out. `of` outlives the view.
  store_view(open_store& of, std::uint64_t next_object);

  commit_version version() const override { return version_; }
  void load(std::span<const object_number> numbers, state_sink& into) override;
  bool check(bool full, check_sink& into) override;

 private:
  static constexpr std::size_t cached_segments = 256;

  std::shared_ptr<const segment> find(segment_number number);
  void load(object_number number, state_sink& into);
  bool check_log(check_sink& into);

  open_store& store_;
  const connection_settings settings_;
  const commit_version version_;
  const std::uint64_t next_object_;
  const commit_overlay::table unmerged_;
  snapshot merged_;
  // By the low bits of their numbers; null where nothing was read.
  std::array<std::shared_ptr<const segment>, cached_segments> cache_;
};

}  // namespace goods
