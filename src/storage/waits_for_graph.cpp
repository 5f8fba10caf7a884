#include "storage/waits_for_graph.h"

#include "storage/lock_owner_door.h"
#include "storage/object_locks.h"

namespace goods {

// A waiter waits for the holders that it is not compatible with and, by way of the one before it in
// the queue, for all that those before it wait for.
void waits_for_graph::refresh(const lock_node& node) {
  guarded_scope scope(lock_);
  const lock_waiter* before = nullptr;
  for (const lock_waiter* waiter = node.queue; waiter != nullptr; waiter = waiter->next) {
    auto& edges = lock_owner::door(*waiter->owner).waits_for();
    edges.clear();
    if (before != nullptr) edges.push_back(before->owner);
    for (const lock_grant* holder = node.holders; holder != nullptr; holder = holder->next_holder) {
      const bool compatible =
          waiter->mode == lock_mode::shared && holder->mode == lock_mode::shared;
      if (!compatible && holder->owner != waiter->owner) edges.push_back(holder->owner);
    }
    before = waiter;
  }
}

void waits_for_graph::clear(lock_owner& owner) {
  guarded_scope scope(lock_);
  lock_owner::door(owner).waits_for().clear();
}

bool waits_for_graph::is_cyclic(lock_owner& owner) {
  guarded_scope scope(lock_);
  ++searches_;
  open_.assign(1, &owner);
  while (!open_.empty()) {
    lock_owner* next = open_.back();
    open_.pop_back();
    for (lock_owner* other : lock_owner::door(*next).waits_for()) {
      if (other == &owner) return true;
      if (lock_owner::door(*other).visit(searches_)) open_.push_back(other);
    }
  }
  return false;
}

}  // namespace goods
