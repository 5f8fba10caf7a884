// The objects that a session has in memory.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <utility>
#include <vector>

#include <goods/database.h>
#include <goods/dbs_storage.h>
#include <goods/obj_storage.h>
#include <goods/object_ref.h>

#include "goods/change_counters.h"
#include "goods/handle_table.h"

namespace goods {

class cache_manager;
class modification_signals;
class object;

// Loads, keeps and drops committed bodies, and takes in commits in version order.
//
// A state that was loaded as of version v becomes a body only after the notices up to v have been
// applied and while none newer has: so every body in the cache is the one as of the version that
// the session has applied, and readers who saw the publish counter unchanged saw one state.
//
// Locks, in this order: publishing_, evicting_, a shard of the table. No storage call is made while
// holding a shard; while holding publishing_ only notices are taken.
// Threads: any. Functions that return bodies or uncounted handles need a reader_section.
class object_cache {
 public:
  object_cache(database& db, const cache_manager& session);
  ~object_cache();

  object_handle* find(object_id id) const { return table_.find(id); }
  void prefetch(object_id id) const { table_.prefetch(id); }  // find() will look for it soon
  object_handle& find_or_make(object_id id);
  object_ref counted(object_id id);

  // The committed body. Throws object_deleted when nothing is stored under the identifier. Null
  // when the cache has dropped the handle, which can only happen to one that is not counted: find
  // it anew.
  object* loaded(object_handle& handle) {
    object* body = handle.body();
    if (body == nullptr) body = load(handle);
    handle.mark_used();
    return body;
  }

  // See cache_manager::load().
  void load(std::span<const object_ref> objects);

  // A version that the session has taken in. What has a body afterwards was there then, or later.
  commit_version taken_in(storage_number storage) const {
    while (true) {
      const std::uint64_t before = stable_publish_count();
      const commit_version version = applied_[storage].load();
      if (publish_count_.load() == before) return version;
    }
  }

  // Hands states to `into` that nobody but the caller will see: its read round (see guest_list), or
  // a transaction that has locked them. They are as of the version that is returned, and that the
  // session has applied then; where that changes, a round is repeated.
  commit_version load_states(storage_number storage, std::span<const object_number> numbers,
                             state_sink& into) {
    const commit_version as_of =
        db_.storage(storage).dbs().load(numbers, applied_[storage].load(), into);
    apply_notices(storage, as_of);
    return as_of;
  }
  // Of an identifier under which nothing is stored.
  [[noreturn]] void throw_missing(object_id id) const;

  // Whether this was asked for the same object not long ago, as far as it is remembered.
  bool was_passed_lately(object_id id) {
    std::atomic<object_id>& place = passed_[(id * 0x9E3779B97F4A7C15U) >> 52];
    if (place.load(std::memory_order_relaxed) == id) return true;
    place.store(id, std::memory_order_relaxed);
    return false;
  }

  // Takes in all commits to a storage up to `through`, and returns when they are to be seen; quick
  // when that has happened already. Throws std::bad_alloc; nothing is lost then, the next call goes
  // on.
  void apply_notices(storage_number storage, commit_version through);

  // Takes in all commits that have returned to their callers, in this session or another one. Call
  // it before reading outside a transaction; nearly free when there is nothing new.
  void catch_up() {
    for (std::size_t s = 0; s < applied_.size(); ++s) {
      const commit_version newest = notices_[s]->newest();
      if (newest > applied_[s].load(std::memory_order_acquire)) {
        apply_notices(static_cast<storage_number>(s), newest);
      }
    }
  }

  // For publication, while notices are applied.
  // Whether so many new objects of one commit would displace much of what the cache holds.
  bool is_too_much(std::size_t created) const { return created > limit() / bytes_per_kept_object; }
  void install(object_handle& created);
  void publish(object_handle& handle, object& body);

  // Even while no commit is being published, one more with each that has been.
  std::uint64_t publish_count() const { return publish_count_.load(); }
  // Waits until none is being published.
  std::uint64_t stable_publish_count() const;
  void hold_publishing() { publishing_.lock(); }
  void release_publishing() { publishing_.unlock(); }

  // What tells of changes, made by the first call.
  modification_signals& signals();

  std::uint64_t relinks() const { return relinks_.load(std::memory_order_acquire); }
  const change_counters& changes() const { return changes_; }

  void set_limit(std::size_t bytes);
  std::size_t limit() const { return limit_.load(std::memory_order_relaxed); }
  std::size_t bytes() const { return bytes_.load(std::memory_order_relaxed) + table_.memory(); }
  // Memory beside the objects that counts toward the limit.
  void charge(std::ptrdiff_t bytes) { bytes_ += static_cast<std::size_t>(bytes); }
  // Shows every stored object that a reference or an open transaction of the session holds, or held
  // since the last call (see object_handle::take_noted()), and what those bodies refer to that
  // accesses still read though they have been replaced.
  void for_each_held(
      const std::function<void(const dbs_storage& storage, object_number number)>& visit) const;

  // Whether the session has a reference to one of the 64 neighbours from `first` on, there or not,
  // or numbers of them to give to new objects.
  bool uses_any(const dbs_storage& storage, object_number first) const;

  // Drops unused objects until the cache is below its limit, as far as there are any.
  void shrink();
  void shrink_if_full() {
    if (bytes() > shrink_above_.load(std::memory_order_relaxed)) shrink();
  }

 private:
  // An object takes some 100 to 200 bytes: up to about a hundredth of the limit.
  static constexpr std::size_t bytes_per_kept_object = 16 * 1024;

  object* load(object_handle& handle);
  enum class outcome { kept, stale, handle_dropped };
  outcome keep_loaded(object_handle& handle, object* fresh, commit_version as_of, object*& body);
  // Notices of one storage in their order.
  using storage_news = std::pair<storage_number, std::vector<std::shared_ptr<const notice>>>;
  void take_news(storage_number storage, commit_version through);
  void publish_news() noexcept;
  void apply(const notice& news, storage_number storage);
  void invalidate(object_id id);
  void count_body(const object& body);
  void discard_body(object* body);
  void evict(object_handle& handle);

  database& db_;
  const cache_manager& session_;  // compared with where notices come from
  handle_table table_;

  std::recursive_mutex publishing_;
  std::vector<std::unique_ptr<notice_subscription>>
      notices_;                                       // by storage; take() under publishing_
  std::vector<storage_news> news_;                    // under publishing_: taken, not published
  std::vector<std::atomic<commit_version>> applied_;  // by storage; set under publishing_
  std::atomic<std::uint64_t> publish_count_{0};
  std::atomic<std::uint64_t> relinks_{0};
  change_counters changes_;
  std::unique_ptr<modification_signals> signals_;  // under publishing_; null while nobody watches

  std::array<std::atomic<object_id>, 4096> passed_{};  // guests, see was_passed_lately()

  std::atomic<std::size_t> limit_{std::size_t{256} << 20};
  // The limit, or more when the last attempt found too little to drop: trying again costs a walk
  // through the whole table.
  std::atomic<std::size_t> shrink_above_{std::size_t{256} << 20};
  std::atomic<std::size_t> bytes_{0};
  std::mutex evicting_;
  std::size_t clock_shard_ = 0;     // under evicting_
  std::size_t clock_position_ = 0;  // under evicting_
};

}  // namespace goods
