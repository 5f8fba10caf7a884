#include "storage/local/local_storage.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "storage/local/change_merger.h"
#include "storage/local/open_store.h"
#include "storage/local/segment_writer.h"
#include "storage/local/store_copier.h"
#include "storage/local/store_view.h"
#include "storage/local/store_walk.h"
#include "storage/outcome_unknown.h"
#include "storage/storage_process.h"

namespace goods {

// A commit over several storages between its SQLite commit and publish().
struct local_storage::hidden_commit {
  global_transaction id;
  commit_request request;  // its bodies may be gone: only numbers, origin and attachment are used
  segment_changes changes;
};

namespace {

// Ascending.
std::vector<object_number> removed_by(std::span<const object_change* const> changes) {
  std::vector<object_number> removed;
  for (const object_change* change : changes)
    if (change->removed) removed.push_back(change->number);
  std::ranges::sort(removed);
  return removed;
}

}  // namespace

local_storage::local_storage(const storage_address& address)
    : name_(address.directory),
      generation_(storage_process::instance().generation()),
      parts_(std::make_unique<open_store>(
          address, name_, *this, [this](commit_queue::commit_group group) { write_group(group); })),
      loader_(parts_->newest, parts_->versions) {
  next_object_ = std::max(parts_->store.state().next_object, parts_->prepared.next_object());
  find_free_numbers();
}

// Before anybody can know an object of this store, or have numbers of it.
void local_storage::find_free_numbers() {
  const std::vector<object_number> prepared = parts_->prepared.numbers();  // ascending
  const auto is_taken = [&](segment_number number) {
    const auto found = std::ranges::lower_bound(prepared, number * segment_slots);
    return found != prepared.end() && segment_of(*found) == number;
  };
  // The root's segment is nobody's.
  const segment_number first = segment_of(root_object_number) + 1;
  const auto end = static_cast<segment_number>(next_object_ / segment_slots);
  if (first < end) free_.load(parts_->presence, first, end, is_taken);
}

local_storage::~local_storage() {
  if (generation_ == storage_process::instance().generation()) return;
  // In a forked child the threads are gone and files and locks are the parent's: leave all as it
  // is.
  (void)parts_.release();
}

void local_storage::check_process() const {
  if (generation_ == storage_process::instance().generation()) return;
  throw_error(error_code::usage,
              fmt::format("The storage \"{}\" was opened by the parent of this process; a child "
                          "made by fork() cannot use it.",
                          name_));
}

commit_version local_storage::load(std::span<const object_number> numbers, commit_version at_least,
                                   state_sink& into) {
  check_process();
  return loader_.load(numbers, at_least, into);
}

commit_version local_storage::newest_version() const {
  return parts_->versions.visible.load(std::memory_order_acquire);
}

// ---- committing

void local_storage::check_request(const commit_request& request) const {
  const std::uint64_t known_layouts = parts_->layouts.count();
  for (const object_change& change : request.changes) {
    if (change.number < first_object_number)
      throw_error(error_code::usage, fmt::format("{} is no object number: a commit to the storage "
                                                 "\"{}\" names it.",
                                                 change.number, name_));
    if (change.removed) continue;
    if (change.layout == 0 || change.layout > known_layouts)
      throw_error(error_code::usage, fmt::format("Object {} has the layout {}, which the storage "
                                                 "\"{}\" does not know.",
                                                 change.number, change.layout, name_));
    if (change.body.size() > max_state_size)
      throw_error(error_code::storage_full,
                  fmt::format("Object {} has {} bytes; the storage \"{}\" takes {} at most.",
                              change.number, change.body.size(), name_, max_state_size));
  }
}

bool local_storage::has_failed() const {
  return parts_->store.has_failed() || parts_->log.has_failed();
}

// After a commit whose outcome is unknown, or one over several storages that others did not finish.
void local_storage::check_usable() const {
  if (!has_failed()) return;
  throw_outcome_unknown(
      "The storage \"{}\" takes no commits after one whose outcome is unknown: it must be opened "
      "again.",
      name_);
}

// Throws unless what the commit builds on is there. In its turn. `removed`: by others of its group,
// ascending.
void local_storage::check_foundations(const commit_request& request,
                                      std::span<const object_number> removed,
                                      newest_states& newest) const {
  const bool is_certain = request.seen_at != 0 && request.seen_at >= removed_at_;
  if (is_certain && !is_condemned_) return;
  const commit_version as_of = newest_version();
  std::shared_ptr<const segment> last;
  for (const object_number number : request.builds_on) {
    const segment_number wanted = segment_of(number);
    if (!is_certain && (!last || last->number() != wanted)) last = newest.find(wanted, as_of);
    const bool is_there = is_certain || (last && last->has(slot_of(number)) &&
                                         !std::ranges::binary_search(removed, number));
    const bool stays = is_there && !(is_condemned_ && is_condemned_(number));
    if (stays) continue;
    throw_error(error_code::object_deleted,
                fmt::format("A commit to the storage \"{}\" builds on object {}, which {}.", name_,
                            number, is_there ? "is being removed" : "is not there any more"));
  }
}

commit_version local_storage::check_only(const commit_request& request) {
  const writer_turn::hold turn(parts_->turn);
  newest_states newest(parts_->newest);
  check_foundations(request, {}, newest);
  return newest_version();
}

commit_version local_storage::commit(const commit_request& request) {
  check_process();
  check_request(request);
  if (request.changes.empty()) return check_only(request);
  return parts_->queue.commit(request);
}

void local_storage::write_group(commit_queue::commit_group group) {
  try {
    write_together(group);
    return;
  } catch (...) {
    if (group.size() == 1 || has_failed()) {
      for (queued_commit* member : group) member->failure = std::current_exception();
      return;
    }
  }
  // One of them is too large for the disk, or hits damage: the others need not suffer.
  for (queued_commit* member : group) {
    try {
      write_together({&member, 1});
    } catch (...) {
      member->failure = std::current_exception();
    }
  }
}

void local_storage::write_together(commit_queue::commit_group group) {
  check_usable();
  std::vector<const commit_request*> requests;
  std::vector<const object_change*> changes;
  std::vector<committed> commits;
  commit_version version = newest_version();
  for (const queued_commit* member : group) {
    requests.push_back(member->request);
    for (const object_change& change : member->request->changes) changes.push_back(&change);
    commits.push_back({++version, member->request});
  }
  const std::size_t size = log_record_size(requests);
  if (size > parts_->log.room()) return write_past_log(group);
  parts_->merger.make_room(size);
  newest_states newest(parts_->newest);
  const std::vector<object_number> removed = removed_by(changes);
  if (!removed.empty()) removed_at_ = version;
  for (const commit_request* request : requests) check_foundations(*request, removed, newest);
  change_merger merger(newest, newest_version());
  const segment_changes changed = merger.merge(std::move(changes), version);
  auto unmerged = parts_->overlay.prepare(changed);
  try {
    prepare_to_show(changed, commits);
    parts_->log.append(requests, commits.front().version, !parts_->relaxed);
  } catch (...) {
    parts_->notices.forget_prepared();
    throw;
  }
  for (std::size_t i = 0; i < group.size(); ++i) group[i]->version = commits[i].version;
  show(changed, commits.size(), &unmerged);
}

// Commits to the database past the log, which has been merged; the caller holds both turns.
template <class Extra>
std::shared_ptr<local_storage::hidden_commit> local_storage::commit_to_database(
    const global_transaction& id, const commit_request& request, bool hides, Extra&& extra) {
  auto commit = std::make_shared<hidden_commit>();
  commit->id = id;
  commit->request = request;
  std::vector<const object_change*> changes;
  for (const object_change& change : request.changes) changes.push_back(&change);
  newest_states newest(parts_->newest);
  if (!removed_by(changes).empty()) removed_at_ = newest_version() + 1;
  check_foundations(request, {}, newest);
  change_merger merger(newest, newest_version(),
                       hides ? change_merger::mode::keeps_old : change_merger::mode::usual);
  commit->changes = merger.merge(std::move(changes), newest_version() + 1);
  segment_store::transaction transaction(parts_->store);
  segment_writer writer(transaction, parts_->stored_presence);
  writer.write(commit->changes);
  extra(transaction);
  const committed told{commit->changes.version, &commit->request};
  try {
    prepare_to_show(commit->changes, {&told, 1});
    // Readers may see it in the file as soon as it is committed there.
    if (hides) {
      parts_->overlay.hold(replaced_states(commit->changes, newest));
      parts_->versions.has_hidden.store(true, std::memory_order_release);
    }
    transaction.commit();
  } catch (...) {
    parts_->versions.has_hidden.store(false, std::memory_order_release);
    parts_->overlay.drop_held();
    parts_->notices.forget_prepared();
    throw;
  }
  writer.note_committed();
  parts_->log.note_durable(commit->changes.version);
  parts_->checkpoints.log_has(parts_->store.log_pages());
  return commit;
}

// What is too large for the log goes into the database at once, one commit after the other.
void local_storage::write_past_log(commit_queue::commit_group group) {
  if (group.size() > 1) {
    for (queued_commit* member : group) write_group({&member, 1});
    return;
  }
  queued_commit& only = *group.front();
  parts_->merger.merge_all();
  writer_turn::hold database(parts_->database_turn);
  const auto commit =
      commit_to_database({}, *only.request, false, [](segment_store::transaction&) {});
  only.version = commit->changes.version;
  show(commit->changes, 1, nullptr);
}

// What show() needs memory for: afterwards, when the commits are durable, it must not fail.
void local_storage::prepare_to_show(const segment_changes& changes,
                                    std::span<const committed> commits) {
  for (const auto& change : changes.changed)
    if (change.exists) parts_->presence.reserve(change.number);
  if (!changes.changed.empty()) free_.reserve(changes.changed.back().number + 1);
  parts_->notices.prepare(commits);
}

// `unmerged`: they are in the overlay until they are merged; or null: in the database already,
// where the overlay may hold back what was replaced.
void local_storage::show(const segment_changes& changes, std::size_t commits,
                         commit_overlay::addition* unmerged) noexcept {
  store_versions& versions = parts_->versions;
  {
    guarded_scope scope(versions.publishing);
    versions.publications.fetch_add(1, std::memory_order_acq_rel);
    for (const auto& change : changes.changed)
      if (change.existed != change.exists) show_presence(change.number, change.exists);
    if (unmerged != nullptr) {
      parts_->overlay.add(*unmerged);
    } else {
      versions.merged.store(changes.version, std::memory_order_release);
      versions.has_hidden.store(false, std::memory_order_release);
      parts_->overlay.drop_held();
    }
    const segment_cache::patch none;
    for (std::size_t i = 0; i < changes.changed.size(); ++i) {
      const auto& change = changes.changed[i];
      parts_->cache.publish(change.number, unmerged != nullptr ? unmerged->before(i) : none,
                            !change.exists        ? none
                            : unmerged != nullptr ? unmerged->now(i)
                                                  : change.patch,
                            changes.version);
    }
    parts_->notices.publish();
    versions.visible.store(changes.version, std::memory_order_release);
    versions.publications.fetch_add(1, std::memory_order_acq_rel);
  }
  parts_->notices.tell();
  // Commits may use numbers that nobody was given: the root's.
  std::uint64_t next = next_object_.load();
  while (next < changes.next_object &&
         !next_object_.compare_exchange_weak(next, changes.next_object))
    continue;
  commits_ += commits;
  ++groups_;
}

void local_storage::show_presence(segment_number number, bool exists) noexcept {
  parts_->presence.set(number, exists);
  if (exists)
    free_.note_used(number);
  else if (number != segment_of(root_object_number))
    free_.note_emptied(number);
}

object_number local_storage::allocate(std::uint32_t count) {
  check_process();
  std::uint64_t first = next_object_.load();
  do {
    if (first + count > std::uint64_t{1} << 32)
      throw_error(error_code::storage_full,
                  fmt::format("The storage \"{}\" has no object numbers left.", name_));
    free_.reserve(static_cast<segment_number>((first + count) / segment_slots) + 1);
  } while (!next_object_.compare_exchange_weak(first, first + count));
  return static_cast<object_number>(first);
}

number_range local_storage::reuse(std::uint32_t most) {
  check_process();
  const free_numbers::run found = free_.take(most / segment_slots);
  return {found.first * segment_slots, found.count * segment_slots};
}

void local_storage::give_back(number_range unused) noexcept {
  const std::uint64_t end = std::uint64_t{unused.first} + unused.count;
  // Begun groups were never used, and may go back to where they came from, the end of all numbers.
  // A group of which something has been used does not go back: what is used there may be removed,
  // and the group with it be handed out again.
  const bool is_begun = unused.first % segment_slots != 0 || end % segment_slots != 0;
  const std::uint64_t first =
      (std::uint64_t{unused.first} + segment_slots - 1) / segment_slots * segment_slots;
  std::uint64_t next = end;
  if (is_begun && first < end && next_object_.compare_exchange_strong(next, first)) return;
  free_.give_back(unused.first, end);
}

void local_storage::reclaim(const std::function<bool(object_number first)>& is_unused) {
  check_process();
  free_.reclaim([&](segment_number number) {
    // allocate() still hands out the numbers of a group that has been reached only in part. Asked
    // for first: who has been given numbers since is known to is_unused().
    const std::uint64_t end = (std::uint64_t{number} + 1) * segment_slots;
    return end <= next_object_.load() && is_unused(number * segment_slots);
  });
}

void local_storage::make_durable() {
  check_process();
  if (!parts_->relaxed) return;
  const writer_turn::hold turn(parts_->turn);
  parts_->merger.merge_all();
}

void local_storage::give_back_room() {
  check_process();
  parts_->merger.merge_most();
  const writer_turn::hold turn(parts_->turn);
  parts_->merger.merge_all();
}

std::unique_ptr<commit_pause> local_storage::pause_commits() {
  class turn_pause : public commit_pause {
   public:
    explicit turn_pause(writer_turn& turn) : turn_(turn) {}

   private:
    const writer_turn::hold turn_;
  };
  check_process();
  return std::make_unique<turn_pause>(parts_->turn);
}

struct local_storage::condemned_objects : condemnation {
  explicit condemned_objects(local_storage& in) : storage(in) {}
  ~condemned_objects() override {
    const writer_turn::hold turn(storage.parts_->turn);
    storage.is_condemned_ = nullptr;
  }
  local_storage& storage;
};

std::unique_ptr<condemnation> local_storage::condemn(
    std::function<bool(object_number number)> is_condemned, const commit_pause&) {
  check_process();
  auto condemned = std::make_unique<condemned_objects>(*this);
  is_condemned_ = std::move(is_condemned);
  return condemned;
}

class_number local_storage::intern_layout(std::span<const std::byte> layout) {
  check_process();
  if (const class_number known = parts_->layouts.find(layout)) return known;
  if (layout.size() > longest_row)
    throw_error(error_code::storage_full,
                fmt::format("A class layout has {} bytes; the storage \"{}\" takes {} at most.",
                            layout.size(), name_, longest_row));
  writer_turn::hold turn(parts_->database_turn);
  if (const class_number known = parts_->layouts.find(layout)) return known;
  auto entry = parts_->layouts.prepare(layout);
  const class_number number = entry.mapped();
  segment_store::transaction transaction(parts_->store);
  transaction.write_layout(number, layout);
  ++transaction.state().layouts;
  transaction.commit();
  parts_->layouts.add(std::move(entry));
  return number;
}

std::vector<layout_record> local_storage::layouts() {
  check_process();
  return parts_->layouts.all();
}

std::unique_ptr<notice_subscription> local_storage::subscribe(const void* origin) {
  check_process();
  return parts_->notices.subscribe(origin);
}

lock_table& local_storage::locks() {
  check_process();
  return parts_->locks;
}

// ---- commits over several storages

storage_identity local_storage::identity() const { return parts_->identity; }

void local_storage::prepare(const global_transaction& id, const storage_identity& coordinator,
                            const std::string& coordinator_name, const commit_request& request) {
  check_process();
  check_request(request);
  {
    // What the commit builds on must not be lost when the commit is not, and a storage that takes
    // no commits any more must say so before others decide.
    const writer_turn::hold turn(parts_->turn);
    check_usable();
    parts_->merger.merge_all();
    // What is there now stays: the session has references to it, which a collection that begins
    // later sees.
    newest_states newest(parts_->newest);
    check_foundations(request, {}, newest);
  }
  writer_turn::hold turn(parts_->database_turn);
  segment_store::transaction transaction(parts_->store);
  auto part = parts_->prepared.prepare(transaction, {id, coordinator, coordinator_name}, request);
  transaction.commit();
  parts_->prepared.remember(std::move(part));
}

void local_storage::hide(std::shared_ptr<const hidden_commit> commit) {
  guarded_scope scope(hidden_lock_);
  hidden_ = std::move(commit);
}

commit_version local_storage::commit_and_decide(const commit_decision& decision,
                                                const commit_request& request) {
  check_process();
  check_request(request);
  writer_turn::hold turn(parts_->turn);
  check_usable();
  parts_->merger.merge_all();
  writer_turn::hold database(parts_->database_turn);
  prepared_commits::decision_node decided;
  const auto commit =
      commit_to_database(decision.id, request, true, [&](segment_store::transaction& transaction) {
        decided = parts_->prepared.decide(transaction, decision);
      });
  parts_->prepared.remember(std::move(decided));
  hide(commit);
  turn.hand_on();
  return commit->changes.version;
}

commit_version local_storage::commit_prepared(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->turn);
  check_usable();
  parts_->merger.merge_all();
  writer_turn::hold database(parts_->database_turn);
  const prepared_part* part = parts_->prepared.find(id);
  if (part == nullptr)
    throw_error(error_code::usage,
                fmt::format("The storage \"{}\" has not prepared this commit.", name_));
  const auto commit = commit_to_database(
      id, part->request(), true,
      [&](segment_store::transaction& transaction) { parts_->prepared.erase(transaction, *part); });
  hide(commit);
  turn.hand_on();
  return commit->changes.version;
}

void local_storage::publish(const global_transaction& id) noexcept {
  std::shared_ptr<const hidden_commit> commit;
  {
    guarded_scope scope(hidden_lock_);
    commit = std::exchange(hidden_, nullptr);
  }
  show(commit->changes, 1, nullptr);
  {
    writer_turn::hold database(parts_->database_turn);
    parts_->prepared.forget(id);
  }
  parts_->turn.leave();
}

void local_storage::abandon(const global_transaction& id) noexcept {
  std::shared_ptr<const hidden_commit> commit;
  {
    guarded_scope scope(hidden_lock_);
    commit = hidden_;
  }
  if (!commit || commit->id != id) parts_->turn.take();
  parts_->store.set_failed();
  parts_->turn.leave();
}

void local_storage::discard_prepared(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->database_turn);
  const prepared_part* part = parts_->prepared.find(id);
  if (part == nullptr) return;
  segment_store::transaction transaction(parts_->store);
  parts_->prepared.erase(transaction, *part);
  transaction.commit();
  parts_->prepared.forget(id);
}

void local_storage::forget_decision(const global_transaction& id) {
  check_process();
  writer_turn::hold turn(parts_->database_turn);
  parts_->prepared.forget_decision(id);
}

std::vector<prepared_commit> local_storage::prepared() {
  check_process();
  writer_turn::hold turn(parts_->database_turn);
  return parts_->prepared.found_prepared();
}

std::vector<commit_decision> local_storage::decisions() {
  check_process();
  writer_turn::hold turn(parts_->database_turn);
  return parts_->prepared.found_decisions();
}

// ---- all objects, figures

void local_storage::check_nothing_hidden() const {
  if (!parts_->versions.has_hidden) return;
  throw_error(error_code::outcome_unknown,
              fmt::format("The storage \"{}\" must be opened again before all its objects can be "
                          "visited: a commit over several storages is unfinished.",
                          name_));
}

void local_storage::for_each(const std::function<bool(const object_state&)>& visit) {
  check_process();
  // Between commits, so that it begins with one version, and a hidden one is not in it.
  std::optional<store_walk> walk;
  {
    writer_turn::hold turn(parts_->turn);
    check_nothing_hidden();
    walk.emplace(parts_->settings, parts_->overlay.copy());
  }
  walk->visit(visit);
}

std::unique_ptr<storage_view> local_storage::view(const commit_pause&) {
  check_process();
  check_nothing_hidden();
  return std::make_unique<store_view>(*parts_, next_object_);
}

std::unique_ptr<storage_copier> local_storage::copier() {
  check_process();
  return std::make_unique<store_copier>(*parts_);
}

void local_storage::suggest_cache(const void* user, std::size_t bytes) {
  parts_->cache_size.suggest(user, bytes);
}

storage_statistics local_storage::statistics() {
  check_process();
  storage_statistics result;
  result.file_bytes = parts_->files.size() + parts_->log.file_bytes();
  {
    const snapshot_pool::lease from = parts_->readers.take(parts_->versions.merged);
    sqlite_connection& connection = from->connection();
    const std::int64_t pages =
        connection.integer("PRAGMA page_count") - connection.integer("PRAGMA freelist_count");
    result.used_bytes = static_cast<std::uint64_t>(pages * connection.integer("PRAGMA page_size"));
  }
  result.used_bytes += parts_->log.used_bytes();
  result.commits = commits_.load();
  result.commit_groups = groups_.load();
  return result;
}

std::shared_ptr<dbs_storage> open_local_storage(const storage_address& address) {
  const directory_identity identity = prepare_directory(address.directory);
  const auto& cache_bytes = address.options.cache_bytes;
  const std::string cache = cache_bytes ? std::to_string(*cache_bytes) : "suggested";
  const std::string options = fmt::format(
      "durability={}&mmap={}&cache={}&log={}", address.options.relaxed ? "relaxed" : "full",
      address.options.mapped ? "on" : "off", cache, address.options.log_bytes);
  return storage_process::instance().find_or_open(
      identity, options, [&] { return std::make_unique<local_storage>(address); });
}

}  // namespace goods
