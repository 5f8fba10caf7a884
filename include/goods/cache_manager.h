// A session's objects and the calling threads' way to them.
#pragma once

#include <atomic>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <goods/access.h>
#include <goods/errors.h>
#include <goods/goods_api.h>
#include <goods/metaobject.h>
#include <goods/object_ref.h>
#include <goods/reader.h>

namespace goods {

class database;
class event;
class modification_signals;
class object_cache;
class read_round;
class thread_attachment;
class transaction;

// What a session keeps with an open transaction; it goes when that ends.
class transaction_companion {
 public:
  virtual ~transaction_companion() = default;
};

// What a library above keeps with a session, see cache_manager::companion_for().
class session_companion {
 public:
  virtual ~session_companion() = default;
};

// Is shown what every commit to a session's storages changes, see cache_manager::add_feed().
class commit_feed {
 public:
  virtual ~commit_feed() = default;
  // Objects that the commit has written or removed, not those that it has made; a node of which
  // only a text has changed is not among them, the text (String) is. Called in the order
  // of each storage's commits, by any thread, with the session's locks held: must do no more than
  // take notes. When commits pile up, neighbouring ones of other sessions come as one, under the
  // version of the last. Reads that begin afterwards see the commit.
  virtual void committed(storage_number storage, commit_version version,
                         std::span<const object_number> changed) noexcept = 0;
};

// Whose doing a transaction is.
enum class caller : std::uint8_t { library, application };

// While it lives, the calling thread is in a call of the library; see abort_on_read_lock_promotion.
class GOODS_API library_call {
 public:
  library_call();
  ~library_call();
  library_call(const library_call&) = delete;
  library_call& operator=(const library_call&) = delete;

 private:
  thread_attachment* thread_;
};

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
  static cache_manager* current();  // null when none
  static cache_manager& require();  // throws thread_not_attached when none
  void attach();                    // attaches the calling thread, leaving another session
  static void detach();             // rolls back an open transaction; no effect when not attached

  // What a thread that leaves the session keeps to come back to it: empty once the session is gone
  // or was taken away from whoever had it so far (revoke_tickets). It does not keep the session.
  std::weak_ptr<cache_manager> ticket();
  void revoke_tickets();  // those given out before

  // Runs `work(reader&)` and returns its result. Outside a transaction `work` may run several
  // times, until it has seen one committed state throughout: it must have no effect but its result,
  // and may not call the application. Inside a transaction, or inside another read(), it runs once.
  template <std::invocable<reader&> Work>
  std::invoke_result_t<Work&, reader&> read(Work&& work);

  // Transactions of the calling thread on this session; see metaobject.h for how begins nest.
  virtual void begin_transaction();
  virtual isolation_level end_transaction();  // commits when it closes the outermost one
  // Rolls everything back. After an inner one the outer transaction is still open, so that nothing
  // in its scope is committed on its own, but calls in it and its end throw; see changing_call.
  virtual void abort_transaction();
  bool in_transaction() const;  // explicit or implicit, also when it can only be ended
  bool is_reading() const;      // whether the calling thread is within read()
  // Identifies the open transaction among all of the process; 0 when none is open.
  std::uint64_t transaction_number() const;

  // A transaction of one call: joins the one that is open, or runs `work` in its own and commits;
  // repeats it after a deadlock. What leaves as an exception has been rolled back; joined, it is a
  // changing_call.
  // `whose`: of the application are those that the checks of a session apply to.
  template <std::invocable Work>
  std::invoke_result_t<Work&> atomically(Work&& work, caller whose = caller::library);

  // Runs `work`, which only reads, as if the calling thread had no transaction open: it sees what
  // is committed and locks nothing. Write accesses to stored objects, and transactions that are
  // begun in there, throw usage: their end would give up the locks of the transaction outside.
  template <std::invocable Work>
  std::invoke_result_t<Work&> outside_transaction(Work&& work);

  // Locks an object for the open transaction as a write access does; calls of the object's own may
  // have changed it in the access that just ended. The commit leaves it out when it is unchanged.
  void touched(object_handle& handle);

  // Told of every object that the calling thread's transaction is about to lock for writing for the
  // first time. What it throws leaves the write access. Unless watches_joins(), objects are left
  // out that are locked for a text of theirs and stay as they are.
  virtual void joins_transaction(object_handle& handle) { add(&handle); }
  virtual bool watches_joins() const { return false; }
  void add(object_handle*) {}
  // What messages call an object: by default "object 0:65600".
  virtual std::string name_of(object_id id);
  // Ends the process; see abort_on_read_lock_promotion.
  virtual void promotes_read_lock(object_handle& handle);

  // The cache's size in bytes of memory, handles and table included. Default 256 MiB; at least 1
  // MiB. The database's storages may keep half as much beside it, all together, unless their
  // addresses say how much.
  void set_cache_limit(std::size_t bytes);
  std::size_t cache_limit() const;
  std::size_t cached_bytes() const;
  // Makes `bytes` of memory beside the objects (fewer when negative) count toward the limit.
  void charge(std::ptrdiff_t bytes);

  // How long a lock is waited for. Default 10 s; 0: not at all.
  void set_lock_timeout(std::chrono::milliseconds limit) {
    lock_timeout_.store(limit, std::memory_order_relaxed);
  }
  std::chrono::milliseconds lock_timeout() const {
    return lock_timeout_.load(std::memory_order_relaxed);
  }

  // How much memory, in bytes, one transaction may take for what it has changed and made, and for
  // its locks; roughly, since not everything is measured: new objects count from the beginning of
  // the transaction on. Default 4 GiB, on smaller machines half of the memory. A transaction that
  // needs more throws storage_full from a write access, or from its commit, and is doomed:
  // everything that it took is given back, and the session goes on.
  void set_transaction_limit(std::size_t bytes) {
    transaction_limit_.store(bytes, std::memory_order_relaxed);
  }
  std::size_t transaction_limit() const {
    return transaction_limit_.load(std::memory_order_relaxed);
  }

  // Takes in all commits that have returned to their callers, in this session or another one, and
  // returns when reads see them. Every read outside a transaction begins with this.
  void catch_up() const;

  // Objects share 65,536 counters of published changes: what somebody keeps of an object holds as
  // long as the object's counter stays what it was in the read that it was taken from.
  static std::uint16_t change_counter_of(object_id id);
  std::uint32_t changes(std::uint16_t counter) const;

  // The same for what was read in a transaction and depends on several objects (passed_objects).
  // In the transaction that has read it: the sum of their counters, or nothing when it depends on
  // what the transaction has changed itself.
  std::optional<std::uint32_t> changes_of_locked(std::span<const stored_neighbours> objects) const;
  // In any later transaction: locks the objects as reading them again would, and tells whether they
  // are as they were when that sum was taken. Where that can be told before, nothing is locked.
  bool lock_unchanged(std::span<const stored_neighbours> objects, std::uint32_t sum);

  // Grows with every published change after which a path may lead to another object than before.
  std::uint64_t relink_count() const;

  // What follows is about changes by commits of any session of the process. An object has changed
  // when a commit has written or removed it itself, a text (String) or set that it refers to (a
  // member was added, removed or exchanged), or the set_member that it refers to (a node's entry
  // at its parent, with its name). What is further away has no part in it.

  // The newest commit to a storage that the session has taken in: what is read from now on is as of
  // it or of a later one. Takes in what has been committed until now.
  commit_version version(storage_number storage = 0) const;

  // Signals `when` once, after the object has changed and the session has taken that in, so that
  // reads in this session see it. A change that is committed while this call runs may count. The
  // calling thread's transaction has no part in it: only what is committed counts. The object is
  // not kept from being collected, which is a change.
  // The event is signalled by a thread of the session's that does nothing else, and must let no
  // exception out; it may end its own life in that call. Otherwise it must live until it has been
  // signalled or withdrawn, or the session is closed, which forgets it. Closing the session while
  // signalling it is not possible.
  // Throws object_deleted when nothing is stored under `id`.
  void signal_on_modification(object_id id, event* when);

  // Forgets that. When it returns, the event is not going to be signalled, and not being signalled
  // (unless by this very call's caller). Whether it was still waiting.
  bool withdraw_signal(const event* when);

  // False when the object has not changed since `version`, which may come from another session of
  // the process. True when it has, when there is no such object any more, and when that cannot be
  // told: a session remembers some 30,000 changed objects, from the first call of this function,
  // signal_on_modification() or add_feed() on.
  bool may_have_changed(object_id id, commit_version version);

  // Shows the feed all commits that the session takes in from now on, and has them taken in as soon
  // as they are there. It must be removed before it goes.
  void add_feed(commit_feed& feed);
  void remove_feed(commit_feed& feed);  // when it returns, it is not being called

  // A counted handle for `id`, without loading the object.
  object_ref find(object_id id);

  // Loads those of the objects that are not in memory, with one call to each storage. Only a hint:
  // what does not exist, or is changed meanwhile, is left out. Locks nothing. Throws corrupt_data.
  void load(std::span<const object_ref> objects);

  // What a library above keeps with the session, found by the address of something of its own; made
  // at the first call, destroyed with the session. Its functions are safe from any thread.
  session_companion& companion_for(const void* owner, std::unique_ptr<session_companion> (*make)());

  // Kept for applications that set it: tasks are always preemptive threads here.
  static std::atomic<bool> cooperative_mode;

  object_cache& cache() const { return *cache_; }
  thread_attachment* attachment() const;  // the calling thread's; null when attached elsewhere

 protected:
  // Whether a transaction is open that the application began itself.
  bool is_in_transaction_of_application() const;
  // Whether end_transaction() would commit.
  bool is_in_outermost_transaction() const;
  // Of the open transaction; null when none is open, or none was set.
  transaction_companion* companion() const;
  void set_companion(std::unique_ptr<transaction_companion> companion);  // one must be open

 private:
  friend class read_round;

  class GOODS_API call_transaction {
   public:
    call_transaction(cache_manager& session, caller whose);
    ~call_transaction();
    void commit();
    // In a handler: rolls back and tells whether repeating the work may help.
    bool roll_back_and_retry(const error_info& error, int attempt);

   private:
    cache_manager& session_;
    const changing_call call_;
    std::optional<library_call> library_call_;  // of the library only
    const bool joined_;
    bool own_;  // neither joined nor committed nor rolled back yet
  };
  void close_transaction();
  std::vector<commit_version> versions() const;
  std::vector<object_id> with_parts(object_id id);

  // Takes the thread's transaction away for as long as it lives.
  class GOODS_API pause {
   public:
    explicit pause(cache_manager& session);
    ~pause();
    pause(const pause&) = delete;
    pause& operator=(const pause&) = delete;

   private:
    thread_attachment* thread_;
    std::unique_ptr<transaction> open_;
  };

  database& db_;
  std::atomic<std::chrono::milliseconds> lock_timeout_{std::chrono::milliseconds(10'000)};
  std::atomic<std::size_t> transaction_limit_;
  [[noreturn]] void require_attached() const;

  std::unique_ptr<object_cache> cache_;
  std::mutex attachments_lock_;
  std::vector<std::shared_ptr<thread_attachment>> attachments_;  // under attachments_lock_
  std::shared_ptr<cache_manager> ticket_;  // owns nothing; under attachments_lock_
  std::mutex companions_lock_;
  std::vector<std::pair<const void*, std::unique_ptr<session_companion>>>
      companions_;  // under companions_lock_
};

// One round after the other of cache_manager::read(): holds the section in which bodies stay in
// memory, and tells whether what was read in a round belongs to one state of the database.
// Without a session only transient objects can be read, and one round is enough.
class GOODS_API read_round {
 public:
  explicit read_round(cache_manager* session);
  ~read_round();
  read_round(const read_round&) = delete;
  read_round& operator=(const read_round&) = delete;

  reader& get() { return reader_; }
  bool is_consistent() const;
  void prepare_retry();

 private:
  reader reader_;
  thread_attachment* attachment_ = nullptr;
  bool checks_ = false;  // locks do it in a transaction, the outermost read() for those within
  bool in_section_ = false;
  bool holds_publishing_ = false;  // after a few rounds: commits wait until the work is done
  int rounds_ = 1;
  std::uint64_t started_at_ = 0;
};

// cache_manager::read() in the session that the calling thread is attached to. On a thread without
// one it reads transient objects; an identifier then throws thread_not_attached.
template <std::invocable<reader&> Work>
std::invoke_result_t<Work&, reader&> read_here(Work&& work);

// Runs `work`, a call whose accesses are transactions of their own, on whatever session the calling
// thread is attached to, and repeats it after a deadlock: what it has made so far is committed or
// rolled back, and it must cope with finding it. In a transaction it runs once, for only the whole
// of that can be repeated.
template <std::invocable Work>
std::invoke_result_t<Work&> repeat_here(Work&& work);

}  // namespace goods

#include <goods/cache_manager_inline.h>
