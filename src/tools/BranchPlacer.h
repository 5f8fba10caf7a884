#pragma once

#include <tarns/session/TarnManager.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarns {

// Puts a branch that is in no tree at a place of the database, node by node as far as that is
// there already: a node is merged into the one of its name, of which then the members and the value
// are the new ones and the other children stay. Where nothing is, the node goes there with all that
// is below it; several children of one name stay several.
//
// Does not recurse. Works within a transaction of the caller's, who may commit it and begin another
// one between two nodes. What an earlier run has placed can be passed over; a node that was met
// then and is listed once more now becomes another one.
//
// Errors: those of storing; 7 when what is to be passed over is not there. Threads: one.
class BranchPlacer {
 public:
  struct Options {
    bool isNodeByNode = false;  // everywhere, so that no transaction need be large
    std::uint64_t skip = 0;     // nodes that are there from an earlier run
    std::function<void(std::uint64_t)> placed = {};  // called after each node, with their number
  };

  BranchPlacer(TarnManager& manager, Options options)
      : manager_(manager), options_(std::move(options)) {}

  // A branch "" is the root's, which stays and gets the children.
  void place(const std::string& path, const TarnRef& branch);

 private:
  struct Child {
    std::string name;
    TarnRef node;
    bool isHome;
  };
  // A node of the database whose children are being placed.
  struct Level {
    TarnRef target;
    std::string name;
    std::vector<Child> children = {};
    std::size_t next = 0;
    std::string lastName = {};  // of the child placed last, its number among those of its name,
    std::size_t number = 0;     // and whether the first of them came with the branch
    bool isFirstNew = false;
  };

  void noteHomes(const TarnRef& branch);
  std::vector<Child> takeChildren(const TarnRef& node) const;
  void placeTop(const std::string& path, const TarnRef& branch);
  void placeNext();
  TarnRef placed(Level& level, const Child& child, const TarnRef& present);
  void merge(const TarnRef& node, const TarnRef& present, const std::string& name);
  [[noreturn]] void throwGone(const std::string& name) const;
  std::string pathOf(const std::string& name) const;
  bool count();

  TarnManager& manager_;
  const Options options_;
  std::string path_;
  std::vector<Level> levels_;
  // Of nodes that are listed elsewhere, too: the node that is the parent of each, by its handle.
  // Once such a node is stored and its parent is not, it does not know that one any more.
  std::unordered_map<const void*, TarnRef> homes_;
  std::uint64_t count_ = 0;
};

}  // namespace tarns
