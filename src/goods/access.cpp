#include <goods/access.h>

#include <string>
#include <type_traits>

#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/metaobject.h>
#include <goods/object_handle.h>
#include <goods/ref.h>

#include "goods/epoch.h"
#include "goods/object_cache.h"
#include "goods/thread_attachment.h"

namespace goods {

namespace {

[[noreturn]] void throw_no_object() {
  throw_error(error_code::object_deleted,
              "The object of this reference no longer exists: its session was closed, or another "
              "object took its place.");
}

cache_manager& session_of(const object_handle& handle) {
  cache_manager* session = cache_manager::current();
  if (session == nullptr || &session->db() != handle.owner()) {
    throw_error(error_code::thread_not_attached,
                "The calling thread is not attached to the session of the object that it uses.");
  }
  return *session;
}

void count_write(bool is_transient) {
  thread_attachment* const thread = current_attachment();
  if (thread != nullptr) ++(is_transient ? thread->transient_writes : thread->stored_writes);
}

void verify_limit() {
  const thread_attachment* const thread = current_attachment();
  if (thread != nullptr && thread->open() != nullptr) thread->open()->verify_limit();
}

// Whether a write access that an exception leaves may have changed something that stays.
bool has_half_changed(object_handle& handle) {
  const thread_attachment* const thread = current_attachment();
  return thread != nullptr && thread->open() != nullptr && thread->open()->has_changed(handle);
}

// The scheme of the object's class, and its body for a transient object.
struct looked_up {
  metaobject* scheme = nullptr;
  object* transient_body = nullptr;
};

looked_up look_up(object_handle& handle, bool writes) {
  if (handle.is_transient()) {
    object* body = handle.body();
    if (body == nullptr) throw_no_object();
    return {nullptr, body};
  }
  cache_manager& session = session_of(handle);
  {
    const reader_section section;
    const object* const body = writes ? handle.body() : session.cache().loaded(handle);
    if (body != nullptr) return {body->cls().scheme(), nullptr};
  }
  // What is to be written need not be in the session's cache.
  return {session.attachment()->states().class_of(session, handle.id()).scheme(), nullptr};
}

// A reference moved out of a private copy may still be an identifier.
object_ref counted(object_ref reference) {
  return reference.word().is_id() ? to_reference(reference.word()) : reference;
}

// An access to a transient object pins its body and is none of the session's business, even when
// the object is stored meanwhile: `scheme` tells whether the thread's accesses were counted.
template <class Body>
Body* begin_access(object_handle& handle, metaobject*& scheme,
                   Body* (metaobject::*begin)(object_handle&)) {
  const looked_up found = look_up(handle, std::is_same_v<Body, object>);
  scheme = found.scheme;
  if (scheme != nullptr) return (scheme->*begin)(handle);
  found.transient_body->pin();
  return found.transient_body;
}

template <class Body>
void end_access(object_handle& handle, metaobject* scheme, Body* body, bool failed,
                void (metaobject::*end)(object_handle&, Body*, bool)) {
  if (scheme == nullptr) return body->unpin();
  (scheme->*end)(handle, body, failed);
}

}  // namespace

changing_call::changing_call() : thread_(current_attachment()) {
  if (thread_ == nullptr) return;
  stored_before_ = thread_->stored_writes;
  transient_before_ = thread_->transient_writes;
  counts_transient_ = thread_->open() != nullptr && thread_->open()->has_changes();
}

changing_call::~changing_call() {
  if (std::uncaught_exceptions() <= exceptions_ || !has_changed()) return;
  current_attachment()->open()->half_changed(error_code::usage,
                                             "a call in it failed after half of its changes.");
}

void changing_call::failed(const error_info& error) const noexcept {
  if (has_changed()) current_attachment()->open()->half_changed(error.code(), message_of(error));
}

bool changing_call::has_changed() const {
  if (thread_ == nullptr || thread_ != current_attachment()) return false;
  if (thread_->open() == nullptr) return false;
  return thread_->stored_writes != stored_before_ ||
         (counts_transient_ && thread_->transient_writes != transient_before_);
}

read_access_base::read_access_base(object_ref reference)
    : reference_(counted(std::move(reference))),
      body_(begin_access(*reference_.handle(), scheme_, &metaobject::begin_read_access)) {}

read_access_base::~read_access_base() noexcept(false) {
  const bool failed = scheme_ != nullptr && std::uncaught_exceptions() > exceptions_;
  end_access(*reference_.handle(), scheme_, body_, failed, &metaobject::end_read_access);
}

write_access_base::write_access_base(object_ref reference)
    : reference_(counted(std::move(reference))),
      body_(begin_access(*reference_.handle(), scheme_, &metaobject::begin_write_access)) {
  if (scheme_ != nullptr) return;
  try {
    verify_limit();  // of stored objects the transaction does it itself
  } catch (...) {
    body_->unpin();
    throw;
  }
}

write_access_base::~write_access_base() noexcept(false) {
  const bool has_ended_well = std::uncaught_exceptions() <= exceptions_;
  if (has_ended_well || (scheme_ != nullptr && has_half_changed(*reference_.handle()))) {
    count_write(scheme_ == nullptr);
  }
  end_access(*reference_.handle(), scheme_, body_, !has_ended_well, &metaobject::end_write_access);
}

void check_body(const object& body, const class_descriptor& expected) {
  const class_descriptor& actual = body.cls();
  if (&actual == &expected || expected.is_superclass_for(actual)) return;
  if (&expected == &object::self_class) return;  // also of what has not named its base
  throw_error(error_code::corrupt_data, std::string("A reference to a \"") + expected.name() +
                                            "\" leads to a \"" + actual.name() + "\".");
}

void throw_written_too_late(const object& body) {
  throw_error(error_code::usage, std::string("A \"") + body.cls().name() +
                                     "\" is written through an access whose transaction is over.");
}

class_descriptor& class_of(const object_ref& reference) {
  const object_ref held = counted(reference);
  object_handle& handle = *held.handle();
  if (handle.is_transient()) {
    if (handle.body() == nullptr) throw_no_object();
    return handle.body()->cls();
  }
  cache_manager& session = session_of(handle);
  if (!session.in_transaction()) session.cache().catch_up();
  const reader_section section;
  return session.cache().loaded(handle)->cls();
}

void check_class(const object_ref& reference, const class_descriptor& target) {
  if (reference.is_null()) return;
  const class_descriptor& actual = class_of(reference);
  if (target.is_superclass_for(actual)) return;
  throw_error(error_code::bad_typecast, std::string("A \"") + actual.name() +
                                            "\" cannot be used as a \"" + target.name() + "\".");
}

}  // namespace goods
