#include "storage/local/commit_log.h"

#include <fmt/format.h>

#include <algorithm>

#include "storage/outcome_unknown.h"

namespace goods {
namespace {

constexpr std::uint64_t block = file_block::bytes;  // files grow by whole ones
constexpr std::uint64_t smallest_step = std::uint64_t{64} << 10;
constexpr std::uint64_t largest_step = std::uint64_t{4} << 20;

// How long a file of `size` bytes becomes when it must have `needed`.
std::uint64_t grown(std::uint64_t size, std::uint64_t needed, std::uint64_t room) {
  const std::uint64_t step = std::clamp(size, smallest_step, largest_step);
  const std::uint64_t wanted = std::max(needed, std::min(size + step, room));
  return (wanted + block - 1) / block * block;
}

// Of the exception that is being handled.
bool is_disk_full() {
  try {
    throw;
  } catch (const error_info& error) {
    return error.code() == error_code::storage_full;
  } catch (...) {
    return false;
  }
}

}  // namespace

commit_log::commit_log(const std::string& directory, const std::string& store,
                       const storage_identity& identity, std::uint64_t room)
    : directory_(directory), store_(store), identity_(identity), room_(room) {
  const auto names = paths(directory);
  guarded_scope scope(lock_);
  for (std::size_t i = 0; i < files_.size(); ++i) files_[i].path = names[i];
}

std::array<std::string, 2> commit_log::paths(const std::string& directory) {
  return {directory + "/commits.0", directory + "/commits.1"};
}

bool commit_log::has_room(std::size_t bytes) const {
  guarded_scope scope(lock_);
  const log_file& f = files_[active_];
  return !f.is_broken && f.position + bytes <= room_;
}

bool commit_log::is_half_full() const {
  guarded_scope scope(lock_);
  return files_[active_].position * 2 > room_;
}

void commit_log::append(std::span<const commit_request* const> group, commit_version first,
                        bool durable) {
  guarded_scope scope(lock_);
  if (has_failed())
    throw_outcome_unknown(
        "The storage \"{}\" takes no commits after one whose outcome is unknown: it must be opened "
        "again.",
        store_);
  log_file& f = current();
  make_ready(f, durable);
  log_record about;
  about.mark = f.mark;
  about.first = first;
  about.durable = durable_;
  about.synced = f.synced_size;
  write_log_record(about, group, identity_, record_);
  write_record(f, durable);
  f.position += record_.size();
  f.last = f.position % block == 0 ? file_block() : blocks_.back();
  const commit_version last = first + group.size() - 1;
  if (durable) {
    f.synced_size = f.size;
    durable_ = last;
  } else {
    f.unsynced = last;
  }
}

void commit_log::make_ready(log_file& f, bool durable) {
  storage_disk& disk = storage_disk::instance();
  if (!f.file) {
    f.file = disk.create(f.path);
    if (durable) f.file->bypass_cache();
  }
  if (!f.is_listed) disk.sync_directory(directory_);
  f.is_listed = true;
  if (f.position == 0) f.mark = std::uint64_t{random_()} << 32 | random_();
}

// Before a record is written into it: a full disk is noticed while nothing is there that could be
// taken for one.
void commit_log::grow(log_file& f, std::uint64_t needed) {
  if (needed <= f.size) return;
  const std::uint64_t size = grown(f.size, needed, room_);
  const std::vector<file_block> zeros((size - f.size) / block);
  f.file->write(f.size, std::as_bytes(std::span(zeros)));
  f.size = size;
}

// In whole blocks, the first of which may begin with records that are there already.
void commit_log::write_at_end(log_file& f, std::span<const std::byte> bytes) {
  const std::uint64_t before = f.position % block;
  blocks_.resize((before + bytes.size() + block - 1) / block);
  if (before != 0) blocks_.front() = f.last;
  const std::span<std::byte> all = std::as_writable_bytes(std::span(blocks_));
  const auto end = std::ranges::copy(bytes, all.subspan(before).begin()).out;
  std::fill(end, all.end(), std::byte{0});
  f.file->write(f.position - before, all);
}

void commit_log::write_record(log_file& f, bool durable) {
  grow(f, f.position + record_.size());
  bool is_whole = false;
  try {
    write_at_end(f, record_);
    is_whole = true;
    if (durable) f.file->sync();
  } catch (...) {
    const bool undone = undo(f);
    // Room that was added for it may have been lost with what could not be synced.
    if (undone && f.unsynced == 0) f.size = f.synced_size;
    if (undone || (!is_whole && is_disk_full())) throw;  // a full disk has not taken all of it
    failed_ = true;
    throw_outcome_unknown(
        "Whether a commit to the storage \"{}\" has become durable is unknown: its log \"{}\" can "
        "be "
        "neither written nor synced. It must be opened again.",
        store_, f.path);
  }
}

// Makes sure that nobody takes what was written for a record.
bool commit_log::undo(log_file& f) noexcept {
  constexpr int tries = 3;
  constexpr std::array<std::byte, log_header_size> nothing{};
  for (int i = 0; i < tries; ++i) {
    try {
      write_at_end(f, nothing);
      f.file->sync();
      return true;
    } catch (...) {
      // What was written before and not synced may not be told of by the next sync that succeeds.
      if (f.unsynced != 0) f.is_broken = true;
    }
  }
  return false;
}

void commit_log::switch_files() {
  guarded_scope scope(lock_);
  active_ = 1 - active_;
  log_file& f = current();
  f.position = 0;
  f.unsynced = 0;
  // Nothing about its room is certain: it is written again.
  if (f.is_broken) f.size = f.synced_size = 0;
  f.is_broken = false;
}

bool commit_log::has_unsynced() const {
  guarded_scope scope(lock_);
  return std::ranges::any_of(files_, [](const log_file& f) { return f.unsynced != 0; });
}

bool commit_log::is_broken() const {
  guarded_scope scope(lock_);
  return files_[active_].is_broken;
}

void commit_log::sync() {
  struct pending {
    std::shared_ptr<storage_file> file;
    commit_version through;
    std::uint64_t mark, size;
    bool failed;
  };
  std::array<pending, 2> all{};
  {
    guarded_scope scope(lock_);
    for (std::size_t i = 0; i < files_.size(); ++i)
      all[i] = {files_[i].file, files_[i].unsynced, files_[i].mark, files_[i].size, false};
  }
  for (pending& p : all) {
    if (p.through == 0) continue;
    try {
      p.file->sync();
    } catch (...) {
      p.failed = true;
    }
  }
  guarded_scope scope(lock_);
  commit_version through = 0;
  bool whole = true;
  for (std::size_t i = 0; i < files_.size(); ++i) {
    log_file& f = files_[i];
    if (all[i].through == 0 || f.mark != all[i].mark) continue;  // nothing, or merged meanwhile
    if (all[i].failed) f.is_broken = true;
    // Behind what was lost, nothing counts: it is found by merging only.
    if (f.is_broken) whole = false;
    through = std::max(through, all[i].through);
  }
  if (!whole) return;
  durable_ = std::max(durable_, through);
  for (std::size_t i = 0; i < files_.size(); ++i) {
    log_file& f = files_[i];
    if (all[i].through == 0 || f.mark != all[i].mark) continue;
    f.synced_size = std::max(f.synced_size, all[i].size);
    if (f.unsynced <= through) f.unsynced = 0;
  }
}

void commit_log::note_durable(commit_version through) {
  guarded_scope scope(lock_);
  durable_ = std::max(durable_, through);
  for (log_file& f : files_)
    if (f.unsynced <= through) f.unsynced = 0;
}

void commit_log::note_merged() {
  guarded_scope scope(lock_);
  files_[1 - active_].position = 0;
}

void commit_log::remove() {
  storage_disk& disk = storage_disk::instance();
  guarded_scope scope(lock_);
  bool removed = false;
  for (log_file& f : files_) {
    log_file none;
    none.path = f.path;
    f = std::move(none);
    removed = disk.remove(f.path) || removed;
  }
  if (removed) disk.sync_directory(directory_);
}

std::uint64_t commit_log::file_bytes() const {
  guarded_scope scope(lock_);
  return files_[0].size + files_[1].size;
}

std::uint64_t commit_log::used_bytes() const {
  guarded_scope scope(lock_);
  return files_[0].position + files_[1].position;
}

}  // namespace goods
