#pragma once

#include <tarns/tarns_api.h>

namespace tarns {

class TarnManager;

// Attaches the calling thread to a session for as long as it lives:
//
//   std::jthread worker([&manager] {
//     const TarnAttachment attachment(manager);
//     ...
//   });
//
// On a thread that is attached to the session already it does nothing, so that it may be used
// inside of functions. A thread that is attached to another session leaves that one, as with
// TarnManager::attach(), and is attached to none afterwards.
// An open transaction of the thread is rolled back when the attachment ends.
// Threads: made and destroyed by the same one, while the session is connected.
class TARNS_API TarnAttachment {
 public:
  explicit TarnAttachment(TarnManager& manager);  // throws 4 when not connected
  ~TarnAttachment();
  TarnAttachment(const TarnAttachment&) = delete;
  TarnAttachment& operator=(const TarnAttachment&) = delete;

 private:
  bool isOwner_;  // false: the thread had been attached before
};

}  // namespace tarns
