// The pages of an SQLite file, read without SQLite.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "storage/local/storage_file.h"

namespace goods {

// What of a damaged file can be found: every page by itself, with the write-ahead log's committed
// frames laid over as far as their checksums go. Nothing is written, and no lock is taken.
//
// SQLite stops at a page that it does not understand, and everything behind that page is lost to
// it. Whoever has checksums of his own need not know how pages hang together: cells of tables are
// looked for on all pages but those that are free.
// Threads: one. Errors: input_output when there is no file; what cannot be read is skipped.
class page_file {
 public:
  static constexpr std::size_t page_size = 4096;  // bytes; as make_store() makes them

  // `path`: of the database.
  explicit page_file(const std::string& path);

  // Where a row's cell lies.
  struct place {
    std::uint32_t page;
    std::uint16_t cell;
  };
  using row_visitor =
      std::function<void(std::int64_t key, const place& at, std::span<const std::byte> body)>;
  // Shows whatever may be a row (id, body) of a table, on all pages.
  void for_each_row(const row_visitor& visit);
  // The body of one of them once more; empty when it cannot be read any more.
  std::vector<std::byte> read_row(const place& at);

 private:
  using page = std::array<std::byte, page_size>;

  bool read_page(std::uint32_t number, page& into);
  void read_log(const std::string& path);
  void read_free_list();
  void keep_pages_of_tables();
  unsigned cells_of(std::uint32_t number, const page& in) const;
  bool read_cell(std::uint32_t number, const page& in, unsigned cell, std::int64_t& key,
                 std::vector<std::byte>& body);

  std::unique_ptr<storage_file> file_;
  std::unique_ptr<storage_file> log_;
  std::uint32_t pages_ = 0;
  std::unordered_map<std::uint32_t, std::uint64_t> newer_;  // page: where its frame's content is
  std::set<std::uint32_t> free_;
};

}  // namespace goods
