#include <goods/object.h>
#include <tarns/schema/TarnClassPrototype.h>

#include <mutex>

namespace tarns {

namespace {

std::mutex& ListLock() {
  static std::mutex lock;
  return lock;
}

TarnClassPrototype*& Head() {
  static TarnClassPrototype* head = nullptr;
  return head;
}

}  // namespace

TarnClassPrototype::TarnClassPrototype(goods::object* object) : object_(object) {
  const std::lock_guard guard(ListLock());
  next_ = std::exchange(Head(), this);
}

TarnClassPrototype::~TarnClassPrototype() {
  {
    const std::lock_guard guard(ListLock());
    for (TarnClassPrototype** link = &Head(); *link != nullptr; link = &(*link)->next_) {
      if (*link != this) continue;
      *link = next_;
      break;
    }
  }
  object_->unpin();
}

TarnClassPrototype* TarnClassPrototype::GetHead() {
  const std::lock_guard guard(ListLock());
  return Head();
}

}  // namespace tarns
