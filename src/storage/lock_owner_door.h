// What lock tables may do with an owner.
#pragma once

#include "storage/lock_owner.h"

namespace goods {

class lock_owner::door {
 public:
  explicit door(lock_owner& owner) : owner_(owner) {}

  lock_grant* find(const lock_table& table, object_number number) const {
    return owner_.find(table, number);
  }
  // An unused grant; it and the place to record it in are there when this returns.
  lock_grant* new_grant() { return owner_.new_grant(); }
  void insert(lock_grant* grant) { owner_.insert(grant); }
  void put_back(lock_grant* grant);
  lock_grant* first_held() const { return owner_.held_; }
  void forget(const lock_table& table) { owner_.forget(table); }

  std::condition_variable_any& wake() { return owner_.wake_; }
  std::vector<lock_owner*>& waits_for() { return owner_.waits_for_; }
  // Whether this search comes here for the first time.
  bool visit(std::uint64_t search) {
    if (owner_.visited_ == search) return false;
    owner_.visited_ = search;
    return true;
  }

 private:
  lock_owner& owner_;
};

}  // namespace goods
