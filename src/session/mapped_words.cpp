#include "session/mapped_words.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace tarns {

MappedWords::MappedWords(std::size_t count, Use use)
    : provided_(use == Use::kScattered ? count / (kBlock * kBits) + 1 : 0) {
  void* room = ::mmap(nullptr, count * sizeof(std::uint64_t), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) throw std::bad_alloc();
  if (use == Use::kFromOneEnd) ::madvise(room, count * sizeof(std::uint64_t), MADV_HUGEPAGE);
  words_ = {static_cast<std::atomic<std::uint64_t>*>(room), count};
}

MappedWords::~MappedWords() { ::munmap(words_.data(), words_.size_bytes()); }

// Where the system cannot do it at once, the pages come one by one as they are written.
void MappedWords::provideBlock(std::size_t i) {
  const std::uint64_t bit = std::uint64_t{1} << BlockBit(i);
  if ((provided_[i / (kBlock * kBits)].fetch_or(bit, std::memory_order_relaxed) & bit) != 0) return;
  const std::size_t first = i / kBlock * kBlock;
  const std::size_t bytes = std::min(kBlock, words_.size() - first) * sizeof(std::uint64_t);
#ifdef MADV_POPULATE_WRITE
  ::madvise(&words_[first], bytes, MADV_POPULATE_WRITE);
#endif
  memory_.fetch_add(bytes, std::memory_order_relaxed);
}

}  // namespace tarns
