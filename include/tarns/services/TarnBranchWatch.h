#pragma once

#include <tarns/session/TarnManager.h>
#include <tarns/tarns_api.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tarns {

// One thing that is different in a branch since a commit.
struct TarnBranchChange {
  enum class Kind : std::uint8_t {
    Added,    // a node is there that was not; each one of a new branch, parents first
    Removed,  // a node is gone, with everything below it
    Changed,  // a node's own value or members
    Moved,    // a node, with everything below it, has another name or place within the branch
    Lost      // some changes are missing here: read the branch again
  };
  Kind kind = Kind::Lost;
  std::string path;           // from the root
  std::string from;           // Moved: the path before
  std::uint64_t id = 0;       // of the node; 0 for Lost
  std::uint64_t version = 0;  // of the commit; 0 for Lost
};

// The word that names it: "added", "removed", "changed", "moved", "lost".
TARNS_API const char* NameOf(TarnBranchChange::Kind kind);

// Tells of everything that commits of any session of the process change in a branch: the node at a
// path, whatever that is at the time, also when there is none at first, and all that is below it
// by way of children.
//
//   TarnBranchWatch watch(manager, "machines~press");
//   ... read what is there: whatever changes afterwards is told ...
//   while (const auto change = watch.next(std::chrono::seconds(1))) ...
//
// Changes come in the order of the commits. Each commit that writes a value or a member is told,
// unless more than some 4,000 commits wait to be looked at, when neighbouring ones count as one.
// What is added, removed and moved is found by comparing the indexes that commits have written with
// what they were. Only the state that the last commit has left can be looked at: where something
// has been added, removed or moved by commits that come within one such look, mostly some 100
// microseconds, all that these commits did is told together under the version of the last one, and
// a child that comes and goes in that time is not seen. Otherwise each change bears the version of
// its own commit. Changes of one version belong together: `from`, and the path of what is removed,
// are paths before it, all others after it. Who takes in all of them knows the branch.
//
// A node that is listed in several places is in the branch where its parent link is, with what is
// below it; further entries count as nodes without children. Nodes that members refer to are no
// children.
//
// Memory: about 300 bytes for each node of the branch; the changes that nobody has fetched, up to
// Options::capacity of them. When there are more they are given up, and Lost comes in their place.
// Ownership: the session outlives the watch and stays connected. Threads: next() by one at a time;
// stop() by any. Errors: the constructor and next() throw what reading the branch throws; then the
// watch is over.
class TARNS_API TarnBranchWatch {
 public:
  struct Options {
    std::size_t capacity = 10'000;       // changes that wait to be fetched; at least 1
    std::size_t mostNodes = 10'000'000;  // larger branches end the watch with 111
  };

  // From its return on, all that is committed is told. The calling thread need not be attached; its
  // transaction has no part in it.
  TarnBranchWatch(TarnManager& manager, TarnPathText path);
  TarnBranchWatch(TarnManager& manager, TarnPathText path, const Options& options);
  ~TarnBranchWatch();
  TarnBranchWatch(const TarnBranchWatch&) = delete;
  TarnBranchWatch& operator=(const TarnBranchWatch&) = delete;

  // The next change; nothing when there is none for `limit`, and once the watch has been stopped.
  // A limit below 0 counts as 0; milliseconds::max() is for ever.
  std::optional<TarnBranchChange> next(std::chrono::milliseconds limit);

  // Ends the watch: next() returns nothing from now on, also where it is waiting.
  void stop();

 private:
  class Follower;
  std::unique_ptr<Follower> follower_;
};

}  // namespace tarns
