#include "storage/local/log_recovery.h"

#include <fmt/format.h>

#include <algorithm>

#include "storage/local/commit_log.h"
#include "storage/local/row_format.h"
#include "storage/local/storage_file.h"

namespace goods {
namespace {

// Nobody writes longer ones: commits that are too large for the log go past it.
constexpr std::uint64_t longest_file = std::uint64_t{2} << 30;

}  // namespace

log_recovery::log_recovery(const std::string& directory, const std::string& store,
                           const storage_identity& identity, commit_version merged)
    : store_(store), identity_(identity), merged_(merged), newest_(merged) {
  for (const std::string& path : commit_log::paths(directory)) {
    files_.push_back({path, {}, {}});
    read(files_.back());
  }
  const auto begins = [](const log_content& file) {
    return file.records.empty() ? ~commit_version{0} : file.records.front().first;
  };
  std::ranges::sort(files_, {}, begins);
  for (log_content& file : files_) follow(file);
  for (const log_content& file : files_) check_rest(file);
}

void log_recovery::throw_damaged(const std::string& path, std::string_view what) const {
  throw_error(
      error_code::corrupt_data,
      fmt::format("The storage \"{}\" is damaged in its log \"{}\": {}.", store_, path, what));
}

void log_recovery::read(log_content& file) {
  const auto opened = storage_disk::instance().open(file.path);
  if (!opened) return;
  found_ = true;
  const std::uint64_t size = opened->size();
  if (size > longest_file) throw_damaged(file.path, fmt::format("it has {} bytes", size));
  file.bytes.resize(size);
  opened->read(0, file.bytes);
  const std::span<std::byte> bytes(file.bytes);
  for (std::size_t at = 0; at < size;) {
    const auto record = read_log_record(bytes.subspan(at), identity_);
    if (!record) break;
    if (!file.records.empty()) {
      const log_record& before = file.records.back();
      if (record->mark != before.mark || record->first != before.last() + 1) break;
    }
    file.records.push_back(*record);
    at += std::min(log_record_size(*record), size - at);
  }
}

void log_recovery::follow(log_content& file) {
  for (log_record& record : file.records) {
    if (record.last() <= newest_) continue;
    if (record.first != newest_ + 1) return;
    next_.push_back({&file, &record});
    newest_ = record.last();
  }
}

commit_version log_recovery::take(std::size_t bytes, std::vector<object_change>& changes) {
  changes.clear();
  commit_version through = 0;
  for (std::size_t size = 0; size < bytes && taken_ < next_.size(); ++taken_) {
    const auto& [file, record] = next_[taken_];
    try {
      read_changes(*record, changes);
    } catch (const damaged_bytes& damage) {
      throw_damaged(file->path, damage.what());
    }
    size += record->content.size();
    through = record->last();
  }
  return through;
}

// Looks for witnesses that more has been here: the headers of the records that were found, and
// whatever headers stand behind them.
void log_recovery::check_rest(const log_content& file) const {
  const std::span<const std::byte> bytes(file.bytes);
  std::size_t at = 0;
  const auto look = [&] {
    if (const auto header = read_log_header(bytes.subspan(at), identity_))
      check_witness(*header, file);
  };
  for (const log_record& record : file.records) {
    look();
    at += log_record_size(record);
  }
  for (; at + log_header_size <= bytes.size(); at += log_alignment) look();
}

void log_recovery::check_witness(const log_header& header, const log_content& file) const {
  if (header.record.durable > newest_)
    throw_damaged(file.path, fmt::format("commit {} is missing, although commit {} came later",
                                         newest_ + 1, header.record.first));
  if (header.record.last() > merged_ && header.record.synced > file.bytes.size())
    throw_damaged(file.path, fmt::format("it has {} bytes instead of {} at least",
                                         file.bytes.size(), header.record.synced));
}

}  // namespace goods
