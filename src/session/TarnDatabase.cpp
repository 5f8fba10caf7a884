#include <tarns/core/TarnException.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnDatabase.h>

namespace tarns {

TarnDatabase::TarnDatabase(TarnManager& manager) : manager_(manager) {}

TarnDatabase::~TarnDatabase() = default;

TarnCacheManager& TarnDatabase::getCacheManager() const {
  if (!is_open()) TarnException::ThrowDBuninitialized();
  return static_cast<TarnCacheManager&>(session());
}

void TarnDatabase::attach() {
  goods::cache_manager::cooperative_mode.store(false, std::memory_order_relaxed);
  getCacheManager().attach();
}

std::unique_ptr<goods::cache_manager> TarnDatabase::create_session() {
  return std::make_unique<TarnCacheManager>(manager_);
}

}  // namespace tarns
