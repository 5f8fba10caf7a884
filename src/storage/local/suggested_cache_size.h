// How large a store's segment cache is when the store's address does not say.
#pragma once

#include <cstddef>
#include <map>

#include "storage/guarded_mutex.h"
#include "storage/local/segment_cache.h"

namespace goods {

// The largest of what the users of the store suggest. Threads: any.
class suggested_cache_size {
 public:
  static constexpr std::size_t without_any = std::size_t{32} << 20;  // bytes

  // Unless `counts`, the cache stays as it is.
  suggested_cache_size(segment_cache& cache, bool counts) : cache_(cache), counts_(counts) {}

  // 0 bytes: that user is gone.
  void suggest(const void* user, std::size_t bytes);

 private:
  segment_cache& cache_;
  const bool counts_;
  guarded_mutex lock_;
  std::map<const void*, std::size_t> suggestions_ GUARDED_BY(lock_);
};

}  // namespace goods
