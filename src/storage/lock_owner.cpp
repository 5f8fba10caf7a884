#include "storage/lock_owner.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "storage/lock_owner_door.h"
#include "storage/object_locks.h"

namespace goods {
namespace {

constexpr std::size_t first_chunk = 16;      // grants
constexpr std::size_t largest_chunk = 4096;  // grants
// Above so many an owner gives its memory back when they are released.
constexpr std::size_t usual_grants = 4096;

std::size_t hash_of(object_number group) {
  return static_cast<std::size_t>((group * std::uint64_t{0x9E3779B97F4A7C15}) >> 32);
}

}  // namespace

lock_owner::lock_owner(std::string description)
    : description_(description.empty() ? fmt::format("thread {}", ::gettid())
                                       : std::move(description)) {}

lock_owner::~lock_owner() {
  while (held_ != nullptr) held_->table->unlock_all(*this);
}

lock_grant* lock_owner::find(const lock_table& table, object_number group) const {
  for (std::size_t at = hash_of(group) & mask_; places_[at].grant != nullptr; at = (at + 1) & mask_)
    if (places_[at].group == group && places_[at].grant->table == &table) return places_[at].grant;
  return nullptr;
}

bool lock_owner::holds(const lock_table& table, object_number number, lock_mode mode) const {
  const lock_grant* grant = find(table, neighbours::group_of(number));
  return grant != nullptr && grant->holds(neighbours::member_of(number), mode);
}

bool lock_owner::holds_exclusively(const lock_table& table, const neighbours& objects) const {
  const lock_grant* grant = find(table, objects.group);
  return grant != nullptr && (grant->exclusive & objects.members) != 0;
}

std::size_t lock_owner::held() const {
  std::size_t count = 0;
  for (const lock_grant* grant = held_; grant != nullptr; grant = grant->next_held)
    count += static_cast<std::size_t>(std::popcount(grant->shared | grant->exclusive));
  return count;
}

void lock_owner::put(lock_grant* grant) {
  std::size_t at = hash_of(grant->group) & mask_;
  while (places_[at].grant != nullptr) at = (at + 1) & mask_;
  places_[at] = {grant, grant->group};
}

void lock_owner::insert(lock_grant* grant) {
  grant->next_held = held_;
  held_ = grant;
  ++held_count_;
  put(grant);
}

// Called before a lock is taken, so that recording it cannot fail.
void lock_owner::grow() {
  std::vector<place> larger((mask_ + 1) * 2);
  many_places_ = std::move(larger);
  places_ = many_places_.data();
  mask_ = many_places_.size() - 1;
  for (lock_grant* grant = held_; grant != nullptr; grant = grant->next_held) put(grant);
}

lock_grant* lock_owner::new_grant() {
  if ((held_count_ + 1) * 2 > mask_ + 1) grow();
  if (stock_ == nullptr) {
    const std::size_t size =
        std::min(largest_chunk, first_chunk << std::min<std::size_t>(chunks_.size(), 8));
    chunks_.push_back(std::make_unique<lock_grant[]>(size));
    for (std::size_t i = 0; i < size; ++i)
      chunks_.back()[i].next_held = std::exchange(stock_, &chunks_.back()[i]);
  }
  return std::exchange(stock_, stock_->next_held);
}

// Takes the grants of `table` out; they have been released.
void lock_owner::forget(const lock_table& table) {
  const std::size_t before = held_count_;
  lock_grant* kept = nullptr;
  if (before * 8 > mask_ + 1) {
    std::fill_n(places_, mask_ + 1, place{});
  } else {
    // Every place that is taken belongs to a grant; a probe finds it as long as none is emptied.
    for (lock_grant* grant = held_; grant != nullptr; grant = grant->next_held) {
      std::size_t at = hash_of(grant->group) & mask_;
      while (places_[at].grant != grant) at = (at + 1) & mask_;
      grant->place = at;
    }
    for (lock_grant* grant = held_; grant != nullptr; grant = grant->next_held)
      places_[grant->place] = {};
  }
  while (held_ != nullptr) {
    lock_grant* grant = std::exchange(held_, held_->next_held);
    lock_grant*& list = grant->table == &table ? stock_ : kept;
    grant->next_held = std::exchange(list, grant);
    if (&list == &stock_) --held_count_;
  }
  held_ = kept;
  for (lock_grant* grant = held_; grant != nullptr; grant = grant->next_held) put(grant);
  if (held_count_ == 0 && before > usual_grants) give_back_memory();
}

void lock_owner::give_back_memory() {
  many_places_ = {};
  few_places_.fill({});
  places_ = few_places_.data();
  mask_ = few - 1;
  stock_ = nullptr;
  chunks_.clear();
}

void lock_owner::door::put_back(lock_grant* grant) {
  grant->next_held = owner_.stock_;
  owner_.stock_ = grant;
}

}  // namespace goods
