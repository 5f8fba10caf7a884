#include "goods/transaction.h"

#include <algorithm>
#include <atomic>
#include <new>

#include <fmt/format.h>

#include <goods/byte_writer.h>
#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/commit_builder.h"
#include "goods/commit_upkeep.h"
#include "goods/epoch.h"
#include "goods/known_objects.h"
#include "goods/layout_catalog.h"
#include "goods/locked_states.h"
#include "goods/new_objects.h"
#include "goods/object_cache.h"
#include "goods/publication.h"
#include "goods/thread_attachment.h"
#include "storage/multi_commit.h"

namespace goods {

namespace {

std::atomic<std::uint64_t> last_number{0};

bool refers_to_new_objects(object& body) {
  class finder : public ref_visitor {
   public:
    void visit(ref_word& word, ref_kind) override {
      found |= word.is_handle() && word.handle()->is_transient();
    }
    bool found = false;
  } finder;
  body.cls().visit_references(body, finder);
  return finder.found;
}

// The stored objects that a body refers back to.
class back_target_finder : public ref_visitor {
 public:
  void visit(ref_word& word, ref_kind kind) override {
    if (kind == ref_kind::back && word.is_id()) found.push_back(word.id());
  }
  std::vector<object_id> found;
};

}  // namespace

transaction::transaction(cache_manager& session, lock_owner& owner, known_objects& known,
                         locked_states& states, bool is_explicit)
    : session_(session),
      number_(last_number.fetch_add(1, std::memory_order_relaxed) + 1),
      is_of_access_(!is_explicit),
      depth_(is_explicit ? 1 : 0),
      owner_(owner),
      known_(known),
      states_(states),
      changes_(std::make_shared<publication>()),
      made_before_(new_object_bytes::count()) {}

transaction::~transaction() {
  finish();
  known_.clear();  // not sooner: a read may be in progress when it is doomed
  states_.release_groups();
}

transaction& transaction::running() { return *cache_manager::require().attachment()->open(); }

void transaction::doom(error_code code, const char* reason) noexcept {
  if (doom_ && (doom_->code != error_code::usage || code == error_code::usage)) return;
  doom_.emplace(end_before_its_time{code, {}});
  try {
    doom_->reason = reason;
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the code says enough
  }
  finish();
}

void transaction::throw_doomed() const {
  throw_error(doom_->code,
              "The transaction has been rolled back and can only be ended: " + doom_->reason);
}

object* transaction::own_copy(object_handle& handle) const {
  if (!handle.is_being_written()) return nullptr;
  const auto own = copies_.find(&handle);
  return own == copies_.end() ? nullptr : own->second.body;
}

transaction::measured_copy* transaction::find_copy(object_handle& handle) {
  if (!handle.is_being_written()) return nullptr;
  const auto own = copies_.find(&handle);
  return own == copies_.end() ? nullptr : &own->second;
}

object* transaction::copy_of(object_handle& handle) noexcept {
  cache_manager* const session = cache_manager::current();
  thread_attachment* const thread = session != nullptr ? session->attachment() : nullptr;
  transaction* const open = thread != nullptr ? thread->open() : nullptr;
  return open != nullptr ? open->own_copy(handle) : nullptr;
}

object* transaction::write(object_handle& handle) {
  if (measured_copy* own = find_copy(handle)) {
    own->is_touched = false;
    verify_limit();
    return own->body;
  }
  verify_not_doomed();
  verify_limit();
  if (!read_.empty() && read_.contains(handle.id())) session_.promotes_read_lock(handle);
  session_.joins_transaction(handle);
  object_ref keeps(&handle);
  const commit_version newest = lock(handle.id(), lock_mode::exclusive);
  stored_form before;
  commit_version seen_at = 0;
  own_body copy = copy_committed(handle, newest, before, seen_at);
  const std::size_t bytes = copy->cls().body_bytes(*copy);
  const auto entry =
      copies_.emplace(&handle, measured_copy{copy.get(), bytes, false, before}).first;
  try {
    changes_->copies.push_back({std::move(keeps), copy.get(), seen_at});
  } catch (...) {
    copies_.erase(entry);
    throw;
  }
  copied_bytes_ += bytes;
  handle.set_being_written(true);
  known_.forget(handle.id());
  return copy.release();
}

transaction::own_body transaction::copy_committed(object_handle& handle, commit_version newest,
                                                  stored_form& before, commit_version& seen_at) {
  const reader_section section;
  const object* const committed = handle.body();
  if (committed == nullptr) return copy_stored(handle, newest, before, seen_at);
  own_body copy(committed->cls().create(&handle));
  committed->cls().copy_state(*committed, *copy);
  return copy;
}

// What the session does not have in memory is not brought there: the copy takes its place with the
// commit.
transaction::own_body transaction::copy_stored(object_handle& handle, commit_version newest,
                                               stored_form& before, commit_version& seen_at) {
  const object_id id = handle.id();
  obj_storage& storage = session_.db().storage(storage_of(id));
  own_body copy;
  acting_sink into([&](const object_state& state) {
    storage.count_read(state.body.size());
    copy.reset(storage.catalog().instantiate(&handle, state));
    if (state.body.size() > stored_form::most) return;
    before.layout = state.layout;
    before.size = static_cast<std::uint8_t>(state.body.size());
    std::ranges::copy(state.body, before.bytes.begin());
  });
  seen_at = states_.load(session_, id, newest, into);
  if (copy == nullptr) session_.cache().throw_missing(id);
  handle.mark_used();
  return copy;
}

void transaction::written(object_handle& handle) noexcept {
  measured_copy* const own = find_copy(handle);
  if (own == nullptr) return;
  const std::size_t bytes = own->body->cls().body_bytes(*own->body);
  copied_bytes_ += bytes - std::exchange(own->bytes, bytes);
}

void transaction::verify_limit() {
  if (is_doomed()) return;
  const std::int64_t made = std::max<std::int64_t>(new_object_bytes::count() - made_before_, 0);
  const std::size_t limit = session_.transaction_limit();
  if (copied_bytes_ + static_cast<std::size_t>(made) + owner_.memory() <= limit) return;
  const std::string reason = fmt::format(
      "A transaction has taken more than the {} MiB of memory that it may: change less in one, or "
      "raise the limit.",
      limit >> 20);
  doom(error_code::storage_full, reason.c_str());
  throw_error(error_code::storage_full, reason);
}

bool transaction::has_changed(object_handle& handle) const noexcept {
  if (!handle.is_being_written()) return false;
  const auto own = copies_.find(&handle);
  try {
    return own != copies_.end() && !is_as_committed(handle, own->second);
  } catch (...) {
    return true;
  }
}

void transaction::touched(object_handle& handle) {
  measured_copy* const own = find_copy(handle);
  if (own == nullptr) return;
  own->is_touched = true;
  has_touched_ = true;
}

void transaction::replace(object_handle& handle, object& body) {
  object* replaced = write(handle);
  back_target_finder back;
  body.cls().visit_references(body, back);
  for (const object_id id : back.found) refers_back_to(session_.cache().counted(id));
  replaced->close();
  replacing_.emplace_back(body.handle(), &body);
  for (publication::copy& c : changes_->copies) {
    if (c.body == replaced) c.body = &body;
  }
  copies_[&handle].body = &body;
  known_.forget(handle.id());
  const bool came_from_elsewhere = std::ranges::any_of(
      replacing_, [&](const auto& earlier) { return earlier.second == replaced; });
  if (!came_from_elsewhere) replaced->unpin();
}

void transaction::refers_back_to(const object_ref& target) {
  if (is_doomed()) return;
  const object_id id = target.id();
  const auto known = back_targets_.lower_bound(id);
  if (known != back_targets_.end() && known->first == id) return;
  object_ref counted = target.word().is_id() ? session_.cache().counted(id) : target;
  if (counted.handle()->owner() != &session_.db()) return;
  back_targets_.emplace_hint(known, id, std::move(counted));
}

void note_back_reference(const object_ref& target) {
  const cache_manager* const session = cache_manager::current();
  thread_attachment* const thread = session != nullptr ? session->attachment() : nullptr;
  if (thread != nullptr && thread->open() != nullptr) thread->open()->refers_back_to(target);
}

void transaction::add_root(object_ref root, storage_number storage) {
  verify_not_doomed();
  roots_.emplace_back(std::move(root), storage);
}

void transaction::store(object_ref object, storage_number storage) {
  verify_not_doomed();
  loose_.emplace_back(std::move(object), storage);
}

void transaction::attempt(const std::function<void()>& work) {
  verify_not_doomed();
  const std::size_t before = changes_->copies.size();
  const bool was_attempt = std::exchange(is_attempt_, true);
  try {
    work();
  } catch (...) {
    is_attempt_ = was_attempt;
    take_back(before);
    throw;
  }
  is_attempt_ = was_attempt;
}

// The copies from the `first` one on.
void transaction::take_back(std::size_t first) noexcept {
  if (changes_ == nullptr) return;  // doomed meanwhile
  std::vector<publication::copy>& copies = changes_->copies;
  while (copies.size() > first) {
    object_handle& handle = *copies.back().keeps.handle();
    object* const body = copies.back().body;
    handle.set_being_written(false);
    known_.forget(handle.id());
    const auto own = copies_.find(&handle);
    copied_bytes_ -= own->second.bytes;
    copies_.erase(own);
    body->close();
    body->unpin();
    copies.pop_back();
  }
}

void transaction::prepare() {
  const commit_upkeep work = defined_commit_upkeep();
  if (work == nullptr || is_doomed() || changes_->copies.empty()) return;
  struct scope {  // accesses in there do not end it
    int& depth;
    explicit scope(int& of) : depth(of) { ++depth; }
    ~scope() { --depth; }
  } const in_it(depth_);
  work(session_, *this);
}

void transaction::commit() {
  verify_not_doomed();
  verify_limit();
  drop_unchanged();
  if (!changes_->copies.empty() || !roots_.empty() || !loose_.empty()) commit_copies();
  finish();
}

bool transaction::is_as_committed(object_handle& handle, const measured_copy& copy) const {
  if (refers_to_new_objects(*copy.body)) return false;
  const auto is_it = [&](const auto& one) { return one.second == copy.body; };
  if (std::ranges::any_of(replacing_, is_it)) return false;  // end_replacing() looks at it
  const auto pack = [&](const object& body) {
    byte_writer bytes;
    body.cls().pack(body, bytes, handle.id());
    return bytes;
  };
  const class_descriptor& cls = copy.body->cls();
  const byte_writer now = pack(*copy.body);
  layout_catalog& catalog = session_.db().storage(storage_of(handle.id())).catalog();
  if (copy.before.layout != 0 && copy.before.layout == catalog.number_for(cls))
    return std::ranges::equal(std::span(copy.before.bytes).first(copy.before.size), now.bytes());
  const reader_section section;
  const object& committed = *session_.cache().loaded(handle);
  return &committed.cls() == &cls && std::ranges::equal(pack(committed).bytes(), now.bytes());
}

void transaction::drop_unchanged() {
  if (!has_touched_) return;
  const auto is_unchanged = [&](const publication::copy& copy) {
    object_handle& handle = *copy.keeps.handle();
    const measured_copy& own = copies_.at(&handle);
    return own.is_touched && is_as_committed(handle, own);
  };
  // All that may fail first: what is dropped below is not looked at again.
  std::vector<const object*> unchanged;
  for (const publication::copy& copy : changes_->copies) {
    if (is_unchanged(copy)) unchanged.push_back(copy.body);
  }
  std::ranges::sort(unchanged);
  std::erase_if(changes_->copies, [&](const publication::copy& copy) {
    if (!std::ranges::binary_search(unchanged, copy.body)) return false;
    copy.keeps.handle()->set_being_written(false);
    copies_.erase(copy.keeps.handle());
    copy.body->close();
    copy.body->unpin();
    return true;
  });
}

void transaction::commit_copies() {
  commit_builder builder(session_.db(), *changes_);
  std::vector<commit_version> versions;
  try {
    for (const auto& [root, storage] : roots_) builder.add_root(root, storage);
    for (const auto& [object, storage] : loose_) builder.add_loose(object, storage);
    builder.build();
    for (const auto& [id, target] : back_targets_) builder.build_on_target(id, target);
    builder.check_other_storages();
    versions = commit_several(builder.parts(&session_, changes_));
    is_committed_ = true;
  } catch (...) {
    changes_->withdraw_created();
    builder.withdraw_numbers();
    throw;
  }
  try {
    for (std::size_t i = 0; i < versions.size(); ++i) {
      session_.cache().apply_notices(builder.storage_of_part(i), versions[i]);
    }
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch)
    // It is committed. Whoever reads next takes it in, or is told that there is no memory.
  }
}

void transaction::finish() noexcept {
  if (changes_ == nullptr) return;
  for (publication::copy& c : changes_->copies) {
    if (c.body == nullptr) continue;
    c.keeps.handle()->set_being_written(false);
    if (is_committed_) continue;  // others are about to publish it
    c.body->close();
  }
  end_replacing();
  copies_.clear();
  read_.clear();
  changes_.reset();
  roots_.clear();
  loose_.clear();
  back_targets_.clear();
  if (owner_.holds_nothing()) return;
  for (std::uint32_t s = 0; s < session_.db().get_number_of_storages(); ++s) {
    session_.db().storage(static_cast<storage_number>(s)).dbs().locks().unlock_all(owner_);
  }
}

// Rolled back, bodies go back to where they came from; otherwise those go that were replaced in
// turn.
void transaction::end_replacing() noexcept {
  for (const auto& [from, body] : replacing_) {
    const auto copy = std::ranges::find(changes_->copies, body, &publication::copy::body);
    if (!is_committed_) {
      if (copy != changes_->copies.end()) copy->body = nullptr;
      body->return_to(*from.handle());
    } else if (!is_own(*body)) {
      body->unpin();
    }
  }
  replacing_.clear();
}

bool transaction::is_own(const object& body) const {
  return std::ranges::any_of(copies_, [&](const auto& copy) { return copy.second.body == &body; });
}

void transaction::roll_back() noexcept { finish(); }

}  // namespace goods
