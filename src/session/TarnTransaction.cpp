#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/metaobject.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/logging/Log.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnTransaction.h>

#include <exception>
#include <optional>

#include "core/node_access.h"

namespace tarns {

namespace {

// Takes no lock on the node itself, but shared ones on all that the way to it depends on: those lie
// before it in the order of paths, and nobody can lead the path elsewhere any more.
TarnRef FindToLock(TarnCacheManager& session, const TarnRef& root, std::string_view path) {
  if (path.empty()) return root;
  const TarnRef parent = FindNode(root, TarnBranches::ParentOf(path));
  if (parent.is_null()) return nullptr;
  const std::string_view name = TarnBranches::LastOf(path);
  TarnRef node;
  if (FindInIndex(parent, name, node)) return node;
  return session.outside_transaction([&] { return FindNode(parent, name); });
}

}  // namespace

void TarnTransaction::AttachTo(TarnManager& manager) {
  manager.verifyIsInitialized();
  manager.db().getCacheManager().verifyMayAttach();
  manager.attach();
}

TarnTransaction::TarnTransaction() { begin(); }

TarnTransaction::TarnTransaction(TarnManager& manager) {
  AttachTo(manager);
  begin();
}

TarnTransaction::TarnTransaction(TarnManager& manager, bool physical, const char* p1,
                                 const char* p2, const char* p3, const char* p4, const char* p5,
                                 const char* p6, const char* p7, const char* p8, const char* p9,
                                 const char* p10) {
  XStringList paths;
  for (const char* path : {p1, p2, p3, p4, p5, p6, p7, p8, p9, p10}) {
    if (path != nullptr) paths.addLast(path);
  }
  if (physical) ToPhysical(manager, paths);
  AttachTo(manager);
  beginLocked(manager, paths);
}

TarnTransaction::TarnTransaction(TarnManager& manager, bool physical, XStringList& paths) {
  AttachTo(manager);
  beginLocked(manager, paths, physical);
}

// The destructor does not run when this throws.
void TarnTransaction::beginLocked(TarnManager& manager, XStringList& paths, bool physical) {
  begin();
  try {
    if (physical) ToPhysical(manager, paths);
    Lock(manager, paths);
  } catch (...) {
    rollback();
    throw;
  }
}

void TarnTransaction::begin() {
  exceptions_ = std::uncaught_exceptions();
  goods::pessimistic_scheme.begin_transaction();
  number_ = goods::cache_manager::require().transaction_number();
  isOpen_ = true;
}

TarnTransaction::~TarnTransaction() noexcept(false) {
  if (!isOpen_) return;
  if (std::uncaught_exceptions() > exceptions_) {
    rollback();
  } else {
    commit();
  }
}

// The thread may have left the session, or ended the transaction by other means; another one may be
// open by now.
bool TarnTransaction::isTheOpenOne() const {
  const goods::cache_manager* const session = goods::cache_manager::current();
  return session != nullptr && session->transaction_number() == number_;
}

void TarnTransaction::commit() {
  if (!std::exchange(isOpen_, false) || !isTheOpenOne()) {
    goods::throw_error(goods::error_code::usage,
                       "The transaction cannot be committed: it has been ended before.");
  }
  goods::pessimistic_scheme.end_transaction();
}

void TarnTransaction::rollback() noexcept {
  if (!std::exchange(isOpen_, false) || !isTheOpenOne()) return;
  goods::pessimistic_scheme.abort_transaction();
}

void TarnTransaction::Lock(TarnManager& manager, XStringList& paths) {
  for (std::size_t i = 0; i < paths.getCount(); ++i) {
    const TarnPath locker = TarnCacheManager::GetHierarchicalLocker(paths[i].getText());
    if (locker.isEmpty() || locker == paths[i] || paths.contains(locker.view())) continue;
    paths.addFirst(locker);
    ++i;
  }
  paths.sort(CompareQsort);
  TarnCacheManager& session = manager.db().getCacheManager();
  const TarnRef root = session.getRoot();
  for (const XString& path : paths) {
    const TarnRef node = FindToLock(session, root, path.view());
    if (node.is_null()) continue;
    modify(node)->touch();
    session.touched(*node.handle());
  }
}

unsigned long TarnTransaction::ToPhysical(TarnManager& manager, XStringList& paths) {
  TarnCacheManager& session = manager.db().getCacheManager();
  const TarnRef root = session.getRoot();
  XStringList physical;
  unsigned long different = 0;
  for (const XString& path : paths) {
    const TarnRef node = session.outside_transaction([&] { return FindNode(root, path.view()); });
    if (node.is_null()) continue;
    const std::optional<TarnPath> way = session.getPhysicalPath(node);
    if (!way) {
      Log(Log::Warning) << "WARNING: object \"" << path
                        << "\" has no physical path; deadlock may occur.";
    } else if (*way != path) {
      ++different;
    }
    physical.addLast(way ? XString(*way) : path);
  }
  paths.swap(physical);
  return different;
}

int TarnTransaction::CompareQsort(const XString** left, const XString** right) {
  return TarnPath::Compare((*left)->view(), (*right)->view());
}

}  // namespace tarns
