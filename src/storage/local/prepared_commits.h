// Commits over several storages that a store has a part in.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/segment_store.h"

namespace goods {

// A prepared commit with its own copy of the changes.
struct prepared_part {
  prepared_commit about;
  std::vector<object_change> changes;  // bodies in `bytes`
  std::vector<std::byte> bytes;
  std::vector<std::int64_t> keys;  // of its rows
  // Not stored: a commit that was interrupted by a crash tells its session nothing.
  const void* origin = nullptr;
  std::shared_ptr<void> attachment;

  commit_request request() const { return {changes, origin, attachment}; }
};

// What the rows of the tables say; these throw damaged_bytes. The bytes of all parts of a commit,
// one after the other, are the commit.
struct prepared_row {
  global_transaction id;
  std::uint64_t part, parts;
  std::span<const std::byte> bytes;
};
prepared_row read_prepared_row(std::span<const std::byte> content);
std::unique_ptr<prepared_part> read_prepared(const global_transaction& id,
                                             std::vector<std::byte> bytes);
commit_decision read_decision(std::span<const std::byte> content);

// The tables `prepared` and `decisions`, in memory and in transactions.
//
// A prepared commit is one sequence of bytes, cut into as many rows as it needs:
//   coordinator (16 bytes), length (varint) and text of its name, number of changes (varint);
//   for each change: object number (4 bytes), flags (1 byte: 1 removed, 2 new) and, unless removed,
//   layout (varint), length (varint), bytes.
// Each row: id (16 bytes), number of this part and of all parts (varints), the part.
// A decision is one row: id, number of participants (varint), their identities (16 bytes each).
// Threads: the holder of the writer's turn.
class prepared_commits {
  struct known_decision {
    commit_decision decision;
    std::int64_t key;
    bool found;  // when opening
  };
  struct known_part {
    std::unique_ptr<prepared_part> part;
    bool found;
  };
  using part_map = std::map<global_transaction, known_part>;
  using decision_map = std::map<global_transaction, known_decision>;

 public:
  using part_node = part_map::node_type;
  using decision_node = decision_map::node_type;

  explicit prepared_commits(const std::string& store) : store_(store) {}

  // Reads both tables. Throws corrupt_data when rows are damaged or missing.
  void load(store_reader& reader, const store_state& state);

  // Copies and writes a commit. To be remembered when the transaction has been committed, which
  // must not fail then.
  part_node prepare(segment_store::transaction& into, const prepared_commit& about,
                    const commit_request& request);
  void erase(segment_store::transaction& from, const prepared_part& part);
  decision_node decide(segment_store::transaction& into, const commit_decision& decision);
  // Within the next transaction that is committed.
  void erase_forgotten(segment_store::transaction& from);
  void forgotten_erased() noexcept { forgotten_.clear(); }

  void remember(part_node&& part) noexcept { parts_.insert(std::move(part)); }
  void remember(decision_node&& decision) noexcept { decisions_.insert(std::move(decision)); }
  void forget(const global_transaction& id) noexcept;  // a prepared commit
  void forget_decision(const global_transaction& id);  // erased lazily
  prepared_part* find(const global_transaction& id);

  bool has_forgotten() const { return !forgotten_.empty(); }
  std::vector<prepared_commit> found_prepared() const;
  std::vector<commit_decision> found_decisions() const;
  void for_each_change(const std::function<void(const object_change&)>& visit) const;
  // Every number in a prepared commit, ascending.
  std::vector<object_number> numbers() const;
  // Above all of them.
  std::uint64_t next_object() const;

 private:
  const std::string& store_;
  part_map parts_;
  decision_map decisions_;
  std::vector<std::int64_t> forgotten_;  // keys of decisions
  std::int64_t next_key_ = 1;
};

}  // namespace goods
