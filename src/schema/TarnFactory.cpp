#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/util/XStringList.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace tarns {

namespace {

// Guards the chain: shared libraries with classes of their own may come and go at any time.
std::mutex& ChainLock() {
  static std::mutex lock;
  return lock;
}

// How often the chain has changed.
std::atomic<std::uint64_t> chainVersion{0};

// What the thread has made last: mostly it makes more of the same. The name is a copy, since the
// class may have gone with its library.
struct LastMade {
  static constexpr std::size_t kMostLength = 63;

  const TarnFactory* askedIn = nullptr;
  std::uint64_t version = 0;  // of the chain
  TarnFactory::CreateFunction create = nullptr;
  char type[kMostLength + 1] = {};

  bool is(const TarnFactory& asked, const char* typeName) const {
    return askedIn == &asked && version == chainVersion && std::strcmp(type, typeName) == 0;
  }
  void set(const TarnFactory& asked, const char* typeName, TarnFactory::CreateFunction function) {
    const std::size_t length = std::strlen(typeName);
    askedIn = length <= kMostLength ? &asked : nullptr;
    if (askedIn == nullptr) return;
    std::memcpy(type, typeName, length + 1);
    version = chainVersion;
    create = function;
  }
};
thread_local LastMade lastMade;

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
  ++chainVersion;
  if (Head() == nullptr) {
    Head() = this;
  } else {
    next_ = std::exchange(Head()->next_, this);
  }
}

TarnFactory::~TarnFactory() {
  const std::lock_guard guard(ChainLock());
  ++chainVersion;
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
  if (lastMade.is(*this, typeName)) return lastMade.create();
  CreateFunction create = nullptr;
  {
    const std::lock_guard guard(ChainLock());
    const TarnFactory* factory = this;
    while (factory != nullptr && std::strcmp(factory->getType_(), typeName) != 0) {
      factory = factory->next_;
    }
    if (factory != nullptr) {
      create = factory->create_;
      lastMade.set(*this, typeName, create);
    }
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
