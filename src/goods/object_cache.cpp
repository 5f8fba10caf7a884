#include "goods/object_cache.h"

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/object.h>

#include "goods/collection_claim.h"
#include "goods/epoch.h"
#include "goods/layout_catalog.h"
#include "goods/modification_signals.h"
#include "goods/number_pool.h"
#include "goods/outlived_bodies.h"
#include "goods/publication.h"
#include "goods/session_registry.h"
#include "storage/multi_commit.h"

namespace goods {

namespace {

constexpr std::size_t smallest_limit = std::size_t{1} << 20;
constexpr std::size_t slots_per_step = 128;

// No reader can find it any more; accesses that had it may go on.
void release_body(void* body) {
  auto* const replaced = static_cast<object*>(body);
  if (replaced->is_pinned_once()) {
    replaced->unpin();
  } else {
    outlived_bodies::get().add(*replaced);
  }
}
void release_handle(void* handle) { object_handle::destroy(static_cast<object_handle*>(handle)); }

publication& own(const notice& news) { return *static_cast<publication*>(news.attachment.get()); }

// Turns the one state that is asked for into a body.
class body_sink : public state_sink {
 public:
  body_sink(obj_storage& storage, object_handle& handle) : storage_(storage), handle_(handle) {}
  ~body_sink() override {
    if (body_ != nullptr) body_->unpin();
  }

  void found(const object_state& state) override {
    if (state.number != number_of(handle_.id())) return;
    storage_.count_read(state.body.size());
    if (body_ == nullptr) body_ = storage_.catalog().instantiate(&handle_, state);
  }
  void missing(object_number) override {}

  object* take() { return std::exchange(body_, nullptr); }

 private:
  obj_storage& storage_;
  object_handle& handle_;
  object* body_ = nullptr;
};

// Turns many states into bodies.
class bodies_sink : public state_sink {
 public:
  using handles = std::map<object_number, object_handle*>;

  bodies_sink(obj_storage& storage, const handles& wanted) : storage_(storage), wanted_(wanted) {}
  bodies_sink(const bodies_sink&) = delete;
  bodies_sink& operator=(const bodies_sink&) = delete;
  ~bodies_sink() override {
    for (const auto& [handle, body] : bodies_) {
      if (body != nullptr) body->unpin();
    }
  }

  void found(const object_state& state) override {
    const auto wanted = wanted_.find(state.number);
    if (wanted == wanted_.end()) return;
    storage_.count_read(state.body.size());
    bodies_.reserve(wanted_.size());
    bodies_.emplace_back(wanted->second, storage_.catalog().instantiate(wanted->second, state));
  }
  void missing(object_number) override {}

  // The caller sets to null what it takes over.
  std::vector<std::pair<object_handle*, object*>>& bodies() { return bodies_; }

 private:
  obj_storage& storage_;
  const handles& wanted_;
  std::vector<std::pair<object_handle*, object*>> bodies_;
};

}  // namespace

object_cache::object_cache(database& db, const cache_manager& session)
    : db_(db), session_(session), applied_(db.get_number_of_storages()) {
  for (std::size_t i = 0; i < applied_.size(); ++i) {
    dbs_storage& storage = db.storage(static_cast<storage_number>(i)).dbs();
    notices_.push_back(storage.subscribe(&session));
    applied_[i] = notices_.back()->newest();
  }
  for (std::size_t i = 0; i < applied_.size(); ++i) {
    session_registry::get().add(db.storage(static_cast<storage_number>(i)).dbs(), *this);
  }
}

object_cache::~object_cache() {
  if (signals_ != nullptr) signals_->stop();  // while others may still look
  signals_.reset();
  session_registry::get().remove(*this);
}

modification_signals& object_cache::signals() {
  const std::lock_guard guard(publishing_);
  if (signals_ == nullptr) {
    std::vector<commit_version> taken_in(applied_.begin(), applied_.end());
    signals_ = std::make_unique<modification_signals>(*this, notices_, std::move(taken_in));
  }
  return *signals_;
}

object_handle& object_cache::find_or_make(object_id id) {
  if (object_handle* known = table_.find(id)) return *known;
  table_.prefetch(id + 1);      // what is loaded next is mostly stored next to it
  db_.storage(storage_of(id));  // throws for a storage that the database does not have
  auto made = std::make_unique<object_handle>(db_, id);
  {
    const std::lock_guard guard(table_.lock_of(id));
    if (object_handle* known = table_.find_locked(id)) return *known;
    table_.insert(made.get());
  }
  bytes_ += made->memory();
  object_handle& handle = *made.release();
  handle.mark_used();
  return handle;
}

object_ref object_cache::counted(object_id id) {
  const reader_section section;
  while (true) {
    object_handle& handle = find_or_make(id);
    if (!handle.try_add_reference()) continue;  // just being dropped; the next look makes a new one
    object_ref result(&handle);
    handle.remove_reference();
    return result;
  }
}

object* object_cache::load(object_handle& handle) {
  const object_id id = handle.id();
  obj_storage& from = db_.storage(storage_of(id));
  const object_number number = number_of(id);
  while (true) {
    body_sink sink(from, handle);
    const commit_version as_of =
        from.dbs().load({&number, 1}, applied_[storage_of(id)].load(), sink);
    apply_notices(storage_of(id), as_of);
    object* body = nullptr;
    const outcome result = keep_loaded(handle, sink.take(), as_of, body);
    if (result == outcome::stale) continue;
    if (result == outcome::handle_dropped) return nullptr;
    if (body == nullptr) throw_missing(id);
    shrink_if_full();
    return body;
  }
}

void object_cache::throw_missing(object_id id) const {
  throw_error(error_code::object_deleted, "No object is stored under the identifier " +
                                              std::to_string(storage_of(id)) + ":" +
                                              std::to_string(number_of(id)) + " in \"" +
                                              db_.storage(storage_of(id)).dbs().name() + "\".");
}

void object_cache::load(std::span<const object_ref> objects) {
  std::map<storage_number, bodies_sink::handles> absent;
  for (const object_ref& object : objects) {
    object_handle* const handle = object.handle();
    if (handle == nullptr || handle->is_transient() || handle->body() != nullptr) continue;
    absent[storage_of(handle->id())].emplace(number_of(handle->id()), handle);
  }
  for (const auto& [storage, handles] : absent) {
    std::vector<object_number> numbers;
    numbers.reserve(handles.size());
    for (const auto& [number, handle] : handles) numbers.push_back(number);
    bodies_sink sink(db_.storage(storage), handles);
    const commit_version as_of =
        db_.storage(storage).dbs().load(numbers, applied_[storage].load(), sink);
    apply_notices(storage, as_of);
    for (auto& [handle, fresh] : sink.bodies()) {
      const reader_section section;
      object* body = nullptr;
      keep_loaded(*handle, std::exchange(fresh, nullptr), as_of, body);
    }
  }
  shrink_if_full();
}

// Installs `fresh` (null: nothing is stored) unless another thread was first; `body` is what
// counts.
object_cache::outcome object_cache::keep_loaded(object_handle& handle, object* fresh,
                                                commit_version as_of, object*& body) {
  const object_id id = handle.id();
  outcome result = outcome::kept;
  {
    const std::lock_guard guard(table_.lock_of(id));
    body = handle.body();
    if (handle.is_retired()) {
      result = outcome::handle_dropped;
    } else if (body == nullptr && applied_[storage_of(id)].load() > as_of) {
      result = outcome::stale;  // a newer commit has been applied since
    } else if (body == nullptr && fresh != nullptr) {
      handle.set_body(fresh);
      count_body(*fresh);
      body = std::exchange(fresh, nullptr);
    }
  }
  if (fresh != nullptr) fresh->unpin();
  return result;
}

void object_cache::apply_notices(storage_number storage, commit_version through) {
  // A version counts as applied while its bodies are still being exchanged.
  if (applied_[storage].load() >= through && publish_count_.load() % 2 == 0) return;
  const std::lock_guard guard(publishing_);
  if (applied_[storage].load() >= through) return;
  take_news(storage, through);
  for (const auto& [from, notices] : news_) {
    for (const auto& n : notices) {
      if (n->origin == &session_) own(*n).install_created(*this);
    }
  }
  publish_news();
  shrink_if_full();
}

// Commits over several storages are taken in whole.
void object_cache::take_news(storage_number storage, commit_version through) {
  const auto take = [&](storage_number from, commit_version to) {
    news_.push_back({from, {}});
    news_.back().second = notices_[from]->take(to);
  };
  take(storage, through);
  if (applied_.size() == 1) return;
  while (true) {
    const std::uint64_t before = several_published();
    for (std::size_t s = 0; s < applied_.size(); ++s) {
      take(static_cast<storage_number>(s), notices_[s]->newest());
    }
    if (before % 2 == 0 && several_published() == before) return;
    std::this_thread::yield();
  }
}

void object_cache::publish_news() noexcept {
  ++publish_count_;
  for (const auto& [from, notices] : news_) {
    for (const auto& n : notices) apply(*n, from);
  }
  ++publish_count_;
  news_.clear();
}

void object_cache::apply(const notice& news, storage_number storage) {
  if (news.version <= applied_[storage].load()) return;
  // First the version: whoever is about to install an older state sees it, or is seen below.
  applied_[storage].store(news.version);
  if (news.origin == &session_) {
    own(news).publish_copies(*this);
  } else {
    for (const object_number number : news.changed) invalidate(make_object_id(storage, number));
    ++relinks_;
  }
  if (signals_ != nullptr) signals_->note(storage, news);
}

void object_cache::invalidate(object_id id) {
  changes_.note_change(id);
  const std::lock_guard guard(table_.lock_of(id));
  object_handle* handle = table_.find_locked(id);
  if (handle == nullptr) return;
  if (object* body = handle->exchange_body(nullptr)) discard_body(body);
}

void object_cache::install(object_handle& created) {
  const std::lock_guard guard(table_.lock_of(created.id()));
  created.set_made();
  // Somebody may have asked for the number before there was an object behind it.
  object_handle* guessed = table_.find_locked(created.id());
  if (guessed == &created) return;
  if (guessed == nullptr) {
    table_.insert(&created);
    bytes_ += created.memory();
  } else {
    if (object* body = guessed->exchange_body(nullptr)) discard_body(body);
    table_.exchange(guessed, &created);
    bytes_ += created.memory() - guessed->memory();
    if (guessed->try_retire()) {
      retire(guessed, release_handle);
    } else {
      guessed->become_transient();  // a reference to nothing
    }
  }
  count_body(*created.body());
}

void object_cache::publish(object_handle& handle, object& body) {
  const std::lock_guard guard(table_.lock_of(handle.id()));
  if (body.take_relinked()) ++relinks_;
  changes_.note_change(handle.id());
  handle.set_being_written(false);
  count_body(body);
  if (object* before = handle.exchange_body(&body)) discard_body(before);
}

std::uint64_t object_cache::stable_publish_count() const {
  while (true) {
    const std::uint64_t count = publish_count_.load();
    if (count % 2 == 0) return count;
    std::this_thread::yield();
  }
}

void object_cache::count_body(const object& body) { bytes_ += body.cls().body_bytes(body); }

void object_cache::discard_body(object* body) {
  const std::size_t bytes = body->cls().body_bytes(*body);
  bytes_ -= bytes;
  retire(body, release_body, bytes);
}

void object_cache::set_limit(std::size_t bytes) {
  limit_ = std::max(bytes, smallest_limit);
  shrink_above_ = limit_.load();
  shrink_if_full();
}

void object_cache::evict(object_handle& handle) {
  if (handle.is_being_written() || handle.take_used()) return;
  if (object* body = handle.exchange_body(nullptr)) discard_body(body);
  if (!handle.try_retire()) return;  // the identity stays
  if (handle.is_noted() && collection_claim::is_any_taken()) return handle.revive();
  table_.erase(&handle);
  bytes_ -= handle.memory();
  retire(&handle, release_handle);
}

void object_cache::for_each_held(
    const std::function<void(const dbs_storage& storage, object_number number)>& visit) const {
  for (std::size_t shard = 0; shard < handle_table::shard_count; ++shard) {
    table_.sweep(shard, 0, std::numeric_limits<std::size_t>::max(), [&](object_handle& handle) {
      const bool was_noted = handle.take_noted();
      if (!was_noted && !handle.is_referenced()) return;
      visit(db_.storage(storage_of(handle.id())).dbs(), number_of(handle.id()));
    });
  }
  outlived_bodies::get().for_each_reference(db_, [&](object_id id) {
    if (storage_of(id) < applied_.size()) visit(db_.storage(storage_of(id)).dbs(), number_of(id));
  });
}

bool object_cache::uses_any(const dbs_storage& storage, object_number first) const {
  for (std::size_t s = 0; s < applied_.size(); ++s) {
    const auto number = static_cast<storage_number>(s);
    obj_storage& mine = db_.storage(number);
    if (&mine.dbs() != &storage) continue;
    if (mine.numbers().has(neighbours::group_of(first))) return true;
    const reader_section section;
    for (object_number i = 0; i < neighbours::most; ++i) {
      const object_handle* const handle = table_.find(make_object_id(number, first + i));
      if (handle != nullptr && handle->is_referenced()) return true;
    }
  }
  return false;
}

void object_cache::shrink() {
  const std::unique_lock guard(evicting_, std::try_to_lock);
  if (!guard.owns_lock()) return;  // another thread is at it
  const std::size_t goal = limit() - limit() / 16;
  // Two rounds of the clock: the first may only find marks to clear.
  for (std::size_t shards = 0; shards <= 2 * handle_table::shard_count && bytes() > goal;) {
    clock_position_ = table_.sweep(clock_shard_, clock_position_, slots_per_step,
                                   [this](object_handle& handle) { evict(handle); });
    if (clock_position_ != 0) continue;
    table_.tighten(clock_shard_);
    clock_shard_ = (clock_shard_ + 1) % handle_table::shard_count;
    ++shards;
  }
  shrink_above_ = std::max(limit(), bytes() + limit() / 16);
}

}  // namespace goods
