// One file of a commit log, read a little at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/log_record.h"
#include "storage/local/storage_file.h"

namespace goods {

// Finds headers and verifies records of a file that may hold anything: what it says about lengths
// takes no memory before it has turned out to be true. Memory: a window of 1 MiB, and a record that
// is read. Threads: one. Errors: input_output.
class log_reader {
 public:
  log_reader(std::string path, const storage_identity& store);

  bool is_there() const { return file_ != nullptr; }
  const std::string& path() const { return path_; }
  std::uint64_t size() const { return size_; }

  // The header that stands there; nothing when none of this store does.
  std::optional<log_header> header_at(std::uint64_t at);
  // Whether the content of the record that has this header is there, and is what was written.
  bool is_whole(std::uint64_t at, const log_header& header);
  // A whole record; its content, as it is stored, comes into `content`.
  log_record read(std::uint64_t at, const log_header& header, std::vector<std::byte>& content);

 private:
  std::span<const std::byte> window_at(std::uint64_t at, std::size_t least);

  std::string path_;
  storage_identity store_;
  std::unique_ptr<storage_file> file_;  // null: there is none
  std::uint64_t size_ = 0;              // when it was opened
  std::vector<std::byte> window_;
  std::uint64_t window_begins_ = 0;
};

// Where the next record begins, from the beginning of this one.
std::uint64_t log_record_size(const log_header& header);

}  // namespace goods
