// Zeroed memory for tables that many threads read and write without locks.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tarns {

// An array of words that the system provides as they are needed.
//
// Threads: any; each word is an atomic.
class MappedWords {
 public:
  enum class Use {
    kFromOneEnd,  // filled in order
    kScattered    // here and there: provide() goes before the first write anywhere
  };

  // Throws std::bad_alloc.
  MappedWords(std::size_t count, Use use);
  ~MappedWords();
  MappedWords(const MappedWords&) = delete;
  MappedWords& operator=(const MappedWords&) = delete;

  std::size_t size() const { return words_.size(); }
  std::atomic<std::uint64_t>& operator[](std::size_t i) const { return words_[i]; }

  // Of scattered words. Whether there is memory behind word i; otherwise it is 0, and looking costs
  // a page fault.
  bool has(std::size_t i) const {
    return (provided_[i / (kBlock * kBits)].load(std::memory_order_relaxed) >> BlockBit(i) & 1) !=
           0;
  }
  // Brings in the memory around word i, many pages with one call.
  void provide(std::size_t i) {
    if (!has(i)) provideBlock(i);
  }
  std::size_t memory() const { return memory_.load(std::memory_order_relaxed); }  // bytes provided

 private:
  static constexpr std::size_t kBlock = 2048;  // words: some pages
  static constexpr std::size_t kBits = 64;

  static std::size_t BlockBit(std::size_t i) { return i / kBlock % kBits; }
  void provideBlock(std::size_t i);

  std::span<std::atomic<std::uint64_t>> words_;
  std::vector<std::atomic<std::uint64_t>> provided_;  // a bit for each block
  std::atomic<std::size_t> memory_{0};
};

}  // namespace tarns
