// Has the children of a node written as text by several threads.
#pragma once

#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObject.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/NodePlaces.h"

namespace goods {
class cache_manager;
}

namespace tarns {

// The children in pieces of some dozen, in their order. The pieces are written ahead, each by one
// thread: those of this object or the caller's, which helps where it would have to wait.
// Memory: the texts of a few pieces for each processor.
// Threads: one, which is attached to a session, has no transaction open and is not within a read:
// the other threads see what is committed.
class ListPieces {
 public:
  struct Piece {
    TarnBranchWalk::Range range;
    std::string text;
    std::optional<NodePlaces> nodes;  // those in the text; nothing: the caller has to write it
  };
  // Writes one piece, on any thread; what it throws counts as leaving the piece to the caller.
  using Write = std::function<void(Piece&)>;

  // Whether the calling thread may do this, and whether it is worth the while.
  static bool IsFor(const TarnRef& parent, unsigned long numChildren);

  ListPieces(TarnRef parent, Write write);
  ListPieces(const ListPieces&) = delete;
  ListPieces& operator=(const ListPieces&) = delete;
  ~ListPieces();

  // The next piece; null behind the last one.
  std::unique_ptr<Piece> next();

 private:
  enum class State { kWaits, kIsWritten, kDone };
  struct Entry {
    std::unique_ptr<Piece> piece;
    State state = State::kWaits;
  };

  void plan();
  void startThreads();
  void run();
  Entry* waiting();
  void write(Entry& entry, std::unique_lock<std::mutex>& lock);

  const TarnRef parent_;
  const Write write_;
  goods::cache_manager& session_;
  std::string from_;  // where the piece that is planned next begins
  bool isPlanned_ = false;
  std::size_t numWritten_ = 0, numLeft_ = 0;  // pieces that next() has given with and without text
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Entry> entries_;  // with stopping_ under mutex_; entries stay where they are
  bool stopping_ = false;
  std::vector<std::thread> threads_;  // last: they use all of the above
};

}  // namespace tarns
