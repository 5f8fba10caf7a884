#include "storage/multi_commit.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <thread>

#include "storage/outcome_unknown.h"
#include "storage/storage_process.h"

namespace goods {
namespace {

global_transaction new_transaction() {
  thread_local std::mt19937_64 generator{[] {
    std::random_device source;
    std::seed_seq seed{source(), source(), source(), source(), source(), source()};
    return std::mt19937_64(seed);
  }()};
  return {generator(), generator()};
}

// The parts in the order of their storages' identities: the coordinator first. Storages are entered
// in this order by all commits, so that two of them cannot wait for each other.
std::vector<const commit_part*> in_order(std::span<const commit_part> parts) {
  std::vector<const commit_part*> ordered;
  for (const commit_part& part : parts) ordered.push_back(&part);
  std::ranges::sort(ordered, {}, [](const commit_part* part) { return part->storage->identity(); });
  return ordered;
}

void discard(const global_transaction& id, std::span<const commit_part* const> prepared) {
  for (const commit_part* part : prepared) {
    try {
      part->storage->discard_prepared(id);
    } catch (...) {  // NOLINT(bugprone-empty-catch): recovery finds no decision and discards it
    }
  }
}

// One commit over several storages on its way.
class several {
 public:
  explicit several(std::span<const commit_part> parts)
      : ordered_(in_order(parts)), id_(new_transaction()) {
    versions_.reserve(parts.size());  // after the decision nothing may fail here
  }

  void run() {
    prepare();
    decide();
    finish();
    publish();
  }

  commit_version version_of(const dbs_storage* storage) const {
    for (std::size_t i = 0; i < ordered_.size(); ++i)
      if (ordered_[i]->storage == storage) return versions_[i];
    return 0;
  }

 private:
  std::span<const commit_part* const> others() const { return std::span(ordered_).subspan(1); }
  dbs_storage& coordinator() const { return *ordered_.front()->storage; }

  void prepare() {
    std::size_t done = 0;
    try {
      for (const commit_part* part : others()) {
        part->storage->prepare(id_, coordinator().identity(), coordinator().name(), part->request);
        ++done;
      }
    } catch (...) {
      discard(id_, others().first(done));
      throw;
    }
  }

  void decide() {
    commit_decision decision{id_, {}};
    for (const commit_part* part : others())
      decision.participants.push_back(part->storage->identity());
    try {
      versions_.push_back(coordinator().commit_and_decide(decision, ordered_.front()->request));
    } catch (const error_info& error) {
      // When nobody knows whether it is decided, the prepared parts wait for recovery, and nothing
      // may be committed over them.
      if (error.code() != error_code::outcome_unknown)
        discard(id_, others());
      else
        for (const commit_part* part : others()) part->storage->abandon(id_);
      throw;
    } catch (...) {
      discard(id_, others());
      throw;
    }
  }

  void finish() {
    try {
      for (const commit_part* part : others())
        versions_.push_back(part->storage->commit_prepared(id_));
    } catch (const std::exception& failure) {
      for (const commit_part* part : ordered_) part->storage->abandon(id_);
      throw_outcome_unknown(
          "A commit over several storages is decided in \"{}\" but not finished: the storages must "
          "be opened again. {}",
          coordinator().name(), failure.what());
    }
  }

  void publish() {
    storage_process::instance().begin_publishing();
    for (const commit_part* part : ordered_) part->storage->publish(id_);
    storage_process::instance().end_publishing();
    try {
      coordinator().forget_decision(id_);
    } catch (...) {  // NOLINT(bugprone-empty-catch): recovery forgets it
    }
  }

  const std::vector<const commit_part*> ordered_;
  const global_transaction id_;
  std::vector<commit_version> versions_;  // in the same order
};

// ---- recovery

dbs_storage* find_storage(std::span<dbs_storage* const> storages,
                          const storage_identity& identity) {
  for (dbs_storage* storage : storages)
    if (storage->identity() == identity) return storage;
  return nullptr;
}

void settle(dbs_storage& storage, const prepared_commit& part,
            std::span<dbs_storage* const> storages) {
  dbs_storage* coordinator = find_storage(storages, part.coordinator);
  if (coordinator == nullptr)
    throw_error(error_code::usage,
                fmt::format("The storage \"{}\" has part in a commit that the storage \"{}\" "
                            "decides on, and that one is not open: open both together.",
                            storage.name(), part.coordinator_name));
  const auto decisions = coordinator->decisions();
  const bool decided = std::ranges::any_of(
      decisions, [&](const commit_decision& decision) { return decision.id == part.id; });
  if (!decided) {
    storage.discard_prepared(part.id);
    return;
  }
  storage.commit_prepared(part.id);
  storage.publish(part.id);
}

}  // namespace

std::vector<commit_version> commit_several(std::span<const commit_part> parts) {
  std::vector<commit_version> versions;
  versions.reserve(parts.size());  // before anything is durable
  if (parts.empty()) return versions;
  if (parts.size() == 1) {
    versions.push_back(parts[0].storage->commit(parts[0].request));
    return versions;
  }
  several commit(parts);
  commit.run();
  for (const commit_part& part : parts) versions.push_back(commit.version_of(part.storage));
  return versions;
}

void recover_several(std::span<dbs_storage* const> storages) {
  // Two sessions may open the same storages at the same time.
  static guarded_mutex recovering;
  guarded_scope scope(recovering);
  for (dbs_storage* storage : storages)
    for (const prepared_commit& part : storage->prepared()) settle(*storage, part, storages);
  // A decision stays until every participant is known to have finished.
  for (dbs_storage* storage : storages) {
    for (const commit_decision& decision : storage->decisions()) {
      const bool all_here = std::ranges::all_of(
          decision.participants,
          [&](const storage_identity& id) { return find_storage(storages, id) != nullptr; });
      if (all_here) storage->forget_decision(decision.id);
    }
  }
}

std::uint64_t several_published() noexcept { return storage_process::instance().publications(); }

}  // namespace goods
