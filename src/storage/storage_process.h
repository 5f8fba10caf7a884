// All that the storages of one process share.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <compare>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/waits_for_graph.h"

namespace goods {

// A directory, whatever path leads to it.
struct directory_identity {
  dev_t device;
  ino_t inode;
  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 about any defaulted comparison
  friend auto operator<=>(const directory_identity&, const directory_identity&) = default;
};

// The table of open storages, what fork() must know, who waits for whose locks, and the moments at
// which commits over several storages become visible. There is one, which is never destroyed:
// storages may be closed by the destructors of static objects.
//
// Threads: any.
class storage_process {
 public:
  static storage_process& instance();

  // The storage open for `identity`, or what `open` returns, which then is it until its last user
  // lets go. Waits for another thread that is opening or closing it. `options` describe how it is
  // opened; throws usage when it is open with others.
  using opener = std::function<std::unique_ptr<dbs_storage>()>;
  std::shared_ptr<dbs_storage> find_or_open(const directory_identity& identity,
                                            const std::string& options, const opener& open);

  // How many forks lie between the start of the first process and this one. A storage remembers the
  // number that it was opened under.
  std::uint64_t generation() const { return generation_.load(std::memory_order_relaxed); }

  // A descriptor that a forked child closes at once: what it locks is the parent's.
  void add_lock_descriptor(int descriptor);
  void remove_lock_descriptor(int descriptor);

  waits_for_graph& waits() { return waits_; }

  // Commits over several storages are published one at a time, between begin and end.
  void begin_publishing();
  void end_publishing();
  // Odd while one is being published.
  std::uint64_t publications() const { return publications_.load(std::memory_order_acquire); }

 private:
  storage_process();

  struct open_storage_entry {
    std::weak_ptr<dbs_storage> storage;
    std::string options;
  };

  struct held_storage;

  void forget(const directory_identity& identity);
  static void before_fork();
  static void after_fork_in_parent();
  static void after_fork_in_child();

  guarded_mutex lock_;
  std::condition_variable_any changed_;
  // An entry whose storage is gone is being opened or closed.
  std::map<directory_identity, open_storage_entry> storages_ GUARDED_BY(lock_);
  std::set<directory_identity> inherited_ GUARDED_BY(lock_);  // open in a parent when it forked
  std::vector<int> lock_descriptors_ GUARDED_BY(lock_);

  waits_for_graph waits_;
  std::atomic<std::uint64_t> generation_{0};
  guarded_mutex publishing_;
  std::atomic<std::uint64_t> publications_{0};
};

}  // namespace goods
