// What a commit makes visible in its own session.
#pragma once

#include <cstddef>
#include <vector>

#include <goods/object_ref.h>

namespace goods {

class object;
class object_cache;
class object_handle;

// The private copies of a transaction and the objects that it makes persistent.
//
// It travels with the commit through the storage and comes back with the commit's notice, so that
// the session publishes its own commits and other sessions' in one order.
// Threads: the transaction's; between commit and publishing whoever applies the notice.
class publication {
 public:
  struct copy {
    object_ref keeps;
    object* body;  // owned until published
  };

  publication() = default;
  publication(const publication&) = delete;
  publication& operator=(const publication&) = delete;
  ~publication();  // drops copies that were not published

  std::vector<copy> copies;
  std::vector<object_ref> created;  // in the order of their numbers

  // First all new objects become findable, then all copies replace the bodies before them; only the
  // second step needs readers to look again.
  void install_created(object_cache& cache);
  void publish_copies(object_cache& cache);

  // The commit failed: what it had made persistent is transient again.
  void withdraw_created() noexcept;
};

}  // namespace goods
