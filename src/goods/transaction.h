// One thread's transaction.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <goods/dbs_storage.h>
#include <goods/errors.h>
#include <goods/object.h>
#include <goods/object_ref.h>
#include <goods/reader.h>

#include "goods/publication.h"
#include "storage/lock_owner.h"

namespace goods {

class cache_manager;
class known_objects;
class locked_states;
class transaction_companion;

// Private copies of what was written, locks, and the way to commit or drop them.
//
// Locks are held to the end. The first write access to an object copies it; publishing the commit
// makes the copy the session's body of the object.
//
// A transaction that cannot be committed any more (a lock was not to be had, a call failed halfway,
// an inner one was rolled back) is doomed: copies and locks go at once, but it stays open to the
// end of its scope, so that nothing that is still called in there is committed on its own. Whatever
// is asked of it then throws what doomed it.
//
// Threads: the one that opened it; publishing may run on another one while the owner waits.
class transaction {
 public:
  transaction(cache_manager& session, lock_owner& owner, known_objects& known,
              locked_states& states, bool is_explicit);
  ~transaction();  // rolls back
  transaction(const transaction&) = delete;
  transaction& operator=(const transaction&) = delete;

  // The calling thread's; one must be open.
  static transaction& running();

  // Between the outermost begin and its end. A transaction that an access began becomes implicit
  // again then, if the access still goes on: it commits at the access's end.
  bool is_explicit() const { return depth_ > 0; }
  bool is_of_access() const { return is_of_access_; }
  void join() { ++depth_; }
  // Whether this was the outermost end.
  bool leave() { return --depth_ == 0; }
  int depth() const { return depth_; }

  // Whether the application began it itself, and not the library for one call.
  bool is_of_application() const { return is_explicit() && !is_of_call_; }
  void set_of_call() { is_of_call_ = true; }

  // Never the number of another transaction of this process, and never 0.
  std::uint64_t number() const { return number_; }

  // Whether it holds private copies: objects that are not stored yet may belong to the tree then.
  bool has_changes() const { return !copies_.empty() || !roots_.empty() || !loose_.empty(); }

  // Rolls back now; see above. `reason` is a sentence. The first one counts, unless it was told
  // without the code that a later one has.
  void doom(error_code code, const char* reason) noexcept;
  bool is_doomed() const { return doom_.has_value(); }
  // What is left halfway in a call that an exception leaves dooms it, unless it is attempt()ed.
  void half_changed(error_code code, const char* reason) noexcept {
    if (!is_attempt_) doom(code, reason);
  }
  void verify_not_doomed() const {
    if (doom_) throw_doomed();
  }

  // The version to read: locked shared, the transaction's own copy when it has one. Valid to the
  // end of the caller's reader_section.
  const object* read(object_handle& handle);
  // The same by reference, not pinned: it stays until the thread's outermost read is over.
  const object* look(ref_word word);
  // The same for what is looked at once among much: it need not be in the session's cache then, and
  // has no handle. Null for what has to be looked at as above.
  const object* look_in_passing(ref_word word);
  // The same for who is going to write what belongs to a stored object, which itself stays as it is
  // and needs no private copy: locks it exclusively. Null also when joining has to be told of.
  const object* look_beside_write(object_id id);

  // See cache_manager. Throws what look() would.
  bool lock_unchanged(std::span<const stored_neighbours> objects, std::uint32_t sum);
  // Whether it has private copies of some of these.
  bool has_written(std::span<const stored_neighbours> objects) const;

  // The private copy, locked exclusively and made at the first call. As read(), but not pinned.
  object* write(object_handle& handle);

  // Before something is written, a transient object included: dooms it and throws when it takes
  // more memory than it may. No effect on a doomed one.
  void verify_limit();
  // A write access has ended: takes in by how much the copy has grown.
  void written(object_handle& handle) noexcept;
  // Whether there is a private copy that differs from what is committed, as far as can be told.
  bool has_changed(object_handle& handle) const noexcept;

  // As write(), for an object that is locked and perhaps not changed: unless it is written again,
  // the commit leaves it out when it would be stored as it is.
  void touched(object_handle& handle);

  // That the application has read it, see abort_on_read_lock_promotion.
  void note_read(object_id id) { read_.insert(id); }

  // What the session keeps with the transaction, see cache_manager.
  std::unique_ptr<transaction_companion> companion;
  // What the library above keeps for its part of the commit, see commit_upkeep.h.
  std::unique_ptr<transaction_companion> upkeep;
  // The private copies, in the order of their making; null bodies are none any more.
  std::span<const publication::copy> copies() const { return changes_->copies; }

  // Makes `body` the private copy of the object behind `handle`; rolled back, it returns to the
  // handle that it has now.
  void replace(object_handle& handle, object& body);

  // The private copy that the calling thread's transaction has; null when there is none.
  static object* copy_of(object_handle& handle) noexcept;

  // Locks a number exclusively, whether there is an object behind it or not.
  void lock_number(storage_number storage, object_number number);

  // See note_back_reference().
  void refers_back_to(const object_ref& target);

  // Stores `root` (transient) as the root object of `storage` when this commits.
  void add_root(object_ref root, storage_number storage);

  // Stores `object` (transient), with all that it refers to, in `storage` when this commits, though
  // nothing leads to it: the next collection removes it unless a handle holds it until something
  // does.
  void store(object_ref object, storage_number storage);

  // Runs `work`. What it throws leaves the transaction as it was, but for the locks, as far as
  // `work` has written nothing that was written before: new copies are dropped. A lock that was not
  // to be had dooms it nevertheless.
  void attempt(const std::function<void()>& work);

  // Before commit(), while the thread still has it open: does what else belongs to the commit, see
  // commit_upkeep.h. What throws leaves a transaction that can only be rolled back.
  void prepare();
  // Makes everything durable and visible; nothing has been when it throws, unless the code is
  // outcome_unknown. The transaction is over either way.
  void commit();
  void roll_back() noexcept;

 private:
  // What a private copy was stored as, where that is short enough to be kept.
  struct stored_form {
    static constexpr std::size_t most = 24;
    class_number layout = 0;  // 0: not kept
    std::uint8_t size = 0;
    std::array<std::byte, most> bytes;
  };
  struct measured_copy {
    object* body;
    std::size_t bytes;        // when it was measured last
    bool is_touched = false;  // and perhaps not changed
    stored_form before = {};
  };
  struct body_unpinner {
    void operator()(object* body) const { body->unpin(); }
  };
  using own_body = std::unique_ptr<object, body_unpinner>;

  measured_copy* find_copy(object_handle& handle);
  object* own_copy(object_handle& handle) const;
  own_body copy_committed(object_handle& handle, commit_version newest, stored_form& before,
                          commit_version& seen_at);
  own_body copy_stored(object_handle& handle, commit_version newest, stored_form& before,
                       commit_version& seen_at);
  commit_version lock(object_id id, lock_mode mode);
  void lock_shared(std::span<const stored_neighbours> objects);
  [[noreturn]] void refused(const error_info& error, object_id id, lock_mode mode);
  void commit_copies();
  void take_back(std::size_t first) noexcept;
  void end_replacing() noexcept;
  bool is_own(const object& body) const;
  bool is_as_committed(object_handle& handle, const measured_copy& copy) const;
  bool has_body_or_copy(ref_word word) const;
  bool holds_exclusively(object_id id) const;
  void drop_unchanged();
  [[noreturn]] void throw_doomed() const;
  void finish() noexcept;  // gives up copies that were not published, and the locks

  struct end_before_its_time {
    error_code code;
    std::string reason;  // empty when there was no memory for it
  };

  cache_manager& session_;
  const std::uint64_t number_;
  bool is_of_access_;
  bool is_of_call_ = false;
  int depth_;  // begins without an end
  std::optional<end_before_its_time> doom_;
  bool is_committed_ = false;
  bool is_attempt_ = false;
  lock_owner& owner_;
  known_objects& known_;
  locked_states& states_;
  std::shared_ptr<publication> changes_;  // owns the copies; null when it is over
  std::unordered_map<object_handle*, measured_copy> copies_;  // look-up into changes_
  std::size_t copied_bytes_ = 0;                              // of all of them
  bool has_touched_ = false;                                  // copies, now or earlier
  const std::int64_t made_before_;                            // see new_object_bytes
  std::unordered_set<object_id> read_;                        // see note_read()
  std::vector<std::pair<object_ref, storage_number>> roots_;
  std::vector<std::pair<object_ref, storage_number>> loose_;  // see store()
  // What back references have been set to, which count nothing themselves.
  std::map<object_id, object_ref> back_targets_;
  std::vector<std::pair<object_ref, object*>>
      replacing_;  // bodies that replace(), and their handles
};

}  // namespace goods
