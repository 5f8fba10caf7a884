// What lock tables may do with an owner.
#pragma once

#include "storage/lock_owner.h"

namespace goods {

class lock_owner::door {
 public:
  explicit door(lock_owner& owner) : owner_(owner) {}

  lock_grant* find(const lock_table& table, object_number group) const {
    return owner_.find(table, group);
  }
  // An unused grant; it and the place to record it in are there when this returns.
  lock_grant* new_grant() { return owner_.new_grant(); }
  void insert(lock_grant* grant) { owner_.insert(grant); }
  void put_back(lock_grant* grant);
  lock_grant* first_held() const { return owner_.held_; }
  void forget(const lock_table& table) { owner_.forget(table); }

  std::condition_variable_any& wake() { return owner_.wake_; }

  // What refused the owner's last request.
  lock_conflict& conflict() { return owner_.conflict_; }

  // For the graph, under its mutex.
  std::vector<lock_edge>& edges() { return owner_.edges_; }
  const lock_waiter* waiter() const { return owner_.waiter_; }
  void waits(const lock_waiter* waiter) { owner_.waiter_ = waiter; }
  // Whether this search comes here for the first time.
  bool visit(std::uint64_t search) {
    if (owner_.visited_ == search) return false;
    owner_.visited_ = search;
    return true;
  }
  void found(lock_owner* from, const lock_edge* by) {
    owner_.found_from_ = from;
    owner_.found_by_ = by;
  }
  lock_owner* found_from() const { return owner_.found_from_; }
  const lock_edge* found_by() const { return owner_.found_by_; }
  // Behind `last`, or as the first one.
  void append_to_search(lock_owner* last) {
    owner_.next_searched_ = nullptr;
    if (last != nullptr) last->next_searched_ = &owner_;
  }
  lock_owner* next_searched() const { return owner_.next_searched_; }

 private:
  lock_owner& owner_;
};

}  // namespace goods
