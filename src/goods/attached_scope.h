// A thread of the library's own that works in a session.
#pragma once

#include <goods/cache_manager.h>

namespace goods {

// Attaches the calling thread, which was attached nowhere, as long as it lives. The session
// outlives it.
class attached_scope {
 public:
  explicit attached_scope(cache_manager& session) { session.attach(); }
  attached_scope(const attached_scope&) = delete;
  attached_scope& operator=(const attached_scope&) = delete;
  ~attached_scope() { cache_manager::detach(); }
};

}  // namespace goods
