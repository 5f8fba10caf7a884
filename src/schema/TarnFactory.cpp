#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/util/XStringList.h>

#include <cstring>
#include <mutex>

namespace tarns {

namespace {

// Guards the chain: shared libraries with classes of their own may come and go at any time.
std::mutex& ChainLock() {
  static std::mutex lock;
  return lock;
}

// The factory of TarnObject, which is always registered first; guarded as the chain is.
TarnFactory*& Head() {
  static TarnFactory* head = nullptr;
  return head;
}

}  // namespace

TarnFactory::TarnFactory(CreateFunction create, TypeFunction getType)
    : create_(create), getType_(getType) {
  // Whatever an application makes before the library's own classes are registered: the factory of
  // TarnObject is the head.
  if (std::strcmp(getType(), TarnObject::GetType()) != 0) TarnObject::SelfClass();
  const std::lock_guard guard(ChainLock());
  if (Head() == nullptr) {
    Head() = this;
  } else {
    next_ = std::exchange(Head()->next_, this);
  }
}

TarnFactory::~TarnFactory() {
  const std::lock_guard guard(ChainLock());
  for (TarnFactory** link = &Head(); *link != nullptr; link = &(*link)->next_) {
    if (*link != this) continue;
    *link = next_;
    return;
  }
}

const TarnFactory& TarnFactory::GetHead() {
  TarnObject::SelfClass();  // makes the head when static initialisation has not yet
  const std::lock_guard guard(ChainLock());
  return *Head();
}

TarnObject* TarnFactory::createOfType(const char* typeName) const {
  if (typeName == nullptr) return nullptr;
  CreateFunction create = nullptr;
  {
    const std::lock_guard guard(ChainLock());
    const TarnFactory* factory = this;
    while (factory != nullptr && std::strcmp(factory->getType_(), typeName) != 0) {
      factory = factory->next_;
    }
    if (factory != nullptr) create = factory->create_;
  }
  return create != nullptr ? create() : nullptr;
}

void TarnFactory::getClassList(XStringList& names) const {
  const std::lock_guard guard(ChainLock());
  for (const TarnFactory* factory = this; factory != nullptr; factory = factory->next_) {
    names.addLast(factory->getType_());
  }
}

}  // namespace tarns
