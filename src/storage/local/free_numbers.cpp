#include "storage/local/free_numbers.h"

#include <algorithm>
#include <bit>

namespace goods {
namespace {

constexpr std::size_t word_of(segment_number number) { return number / 64; }
constexpr std::uint64_t bit_of(segment_number number) { return std::uint64_t{1} << number % 64; }

bool has(const std::vector<std::uint64_t>& bits, segment_number number) {
  return word_of(number) < bits.size() && (bits[word_of(number)] & bit_of(number)) != 0;
}

}  // namespace

void free_numbers::load(const presence_map& presence, segment_number first, segment_number end,
                        const std::function<bool(segment_number)>& is_taken) {
  reserve(end);
  guarded_scope scope(lock_);
  for (segment_number number = first; number < end; ++number)
    if (!presence.has(number) && !is_taken(number)) free_[word_of(number)] |= bit_of(number);
}

void free_numbers::reserve(segment_number end) {
  const std::size_t words = word_of(end) + 1;
  guarded_scope scope(lock_);
  if (words <= free_.size()) return;
  // Both or none; they grow by halves, since most stores do so a little at a time.
  const std::size_t size = std::max(words, free_.size() + free_.size() / 2);
  bits larger(size);
  emptied_.resize(size);
  std::ranges::copy(free_, larger.begin());
  free_.swap(larger);
}

void free_numbers::note_emptied(segment_number number) noexcept {
  guarded_scope scope(lock_);
  if (word_of(number) < emptied_.size()) emptied_[word_of(number)] |= bit_of(number);
}

void free_numbers::note_used(segment_number number) noexcept {
  guarded_scope scope(lock_);
  if (word_of(number) >= free_.size()) return;
  emptied_[word_of(number)] &= ~bit_of(number);
  free_[word_of(number)] &= ~bit_of(number);
}

std::vector<segment_number> free_numbers::all_emptied() const {
  std::vector<segment_number> all;
  guarded_scope scope(lock_);
  for (std::size_t word = 0; word < emptied_.size(); ++word) {
    for (std::uint64_t rest = emptied_[word]; rest != 0; rest &= rest - 1)
      all.push_back(static_cast<segment_number>(word * 64 +
                                                static_cast<std::size_t>(std::countr_zero(rest))));
  }
  return all;
}

void free_numbers::reclaim(const std::function<bool(segment_number)>& is_unused) {
  for (const segment_number number : all_emptied()) {
    if (!is_unused(number)) continue;
    guarded_scope scope(lock_);
    if (!has(emptied_, number)) continue;
    emptied_[word_of(number)] &= ~bit_of(number);
    free_[word_of(number)] |= bit_of(number);
    lowest_ = std::min(lowest_, word_of(number));
  }
}

free_numbers::run free_numbers::take(std::uint32_t most) noexcept {
  guarded_scope scope(lock_);
  while (lowest_ < free_.size() && free_[lowest_] == 0) ++lowest_;
  if (lowest_ == free_.size() || most == 0) return {};
  run taken;
  taken.first = static_cast<segment_number>(
      lowest_ * 64 + static_cast<std::size_t>(std::countr_zero(free_[lowest_])));
  while (taken.count < most && has(free_, taken.first + taken.count)) {
    const segment_number next = taken.first + taken.count++;
    free_[word_of(next)] &= ~bit_of(next);
  }
  return taken;
}

void free_numbers::give_back(std::uint64_t first, std::uint64_t end) noexcept {
  guarded_scope scope(lock_);
  for (std::uint64_t number = (first + segment_slots - 1) / segment_slots;
       number < end / segment_slots && word_of(static_cast<segment_number>(number)) < free_.size();
       ++number) {
    const auto segment = static_cast<segment_number>(number);
    free_[word_of(segment)] |= bit_of(segment);
    lowest_ = std::min(lowest_, word_of(segment));
  }
}

}  // namespace goods
