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
    files_.push_back({log_reader(path, identity), 0, 0, {}});
    found_ = found_ || files_.back().file.is_there();
    find_records(files_.back());
  }
  const auto begins = [](const log_content& file) {
    return file.records.empty() ? ~commit_version{0} : file.records.front().first;
  };
  std::ranges::sort(files_, {}, begins);
  for (log_content& file : files_) follow(file);
  for (log_content& file : files_) check_rest(file);
}

void log_recovery::throw_damaged(const std::string& path, std::string_view what) const {
  throw_error(
      error_code::corrupt_data,
      fmt::format("The storage \"{}\" is damaged in its log \"{}\": {}.", store_, path, what));
}

void log_recovery::find_records(log_content& file) const {
  log_reader& from = file.file;
  if (!from.is_there()) return;
  if (from.size() > longest_file)
    throw_damaged(from.path(), fmt::format("it has {} bytes", from.size()));
  while (const auto header = from.header_at(file.end)) {
    const log_record& record = header->record;
    if (!file.records.empty() &&
        (record.mark != file.mark || record.first != file.records.back().last() + 1))
      break;
    if (!from.is_whole(file.end, *header)) break;
    file.mark = record.mark;
    file.records.push_back({file.end, record.first, record.commits, header->length});
    file.end += log_record_size(*header);
  }
}

void log_recovery::follow(log_content& file) {
  for (const found_record& record : file.records) {
    if (record.last() <= newest_) continue;
    if (record.first != newest_ + 1) return;
    next_.push_back({&file, &record});
    newest_ = record.last();
  }
}

commit_version log_recovery::take(std::size_t bytes, std::vector<object_change>& changes) {
  changes.clear();
  contents_.clear();
  commit_version through = 0;
  for (std::size_t size = 0; size < bytes && taken_ < next_.size(); ++taken_) {
    const auto& [file, found] = next_[taken_];
    log_reader& from = file->file;
    try {
      const auto header = from.header_at(found->at);
      if (!header) throw damaged_bytes("it has changed while it was read");
      log_record record = from.read(found->at, *header, contents_.emplace_back());
      read_changes(record, changes);
    } catch (const damaged_bytes& damage) {
      throw_damaged(from.path(), damage.what());
    }
    size += found->length;
    through = found->last();
  }
  return through;
}

// Looks for witnesses that more has been here: the headers of the records that were found, and
// whatever headers stand behind them.
void log_recovery::check_rest(log_content& file) const {
  log_reader& from = file.file;
  const auto look = [&](std::uint64_t at) {
    if (const auto header = from.header_at(at)) check_witness(*header, file);
  };
  for (const found_record& record : file.records) look(record.at);
  for (std::uint64_t at = file.end; at < from.size(); at += log_alignment) look(at);
}

void log_recovery::check_witness(const log_header& header, const log_content& file) const {
  if (header.record.durable > newest_)
    throw_damaged(file.file.path(),
                  fmt::format("commit {} is missing, although commit {} came later", newest_ + 1,
                              header.record.first));
  if (header.record.last() > merged_ && header.record.synced > file.file.size())
    throw_damaged(file.file.path(), fmt::format("it has {} bytes instead of {} at least",
                                                file.file.size(), header.record.synced));
}

}  // namespace goods
