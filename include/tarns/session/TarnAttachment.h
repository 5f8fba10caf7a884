#pragma once

#include <tarns/tarns_api.h>

#include <memory>

namespace goods {
class cache_manager;
}

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
// inside of functions. A thread that is attached to another session is attached to that one again
// afterwards, unless that one was closed, connected anew or returned to its pool meanwhile. Where
// the thread has been attached elsewhere meanwhile, it stays there.
// An open transaction of the thread is rolled back when the attachment ends.
// Threads: made and destroyed by the same one; no other thread closes the session before meanwhile.
// Errors: 4 not connected; 111 when the thread has a transaction open in another session, which
// leaving it would roll back.
class TARNS_API TarnAttachment {
 public:
  explicit TarnAttachment(TarnManager& manager);
  ~TarnAttachment();
  TarnAttachment(const TarnAttachment&) = delete;
  TarnAttachment& operator=(const TarnAttachment&) = delete;

 private:
  goods::cache_manager* session_;
  bool isOwn_;                                  // the thread was not attached to it before
  std::weak_ptr<goods::cache_manager> former_;  // what it was attached to; empty for nothing
};

}  // namespace tarns
