// What can still be read of a damaged store.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/page_file.h"
#include "storage/local/prepared_commits.h"
#include "storage/local/presence_map.h"
#include "storage/local/segment.h"
#include "storage/local/store_schema.h"

namespace goods {

// Looks for rows with right checksums on all pages of a store's file, and for whole records in its
// commit log. Of two rows of one key the newer one counts; of a segment and the log the newer state
// of each object. What the presence map, as far as it can be read, does not name is left out: it
// was removed.
//
// Never writes to the store, and needs no lock; nobody should have it open.
// Memory: some 50 bytes for each segment and piece, and what the log holds.
// Threads: one. Errors: input_output when there is no file; damage is what this is for.
class salvaged_store {
 public:
  explicit salvaged_store(const std::string& directory);

  // Those that are there, by number.
  const std::map<class_number, std::vector<std::byte>>& layouts() const { return layouts_; }
  // Shows all objects that can be read, in the order of numbers.
  void for_each(const std::function<void(const object_state&)>& visit);
  // False when the object cannot be read.
  bool load(object_number number, const std::function<void(const object_state&)>& visit);
  // Commits over several storages: those that are prepared here, and perhaps not finished; whether
  // one was decided here; and the changes of one become the newest states. Opening the storages
  // together finishes those that are decided, and drops the others.
  const std::optional<storage_identity>& identity() const { return identity_; }
  std::vector<std::unique_ptr<prepared_part>> prepared();
  bool has_decided(const global_transaction& id) const { return decided_.contains(id); }
  void finish(const prepared_part& part);

  // Ranges of numbers whose objects cannot be read, as far as that is known.
  const std::vector<std::pair<object_number, object_number>>& lost() const { return lost_; }

 private:
  struct found_row {
    page_file::place at;
    std::uint64_t version;
  };
  struct logged_state {
    std::uint64_t version = 0;
    bool removed = false;
    class_number layout = 0;
    std::vector<std::byte> body;
  };

  void take_row(std::int64_t key, const page_file::place& at, std::span<const std::byte> row);
  template <class Key>
  static void keep_newest(std::unordered_map<Key, found_row>& rows, Key key, const found_row& row);
  void drop_removed();
  void find_lost();
  void read_log(const std::string& path);
  void take_change(const object_change& change, std::uint64_t version);
  bool is_removed(segment_number number) const;
  std::shared_ptr<const segment> find(segment_number number);
  bool show(object_number number, const segment* in,
            const std::function<void(const object_state&)>& visit);
  bool read_apart(const segment& in, unsigned slot, std::vector<std::byte>& body);

  page_file pages_;
  std::optional<storage_identity> identity_;
  std::optional<store_state> state_;
  std::map<class_number, std::vector<std::byte>> layouts_;
  std::unordered_map<segment_number, found_row> segments_;
  std::unordered_map<std::int64_t, found_row> pieces_;
  std::map<std::uint32_t, std::pair<std::uint64_t, presence_map::content>> presence_;
  // Rows, the oldest first: by version, and by key, which begins anew when a store is opened.
  std::map<std::pair<std::uint64_t, std::int64_t>, page_file::place> prepared_;
  std::set<global_transaction> decided_;
  std::map<object_number, logged_state> logged_;
  std::vector<std::pair<object_number, object_number>> lost_;
  std::array<std::shared_ptr<const segment>, 64> cache_;  // by the low bits of their numbers
};

}  // namespace goods
