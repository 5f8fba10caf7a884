// Room for bodies that are made and go together.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace goods {

// Hands out memory piece by piece and takes it back all at once. Keeps some of it for the next use.
// Threads: one.
class body_arena {
 public:
  void* allocate(std::size_t bytes);
  // Nothing that was handed out may be used any more.
  void reset() noexcept;

  // While one lives, the next body that the thread makes with `new` lies in the arena: the one
  // whose class is asked for it, not those that its constructor may make in turn. Destroy it by
  // calling its destructor.
  class next_body {
   public:
    explicit next_body(body_arena& arena);
    ~next_body();
    next_body(const next_body&) = delete;
    next_body& operator=(const next_body&) = delete;

    // For object::operator new: memory from the arena, once; else null.
    static void* take(std::size_t bytes);
    // For object::operator delete, when a constructor has failed: whether it was from there.
    static bool was_taken(const void* room);
  };

 private:
  static constexpr std::size_t block_size = std::size_t{32} << 10;
  static constexpr std::size_t longest_in_block = block_size / 8;
  static constexpr std::size_t most_blocks_kept = 16;

  using block = std::unique_ptr<std::byte[]>;
  static block new_block(std::size_t bytes) { return block(new std::byte[bytes]); }

  std::vector<block> blocks_;  // of block_size; the first block_ are full
  std::vector<block> large_;   // one for each body that is longer
  std::size_t block_ = 0;
  std::size_t used_ = 0;  // of blocks_[block_]
};

}  // namespace goods
