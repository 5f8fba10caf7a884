// Zeroed memory for tables that many threads read and write without locks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarns {

// An array of words that the system provides page by page as they are written first.
//
// Threads: any; each word is an atomic.
class MappedWords {
 public:
  enum class Pages { kOrdinary, kHuge };  // huge ones where memory is filled from one end

  // Throws std::bad_alloc.
  MappedWords(std::size_t count, Pages pages);
  ~MappedWords();
  MappedWords(const MappedWords&) = delete;
  MappedWords& operator=(const MappedWords&) = delete;

  std::size_t size() const { return words_.size(); }
  std::atomic<std::uint64_t>& operator[](std::size_t i) const { return words_[i]; }

 private:
  std::span<std::atomic<std::uint64_t>> words_;
};

}  // namespace tarns
