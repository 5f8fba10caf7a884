#include "storage/local/suggested_cache_size.h"

#include <algorithm>

namespace goods {

void suggested_cache_size::suggest(const void* user, std::size_t bytes) {
  if (!counts_) return;
  guarded_scope scope(lock_);
  if (bytes == 0)
    suggestions_.erase(user);
  else
    suggestions_[user] = bytes;
  std::size_t largest = 0;
  for (const auto& [someone, suggested] : suggestions_) largest = std::max(largest, suggested);
  cache_.set_limit(largest != 0 ? largest : without_any);
}

}  // namespace goods
