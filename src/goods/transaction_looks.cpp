// What a transaction locks, and what it looks at.
#include <algorithm>
#include <new>
#include <span>
#include <utility>

#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/epoch.h"
#include "goods/known_objects.h"
#include "goods/lock_errors.h"
#include "goods/locked_states.h"
#include "goods/object_cache.h"
#include "goods/transaction.h"

namespace goods {

void transaction::lock_number(storage_number storage, object_number number) {
  lock(make_object_id(storage, number), lock_mode::exclusive);
}

commit_version transaction::lock(object_id id, lock_mode mode) {
  verify_not_doomed();
  obj_storage& storage = session_.db().storage(storage_of(id));
  try {
    const commit_version newest =
        storage.dbs().locks().lock(owner_, number_of(id), mode, session_.lock_timeout());
    session_.cache().apply_notices(storage_of(id), newest);
    return newest;
  } catch (const error_info& error) {
    refused(error, id, mode);
  }
}

// In a handler.
void transaction::refused(const error_info& error, object_id id, lock_mode mode) {
  doom(error.code(), message_of(error));
  if (error.code() != error_code::deadlock && error.code() != error_code::lock_timeout) throw;
  // Others go on meanwhile: the locks are free.
  try {
    doom_->reason = describe_conflict(session_, error.code(), id, mode, owner_.conflict());
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the lock table's words remain
  }
  throw_error(doom_->code, doom_->reason);
}

const object* transaction::read(object_handle& handle) {
  const object* body = own_copy(handle);
  if (body != nullptr) {
    body->pin();
    return body;
  }
  lock(handle.id(), lock_mode::shared);
  const reader_section section;
  body = session_.cache().loaded(handle);
  body->pin();
  return body;
}

const object* transaction::look(ref_word word) {
  verify_not_doomed();
  const object_id id = word.is_handle() ? word.handle()->id() : word.id();
  if (const object* body = known_.find(id)) return body;
  object_ref counted = word.is_handle() ? object_ref(word.handle()) : session_.cache().counted(id);
  const object* body = read(*counted.handle());
  known_.keep(std::move(counted), body);
  return body;
}

const object* transaction::look_in_passing(ref_word word) {
  verify_not_doomed();
  const object_id id = word.is_handle() ? word.handle()->id() : word.id();
  if (const object* body = known_.find(id)) return body;
  if (holds_exclusively(id)) return nullptr;  // its own version counts
  const commit_version newest = lock(id, lock_mode::shared);
  if (!states_.has(id, newest)) {
    if (has_body_or_copy(word) || session_.cache().was_passed_lately(id)) return nullptr;
  }
  return states_.guest(session_, id, newest);
}

const object* transaction::look_beside_write(object_id id) {
  verify_not_doomed();
  if (!read_.empty() || session_.watches_joins()) return nullptr;
  const bool was_held = holds_exclusively(id);
  const commit_version newest = lock(id, lock_mode::exclusive);
  if (was_held || !states_.has(id, newest)) {
    if (has_body_or_copy(ref_word::of(id))) return nullptr;
  }
  return states_.guest(session_, id, newest);
}

bool transaction::holds_exclusively(object_id id) const {
  const neighbours self{neighbours::group_of(number_of(id)), neighbours::member_of(number_of(id))};
  return owner_.holds_exclusively(session_.db().storage(storage_of(id)).dbs().locks(), self);
}

// Then it is looked at in the usual way: what the session has in memory costs less there, and a
// copy may be the transaction's own.
bool transaction::has_body_or_copy(ref_word word) const {
  const reader_section section;
  const object_handle* const handle =
      word.is_handle() ? word.handle() : session_.cache().find(word.id());
  return handle != nullptr && (handle->body() != nullptr || handle->is_being_written());
}

bool transaction::has_written(std::span<const stored_neighbours> objects) const {
  return !copies_.empty() && std::ranges::any_of(objects, [&](const stored_neighbours& some) {
    return owner_.holds_exclusively(session_.db().storage(some.storage).dbs().locks(),
                                    some.objects);
  });
}

// What is looked at before the locks only spares those that a stale sum would take.
bool transaction::lock_unchanged(std::span<const stored_neighbours> objects, std::uint32_t sum) {
  verify_not_doomed();
  const change_counters& changes = session_.cache().changes();
  if (changes.sum_of(objects) != sum || has_written(objects)) return false;
  lock_shared(objects);
  return changes.sum_of(objects) == sum;
}

void transaction::lock_shared(std::span<const stored_neighbours> objects) {
  const auto limit = session_.lock_timeout();
  for (std::size_t next = 0; next < objects.size();) {
    const storage_number storage = objects[next].storage;
    lock_table& locks = session_.db().storage(storage).dbs().locks();
    commit_version newest = 0;
    for (; next < objects.size() && objects[next].storage == storage; ++next) {
      try {
        newest = locks.lock_shared(owner_, objects[next].objects, limit);
      } catch (const error_info& error) {
        const auto& waits = owner_.conflict().waits;  // the first one's is the thread's
        refused(
            error,
            waits.empty() ? objects[next].first() : make_object_id(storage, waits.front().number),
            lock_mode::shared);
      }
    }
    session_.cache().apply_notices(storage, newest);
  }
}

}  // namespace goods
