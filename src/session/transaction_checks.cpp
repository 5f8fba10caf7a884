// The order in which transactions lock nodes: the part of TarnCacheManager that watches it.
#include <goods/object_handle.h>
#include <goods/reader.h>
#include <tarns/core/TarnObject.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnManager.h>

#include <cstdlib>

#include "core/node_access.h"

namespace tarns {

namespace {

// Of the thread's open transaction.
struct LockedPaths : goods::transaction_companion {
  XStringList paths;
};

XStringList* PathsOf(goods::transaction_companion* companion) {
  return companion != nullptr ? &static_cast<LockedPaths*>(companion)->paths : nullptr;
}

[[noreturn]] void AbortForOrder(const TarnPath& path, const XString& lockedLast) {
  Log(Log::Error) << "Error: bad database transaction detected.  Trying to lock:" << Log::Break
                  << "  " << path << Log::Break
                  << "  but it must be locked before object:" << Log::Break << "  " << lockedLast;
  std::abort();
}

[[noreturn]] void AbortForParent(const TarnPath& path, const TarnPath& parent,
                                 const XString& lockedFirst) {
  Log(Log::Error) << "Error: bad database transaction detected.  Trying to lock:" << Log::Break
                  << "  " << path << Log::Break
                  << "  but you must first lock its hierarchical parent:" << Log::Break << "  "
                  << parent << Log::Break
                  << "  (hierarchical lock must be obtained because the transaction " << Log::Break
                  << "  involves more than one object" << Log::Break << "  " << lockedFirst;
  std::abort();
}

// `path` without what lies more than one level below the locker.
TarnPath ChildOfLocker(const TarnPath& path, const TarnPath& locker) {
  TarnPath child = path;
  child.removeBranches(locker.getDepth() + 1 - path.getDepth());
  return child;
}

}  // namespace

std::atomic<bool> TarnCacheManager::McheckTransactions{false};
XStringList TarnCacheManager::MhierarchicalLockers;

void TarnCacheManager::EnableTransactionChecking(bool on) {
  McheckTransactions.store(on, std::memory_order_relaxed);
  goods::pessimistic_metaobject::abort_on_read_lock_promotion.store(on, std::memory_order_relaxed);
}

TarnPath TarnCacheManager::GetHierarchicalLocker(const char* path) {
  for (const XString& text : MhierarchicalLockers) {
    const TarnPath locker = text;
    if (locker.isAncestorOf(path)) return ChildOfLocker(path, locker);
  }
  return {};
}

std::optional<TarnPath> TarnCacheManager::getPhysicalPath(const TarnRef& node) {
  std::optional<TarnPath> path;
  outside_transaction([&] {
    const TarnRef upmost = node->getRootParent();
    if (upmost.id() != goods::make_object_id(0, goods::root_object_number)) return;
    TarnObject::GetPath(node, path.emplace());
  });
  return path;
}

void TarnCacheManager::add(goods::object_handle* handle) {
  if (!McheckTransactions.load(std::memory_order_relaxed)) return;
  if (handle == nullptr || handle->is_transient() || !is_in_transaction_of_application()) return;
  std::optional<TarnPath> path;
  outside_transaction([&] {
    const TarnRef object = manager_.getObject(handle->id());
    if (TarnObject::IsTarnObject(object)) path = getPhysicalPath(object);
  });
  if (path) addObjectToTransaction(*path);
}

void TarnCacheManager::addObjectToTransaction(TarnPath& path) {
  if (!McheckTransactions.load(std::memory_order_relaxed) || !in_transaction()) return;
  if (companion() == nullptr) set_companion(std::make_unique<LockedPaths>());
  XStringList& locked = *PathsOf(companion());
  if (locked.contains(path.view())) return;
  if (!enforceHierarchicalLocking(path) && !locked.isEmpty()) {
    const XString& last = locked[locked.getCount() - 1];
    if (path < last) AbortForOrder(path, last);
  }
  locked.addLast(path);
}

bool TarnCacheManager::enforceHierarchicalLocking(const TarnPath& path) {
  for (const XString& text : MhierarchicalLockers) {
    const TarnPath locker = text;
    if (!locker.isAncestorOf(path.getText())) continue;
    if (locker.getDepth() + 2 > path.getDepth()) continue;
    const TarnPath parent = ChildOfLocker(path, locker);
    const XStringList* locked = PathsOf(companion());
    if (locked != nullptr && !locked->isEmpty() && !locked->contains(parent.view())) {
      AbortForParent(path, parent, (*locked)[0]);
    }
    return true;
  }
  return false;
}

goods::isolation_level TarnCacheManager::end_transaction() {
  // An inner one leaves what it has locked to the outer one.
  if (is_in_outermost_transaction()) {
    if (XStringList* locked = PathsOf(companion())) locked->clear();
  }
  return goods::cache_manager::end_transaction();
}

XStringList TarnCacheManager::getLockedPaths() const {
  const XStringList* locked = PathsOf(companion());
  return locked != nullptr ? *locked : XStringList();
}

void TarnCacheManager::promotes_read_lock(goods::object_handle& handle) {
  const std::string name = name_of(handle.id());
  Log(Log::Error) << "Error: bad database transaction detected.  Trying to write after reading:"
                  << Log::Break << "  " << name;
  std::abort();
}

}  // namespace tarns
