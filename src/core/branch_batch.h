// How TarnBranchWalk reads one batch of steps.
#pragma once

#include <goods/reader.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObjects.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "goods/B_tree_walk.h"
#include "goods/index_trail.h"

namespace tarns {

// A node whose children a walk is going through, between two batches.
struct WalkLevel {
  TarnRef node;                               // counted, so that no other takes its key
  std::uint64_t key = 0;                      // tells the node apart: see WalkKeyOf()
  xcptref<TarnObjects> index;                 // counted; null when there are no more children
  std::optional<goods::index_position> last;  // handed out last; none: begin at the first
  std::size_t lookahead = 0;                  // see BranchBatch::Frame
  std::size_t expected = 0;
};

// Tells nodes apart: the identifier or, for one that is not stored, the handle.
std::uint64_t WalkKeyOf(goods::ref_word node);

// The nodes from the one where a walk began down to the one whose children come next.
class WalkLevels {
 public:
  std::size_t size() const { return levels_.size(); }
  const WalkLevel& operator[](std::size_t at) const { return levels_[at]; }
  // Whether `node` is one of the lowest `count` levels.
  bool contains(goods::ref_word node, std::size_t count) const;

  void push(WalkLevel level);
  void cut(std::size_t count);

 private:
  std::vector<WalkLevel> levels_;
  std::unordered_map<std::uint64_t, std::size_t> places_;  // of the nodes in levels_
};

// Reads the steps that come next, in one round of a reader. The walk's state stays as it is, so
// that a round can be repeated; apply() is called when it was good.
//
// The children of a node are loaded some at a time, their texts with a second call, by numbers that
// grow as long as they turn out to have no children of their own: then the walk goes down at once
// and comes back to them later, perhaps in another batch.
class BranchBatch {
 public:
  using Step = TarnBranchWalk::Step;

  // `to`: the walk ends at the children of the lowest level whose names are not less, unless empty.
  // `steps` are filled from the beginning: about `limit` of them, at most a quarter more.
  BranchBatch(goods::reader& in, const WalkLevels& levels, std::string_view to,
              std::vector<Step>& steps, std::size_t limit);

  // Returns how many there were; 0 at the end.
  std::size_t read();

  // What the levels are after these steps: the lowest kept() of the old ones, and above them these.
  std::size_t kept() const { return kept_; }
  std::vector<WalkLevel> takeLevels();

 private:
  struct Frame {
    goods::ref_word node;
    goods::ref_word index;
    std::optional<goods::B_tree_walk> place;  // at the child that comes next
    goods::index_trail trail;                 // of what was handed out
    std::size_t lookahead = 0;                // how many children are loaded at once
    std::size_t expected = 0;                 // of those behind them the storage has been told
    std::vector<const TarnObject*> ahead;     // loaded children, the next one last
  };

  void enter(goods::ref_word node, goods::ref_word index, const TarnObjects& entries);
  Frame& top() { return *frames_[numFrames_ - 1]; }
  void resume(const WalkLevel& level);
  void loadAhead(Frame& frame);
  void expectMore(Frame& frame, std::size_t loaded);
  void readStep(Frame& frame);
  bool isFull();
  bool isOpen(goods::ref_word node) const;

  goods::reader& in_;
  const WalkLevels& levels_;
  const std::string_view to_;
  std::vector<Step>& steps_;
  const std::size_t limit_, most_;
  std::size_t count_ = 0;
  std::size_t kept_;
  std::vector<std::unique_ptr<Frame>> frames_;  // the first numFrames_ are in use
  std::size_t numFrames_ = 0;
  std::vector<goods::ref_word> words_;
};

}  // namespace tarns
