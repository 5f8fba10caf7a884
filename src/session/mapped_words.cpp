#include "session/mapped_words.h"

#include <sys/mman.h>

#include <new>

namespace tarns {

MappedWords::MappedWords(std::size_t count, Pages pages) {
  void* room = ::mmap(nullptr, count * sizeof(std::uint64_t), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (room == MAP_FAILED) throw std::bad_alloc();
  if (pages == Pages::kHuge) ::madvise(room, count * sizeof(std::uint64_t), MADV_HUGEPAGE);
  words_ = {static_cast<std::atomic<std::uint64_t>*>(room), count};
}

MappedWords::~MappedWords() { ::munmap(words_.data(), words_.size_bytes()); }

}  // namespace tarns
