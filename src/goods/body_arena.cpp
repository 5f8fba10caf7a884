#include "goods/body_arena.h"

#include <algorithm>
#include <utility>

namespace goods {
namespace {

thread_local body_arena* waiting_arena = nullptr;
thread_local const void* room_taken = nullptr;

}  // namespace

void* body_arena::allocate(std::size_t bytes) {
  constexpr std::size_t alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
  bytes = (bytes + alignment - 1) / alignment * alignment;
  if (bytes > longest_in_block) return large_.emplace_back(new_block(bytes)).get();
  if (block_ < blocks_.size() && used_ + bytes > block_size) {
    ++block_;
    used_ = 0;
  }
  if (block_ == blocks_.size()) blocks_.push_back(new_block(block_size));
  return blocks_[block_].get() + std::exchange(used_, used_ + bytes);
}

void body_arena::reset() noexcept {
  blocks_.resize(std::min(blocks_.size(), most_blocks_kept));
  large_.clear();
  block_ = used_ = 0;
}

body_arena::next_body::next_body(body_arena& arena) { waiting_arena = &arena; }

body_arena::next_body::~next_body() {
  waiting_arena = nullptr;
  room_taken = nullptr;
}

void* body_arena::next_body::take(std::size_t bytes) {
  if (waiting_arena == nullptr) return nullptr;
  void* const room = std::exchange(waiting_arena, nullptr)->allocate(bytes);
  room_taken = room;
  return room;
}

bool body_arena::next_body::was_taken(const void* room) { return room == room_taken; }

}  // namespace goods
