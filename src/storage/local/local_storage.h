// The embedded backend: one SQLite file in a directory, used by this process alone.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/change_merger.h"
#include "storage/local/checkpointer.h"
#include "storage/local/commit_queue.h"
#include "storage/local/layout_registry.h"
#include "storage/local/notice_board.h"
#include "storage/local/prepared_commits.h"
#include "storage/local/store_directory.h"
#include "storage/object_locks.h"
#include "storage/storage_address.h"

namespace goods {

// How a commit becomes visible. The writer, holding the turn, commits to SQLite; then replaces what
// the segment cache has, queues the notices, and last raises visible_. A load that finds everything
// in the cache is as of visible_; any other is as of the snapshot that it reads from, which may be
// a moment ahead of visible_. A commit over several storages stays hidden between its SQLite commit
// and publish(): readers whose snapshot has it take what it replaced from memory instead.
//
// Lock order: the turn; then the mutexes of the parts, which are leaves.
class local_storage : public dbs_storage {
 public:
  // Opens the store in a directory that prepare_directory() has made, creating it when missing.
  explicit local_storage(const storage_address& address);
  ~local_storage() override;

  const std::string& name() const override { return name_; }
  commit_version load(std::span<const object_number> numbers, commit_version at_least,
                      state_sink& into) override;
  object_number allocate(std::uint32_t count) override;
  commit_version commit(const commit_request& request) override;
  class_number intern_layout(std::span<const std::byte> layout) override;
  std::vector<layout_record> layouts() override;
  std::unique_ptr<notice_subscription> subscribe(const void* origin) override;
  commit_version newest_version() const override {
    return visible_.load(std::memory_order_acquire);
  }
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
  storage_statistics statistics() override;

 private:
  struct hidden_commit;
  struct open_parts;
  class load_in_snapshot;

  void check_process() const;
  void check_request(const commit_request& request) const;
  bool load_from_cache(std::span<const object_number> numbers, commit_version at_least,
                       state_sink& into, commit_version& as_of);
  void confirm_missing(snapshot& from, segment_number number);
  std::shared_ptr<const hidden_commit> hidden() const;

  void write_group(commit_queue::commit_group group);
  void write_together(commit_queue::commit_group group);
  void show(const segment_changes& changes, std::span<const committed> commits) noexcept;
  template <class Extra>
  commit_version commit_hidden(const global_transaction& id, const commit_request& request,
                               Extra&& extra);

  const std::string name_;
  const std::uint64_t generation_;  // of the process that opened it
  std::unique_ptr<open_parts> parts_;

  std::atomic<commit_version> visible_{0};
  std::atomic<std::uint64_t> next_object_{0};
  std::atomic<std::uint64_t> commits_{0}, groups_{0};

  // The commit over several storages that is on its way; the turn is taken meanwhile.
  mutable guarded_mutex hidden_lock_;
  std::atomic<bool> has_hidden_{false};
  std::shared_ptr<const hidden_commit> hidden_ GUARDED_BY(hidden_lock_);
};

// Opens the storage at `address`, or gives the one that this process has open.
std::shared_ptr<dbs_storage> open_local_storage(const storage_address& address);

}  // namespace goods
