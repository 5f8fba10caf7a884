// What a commit makes visible in its own session.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>
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
    // A version in which the object was there, for a copy that was made past the session's cache;
    // or 0.
    commit_version seen_at = 0;
  };

  publication() = default;
  publication(const publication&) = delete;
  publication& operator=(const publication&) = delete;
  ~publication();  // drops copies that were not published

  std::vector<copy> copies;
  // In the order of their numbers; null once install_created() has let go of the object.
  std::vector<object_ref> created;

  // First all new objects become findable, then all copies replace the bodies before them; only the
  // second step needs readers to look again.
  // Of very many new objects only those that somebody refers to from outside stay in memory: what a
  // commit of that size made is rarely read before the rest would have displaced it. The others are
  // loaded like any object. After std::bad_alloc the next call goes on.
  void install_created(object_cache& cache);
  void publish_copies(object_cache& cache);

  // The commit failed: what it had made persistent is transient again.
  void withdraw_created() noexcept;

 private:
  std::size_t installed_ = 0;  // of `created`, from the first on
};

// For loops over what a large commit has made, which has left the processor's caches by then:
// fetches the object a few places behind `at`. A new object lies directly before its handle.
inline void fetch_ahead(std::span<const object_ref> created, std::size_t at) {
  constexpr std::size_t ahead = 8, cache_line = 64;
  if (at + ahead >= created.size()) return;
  const auto* const end = reinterpret_cast<const char*>(created[at + ahead].handle());
  for (std::size_t line = 0; line < 3; ++line) __builtin_prefetch(end - line * cache_line);
}

}  // namespace goods
