// A session's objects and the calling threads' way to them.
#pragma once

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include <goods/goods_api.h>
#include <goods/metaobject.h>
#include <goods/object_ref.h>
#include <goods/reader.h>

namespace goods {

class database;
class transaction;
class thread_attachment;

// The cache of one session: finds objects by identifier, loads them, drops what was least recently
// used beyond the byte limit, applies other sessions' commits, and keeps each attached thread's
// transaction.
//
// Threads: any number may be attached; every function is safe from each of them. The thread-local
// slot behind current() says which session a thread works in.
class GOODS_API cache_manager {
 public:
  explicit cache_manager(database& db);
  virtual ~cache_manager();
  cache_manager(const cache_manager&) = delete;
  cache_manager& operator=(const cache_manager&) = delete;

  database& db() const { return db_; }

  // The session that the calling thread is attached to.
  static cache_manager* current();      // null when none
  static cache_manager& require();      // throws thread_not_attached when none
  void attach();                        // attaches the calling thread, leaving another session
  static void detach();                 // rolls back an open transaction; no effect when not attached

  // Runs `work(reader&)` and returns its result. Outside a transaction `work` may run several times,
  // until it has seen one committed state throughout: it must have no effect but its result, and may
  // not call the application. Inside a transaction, or inside another read(), it runs once.
  template <std::invocable<reader&> Work>
  std::invoke_result_t<Work&, reader&> read(Work&& work);

  // Transactions of the calling thread on this session; see metaobject.h for how begins nest.
  virtual void begin_transaction();
  virtual isolation_level end_transaction();  // commits when it closes the outermost one
  virtual void abort_transaction();           // rolls back; every level of nesting ends
  bool in_transaction() const;                // explicit or implicit

  // A transaction of one call: joins the one that is open, or runs `work` in its own and commits;
  // repeats it after a deadlock. What leaves as an exception has been rolled back, unless joined.
  template <std::invocable Work>
  std::invoke_result_t<Work&> atomically(Work&& work);

  // Told of every object that the calling thread's transaction locks for writing, before it is.
  virtual void joins_transaction(object_handle&) {}

  // The cache's size in bytes of memory, handles and table included. Default 256 MiB; at least 1 MiB.
  void set_cache_limit(std::size_t bytes);
  std::size_t cache_limit() const { return cache_limit_.load(std::memory_order_relaxed); }
  std::size_t cached_bytes() const;

  // How long a lock is waited for. Default 10 s; 0: not at all.
  void set_lock_timeout(std::chrono::milliseconds limit) { lock_timeout_ = limit; }
  std::chrono::milliseconds lock_timeout() const { return lock_timeout_; }

  // Grows with every published change after which a path may lead to another object than before.
  std::uint64_t relink_count() const { return relinks_.load(std::memory_order_acquire); }

  // A counted handle for `id`, without loading the object.
  object_ref find(object_id id);
 
  // Kept for applications that set it: tasks are always preemptive threads here.
  static bool cooperative_mode;

  struct implementation;
  implementation& internals() const { return *implementation_; }

 private:
  // One round of read(): enters and leaves the section in which bodies stay in memory.
  class GOODS_API read_round {
   public:
    explicit read_round(cache_manager& session);
    ~read_round();
    reader& get() { return reader_; }
    // Whether all that was read belongs to one state; otherwise the work must be repeated.
    bool is_consistent() const;
    void prepare_retry();

   private:
    reader reader_;
    bool outermost_;
    bool holds_publishing_ = false;
    int tries_ = 0;
    std::uint64_t started_at_ = 0;
  };

  class GOODS_API call_transaction {
   public:
    explicit call_transaction(cache_manager& session);
    ~call_transaction();
    void commit();
    // In a handler: rolls back and tells whether repeating the work may help.
    bool roll_back_and_retry(int attempt) noexcept;

   private:
    cache_manager& session_;
    bool own_;
  };

  database& db_;
  std::atomic<std::size_t> cache_limit_{std::size_t{256} << 20};
  std::chrono::milliseconds lock_timeout_{10'000};  // set before threads share the session
  std::atomic<std::uint64_t> relinks_{0};
  std::unique_ptr<implementation> implementation_;
};

}  // namespace goods

#include <goods/cache_manager_inline.h>
