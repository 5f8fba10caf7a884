#include "storage/local/log_merger.h"

#include <chrono>
#include <memory>

#include "storage/local/segment_writer.h"

namespace goods {
namespace {

constexpr auto retry_after = std::chrono::milliseconds(500);
// Commits that a loss of power may take with durability=relaxed, besides those of a running merge.
constexpr auto sync_every = std::chrono::milliseconds(100);

constexpr std::size_t little = std::size_t{256} << 10;  // bytes of memory
constexpr int most_rounds = 8;

}  // namespace

log_merger::log_merger(const parts& with, std::size_t most_bytes, bool syncs_log)
    : with_(with), most_bytes_(most_bytes), syncs_log_(syncs_log), thread_([this] { run(); }) {}

log_merger::~log_merger() {
  {
    guarded_scope scope(lock_);
    stopping_ = true;
    wake_.notify_one();
  }
  thread_.join();
}

void log_merger::make_room(std::size_t bytes) {
  const std::size_t in_memory = with_.overlay.active_bytes();
  const bool fits = with_.log.has_room(bytes) && in_memory <= most_bytes_;
  if (fits) {
    if (!with_.log.is_half_full() && in_memory * 2 <= most_bytes_) return;
    // Early, when that costs no waiting.
    guarded_scope scope(lock_);
    if (pending_) return;
  } else {
    wait();
  }
  begin();
}

void log_merger::merge_all() {
  wait();
  if (with_.overlay.is_active_empty()) return;
  begin();
  wait();
}

void log_merger::merge_most() {
  for (int round = 0; round < most_rounds; ++round) {
    wait();
    const writer_turn::hold turn(with_.turn);
    if (with_.overlay.active_bytes() <= little) return;
    start();
  }
}

// Begins to merge what there is, unless a merge is on its way.
void log_merger::start() {
  {
    guarded_scope scope(lock_);
    if (pending_) return;
  }
  begin();
}

void log_merger::begin() {
  const bool merges = !with_.overlay.is_active_empty();
  if (merges) with_.overlay.freeze();  // may throw: the log goes on as it was then
  with_.log.switch_files();
  if (!merges) return;
  guarded_scope scope(lock_);
  pending_ = true;
  wake_.notify_one();
}

void log_merger::wait() {
  guarded_scope scope(lock_);
  if (!pending_) return;
  const std::uint64_t failures = failures_;
  ++waiting_;
  wake_.notify_one();
  while (pending_ && failures_ == failures) changed_.wait(lock_);
  --waiting_;
  if (pending_) std::rethrow_exception(failure_);
}

// False when it is time to end.
bool log_merger::wait_for_work(bool failed) {
  if (stopping_) return false;
  if (pending_ && (!failed || waiting_ != 0)) return true;
  if (failed || syncs_log_)
    wake_.wait_for(lock_, failed && !syncs_log_ ? retry_after : sync_every);
  else
    wake_.wait(lock_);
  return !stopping_;
}

void log_merger::run() {
  bool failed = false;
  auto failed_at = std::chrono::steady_clock::now();
  for (;;) {
    bool merges = false;
    {
      guarded_scope scope(lock_);
      if (!wait_for_work(failed)) return;
    }
    if (syncs_log_) sync_log();
    {
      guarded_scope scope(lock_);
      const bool again =
          waiting_ != 0 || std::chrono::steady_clock::now() - failed_at > retry_after;
      merges = pending_ && (!failed || again);
    }
    if (!merges) continue;
    try {
      merge();
      failed = false;
      guarded_scope scope(lock_);
      pending_ = false;
      changed_.notify_all();
    } catch (...) {
      failed = true;
      failed_at = std::chrono::steady_clock::now();
      guarded_scope scope(lock_);
      ++failures_;
      failure_ = std::current_exception();
      changed_.notify_all();
    }
  }
}

void log_merger::merge() {
  const auto table = with_.overlay.frozen();
  writer_turn::hold turn(with_.database_turn);
  segment_store::transaction transaction(with_.store, segment_store::after_failure::harmless);
  segment_writer writer(transaction, with_.stored);
  writer.write(*table);
  with_.prepared.erase_forgotten(transaction);
  transaction.commit();

  writer.note_committed();
  with_.prepared.forgotten_erased();
  with_.log.note_durable(table->version);
  with_.log.note_merged();
  with_.versions.merged.store(table->version, std::memory_order_release);
  with_.overlay.drop_frozen();
  with_.checkpoints.log_has(with_.store.log_pages());
}

void log_merger::sync_log() noexcept {
  try {
    if (with_.log.has_unsynced()) with_.log.sync();
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; it is tried again
  }
  leave_broken_file();
}

// Whoever has the turn may be waiting for a merge. But then it commits, and leaves the file itself;
// or this is tried again before long.
void log_merger::leave_broken_file() noexcept {
  if (!with_.log.is_broken() || !with_.turn.try_take()) return;
  try {
    bool is_free = false;
    {
      guarded_scope scope(lock_);
      is_free = !pending_;
    }
    if (is_free) begin();
  } catch (...) {  // NOLINT(bugprone-empty-catch): out of memory; it is tried again
  }
  with_.turn.leave();
}

}  // namespace goods
