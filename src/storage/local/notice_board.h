// Tells sessions which objects were changed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"

namespace goods {

// One commit as the board is told of it.
struct committed {
  commit_version version;
  const commit_request* request;
};

// The subscriptions of one storage.
//
// Threads: any; prepare() and publish() by the holder of the writer's turn, in version order.
// Subscriptions may outlive the board.
class notice_board {
 public:
  explicit notice_board(commit_version newest);
  ~notice_board();
  notice_board(const notice_board&) = delete;
  notice_board& operator=(const notice_board&) = delete;

  std::unique_ptr<notice_subscription> subscribe(const void* origin);

  // Makes the notices of commits, oldest first, before they become durable. Those that were
  // prepared before and not published are dropped.
  void prepare(std::span<const committed> commits);
  // Those commits have failed: nothing is kept of them.
  void forget_prepared() noexcept;
  // Queues what was prepared.
  void publish() noexcept;
  // Tells the listeners, once that is visible.
  void tell() noexcept;

 private:
  class subscription;
  struct shared_part;

  std::shared_ptr<shared_part> shared_;  // with the subscriptions
};

}  // namespace goods
