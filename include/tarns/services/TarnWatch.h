#pragma once

#include <tarns/tarns_api.h>

#include <cstdint>
#include <memory>

namespace tarns {

class WatchedEvents;
class XObject;

// Withdraws a callback of TarnWatcher::watch() when it goes: then the callback does not run, and
// will not, unless the handle goes within the callback itself. What the callback has captured goes
// with the handle, or at the end of the callback that drops it. Goes well with the watcher
// destroyed before it. An empty handle does nothing. Threads: as for a value.
class TARNS_API TarnWatch {
 public:
  TarnWatch();
  TarnWatch(TarnWatch&& other) noexcept;
  TarnWatch& operator=(TarnWatch&& other) noexcept;  // withdraws the one before
  ~TarnWatch();

  void cancel();

 private:
  friend class TarnWatcher;
  TarnWatch(const std::shared_ptr<WatchedEvents>& events, std::shared_ptr<XObject> client,
            std::uint64_t id);

  std::weak_ptr<WatchedEvents> events_;
  std::shared_ptr<XObject> client_;
  std::uint64_t id_ = 0;
};

}  // namespace tarns
