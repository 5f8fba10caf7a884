// What the bytes of a database must be able to do.
//
// A storage keeps object states by number: an object number, the number of the class layout that
// the state was written under, and packed bytes that it never interprets. Everything above (object
// caches, transactions, classes) works against this contract, so every backend is tested by the
// same suite.
//
// Versions: every commit gets the next commit version; version order is commit order. A state that
// load() hands out is the one as of some version that it names.
// Notices: each subscription receives every commit's changed numbers, in version order, without
// gaps. Threads: every function may be called from any thread at any time, unless it says
// otherwise. Errors: throw_error() with the codes of errors.h; messages name the storage's
// directory or address and, where one is concerned, the object number.
#pragma once

#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <goods/errors.h>

namespace goods {

using storage_number = std::uint16_t;  // place in the configuration file, 0 upwards
using object_number = std::uint32_t;   // below first_object_number: class layouts
using class_number = std::uint16_t;    // number of a class layout; 0 is never used
using commit_version = std::uint64_t;  // 0: before the first commit

inline constexpr object_number first_object_number = 0x10000;
inline constexpr object_number root_object_number = 0x10000;
inline constexpr std::size_t max_state_size = std::size_t{1} << 30;  // bytes of one packed object

struct object_state;

// `count` consecutive numbers from `first` on.
struct number_range {
  object_number first = 0;
  std::uint32_t count = 0;
};

// Objects that a backend keeps together, as they were in the version that load() has named: who
// holds on to the group of one object (with shared_from_this(), during the call that passes it)
// need not load the others. Unchanging. Ownership: always a shared_ptr's. Threads: any.
class state_group : public std::enable_shared_from_this<state_group> {
 public:
  virtual ~state_group() = default;
  // False for an object that is not in the group, whether it exists or not.
  virtual bool find(object_number number, object_state& found) const = 0;
};

// One stored object as load() hands it over. `body` stays valid only during the call that passes
// it; where there is a group, for as long as that is held.
struct object_state {
  object_number number;
  class_number layout;
  std::span<const std::byte> body;
  const state_group* group = nullptr;  // not every object has one
};

// Receives what load() finds, in no particular order.
class state_sink {
 public:
  virtual ~state_sink() = default;
  virtual void found(const object_state& state) = 0;
  virtual void missing(object_number number) = 0;
  // Whether it is read once among very much, so that it is not worth a storage's memory.
  virtual bool is_passing() const { return false; }
};

// One object's part in a commit. `body` must stay valid until commit() or prepare() returns.
struct object_change {
  object_number number;
  class_number layout;              // ignored when removed
  std::span<const std::byte> body;  // ignored when removed
  bool removed = false;
  bool is_new = false;  // did not exist before; left out of notices
};

// Tells which objects a commit changed. The committer's session compares `origin` with its own
// address and finds in `attachment` what it handed to commit().
struct notice {
  commit_version version = 0;
  std::vector<object_number> changed;  // written and removed, not newly allocated ones
  const void* origin = nullptr;
  std::shared_ptr<void> attachment;
};

struct commit_request {
  std::span<const object_change> changes;
  const void* origin = nullptr;
  std::shared_ptr<void> attachment;
  // Other objects that must be there, and stay: what the changes refer to, or have read and write
  // anew. Where one is missing or condemned when the commit's turn has come, it throws
  // object_deleted naming that one.
  std::span<const object_number> builds_on = {};
  // All of them were there in this version, or in a later one; 0: that is not known.
  commit_version seen_at = 0;
};

// A commit that takes part in several storages, unique in the world (random).
struct global_transaction {
  std::uint64_t high = 0, low = 0;
  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 about any defaulted comparison
  friend auto operator<=>(const global_transaction&, const global_transaction&) = default;
};

// A storage, wherever its directory is moved; unique in the world (random, made with the storage).
struct storage_identity {
  std::uint64_t high = 0, low = 0;
  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 about any defaulted comparison
  friend auto operator<=>(const storage_identity&, const storage_identity&) = default;
};

// A storage's part in a commit over several: durable, but neither visible nor given up.
struct prepared_commit {
  global_transaction id;
  storage_identity coordinator;  // where the decision is recorded
  std::string coordinator_name;  // as it was when prepared; for messages
};

// That a commit over several storages is to be finished in all of them.
struct commit_decision {
  global_transaction id;
  std::vector<storage_identity> participants;  // without the coordinator
};

// Is told that there is something new.
class commit_listener {
 public:
  virtual ~commit_listener() = default;
  // Commits have become visible, and their notices are queued in every subscription. Called by
  // committing threads, which hold much meanwhile: must do no more than wake somebody.
  virtual void committed() noexcept = 0;
};

// One session's view of a storage's notices. Destroying it unsubscribes.
// Threads: one caller at a time.
class notice_subscription {
 public:
  virtual ~notice_subscription() = default;

  // The newest version whose notice is queued. Cheap: one atomic load; safe from any thread.
  virtual commit_version newest() const = 0;

  // Takes all queued notices, oldest first; returns only after `through` has been queued (a commit
  // that is visible to load() is queued at most moments later). `through` is a version that load(),
  // lock(), commit() or newest() has named.
  virtual std::vector<std::shared_ptr<const notice>> take(commit_version through) = 0;

  // Has `listener` told of every commit from now on, until another one is set, or null, or the
  // subscription goes; returns when the listener before is not being told any more.
  // Threads: any, at any time.
  virtual void set_listener(commit_listener* listener) = 0;
};

enum class lock_mode : std::uint8_t { shared, exclusive };

// Some of 64 neighbours: the object of number 64 * group + i for each bit i of `members`.
struct neighbours {
  static constexpr object_number most = 64;
  static constexpr object_number group_of(object_number number) { return number / most; }
  static constexpr std::uint64_t member_of(object_number number) {
    return std::uint64_t{1} << (number % most);
  }

  object_number group = 0;
  std::uint64_t members = 0;
};

// A transaction as the lock tables see it. One owner may hold locks in several storages; waiting
// owners of all storages of the process form one graph, so that a cycle through two storages is
// found as well.
// Threads: the thread that runs the transaction. Ownership: the transaction's.
class lock_owner;

// Holds the locks of one storage.
class lock_table {
 public:
  virtual ~lock_table() = default;

  // Waits until `owner` holds `number` in `mode` (shared may grow to exclusive). Already holding it
  // costs one look-up. Throws deadlock at once when waiting would close a cycle, lock_timeout after
  // `limit`; both leave the owner's other locks alone.
  // Returns the newest commit version at the time of the grant: a cached state older than a commit
  // up to it may be stale.
  virtual commit_version lock(lock_owner& owner, object_number number, lock_mode mode,
                              std::chrono::milliseconds limit) = 0;

  // lock() of each of them, shared and in ascending order; may cost little more than one.
  virtual commit_version lock_shared(lock_owner& owner, const neighbours& objects,
                                     std::chrono::milliseconds limit) {
    commit_version newest = 0;
    for (std::uint64_t left = objects.members; left != 0; left &= left - 1) {
      const auto i = static_cast<object_number>(std::countr_zero(left));
      newest = lock(owner, objects.group * neighbours::most + i, lock_mode::shared, limit);
    }
    return newest;
  }

  // Releases all that `owner` holds here.
  virtual void unlock_all(lock_owner& owner) noexcept = 0;
};

struct layout_record {
  class_number number;
  std::vector<std::byte> layout;
};

struct storage_statistics {
  std::uint64_t file_bytes = 0;     // all files of the storage
  std::uint64_t used_bytes = 0;     // without free room inside them
  std::uint64_t commits = 0;        // since opening
  std::uint64_t commit_groups = 0;  // flushes that carried them
};

// While it lives, its storage takes no commits: they wait. Keep it short, and wait for nothing that
// may wait for a commit. Threads: any one may destroy it.
class commit_pause {
 public:
  virtual ~commit_pause() = default;
};

// Which objects are going to be removed. While it lives, no commit builds on them any more.
// Threads: any one may destroy it.
class condemnation {
 public:
  virtual ~condemnation() = default;
};

// What is wrong with what a storage keeps.
struct storage_fault {
  // The objects that cannot be read because of it, as far as they exist; 0 when it is not about
  // certain objects.
  object_number first = 0, last = 0;
  std::string text;  // as "the checksum does not match"
};

// Receives what a check finds. Each function returns false to end the check.
class check_sink {
 public:
  virtual ~check_sink() = default;
  // An object that can be read, in the order of numbers.
  virtual bool found(const object_state& state) = 0;
  virtual bool fault(const storage_fault& fault) = 0;
  // Called often, at least every few milliseconds while nothing is found.
  virtual bool goes_on() { return true; }
};

// A storage as it was at one moment, while commits go on. Long-lived views keep the storage's
// write-ahead log from shrinking. Threads: one at a time. Outlived by its storage.
class storage_view {
 public:
  virtual ~storage_view() = default;

  virtual commit_version version() const = 0;
  // As dbs_storage::load(). Throws corrupt_data at the first object that cannot be read.
  virtual void load(std::span<const object_number> numbers, state_sink& into) = 0;

  // Verifies what the backend itself is responsible for, beside the objects' contents: that it has
  // what it says it has, and that it reads as it was written. Goes on after each fault. With `full`
  // everything is read; otherwise only what is about the storage as a whole, and no object.
  // Returns false when the sink ended it. Throws only for lack of memory, and what the sink throws.
  virtual bool check(bool full, check_sink& into) = 0;
};

// Copies a storage, as it is at one moment, while commits go on.
// Threads: one at a time. The storage outlives it.
class storage_copier {
 public:
  virtual ~storage_copier() = default;

  // Does beforehand what would make fix() take long.
  virtual void prepare() = 0;
  // The copy is to be of this moment. Called once, with commits paused; they may go on afterwards.
  virtual void fix() = 0;
  // What the copy will take, about; after fix().
  virtual std::uint64_t bytes() const = 0;

  // How much of bytes() has been written, and how much of that read back and found to be right;
  // false ends write().
  using progress = std::function<bool(std::uint64_t written, std::uint64_t verified)>;

  // Makes an embedded storage in `directory`, which it makes as well, with an identity of its own
  // and nothing left of commits over several storages; syncs it, reads all of it back and checks
  // that. Returns false when `told` has ended it. Then, and when this throws, what has been made is
  // the caller's to remove. Throws corrupt_data also when the storage itself is damaged.
  virtual bool write(const std::string& directory, const progress& told) = 0;
};

class dbs_storage {
 public:
  virtual ~dbs_storage() = default;

  // For messages: the directory or address.
  virtual const std::string& name() const = 0;

  // Hands every asked-for object to `into` and returns the version that the states are as of, which
  // is at least `at_least`. A number that no object has is reported missing.
  virtual commit_version load(std::span<const object_number> numbers, commit_version at_least,
                              state_sink& into) = 0;

  // Objects that will be loaded before long, in about this order: a storage may begin to read them.
  // Only a hint, which may be dropped.
  virtual void expect(std::span<const object_number> /*numbers*/) noexcept {}

  // `count` consecutive numbers nobody else gets, all >= first_object_number; never the root's.
  // They are not durable: numbers that no commit uses are handed out again after reopening.
  virtual object_number allocate(std::uint32_t count) = 0;

  // The same of numbers whose objects have been removed: whole groups of neighbours (64, from a
  // multiple of that on) that follow each other, at most `most` numbers; none when there are none.
  // Those that reclaim() has passed and, of what was removed before the storage was opened, all.
  virtual number_range reuse(std::uint32_t most) = 0;

  // Numbers that were handed out and will not be used: no commit has any, nor will have.
  virtual void give_back(number_range unused) noexcept = 0;

  // For each group of neighbours that has lost its last object: when is_unused(its first number),
  // nobody can know any of its objects or has any of its numbers, and they may be used again. What
  // it returns false for is asked about the next time.
  virtual void reclaim(const std::function<bool(object_number first)>& is_unused) = 0;

  // Makes all changes durable and visible, or none. Commits that arrive together share one flush.
  // Returns the commit's version; by then every subscription has its notice. Without changes
  // nothing is committed, and it only verifies what it builds on. Throws object_deleted,
  // input_output or storage_full when nothing was committed, outcome_unknown when that cannot be
  // told.
  virtual commit_version commit(const commit_request& request) = 0;

  // Whether it takes no commits until it is opened again, as after outcome_unknown.
  virtual bool has_failed() const { return false; }

  // Returns when all that is visible is durable, under any durability option.
  virtual void make_durable() = 0;

  // What has been removed up to now gives its room back before this returns, as far as other
  // objects can use it, and statistics() has it as free. Commits go on for most of the time.
  // Storages that keep nothing back have nothing to do.
  virtual void give_back_room() {}

  // Returns when no commit is on its way; what has been committed is visible, its notices queued.
  // Begins in its turn, however many commits keep arriving. Who pauses several storages does so in
  // the order of their identities.
  virtual std::unique_ptr<commit_pause> pause_commits() = 0;

  // From now on the objects for which it returns true are condemned. It is called by committing
  // threads, which hold much meanwhile. One at a time.
  virtual std::unique_ptr<condemnation> condemn(
      std::function<bool(object_number number)> is_condemned, const commit_pause& during) = 0;

  // The number of a class layout, which becomes durable (at once, in a commit of its own) when this
  // storage has not seen it before. Equal bytes get equal numbers.
  virtual class_number intern_layout(std::span<const std::byte> layout) = 0;
  virtual std::vector<layout_record> layouts() = 0;

  // Notices of the commits after newest_version(). With an `origin`, attachments come with the
  // notices of that origin only, and when notices pile up untaken, neighbouring ones of other
  // origins become one: version of the last, origin null, changed numbers of all (sorted, each
  // once). With null every notice comes as it is.
  virtual std::unique_ptr<notice_subscription> subscribe(const void* origin) = 0;

  // The newest version that is visible and whose notice is queued.
  virtual commit_version newest_version() const = 0;
  virtual lock_table& locks() = 0;

  // Several storages: storage/multi_commit.h is the only caller of these and says how they follow
  // each other. All make what they change durable before they return, under any durability option,
  // except forget_decision(). A failed one leaves everything as it was, unless outcome_unknown is
  // thrown.
  virtual storage_identity identity() const = 0;

  // Makes the changes durable, but not visible.
  virtual void prepare(const global_transaction& id, const storage_identity& coordinator,
                       const std::string& coordinator_name, const commit_request& request) = 0;
  // At the coordinator: makes the changes and the decision durable at once.
  virtual commit_version commit_and_decide(const commit_decision& decision,
                                           const commit_request& request) = 0;
  // At the others, once it is decided.
  virtual commit_version commit_prepared(const global_transaction& id) = 0;
  // From commit_and_decide() or commit_prepared() to publish() (until when the changes of `request`
  // must stay, without their bodies), load() keeps to older versions and
  // other commits wait. publish() queues the notice and shows the version; it cannot fail.
  virtual void publish(const global_transaction& id) noexcept = 0;
  // In place of publish() when another participant failed after the decision: load() keeps to older
  // versions and commits throw outcome_unknown until the storage is opened again and recovered.
  virtual void abandon(const global_transaction& id) noexcept = 0;
  virtual void discard_prepared(const global_transaction& id) = 0;
  // Lazily, with a later commit: losing this in a crash does no harm.
  virtual void forget_decision(const global_transaction& id) = 0;

  // What opening the storage found and recovery has not settled yet; nothing that is in progress.
  virtual std::vector<prepared_commit> prepared() = 0;
  virtual std::vector<commit_decision> decisions() = 0;

  // Calls `visit` for every object in number order, all as of one version, while commits go on.
  // `visit` returns false to stop. Long visits keep the storage's write-ahead log from shrinking.
  virtual void for_each(const std::function<bool(const object_state&)>& visit) = 0;

  // The storage as it is during a pause of its commits (of this storage): views of several storages
  // that are taken while all are paused belong together. Throws as for_each().
  virtual std::unique_ptr<storage_view> view(const commit_pause& during) = 0;

  virtual std::unique_ptr<storage_copier> copier() = 0;

  virtual storage_statistics statistics() = 0;

  // How much memory, in bytes, the storage may keep for itself as far as `user` is concerned; 0:
  // that one is gone. The largest counts, unless the address says how much. Storages that keep
  // nothing ignore it. Throws nothing but bad_alloc, and never for 0.
  virtual void suggest_cache(const void* /*user*/, std::size_t /*bytes*/) {}
};

// Opens the storage that `address` names (for example "file:./data"), creating it when missing. A
// relative path is taken from `base_directory`. All sessions of a process that open the same
// storage share one object; the last one to let go of it closes it. Options follow a '?' (see
// storage/storage_address.h): "file:./data?durability=relaxed&mmap=off&cache=64M".
// Throws usage for an address that no backend knows and for options that differ from those of the
// sessions that have it open, database_in_use when another process holds it, and input_output
// naming the directory when that cannot be read or written. After fork() the child's calls throw
// usage: what its parent opened is its parent's.
std::shared_ptr<dbs_storage> open_storage(const std::string& address,
                                          const std::string& base_directory);

// Whether there is a storage, which open_storage() would not have to make.
bool has_storage(const std::string& address, const std::string& base_directory);

}  // namespace goods
