#include "storage/local/patch_table.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace goods {
namespace {

std::size_t hash_of(segment_number number) {
  return static_cast<std::size_t>((number * std::uint64_t{0x9E3779B97F4A7C15}) >> 32);
}

}  // namespace

patch_table::patch patch_table::find(segment_number number) const {
  if (entries_.empty()) return nullptr;
  const std::size_t mask = entries_.size() - 1;
  for (std::size_t at = hash_of(number) & mask; entries_[at].is_used; at = (at + 1) & mask)
    if (entries_[at].number == number) return entries_[at].what;
  return nullptr;
}

patch_table::entry& patch_table::entry_of(segment_number number) {
  const std::size_t mask = entries_.size() - 1;
  std::size_t at = hash_of(number) & mask;
  while (entries_[at].is_used && entries_[at].number != number) at = (at + 1) & mask;
  return entries_[at];
}

patch_table::patch& patch_table::place(segment_number number, bool& is_new) {
  entry& found = entry_of(number);
  is_new = !found.is_used;
  if (is_new) {
    found.number = number;
    found.is_used = true;
    ++used_;
  }
  return found.what;
}

void patch_table::reserve(std::size_t more) {
  std::size_t size = std::max(entries_.size(), least_entries);
  while (size < (used_ + more) * 2) size *= 2;
  if (size == entries_.size()) return;
  std::vector<entry> larger(size);
  larger.swap(entries_);
  for (entry& one : larger)
    if (one.is_used) entry_of(one.number) = std::move(one);
}

}  // namespace goods
