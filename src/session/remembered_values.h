// Values that were read by path, kept where reading them again takes two looks into memory.
#pragma once

#include <goods/cache_manager.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>

#include <atomic>
#include <cstddef>
#include <string_view>

#include "session/path_shortcuts.h"
#include "session/value_ring.h"

namespace tarns {

// From paths to the value nodes that they were last found to lead to, and copies of their values.
//
// A copy is given out while nothing that it was made from has changed, as far as the session's
// counters of changes tell; when it may have changed, the node is still found without walking the
// path, until something is relinked.
// Memory counts toward the session's cache limit as it comes into use. Threads: any, without locks.
class RememberedValues {
 public:
  // Takes up to `bytes` of memory. The session outlives this.
  RememberedValues(goods::cache_manager& session, std::size_t bytes);
  ~RememberedValues();
  RememberedValues(const RememberedValues&) = delete;
  RememberedValues& operator=(const RememberedValues&) = delete;

  // One read of a path, from the first look here to remembering what was found elsewhere.
  class Search {
   public:
    Search(RememberedValues& in, std::string_view path);

    // The value, when it is known. Call it when the session has caught up.
    bool read(TarnData& out);

    // In a transaction: locks what the value depends on, then the same.
    bool readLocking(TarnData& out);

    // Within each round of a read elsewhere, first: the path's node, or 0 when it must be looked
    // for.
    goods::object_id beginRound();
    // Then, in the same round: what the value that was found belongs to. The node must be reached
    // by the path as long as nothing is relinked.
    void found(goods::object_id id, const TarnObject& node);

    // When the read has seen one state throughout: keeps what was found. `passed`: in a
    // transaction, what the read has looked at.
    void remember(const TarnData& value);
    void rememberLocking(const TarnData& value, const goods::passed_objects& passed);

   private:
    void keep(ValueRing::Position at);

    RememberedValues& in_;
    PathShortcuts::Key path_;
    PathShortcuts::Key key_;   // for the number of relinks that was looked for
    ValueRing::Origin known_;  // of what is kept
    ValueRing::Origin found_;  // of what has been read
    bool canKeep_ = false;     // whether the value of the node found may be copied
  };

 private:
  std::uint32_t changesOf(const ValueRing::Origin& origin) const {
    return session_.changes(origin.nodeCounter) + session_.changes(origin.textCounter);
  }
  void chargeMemory();

  goods::cache_manager& session_;
  PathShortcuts shortcuts_;
  ValueRing values_;
  std::atomic<std::size_t> charged_{0};  // bytes
};

}  // namespace tarns
