#include "storage/waits_for_graph.h"

#include <algorithm>

#include "storage/coarse_clock.h"
#include "storage/lock_owner_door.h"
#include "storage/object_locks.h"

namespace goods {

namespace {

constexpr std::size_t most_named = 8;  // of what is in the way of one request

std::size_t count_holders(const lock_node& node) {
  std::size_t count = 0;
  for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder)
    ++count;
  return count;
}

std::size_t count_waiting(const lock_node& node) {
  std::size_t count = 0;
  for (const lock_waiter* waiter = node.queue; waiter != nullptr; waiter = waiter->next) ++count;
  return count;
}

lock_wait describe(const lock_waiter& waiter, const lock_edge& edge) {
  return {.table = waiter.grant->table,
          .number = waiter.number(),
          .storage = waiter.grant->table->storage_name(),
          .waiting = waiter.owner->description(),
          .in_the_way = edge.to->description(),
          .wanted = waiter.mode,
          .held = edge.mode,
          .is_held = edge.is_held,
          .milliseconds = (coarse_now() - edge.since) / 1'000'000};
}

}  // namespace

// Whoever waits can come to hold the object, and one edge leads to the request in front.
void waits_for_graph::make_room(const lock_node& node, lock_owner& newcomer) {
  const std::size_t most = count_holders(node) + count_waiting(node) + 2;
  guarded_scope scope(lock_);
  const auto reserve = [most](lock_owner& owner) {
    auto& edges = lock_owner::door(owner).edges();
    if (edges.capacity() < most) edges.reserve(std::max(most, edges.capacity() * 2));
  };
  reserve(newcomer);
  for (const lock_waiter* waiter = node.queue; waiter != nullptr; waiter = waiter->next)
    reserve(*waiter->owner);
}

void waits_for_graph::refresh(const lock_node& node) noexcept {
  guarded_scope scope(lock_);
  make_edges(node);
}

// A waiter waits for the holders that it is not compatible with and, by way of the one before it
// that wants the same object, for all that those before it wait for.
void waits_for_graph::make_edges(const lock_node& node) noexcept {
  for (const lock_waiter* waiter = node.queue; waiter != nullptr; waiter = waiter->next) {
    lock_owner::door door(*waiter->owner);
    door.waits(waiter);
    auto& edges = door.edges();
    edges.clear();
    for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder) {
      if (holder->owner == waiter->owner || !holder->excludes(waiter->members, waiter->mode))
        continue;
      if ((holder->exclusive & waiter->members) != 0)
        edges.push_back({holder->owner, lock_mode::exclusive, true, holder->exclusive_since});
      else
        edges.push_back({holder->owner, lock_mode::shared, true, holder->shared_since});
    }
    const lock_waiter* before = nullptr;
    for (const lock_waiter* other = node.queue; other != waiter; other = other->next)
      if (other->members == waiter->members) before = other;
    if (before != nullptr) edges.push_back({before->owner, before->mode, false, 0});
  }
}

void waits_for_graph::clear(lock_owner& owner) noexcept {
  guarded_scope scope(lock_);
  lock_owner::door(owner).waits(nullptr);
  lock_owner::door(owner).edges().clear();
}

bool waits_for_graph::closes_circle(const lock_node& node, const lock_waiter& waiter,
                                    lock_conflict& circle) {
  guarded_scope scope(lock_);
  make_edges(node);
  if (!search(*waiter.owner)) return false;
  // From the one that waits for the owner back to the owner itself.
  lock_owner* at = waiter.owner;
  do {
    const lock_owner::door door(*at);
    at = door.found_from();
    circle.waits.push_back(describe(*lock_owner::door(*at).waiter(), *door.found_by()));
  } while (at != waiter.owner);
  std::reverse(circle.waits.begin(), circle.waits.end());
  return true;
}

// Breadth first; whoever was met knows from where. Nobody that is met can go on meanwhile: its
// edges are cleared under the mutex.
bool waits_for_graph::search(lock_owner& owner) noexcept {
  ++searches_;
  lock_owner* last = &owner;
  lock_owner::door(owner).append_to_search(nullptr);
  for (lock_owner* next = &owner; next != nullptr; next = lock_owner::door(*next).next_searched()) {
    for (const lock_edge& edge : lock_owner::door(*next).edges()) {
      lock_owner::door other(*edge.to);
      const bool is_closed = edge.to == &owner;
      if (!is_closed && !other.visit(searches_)) continue;
      other.found(next, &edge);
      if (is_closed) return true;
      other.append_to_search(last);
      last = edge.to;
    }
  }
  return false;
}

lock_conflict waits_for_graph::in_the_way_of(const lock_waiter& waiter) {
  lock_conflict conflict;
  guarded_scope scope(lock_);
  for (const lock_edge& edge : lock_owner::door(*waiter.owner).edges()) {
    if (conflict.waits.size() < most_named) conflict.waits.push_back(describe(waiter, edge));
  }
  return conflict;
}

}  // namespace goods
