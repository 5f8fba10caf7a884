#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/object_handle.h>

#include "goods/epoch.h"
#include "goods/guest_list.h"
#include "goods/object_cache.h"
#include "goods/thread_attachment.h"

namespace goods {

namespace {

// After so many rounds that a commit disturbed, commits wait for the reader.
constexpr int rounds_without_waiting = 8;

}  // namespace

read_round::read_round(cache_manager* session) {
  if (session != nullptr) attachment_ = session->attachment();
  transaction* const open = attachment_ != nullptr ? attachment_->open() : nullptr;
  reader_.session_ = session;
  reader_.transaction_ = open;
  const bool is_outermost = attachment_ == nullptr || attachment_->reads == 0;
  checks_ = session != nullptr && open == nullptr && is_outermost;
  if (checks_) session->cache().catch_up();  // may throw: nothing is held yet
  in_section_ = open == nullptr;
  if (in_section_) reader_section::enter();
  if (attachment_ != nullptr) ++attachment_->reads;
  if (checks_) started_at_ = session->cache().stable_publish_count();
}

read_round::~read_round() {
  if (holds_publishing_) reader_.session_->cache().release_publishing();
  if (attachment_ != nullptr && --attachment_->reads == 0) {
    attachment_->known().release_displaced();
    attachment_->states().clear_guests();
  }
  if (in_section_) reader_section::leave();
}

bool read_round::is_consistent() const {
  return !checks_ || reader_.session_->cache().publish_count() == started_at_;
}

void read_round::prepare_retry() {
  object_cache& cache = reader_.session_->cache();
  if (reader_.guests_ != nullptr) reader_.guests_->clear();  // of a state that is over
  if (++rounds_ > rounds_without_waiting && !holds_publishing_) {
    cache.hold_publishing();
    holds_publishing_ = true;
    // Every load may bring a newer state as long as other sessions commit; what was loaded must not
    // be loaded again.
    reader_.keeps_what_it_loads_ = true;
  }
  started_at_ = cache.stable_publish_count();
}

reader::reader() = default;
reader::~reader() {
  if (guests_ != nullptr) guest_list::give_back(std::move(guests_));
}

const object* reader::look(ref_word word, const class_descriptor& cls) {
  if (word.is_null()) return nullptr;
  const bool transient = word.is_handle() && word.handle()->is_transient();
  const object* body = transient ? word.handle()->body() : look_persistent(word);
  if (body == nullptr) {
    throw_error(error_code::object_deleted, "A reference leads to an object that is gone.");
  }
  check_body(*body, cls);
  return body;
}

const object* reader::look_persistent(ref_word word) {
  if (session_ == nullptr) {
    throw_error(error_code::thread_not_attached,
                "The calling thread is not attached to a session, but uses a stored object.");
  }
  if (transaction_ != nullptr) {
    if (passed_ != nullptr) passed_->add(word.is_handle() ? word.handle()->id() : word.id());
    const object* const guest = keeps_second_looks_ ? transaction_->look_in_passing(word) : nullptr;
    return guest != nullptr ? guest : transaction_->look(word);
  }
  if (invites_guests_) {
    if (const object* body = look_in_passing(word)) return body;
  }
  object_cache& cache = session_->cache();
  while (true) {
    object_handle& handle = word.is_handle() ? *word.handle() : cache.find_or_make(word.id());
    const object_id id = handle.id();
    if (const object* body = cache.loaded(handle)) return body;
    word = ref_word::of(id);  // the handle was just dropped
  }
}

const object* reader::look_in_cache(ref_word word, object_id id) const {
  object_handle* handle = word.is_handle() ? word.handle() : session_->cache().find(id);
  return handle != nullptr ? handle->body() : nullptr;
}

guest_list& reader::guests() {
  if (guests_ == nullptr) guests_ = guest_list::take();
  guests_->set_passing(is_passing_);
  return *guests_;
}

// Null for what has to be looked at in the usual way.
const object* reader::look_in_passing(ref_word word) {
  const object_id id = word.is_handle() ? word.handle()->id() : word.id();
  guest_list& here = guests();
  if (const object* guest = here.find_nearby(*session_, id)) {
    if (keeps_second_looks_) session_->cache().was_passed_lately(id);  // the next look is a second
    return guest;
  }
  if (const object* body = look_in_cache(word, id)) return body;
  if (keeps_second_looks_ && session_->cache().was_passed_lately(id)) return nullptr;
  return here.load(*session_, id);
}

void reader::prefetch(std::span<const ref_word> words) {
  if (!invites_guests_ || session_ == nullptr) return;
  guests().prefetch(*session_, words);
}

void reader::expect(std::span<const ref_word> words) {
  if (!invites_guests_ || session_ == nullptr) return;
  guests().expect(*session_, words);
}

guest_room::guest_room(reader& in) : in_(in), outside_(std::move(in.guests_)) {}

guest_room::~guest_room() {
  if (in_.guests_ != nullptr) guest_list::give_back(std::move(in_.guests_));
  in_.guests_ = std::move(outside_);
}

}  // namespace goods
