#pragma once

#include <tarns/logging/CallBack.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <vector>

namespace tarns {

// Callbacks in the order in which they were added, none of them twice.
// Threads: not shared while it changes.
class TARNS_API CallBacks {
 public:
  // False when there is an equal one already, argument included.
  bool add(const CallBack& callBack);
  // Whether there was such a one.
  bool remove(const CallBack& callBack);
  // Removes those whose client it is; how many there were.
  std::size_t removeFor(const void* client);

  std::size_t getCount() const { return list_.size(); }
  auto begin() const { return list_.begin(); }
  auto end() const { return list_.end(); }

 private:
  std::vector<CallBack> list_;
};

}  // namespace tarns
