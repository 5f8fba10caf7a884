#include <tarns/core/TarnException.h>
#include <tarns/session/TarnCacheManager.h>
#include <tarns/session/TarnDatabase.h>

#include "core/tree_check.h"

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

std::unique_ptr<goods::check_rules> TarnDatabase::create_check_rules() {
  return std::make_unique<TreeCheck>(*this);
}

}  // namespace tarns
