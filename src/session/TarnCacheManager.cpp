#include <goods/errors.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnManager.h>

#include <exception>
#include <thread>

#include "core/node_access.h"
#include "session/path_shortcuts.h"

namespace tarns {

namespace {

constexpr std::size_t kShareOfCache = 8;  // the shortcuts' memory: one part in so many

constexpr goods::ref_word kRootWord =
    goods::ref_word::of(goods::make_object_id(0, goods::root_object_number));

const TarnObject& LookAtNode(goods::reader& reader, goods::ref_word word) {
  return *static_cast<const TarnObject*>(reader.look(word, TarnObject::self_class));
}

// ReadValue() that also tells which node the value is of, when it is safe to go there directly as
// long as nothing is relinked; else `answeredBy` stays 0. It is not where a member or an
// overridden look-up had a say: those may lead elsewhere after changes that relink nothing.
bool ReadAndLocate(goods::reader& reader, const TarnObject& root, std::string_view path,
                   TarnData& out, goods::object_id& answeredBy) {
  const TarnObject* node = &root;
  const TarnBranches branches(path);
  for (auto branch = branches.begin(); branch != branches.end(); ++branch) {
    if (!node->getClass().isTarnsBaseClass()) return ReadValue(reader, *node, branch.rest(), out);
    node = node->findChild(reader, *branch);
    if (node == nullptr) return false;
  }
  if (!node->readValue(reader, out)) return false;
  if (node->handle() != nullptr) answeredBy = node->handle()->id();
  return true;
}

}  // namespace

TarnCacheManager::TarnCacheManager(TarnManager& manager)
    : goods::cache_manager(manager.db()),
      manager_(manager),
      shortcuts_(std::make_unique<PathShortcuts>(cache_limit() / kShareOfCache)) {}

TarnCacheManager::~TarnCacheManager() = default;

void TarnCacheManager::setCacheLimit(std::size_t bytes) {
  set_cache_limit(bytes);
  if (shortcuts_ != nullptr) rememberPaths(true);
}

void TarnCacheManager::rememberPaths(bool on) {
  shortcuts_ = on ? std::make_unique<PathShortcuts>(cache_limit() / kShareOfCache) : nullptr;
}

void TarnCacheManager::verifyAttached() const {
  if (current() == this) return;
  goods::throw_error(goods::error_code::thread_not_attached,
                     "The calling thread is not attached to this session; call attach() first.");
}

xcptref<TarnRoot> TarnCacheManager::getRoot() {
  verifyAttached();
  if (!hasRoot_.load(std::memory_order_acquire)) makeRoot();
  goods::object_ref root;
  db().get_root(root, 0);
  return xcptref<TarnRoot>(root);
}

// Several threads and sessions may get here at once; set_root() lets one of them through.
void TarnCacheManager::makeRoot() {
  goods::object_ref root;
  db().get_root(root, 0);
  if (!root) {
    const auto make = [this] { db().set_root(TarnRoot::Create(), 0); };
    if (in_transaction()) {
      std::exception_ptr failure;
      std::thread([&] {
        try {
          attach();
          make();
        } catch (...) {
          failure = std::current_exception();
        }
        detach();
      }).join();
      if (failure) std::rethrow_exception(failure);
    } else {
      make();
    }
  }
  hasRoot_.store(true, std::memory_order_release);
}

bool TarnCacheManager::readValue(std::string_view path, TarnData& out) {
  verifyAttached();
  if (!hasRoot_.load(std::memory_order_acquire)) makeRoot();
  const TarnData::Type asked = out.getType();
  int rounds = 0;
  const auto beginRound = [&] {
    if (rounds++ != 0) out = TarnData(asked);
  };
  // In a transaction a read must lock what it passes, index pages included: no way around them.
  if (shortcuts_ == nullptr || in_transaction()) {
    return read([&](goods::reader& reader) {
      beginRound();
      return ReadValue(reader, LookAtNode(reader, kRootWord), path, out);
    });
  }
  const PathShortcuts::Key path128 = shortcuts_->keyOf(path);
  shortcuts_->prefetch(path128);
  PathShortcuts::Key key{};
  goods::object_id found = 0;
  const bool exists = read([&](goods::reader& reader) {
    beginRound();
    key = shortcuts_->withRelinks(path128, relink_count());
    found = 0;
    if (const goods::object_id known = shortcuts_->find(key)) {
      return LookAtNode(reader, goods::ref_word::of(known)).readValue(reader, out);
    }
    return ReadAndLocate(reader, LookAtNode(reader, kRootWord), path, out, found);
  });
  // Only now is it certain that what was read belongs to the number of relinks.
  if (found != 0) shortcuts_->remember(key, found);
  return exists;
}

}  // namespace tarns
