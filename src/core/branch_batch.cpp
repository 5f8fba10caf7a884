#include "core/branch_batch.h"

#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "core/node_access.h"
#include "goods/prototype.h"

namespace tarns {

namespace {

constexpr std::size_t kFirstLookahead = 32;
constexpr std::size_t kMostLookahead = 256;
constexpr std::size_t kLookaheadAbove = 8;  // of nodes that are entered themselves
constexpr std::size_t kExpected = 128;      // children that a storage is told of before they come

}  // namespace

std::uint64_t WalkKeyOf(goods::ref_word node) {
  if (node.is_handle() && !node.handle()->is_transient()) {
    node = goods::ref_word::of(node.handle()->id());
  }
  return std::bit_cast<std::uint64_t>(node);
}

bool WalkLevels::contains(goods::ref_word node, std::size_t count) const {
  const auto found = places_.find(WalkKeyOf(node));
  return found != places_.end() && found->second < count;
}

void WalkLevels::push(WalkLevel level) {
  places_.emplace(level.key, levels_.size());
  levels_.push_back(std::move(level));
}

void WalkLevels::cut(std::size_t count) {
  while (levels_.size() > count) {
    const auto found = places_.find(levels_.back().key);
    if (found != places_.end() && found->second == levels_.size() - 1) places_.erase(found);
    levels_.pop_back();
  }
}

BranchBatch::BranchBatch(goods::reader& in, const WalkLevels& levels, std::string_view to,
                         std::vector<Step>& steps, std::size_t limit)
    : in_(in),
      levels_(levels),
      to_(to),
      steps_(steps),
      limit_(limit),
      most_(limit + limit / 4),
      kept_(levels.size()) {}

std::size_t BranchBatch::read() {
  while (!isFull()) {
    if (numFrames_ == 0) {
      if (kept_ == 0) break;
      resume(levels_[--kept_]);
    } else if (top().place->at_end()) {
      --numFrames_;
    } else {
      readStep(top());
    }
  }
  return count_;
}

// Going on among the children of a node means to look for the place in its index once more: a batch
// rather ends where they end, when that is near.
bool BranchBatch::isFull() {
  if (count_ < limit_) return false;
  return count_ == most_ || numFrames_ == 0 || top().place->at_end();
}

void BranchBatch::enter(goods::ref_word node, goods::ref_word index, const TarnObjects& entries) {
  if (numFrames_ == frames_.size()) frames_.push_back(std::make_unique<Frame>());
  Frame& frame = *frames_[numFrames_++];
  frame.node = node;
  frame.index = index;
  frame.place.emplace(in_, entries);
  if (kept_ + numFrames_ == 1) frame.place->end_at(to_);
  frame.place->seek_index(0);
  frame.trail.clear();
  frame.lookahead = kFirstLookahead;
  frame.expected = 0;
  frame.ahead.clear();
}

// Not in a guest_scope: what the walk comes back to is worth a place in the cache, since it will be
// needed for the batches after this one as well.
void BranchBatch::resume(const WalkLevel& level) {
  if (level.index.is_null()) return;
  const TarnObjects* index = in_.get(level.index);
  enter(level.node.word(), level.index.word(), *index);
  Frame& frame = top();
  frame.lookahead = level.lookahead;
  frame.expected = level.expected;
  if (!level.last) return;
  frame.place->seek_behind(*level.last);
  frame.trail.resume(*level.last);
}

void BranchBatch::loadAhead(Frame& frame) {
  const std::size_t count = std::min(
      {frame.lookahead, frame.place->left_on_page(), (count_ < limit_ ? limit_ : most_) - count_});
  words_.clear();
  for (std::size_t i = 0; i < count; ++i) words_.push_back(frame.place->entry(i).target);
  in_.prefetch(words_);
  for (const goods::ref_word word : words_) {
    frame.ahead.push_back(static_cast<const TarnObject*>(in_.look(word, TarnObject::self_class)));
  }
  words_.clear();
  bool haveChildren = false;
  for (const TarnObject* child : frame.ahead) {
    if (child == nullptr) continue;
    const goods::ref_word index = TarnNodeAccess::ChildrenOf(*child).word();
    if (!index.is_null()) words_.push_back(index);
    haveChildren |= !index.is_null();
    if (&child->cls() == &TarnStringValue::SelfClass()) {
      words_.push_back(
          static_cast<const TarnStringValue*>(child)->getTarnString().getReference().word());
    }
  }
  in_.prefetch(words_);
  frame.lookahead = haveChildren ? kLookaheadAbove : std::min(frame.lookahead * 2, kMostLookahead);
  std::ranges::reverse(frame.ahead);
  expectMore(frame, count);
}

// Has the storage read what comes behind those that have just been loaded, as far as it stands on
// this page.
void BranchBatch::expectMore(Frame& frame, std::size_t loaded) {
  frame.expected -= std::min(frame.expected, loaded);
  if (frame.expected >= kExpected / 2) return;
  const std::size_t told = loaded + frame.expected;
  const std::size_t end = std::min(loaded + kExpected, frame.place->left_on_page());
  if (end <= told) return;
  words_.clear();
  for (std::size_t i = told; i < end; ++i) words_.push_back(frame.place->entry(i).target);
  in_.expect(words_);
  frame.expected = end - loaded;
}

void BranchBatch::readStep(Frame& frame) {
  const goods::guest_scope guests(in_, goods::guest_scope::policy::once);
  if (frame.ahead.empty()) loadAhead(frame);
  const goods::index_entry entry = frame.place->entry();
  const TarnObject* child = frame.ahead.back();
  frame.ahead.pop_back();
  frame.trail.pass(entry);
  frame.place->next();
  if (child == nullptr) return;  // an entry that stands for nothing

  if (count_ == steps_.size()) steps_.emplace_back();
  Step& step = steps_[count_++];
  step.name.assign(entry.name);
  step.node = TarnRef::Trusted(goods::keep_word(entry.target));
  step.cls = &child->getClass();
  step.depth = kept_ + numFrames_;
  step.isLast = frame.place->at_end();
  step.hasValue = child->readValue(in_, step.value);
  if (!step.hasValue) step.value.empty();
  const bool isAtHome = WalkKeyOf(TarnNodeAccess::ParentLinkOf(*child)) == WalkKeyOf(entry.member);
  step.lister = isAtHome ? TarnRef() : TarnRef::Trusted(goods::keep_word(frame.node));
  step.numChildren = 0;
  step.isCircle = false;
  const goods::ref_word word = TarnNodeAccess::ChildrenOf(*child).word();
  step.hasIndex = !word.is_null();
  if (word.is_null()) return;
  const auto* index = static_cast<const TarnObjects*>(in_.look(word, TarnObjects::self_class));
  step.numChildren = index->count();
  step.isCircle = isOpen(entry.target);
  if (!step.isCircle && step.numChildren != 0) enter(entry.target, word, *index);
}

bool BranchBatch::isOpen(goods::ref_word node) const {
  const std::uint64_t key = WalkKeyOf(node);
  return levels_.contains(node, kept_) ||
         std::any_of(frames_.begin(), frames_.begin() + numFrames_,
                     [&](const auto& frame) { return WalkKeyOf(frame->node) == key; });
}

std::vector<WalkLevel> BranchBatch::takeLevels() {
  std::vector<WalkLevel> levels;
  for (std::size_t i = 0; i < numFrames_; ++i) {
    const Frame& frame = *frames_[i];
    WalkLevel& level = levels.emplace_back();
    level.node = TarnRef::Trusted(goods::keep_word(frame.node));
    level.key = WalkKeyOf(frame.node);
    level.lookahead = frame.lookahead;
    level.expected = frame.expected;
    if (frame.place->at_end()) continue;
    level.index = xcptref<TarnObjects>::Trusted(goods::to_reference(frame.index));
    level.last = frame.trail.position();
  }
  return levels;
}

}  // namespace tarns
