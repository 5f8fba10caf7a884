// Has the children of a node written as text by several threads.
#pragma once

#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObject.h>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/NodePlaces.h"
#include "storage/guarded_mutex.h"

namespace goods {
class cache_manager;
}

namespace tarns {

// The children in pieces of some dozen, in their order. The pieces are written ahead, each by one
// thread: those of this object or the caller's, which helps where it would have to wait. What is
// too much for a piece, and what its writer cannot do, is left to the caller.
// Memory: the texts of a few pieces for each thread.
// Threads: one, which is attached to a session, has no transaction open and is not within a read:
// the other threads, which end with the object, see what is committed.
class ListPieces {
 public:
  struct Piece {
    TarnBranchWalk::Range range;
    std::string text;
    std::optional<NodePlaces> nodes;  // those in the text; nothing: the caller has to write it
    // The child that is too much, so that the text, if there is any, ends before it.
    std::string tooMuch;
  };
  // Writes one piece, on any thread; what it throws counts as leaving the piece to the caller.
  using Write = std::function<void(Piece&)>;

  static constexpr unsigned long kManyChildren = 1024;
  static constexpr std::size_t kLongestText = std::size_t{1} << 20;  // bytes of a piece

  // Whether the calling thread may do this, and whether it is worth the while.
  static bool IsFor(const TarnRef& parent, unsigned long numChildren);

  ListPieces(TarnRef parent, Write write);
  ListPieces(const ListPieces&) = delete;
  ListPieces& operator=(const ListPieces&) = delete;
  ~ListPieces();

  // The next piece; null behind the last one.
  std::unique_ptr<Piece> next();
  // The piece that next() has given was of no use.
  void wasUseless();
  // Ends the threads and forgets their work until next() is called.
  void pause();

 private:
  enum class State { kWaits, kIsWritten, kDone };
  struct Entry {
    std::unique_ptr<Piece> piece;
    State state = State::kWaits;
  };

  void plan();
  void startThreads();
  void stopThreads();
  void run();
  Entry* waitForWork();
  Entry* take() REQUIRES(lock_);
  void write(Entry& entry);
  std::list<Entry> cut(Piece& piece) const;

  const TarnRef parent_;
  const Write write_;
  const unsigned numThreads_;
  goods::cache_manager& session_;
  // Of the caller's thread.
  std::string from_;  // where the piece that is planned next begins
  bool isPlanned_ = false;
  std::size_t numWritten_ = 0, numLeft_ = 0;  // pieces that next() has given with and without text

  goods::guarded_mutex lock_;
  std::condition_variable_any changed_;
  std::list<Entry> entries_ GUARDED_BY(lock_);  // where they are, they stay until next() takes them
  bool stopping_ GUARDED_BY(lock_) = false;
  std::vector<std::thread> threads_;  // last: they use all of the above
};

}  // namespace tarns
