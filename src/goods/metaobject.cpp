#include <goods/metaobject.h>

#include <goods/cache_manager.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/epoch.h"
#include "goods/object_cache.h"
#include "goods/thread_attachment.h"

namespace goods {

pessimistic_metaobject pessimistic_scheme;
std::atomic<bool> pessimistic_metaobject::abort_on_read_lock_promotion{false};

namespace {

// Counts the access that begins, and takes that back when it cannot.
class beginning_access {
 public:
  explicit beginning_access(thread_attachment& thread) : thread_(thread) { ++thread_.accesses; }
  ~beginning_access() {
    if (!begun_ && --thread_.accesses == 0) roll_back_implicit();
  }
  void begun() { begun_ = true; }

 private:
  void roll_back_implicit() {
    if (thread_.open() != nullptr && !thread_.open()->is_explicit()) thread_.close();
  }
  thread_attachment& thread_;
  bool begun_ = false;
};

const object* pinned_committed(object_cache& cache, object_handle& handle) {
  cache.catch_up();
  cache.stable_publish_count();  // what is being published may have returned to its caller
  const reader_section section;
  const object* body = cache.loaded(handle);
  body->pin();
  return body;
}

// Within another access, or a call of the library, it is that one's business.
void note_read(const thread_attachment& thread, const object_handle& handle) {
  if (!pessimistic_metaobject::abort_on_read_lock_promotion.load(std::memory_order_relaxed)) return;
  if (thread.open() == nullptr || !thread.open()->is_of_application()) return;
  if (thread.accesses == 0 && thread.library_calls == 0) thread.open()->note_read(handle.id());
}

// The thread's outermost access ends what it began without being asked to.
void end_access(bool failed) {
  cache_manager* session = cache_manager::current();
  if (session == nullptr) return;  // detached meanwhile, which rolled back
  thread_attachment& thread = *session->attachment();
  if (thread.accesses > 0 && --thread.accesses > 0) return;
  if (thread.open() == nullptr || thread.open()->is_explicit()) return;
  const std::unique_ptr<transaction> ending = failed ? thread.close() : thread.close_prepared();
  if (!failed) ending->commit();
}

}  // namespace

const object* pessimistic_metaobject::begin_read_access(object_handle& handle) {
  cache_manager& session = cache_manager::require();
  thread_attachment& thread = *session.attachment();
  note_read(thread, handle);
  beginning_access beginning(thread);
  const object* body = thread.open() != nullptr ? thread.open()->read(handle)
                                                : pinned_committed(session.cache(), handle);
  beginning.begun();
  return body;
}

object* pessimistic_metaobject::begin_write_access(object_handle& handle) {
  cache_manager& session = cache_manager::require();
  thread_attachment& thread = *session.attachment();
  beginning_access beginning(thread);
  object* body = thread.open_or_join(false).write(handle);
  body->pin();
  beginning.begun();
  return body;
}

void pessimistic_metaobject::end_read_access(object_handle&, const object* body, bool failed) {
  body->unpin();
  end_access(failed);
}

void pessimistic_metaobject::end_write_access(object_handle& handle, object* body, bool failed) {
  const cache_manager* const session = cache_manager::current();
  transaction* const open = session != nullptr ? session->attachment()->open() : nullptr;
  if (open != nullptr) open->written(handle);
  body->unpin();
  end_access(failed);
}

void pessimistic_metaobject::begin_transaction() { cache_manager::require().begin_transaction(); }

isolation_level pessimistic_metaobject::end_transaction() {
  return cache_manager::require().end_transaction();
}

void pessimistic_metaobject::abort_transaction() { cache_manager::require().abort_transaction(); }

}  // namespace goods
