#pragma once

#include <goods/cache_manager.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>

namespace tarns {

class RememberedValues;
class TarnManager;
class TarnRoot;

// What a session keeps beside the objects of its cache: the way to the root, and what values were
// lately read by path.
//
// Ownership: the session's TarnDatabase. Threads: any attached one, but for setCacheLimit().
// Errors: 110 on a thread that is not attached to this session.
class TARNS_API TarnCacheManager : public goods::cache_manager {
 public:
  // For the database that manager.db() is.
  explicit TarnCacheManager(TarnManager& manager);
  ~TarnCacheManager() override;

  TarnManager& getManager() const { return manager_; }

  // Throws 110 unless the calling thread is attached to this session.
  void verifyAttached() const;
  // Throws 111 when the calling thread has a transaction open in another session.
  void verifyMayAttach() const;

  // The root, made when the database is fresh: in a transaction of its own, also while the calling
  // thread has one open, so that a root that somebody has seen is there to stay.
  xcptref<TarnRoot> getRoot();

  // The value at a path below the root; false when there is none. `out` comes with the type that an
  // enumeration is to be read as (see ReadValue) and is changed in either case.
  bool readValue(std::string_view path, TarnData& out);

  // Bytes of memory, see cache_manager::set_cache_limit(). Up to half of it, as far as values are
  // read by path, is for remembering these. Before threads share the session.
  void setCacheLimit(std::size_t bytes);

  // Whether values are remembered by path (they are by default): for measuring, and for programs
  // that never read a path twice. Before threads share the session.
  void rememberValues(bool on);

 private:
  void makeRoot();
  void setFreshRoot();
  // Runs a read that sets `out`, which is as it came at the beginning of every round.
  template <class Work>
  bool readRepeatably(TarnData& out, const Work& work);

  // Fixed after construction.
  TarnManager& manager_;  // outlives this object
  // Set before threads share the session.
  std::unique_ptr<RememberedValues> remembered_;  // null: none are
  // Shared by all attached threads.
  std::atomic<bool> hasRoot_{false};  // goes to true once
};

}  // namespace tarns
