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

local_storage::local_storage(const storage_address& address)
    : name_(address.directory),
      generation_(storage_process::instance().generation()),
      parts_(std::make_unique<open_store>(
          address, name_, *this, [this](commit_queue::commit_group group) { write_group(group); })),
      loader_(parts_->newest, parts_->versions) {
  next_object_ = std::max(parts_->store.state().next_object, parts_->prepared.next_object());
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

// After a commit whose outcome is unknown, or one over several storages that others did not finish.
void local_storage::check_usable() const {
  if (!parts_->store.has_failed() && !parts_->log.has_failed()) return;
  throw_outcome_unknown(
      "The storage \"{}\" takes no commits after one whose outcome is unknown: it must be opened "
      "again.",
      name_);
}

commit_version local_storage::commit(const commit_request& request) {
  check_process();
  check_request(request);
  return parts_->queue.commit(request);
}

void local_storage::write_group(commit_queue::commit_group group) {
  try {
    write_together(group);
    return;
  } catch (...) {
    if (group.size() == 1 || parts_->store.has_failed() || parts_->log.has_failed()) {
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
  change_merger merger(newest, newest_version(),
                       hides ? change_merger::mode::keeps_old : change_merger::mode::usual);
  commit->changes = merger.merge(std::move(changes), newest_version() + 1);
  segment_store::transaction transaction(parts_->store);
  segment_writer writer(transaction, parts_->stored_presence);
  writer.write(commit->changes);
  extra(transaction);
  const committed told{commit->changes.version, &commit->request};
  prepare_to_show(commit->changes, {&told, 1});
  // Readers may see it in the file as soon as it is committed there.
  if (hides) {
    parts_->overlay.hold(replaced_states(commit->changes, newest));
    parts_->versions.has_hidden.store(true, std::memory_order_release);
  }
  try {
    transaction.commit();
  } catch (...) {
    parts_->versions.has_hidden.store(false, std::memory_order_release);
    parts_->overlay.drop_held();
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
      if (change.existed != change.exists) parts_->presence.set(change.number, change.exists);
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
  // Commits may use numbers that nobody was given: the root's.
  std::uint64_t next = next_object_.load();
  while (next < changes.next_object &&
         !next_object_.compare_exchange_weak(next, changes.next_object))
    continue;
  commits_ += commits;
  ++groups_;
}

object_number local_storage::allocate(std::uint32_t count) {
  check_process();
  std::uint64_t first = next_object_.load();
  do {
    if (first + count > std::uint64_t{1} << 32)
      throw_error(error_code::storage_full,
                  fmt::format("The storage \"{}\" has no object numbers left.", name_));
  } while (!next_object_.compare_exchange_weak(first, first + count));
  return static_cast<object_number>(first);
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
