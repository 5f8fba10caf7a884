#include "goods/session_registry.h"

#include <algorithm>

namespace goods {

session_registry& session_registry::get() {
  static auto* registry = new session_registry;  // sessions may outlive static objects
  return *registry;
}

void session_registry::add(const dbs_storage& storage, object_cache& session) {
  const std::lock_guard guard(lock_);
  entries_.push_back({&storage, &session});
}

void session_registry::remove(const object_cache& session) {
  const std::lock_guard guard(lock_);
  std::erase_if(entries_, [&](const entry& e) { return e.session == &session; });
}

void session_registry::for_each(const std::vector<const dbs_storage*>& storages,
                                const std::function<void(object_cache&)>& visit) {
  const std::lock_guard guard(lock_);
  std::vector<const object_cache*> seen;
  for (const entry& e : entries_) {
    const bool concerned = std::find(storages.begin(), storages.end(), e.storage) != storages.end();
    if (!concerned || std::find(seen.begin(), seen.end(), e.session) != seen.end()) continue;
    seen.push_back(e.session);
    visit(*e.session);
  }
}

}  // namespace goods
