// Verifies an index of a database that is being checked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "goods/database_check.h"

namespace goods {

// One index with all its pages: their levels, the order of names within and across pages, the
// counts, and that each entry and the member that it stands for agree. A page or member that stands
// in two places is reported, and looked at once.
//
// Recursion: as deep as the index has levels, each below the one before; at most 64.
class index_check {
 public:
  explicit index_check(database_check& of, const stored_object& index) : of_(of), index_(index) {}

  void run();

 private:
  struct entry {
    std::string name;
    object_id first = 0;   // a member or a page
    object_id target = 0;  // of a member
    std::uint64_t count = 0;
  };
  struct page {
    std::uint64_t level = 0;
    std::uint64_t count = 0;  // what an index says of itself
    std::vector<entry> entries;
  };
  // Between which names a page lies; both are included.
  struct bounds {
    const std::string* low = nullptr;
    const std::string* high = nullptr;
  };

  static page read(const stored_object& object);
  // The number of members; nothing when some of it cannot be read.
  std::optional<std::uint64_t> check(object_id id, const page& what, const bounds& within);
  std::optional<std::uint64_t> check_below(object_id id, const page& above, std::size_t at,
                                           const bounds& within);
  std::optional<std::uint64_t> not_read();
  void check_order(object_id id, const page& what, const bounds& within);
  void check_member(object_id on, const entry& what);

  database_check& of_;
  const stored_object& index_;
};

}  // namespace goods
