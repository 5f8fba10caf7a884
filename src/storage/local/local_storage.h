// The embedded backend: one SQLite file in a directory, used by this process alone.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/commit_overlay.h"
#include "storage/local/commit_queue.h"
#include "storage/local/free_numbers.h"
#include "storage/local/notice_board.h"
#include "storage/local/object_loader.h"
#include "storage/storage_address.h"

namespace goods {

struct open_store;

// How a commit becomes durable and visible. The writer, holding the turn, builds the new segments
// in memory, appends the group to the commit log, and publishes: it puts the segments into the
// overlay and the cache, queues the notices, and last raises the visible version. log_merger moves
// them into the database later. A commit over several storages goes into the database itself, when
// the log has been merged, and stays hidden until publish(): meanwhile the overlay holds what it
// replaced.
//
// What a commit builds on is looked for in its turn, but only when an object was removed after the
// session had seen all of it, which is rare: otherwise every commit would have to look into
// segments.
//
// Lock order: the turn; the database's turn; `publishing`; then the mutexes of the parts, which are
// leaves.
class local_storage : public dbs_storage {
 public:
  // Opens the store in a directory that prepare_directory() has made, creating it when missing.
  explicit local_storage(const storage_address& address);
  ~local_storage() override;

  const std::string& name() const override { return name_; }
  commit_version load(std::span<const object_number> numbers, commit_version at_least,
                      state_sink& into) override;
  void expect(std::span<const object_number> numbers) noexcept override;
  object_number allocate(std::uint32_t count) override;
  number_range reuse(std::uint32_t most) override;
  void give_back(number_range unused) noexcept override;
  void reclaim(const std::function<bool(object_number first)>& is_unused) override;
  commit_version commit(const commit_request& request) override;
  bool has_failed() const override;
  void make_durable() override;
  void give_back_room() override;
  std::unique_ptr<commit_pause> pause_commits() override;
  std::unique_ptr<condemnation> condemn(std::function<bool(object_number number)> is_condemned,
                                        const commit_pause& during) override;
  class_number intern_layout(std::span<const std::byte> layout) override;
  std::vector<layout_record> layouts() override;
  std::unique_ptr<notice_subscription> subscribe(const void* origin) override;
  commit_version newest_version() const override;
  lock_table& locks() override;

  storage_identity identity() const override;
  void prepare(const global_transaction& id, const storage_identity& coordinator,
               const std::string& coordinator_name, const commit_request& request) override;
  commit_version commit_and_decide(const commit_decision& decision,
                                   const commit_request& request) override;
  commit_version commit_prepared(const global_transaction& id) override;
  void publish(const global_transaction& id) noexcept override;
  void abandon(const global_transaction& id) noexcept override;
  void discard_prepared(const global_transaction& id) override;
  void forget_decision(const global_transaction& id) override;
  std::vector<prepared_commit> prepared() override;
  std::vector<commit_decision> decisions() override;

  void for_each(const std::function<bool(const object_state&)>& visit) override;
  std::unique_ptr<storage_view> view(const commit_pause& during) override;
  std::unique_ptr<storage_copier> copier() override;
  storage_statistics statistics() override;
  void suggest_cache(const void* user, std::size_t bytes) override;

 private:
  struct hidden_commit;
  struct condemned_objects;

  void find_free_numbers();
  void check_process() const;
  void check_nothing_hidden() const;
  void check_usable() const;
  void check_request(const commit_request& request) const;
  void check_foundations(const commit_request& request, std::span<const object_number> removed,
                         newest_states& newest) const;

  commit_version check_only(const commit_request& request);
  void write_group(commit_queue::commit_group group);
  void write_together(commit_queue::commit_group group);
  void write_past_log(commit_queue::commit_group group);
  void prepare_to_show(const segment_changes& changes, std::span<const committed> commits);
  void show_presence(segment_number number, bool exists) noexcept;
  void show(const segment_changes& changes, std::size_t commits,
            commit_overlay::addition* unmerged) noexcept;
  template <class Extra>
  std::shared_ptr<hidden_commit> commit_to_database(const global_transaction& id,
                                                    const commit_request& request, bool hides,
                                                    Extra&& extra);
  void hide(std::shared_ptr<const hidden_commit> commit);

  const std::string name_;
  const std::uint64_t generation_;  // of the process that opened it
  std::unique_ptr<open_store> parts_;
  object_loader loader_;

  std::atomic<std::uint64_t> next_object_{0};
  free_numbers free_;
  std::atomic<std::uint64_t> commits_{0}, groups_{0};

  // Of the turn.
  commit_version removed_at_ = 0;  // by the newest commit that may have removed something
  std::function<bool(object_number)> is_condemned_;  // null: none are

  // The commit over several storages that is on its way; the turn is taken meanwhile.
  guarded_mutex hidden_lock_;
  std::shared_ptr<const hidden_commit> hidden_ GUARDED_BY(hidden_lock_);
};

// Opens the storage at `address`, or gives the one that this process has open.
std::shared_ptr<dbs_storage> open_local_storage(const storage_address& address);

}  // namespace goods
