// Verifies a store's rows.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/commit_overlay.h"
#include "storage/local/presence_map.h"
#include "storage/local/snapshot_pool.h"

namespace goods {

// The text of what is being handled: an exception of SQLite's connection or of a reader. Rethrows
// what is neither.
std::string text_of_failure();

// One check of one store: storage_view::check().
//
// Looks at the database as one snapshot has it, and hands out objects with what has not been merged
// laid over. What SQLite cannot read is looked for row by row, as the presence map says what there
// must be.
// Memory: 4 KiB for each 2 million numbers of objects, and one object.
// Threads: one. Errors: faults go to the sink; only lack of memory, and what the sink throws, end
// the check.
class store_check {
 public:
  // `unmerged`: what the overlay had before `merged` began. `next_object`: above all numbers that
  // objects may have. All but the number outlive the check.
  store_check(snapshot& merged, const std::string& store, const commit_overlay::table& unmerged,
              std::uint64_t next_object, check_sink& into);

  // Whether the sink let them come to their ends.
  bool check_quickly();
  bool check_everything();

 private:
  struct stopped {};
  using bits = presence_map::content;

  void report(object_number first, object_number last, std::string text);
  void report_row(std::string_view table, std::int64_t key, std::string_view what);
  void report_segment(segment_number number, std::string_view what);
  void go_on();

  void check_tables();
  void check_state();
  void check_presence();
  void check_layouts();
  void check_prepared();
  // Shows all rows whose frames are right; returns how many rows there were.
  template <class Visit>
  std::uint64_t check_rows(const char* table, row_kind kind, Visit&& visit);

  void check_structure();
  void check_segments();
  void scan_segments(std::uint64_t& next);
  void seek_segments(std::uint64_t next);
  void pass_missing(std::uint64_t from, std::uint64_t to);
  void take_segment(segment_number number, std::span<const std::byte> row);
  std::shared_ptr<const segment> parse_segment(segment_number number,
                                               std::span<const std::byte> row);
  void show_unmerged(std::uint64_t before);
  void show(const segment_view& in);
  bool show_apart(const segment_view& in, unsigned slot, object_state& state);
  void check_pieces();
  bool is_owned(std::int64_t piece);

  // The first segment from `from` on that there must be, or may be; past the last one for none.
  std::uint64_t next_expected(std::uint64_t from) const;
  bool is_expected(segment_number number) const;

  snapshot& merged_;
  const std::string& store_;
  const commit_overlay::table& unmerged_;
  const std::uint64_t next_object_;
  check_sink& into_;

  std::uint64_t layouts_ = 0;             // as many there are
  std::map<std::uint32_t, bits> chunks_;  // of the presence map
  std::set<std::uint32_t> lost_chunks_;   // cannot be read
  std::vector<segment_number> unmerged_order_;
  std::size_t unmerged_shown_ = 0;
  std::shared_ptr<const segment> owner_;  // of the pieces looked at last
  std::optional<segment_number> owner_number_;
  unsigned calls_ = 0;
};

// The same, in full, for a store in a file that nobody has open; what its log holds is not in it.
// `store`: its name for messages. Throws only what store_check does.
bool check_store_file(const std::string& file, const std::string& store, check_sink& into);

}  // namespace goods
