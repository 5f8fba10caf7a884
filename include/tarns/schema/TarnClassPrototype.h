#pragma once

#include <tarns/tarns_api.h>

namespace goods {
class object;
}  // namespace goods

namespace tarns {

// One instance of each class from which the list of its persistent members is taken. It is never
// stored and has no handle.
//
// All prototypes form a list, the newest first. Ownership: owns the instance.
// Threads: made while classes are registered (one at a time).
class TARNS_API TarnClassPrototype {
 public:
  explicit TarnClassPrototype(goods::object* object);
  TarnClassPrototype(const TarnClassPrototype&) = delete;
  TarnClassPrototype& operator=(const TarnClassPrototype&) = delete;
  virtual ~TarnClassPrototype();

  static TarnClassPrototype* GetHead();
  TarnClassPrototype* getNext() const { return next_; }
  goods::object* getObject() const { return object_; }

 private:
  TarnClassPrototype* next_;
  goods::object* object_;
};

}  // namespace tarns
