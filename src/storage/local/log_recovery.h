// What the commit log of a store that was not closed still has to tell.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/log_reader.h"

namespace goods {

// Reads both files of a log and finds the commits that are not in the database, in order, up to the
// first that is not whole: a crash ended the process while it was written.
//
// Damage is told apart from that as far as it can be: a commit that a later record calls durable,
// and room that a record calls durable, must be there. The last record of all, damaged, looks like
// one that was cut short. Headers bear witness wherever they are, also those of records that are
// cut short or have been overwritten in part; what applications store is never taken for one
// (log_record.h).
//
// Memory: what take() hands over, and 32 bytes for each record.
class log_recovery {
 public:
  // `merged`: the newest version that the database has. Throws corrupt_data naming the file.
  log_recovery(const std::string& directory, const std::string& store,
               const storage_identity& identity, commit_version merged);

  // Whether there is any file.
  bool found_files() const { return found_; }
  // The newest version of all.
  commit_version newest() const { return newest_; }
  // Replaces `changes` by those of the next commits after `merged`, in order, as many as take about
  // so many bytes of the log; bodies are kept here until the next call. Returns the version of the
  // last one, 0 when there are no more. Throws as above.
  commit_version take(std::size_t bytes, std::vector<object_change>& changes);

 private:
  struct found_record {
    std::uint64_t at;
    commit_version first;
    std::uint32_t commits, length;
    commit_version last() const { return first + (commits - 1); }
  };
  struct log_content {
    log_reader file;
    std::uint64_t mark;
    std::uint64_t end = 0;              // of the records
    std::vector<found_record> records;  // from the beginning, one directly after the other
  };

  void find_records(log_content& file) const;
  void follow(log_content& file);
  void check_rest(log_content& file) const;
  void check_witness(const log_header& header, const log_content& file) const;
  [[noreturn]] void throw_damaged(const std::string& path, std::string_view what) const;

  const std::string store_;
  const storage_identity identity_;
  const commit_version merged_;
  bool found_ = false;
  commit_version newest_;
  std::vector<log_content> files_;
  struct next_record {
    log_content* file;
    const found_record* record;
  };
  std::vector<next_record> next_;                 // after `merged`, in order
  std::size_t taken_ = 0;                         // of them
  std::vector<std::vector<std::byte>> contents_;  // of those taken last
};

}  // namespace goods
