#include <goods/cache_manager.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnObjects.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "core/branch_batch.h"
#include "core/node_access.h"

namespace tarns {

namespace {

// The first batches are small: many walks look at a few nodes only. Larger ones than this take
// longer: what was read has left the processor's caches until the walk gets there.
constexpr std::size_t kFirstBatch = 32;
constexpr std::size_t kLargestBatch = 128;

}  // namespace

class TarnBranchWalk::Stack {
 public:
  Stack(const xcptref<TarnObject>& from, Range range) : from_(from), range_(std::move(range)) {
    std::optional<goods::index_position> first;
    if (!range_.from.empty()) first.emplace(range_.from, nullptr);
    levels_.push({from, WalkKeyOf(from.word()), from->getChildren(), first, kFirstBatch});
  }

  const Step* next() {
    while (true) {
      if (at_ == count_ && !fetch()) return nullptr;
      const Step& step = steps_[at_++];
      if (step.depth > deepest_) continue;
      deepest_ = kAnyDepth;
      if (names_.size() < step.depth) names_.resize(step.depth);
      names_[step.depth - 1] = step.name;
      depth_ = step.depth;
      return &step;
    }
  }

  void skipChildren() { deepest_ = depth_; }

  std::string path() const {
    std::string path;
    for (std::size_t i = 0; i < depth_; ++i) {
      if (i != 0) path += '~';
      path += names_[i];
    }
    return path;
  }

 private:
  static constexpr std::size_t kAnyDepth = ~std::size_t{0};

  bool fetch() {
    at_ = count_ = 0;
    levels_.cut(deepest_);  // level n is gone through by steps of depth n + 1
    std::size_t limit = limit_, kept = 0;
    std::vector<WalkLevel> entered;
    const std::size_t count = goods::read_here([&](goods::reader& reader) {
      BranchBatch batch(reader, levels_, range_.to, steps_, limit);
      limit = std::max(limit / 2, kFirstBatch);  // should a commit come in between
      const std::size_t found = batch.read();
      entered = batch.takeLevels();
      kept = batch.kept();
      return found;
    });
    levels_.cut(kept);
    for (WalkLevel& level : entered) levels_.push(std::move(level));
    count_ = count;
    limit_ = std::min(limit_ * 2, kLargestBatch);
    return count != 0;
  }

  xcptref<TarnObject> from_;
  const Range range_;
  WalkLevels levels_;
  std::vector<Step> steps_;  // as many as a batch ever had; the first count_ are of this one
  std::size_t at_ = 0, count_ = 0;
  std::size_t limit_ = kFirstBatch;
  std::vector<std::string> names_;  // of the step and those above it: the first depth_
  std::size_t depth_ = 0;
  std::size_t deepest_ = kAnyDepth;  // deeper steps are passed over
};

TarnBranchWalk::TarnBranchWalk(const xcptref<TarnObject>& from) : TarnBranchWalk(from, Range{}) {}
TarnBranchWalk::TarnBranchWalk(const xcptref<TarnObject>& from, Range range)
    : stack_(std::make_unique<Stack>(from, std::move(range))) {}
TarnBranchWalk::TarnBranchWalk(TarnBranchWalk&& other) noexcept = default;
TarnBranchWalk& TarnBranchWalk::operator=(TarnBranchWalk&& other) noexcept = default;
TarnBranchWalk::~TarnBranchWalk() = default;

const TarnBranchWalk::Step* TarnBranchWalk::next() { return stack_->next(); }
void TarnBranchWalk::skipChildren() { stack_->skipChildren(); }
std::string TarnBranchWalk::path() const { return stack_->path(); }

}  // namespace tarns
