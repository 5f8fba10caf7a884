// Writes branches as text without recursion.
#pragma once

#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObject.h>
#include <tarns/util/PInOut.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/ListPieces.h"
#include "core/NodePlaces.h"

namespace tarns {

// One branch. While the lines of a node are written, blocks that belong in between are only noted,
// with the place where they go (defer()); the lines behind such a place wait until the block has
// been written.
//
// Very many children are written in pieces by several threads (ListPieces), as far as there is
// nothing in a piece but the library's own plain nodes and values, each below its parent and for
// the first time; what is found to be otherwise is written here, in its turn. Errors: 16 when
// writing fails; what the nodes' classes throw. Threads: one.
class NodeWriter : public PInOut::Nesting {
 public:
  enum class Form { kWhole, kMinLocking };

  // Called with each node that the writer comes to below the first one; `isHome`: as a child of its
  // parent, otherwise through a member, or an entry that only lists it. May throw.
  using Visit = std::function<void(const TarnRef& node, bool isHome)>;

  NodeWriter(PInOut& out, Form form, Visit visit = {})
      : out_(out), form_(form), visit_(std::move(visit)) {}

  // Writes the block of `node` at the level of the PInOut.
  void write(std::string_view name, const TarnRef& node);

  // Within a class's writeConcreteMembers(): writes the block here, at the level of the PInOut,
  // later.
  void defer(std::string_view name, const TarnRef& node);

 private:
  // A block that was noted among a node's lines.
  struct Deferred {
    std::size_t offset;  // in those lines
    std::size_t level;
    std::string name;
    TarnRef node;
  };
  // A node and everything below it.
  struct Block {
    TarnRef top;
    std::size_t level;
    std::string step;             // to the top from the node of the block before
    NodePlaces::Check check = 0;  // of the top's place
    // The way from the top to the node whose lines were written last: the first `depth`.
    struct Step {
      std::string name;
      unsigned long number = 0;  // among the children of that name
      NodePlaces::Check check = 0;
    };
    std::vector<Step> way;
    std::unique_ptr<ListPieces> pieces;  // of the top's children, when they are very many
    std::optional<TarnBranchWalk> walk;  // once the top's lines have been written; of a piece
    std::size_t depth = 0;               // of the node whose lines were written last
    bool hasEmptyIndex = false;          // of that node
    // Lines of that node that wait, and the blocks among them from `next` on.
    std::string lines;
    std::vector<Deferred> deferred;
    std::size_t next = 0;
    TarnRef holder;  // that node, when there are any
  };

  void step();
  void begin(std::string_view name, const TarnRef& node, std::size_t level, std::string step = {},
             NodePlaces::Check check = 0);
  enum class Arrival { kFirst, kAgain, kIsWritten };
  Arrival arrive(const TarnRef& node, std::string_view name, std::size_t level, bool isHome,
                 NodePlaces::Check check);
  static NodePlaces::Check CheckOf(const Block& block) {
    return block.depth == 0 ? block.check : block.way[block.depth - 1].check;
  }
  std::string placeNow() const;
  void noteStep(Block& block, const TarnBranchWalk::Step& step);
  void writeDeferred(Block& block);
  void writeNext(Block& block);
  bool isShared(const TarnRef& parent, unsigned long numChildren) const;
  std::unique_ptr<ListPieces> piecesOf(const TarnRef& parent, std::size_t level);
  void shareChildren(const TarnRef& parent, std::size_t level);
  void writeNextPiece(Block& block);
  void writePiece(const TarnRef& parent, std::size_t level, ListPieces::Piece& piece);
  void writeChild(Block& block, const TarnBranchWalk::Step& step);
  void writeOwnLines(Block& block, std::string_view name, const TarnRef& node, std::size_t level);
  void writeLines(Block& block, const TarnBranchWalk::Step& step, std::size_t level);
  bool writeReference(std::string_view name, const TarnRef& node, std::size_t level, bool isHome);
  void moveTo(Block& block, std::size_t depth);
  void endIndex(Block& block);
  void verify(bool isWritten) const;

  PInOut& out_;
  const Form form_;
  const Visit visit_;  // may be empty
  std::optional<NodePlaces> places_;
  std::vector<std::unique_ptr<Block>> blocks_;  // each is written within the one before it
  std::vector<Deferred> deferred_;              // of the node whose lines are being written
};

}  // namespace tarns
