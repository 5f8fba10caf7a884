#include <goods/cache_manager.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include <goods/database.h>

#include "goods/object_cache.h"
#include "goods/thread_attachment.h"

namespace goods {

namespace {

// Several seconds in all: whoever holds the locks may have no processor for a while.
constexpr int most_attempts = 1000;
constexpr int longest_pause = 10'000;  // microseconds

// The slot of a thread. Ending the thread leaves the session as detach() does.
struct thread_slot {
  std::shared_ptr<thread_attachment> attachment;
  ~thread_slot() { cache_manager::detach(); }
};

thread_slot& slot() {
  thread_local thread_slot mine;
  return mine;
}

// The same without the check for construction that each use of a thread_local object costs.
[[gnu::tls_model("initial-exec")]] thread_local thread_attachment* fast_slot = nullptr;

std::size_t usual_transaction_limit() {
  constexpr std::size_t most = std::size_t{4} << 30;
  const long pages = ::sysconf(_SC_PHYS_PAGES), bytes = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || bytes <= 0) return most;
  return std::min(most, static_cast<std::size_t>(pages) / 2 * static_cast<std::size_t>(bytes));
}

}  // namespace

std::atomic<bool> cache_manager::cooperative_mode{false};

cache_manager::cache_manager(database& db)
    : db_(db),
      transaction_limit_(usual_transaction_limit()),
      cache_(std::make_unique<object_cache>(db, *this)),
      ticket_(this, [](cache_manager*) {}) {}

cache_manager::~cache_manager() {
  const std::lock_guard guard(attachments_lock_);
  for (const auto& attachment : attachments_) attachment->leave_session();
}

thread_attachment* current_attachment() {
  return fast_slot != nullptr && fast_slot->session() != nullptr ? fast_slot : nullptr;
}

cache_manager* cache_manager::current() {
  return fast_slot == nullptr ? nullptr : fast_slot->session();
}

cache_manager& cache_manager::require() {
  if (cache_manager* session = current()) return *session;
  throw_error(error_code::thread_not_attached,
              "The calling thread is not attached to a session; call attach() first.");
}

thread_attachment* cache_manager::attachment() const {
  return current() == this ? fast_slot : nullptr;
}

void cache_manager::attach() {
  if (current() == this) return;
  detach();
  auto attachment = std::make_shared<thread_attachment>(*this);
  {
    const std::lock_guard guard(attachments_lock_);
    attachments_.push_back(attachment);
  }
  fast_slot = attachment.get();
  slot().attachment = std::move(attachment);
}

void cache_manager::detach() {
  if (fast_slot == nullptr) return;
  const std::shared_ptr<thread_attachment> mine = std::exchange(slot().attachment, nullptr);
  fast_slot = nullptr;
  cache_manager* session = mine->session();
  if (session == nullptr) return;
  mine->leave_session();
  const std::lock_guard guard(session->attachments_lock_);
  std::erase(session->attachments_, mine);
}

std::weak_ptr<cache_manager> cache_manager::ticket() {
  const std::lock_guard guard(attachments_lock_);
  return ticket_;
}

void cache_manager::revoke_tickets() {
  std::shared_ptr<cache_manager> next(this, [](cache_manager*) {});
  const std::lock_guard guard(attachments_lock_);
  ticket_.swap(next);
}

void cache_manager::begin_transaction() {
  thread_attachment* mine = attachment();
  if (mine == nullptr) require_attached();
  mine->open_or_join(true);
}

isolation_level cache_manager::end_transaction() {
  thread_attachment* mine = attachment();
  if (mine == nullptr) require_attached();
  if (mine->open() == nullptr || !mine->open()->is_explicit()) {
    throw_error(error_code::usage, "A transaction was ended that had not been begun.");
  }
  const bool is_outermost = mine->open()->leave();
  if (!is_outermost || (mine->open()->is_of_access() && mine->accesses > 0)) {
    mine->open()->verify_not_doomed();
    return serializable;
  }
  // The transaction is over whether its commit succeeds or throws.
  const std::unique_ptr<transaction> ending = mine->close_prepared();
  ending->commit();
  return serializable;
}

void cache_manager::abort_transaction() {
  thread_attachment* mine = attachment();
  transaction* const open = mine != nullptr ? mine->open() : nullptr;
  if (open == nullptr) return;
  const bool is_inner = open->depth() > 1 || (open->is_of_access() && mine->accesses > 0);
  if (!is_inner) {
    close_transaction();
    return;
  }
  open->doom(error_code::usage, "a transaction within it was rolled back.");
  if (open->is_explicit()) open->leave();
}

void cache_manager::close_transaction() {
  if (thread_attachment* mine = attachment()) mine->close();
}

std::uint64_t cache_manager::transaction_number() const {
  const thread_attachment* mine = attachment();
  return mine != nullptr && mine->open() != nullptr ? mine->open()->number() : 0;
}

bool cache_manager::in_transaction() const {
  const thread_attachment* mine = attachment();
  return mine != nullptr && mine->open() != nullptr;
}

bool cache_manager::is_reading() const {
  const thread_attachment* mine = attachment();
  return mine != nullptr && mine->reads > 0;
}

void cache_manager::require_attached() const {
  throw_error(error_code::thread_not_attached,
              "The calling thread is not attached to this session; call attach() first.");
}

void cache_manager::set_cache_limit(std::size_t bytes) {
  cache_->set_limit(bytes);
  db_.divide_cache(bytes / 2);
}
std::size_t cache_manager::cache_limit() const { return cache_->limit(); }
std::size_t cache_manager::cached_bytes() const { return cache_->bytes(); }
void cache_manager::charge(std::ptrdiff_t bytes) { cache_->charge(bytes); }

void cache_manager::catch_up() const {
  cache_->catch_up();
  (void)cache_->stable_publish_count();
}

std::uint16_t cache_manager::change_counter_of(object_id id) {
  return change_counters::place_of(id);
}
std::uint32_t cache_manager::changes(std::uint16_t counter) const {
  return cache_->changes().at(counter);
}

std::optional<std::uint32_t> cache_manager::changes_of_locked(
    std::span<const stored_neighbours> objects) const {
  const thread_attachment* const mine = attachment();
  if (mine == nullptr || mine->open() == nullptr || mine->open()->has_written(objects)) return {};
  return cache_->changes().sum_of(objects);
}

bool cache_manager::lock_unchanged(std::span<const stored_neighbours> objects, std::uint32_t sum) {
  thread_attachment* const mine = attachment();
  return mine != nullptr && mine->open() != nullptr && mine->open()->lock_unchanged(objects, sum);
}

std::uint64_t cache_manager::relink_count() const { return cache_->relinks(); }

void cache_manager::load(std::span<const object_ref> objects) { cache_->load(objects); }

session_companion& cache_manager::companion_for(const void* owner,
                                                std::unique_ptr<session_companion> (*make)()) {
  const std::lock_guard guard(companions_lock_);
  for (const auto& [key, companion] : companions_) {
    if (key == owner) return *companion;
  }
  return *companions_.emplace_back(owner, make()).second;
}

object_ref cache_manager::find(object_id id) { return cache_->counted(id); }

library_call::library_call() : thread_(fast_slot) {
  if (thread_ != nullptr) ++thread_->library_calls;
}

// The thread may have left the session, and its attachment be gone.
library_call::~library_call() {
  if (thread_ != nullptr && thread_ == fast_slot) --thread_->library_calls;
}

cache_manager::pause::pause(cache_manager& session) : thread_(session.attachment()) {
  if (thread_ == nullptr) return;
  open_ = thread_->close();
  ++thread_->pauses;
}

// As with library_call: the thread may have left the session.
cache_manager::pause::~pause() {
  if (thread_ == nullptr || thread_ != fast_slot) return;
  --thread_->pauses;
  if (open_ != nullptr) thread_->reopen(std::move(open_));
}

void cache_manager::touched(object_handle& handle) {
  thread_attachment* const mine = attachment();
  if (mine != nullptr && mine->open() != nullptr) mine->open()->touched(handle);
}

std::string cache_manager::name_of(object_id id) {
  return "object " + std::to_string(storage_of(id)) + ":" + std::to_string(number_of(id));
}

void cache_manager::promotes_read_lock(object_handle& handle) {
  std::fprintf(stderr, "Error: a transaction writes %s after having read it.\n",
               name_of(handle.id()).c_str());
  std::abort();
}

bool cache_manager::is_in_transaction_of_application() const {
  const thread_attachment* const mine = attachment();
  return mine != nullptr && mine->open() != nullptr && mine->open()->is_of_application();
}

bool cache_manager::is_in_outermost_transaction() const {
  const thread_attachment* const mine = attachment();
  return mine != nullptr && mine->open() != nullptr && mine->open()->depth() == 1;
}

transaction_companion* cache_manager::companion() const {
  const thread_attachment* const mine = attachment();
  return mine != nullptr && mine->open() != nullptr ? mine->open()->companion.get() : nullptr;
}

void cache_manager::set_companion(std::unique_ptr<transaction_companion> companion) {
  attachment()->open()->companion = std::move(companion);
}

cache_manager::call_transaction::call_transaction(cache_manager& session, caller whose)
    : session_(session), joined_(session.in_transaction()), own_(!joined_) {
  if (whose == caller::library) library_call_.emplace();
  if (!own_) return;
  session_.begin_transaction();
  if (whose == caller::library) session_.attachment()->open()->set_of_call();
}

cache_manager::call_transaction::~call_transaction() {
  if (own_) session_.close_transaction();
}

void cache_manager::call_transaction::commit() {
  if (std::exchange(own_, false)) session_.end_transaction();
}

bool cache_manager::call_transaction::roll_back_and_retry(const error_info& error, int attempt) {
  if (joined_) {
    call_.failed(error);
    return false;
  }
  if (std::exchange(own_, false)) session_.close_transaction();
  return internal::pause_before_repeating(error, attempt);
}

namespace internal {

bool pause_before_repeating(const error_info& error, int attempt) {
  if (!is_repeatable(error.code()) || attempt >= most_attempts) return false;
  thread_local std::minstd_rand random{std::random_device{}()};
  const int longest = std::min(longest_pause, 20 << std::min(attempt, 10));
  std::this_thread::sleep_for(
      std::chrono::microseconds(std::uniform_int_distribution(0, longest)(random)));
  return true;
}

}  // namespace internal

}  // namespace goods
