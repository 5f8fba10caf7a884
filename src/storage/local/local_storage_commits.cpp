// local_storage: commits, of one storage and over several.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "storage/local/change_merger.h"
#include "storage/local/local_storage.h"
#include "storage/local/open_store.h"
#include "storage/local/segment_writer.h"
#include "storage/outcome_unknown.h"

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

// ---- in one storage

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

// ---- over several storages

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

}  // namespace goods
