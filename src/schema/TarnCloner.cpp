#include <goods/cache_manager.h>
#include <goods/kept_numbers.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnPath.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnCloner.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "core/branch_batch.h"
#include "core/node_access.h"
#include "schema/BranchCopy.h"
#include "schema/BranchMerge.h"

namespace tarns {

namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
constexpr const char* kUnfinished = " (unfinished copy)";

// The lowest node that exists on the way to a place, and the branches from there to the place.
struct Place {
  TarnRef holder;
  std::string rest;
};

Place FindPlace(const TarnRef& from, std::string_view path) {
  TarnRef at = from;
  for (auto branch = TarnBranches(path).begin(); !branch.isLast(); ++branch) {
    TarnRef child = FindNode(at, *branch);
    if (child.is_null()) return {at, std::string(branch.rest())};
    at = std::move(child);
  }
  return {at, std::string(TarnBranches::LastOf(path))};
}

// Throws for a path that cannot lead to a new child; nor may names hold a NUL, where the functions
// that take C strings would cut them.
void VerifyPath(const TarnRef& parent, std::string_view path) {
  TarnPath checked;
  for (const std::string_view branch : TarnBranches(path)) checked.addBranch(branch);
  for (const std::string_view branch : TarnBranches(path)) {
    TarnObject::VerifyChildName(parent, branch);
  }
  const std::string_view name = TarnBranches::LastOf(path);
  TarnObject::VerifyChildName(parent, name);
  TarnObject::VerifyChildName(parent, TarnCloner::NameOfUnfinished(name));
}

// A copy that grows below a stored node.
class CopyInBatches {
 public:
  CopyInBatches(goods::cache_manager& session, const TarnCloneOptions& options, Place place)
      : session_(session),
        options_(options),
        batchSize_(std::max<std::size_t>(options.batchSize, 1)),
        place_(std::move(place)),
        holder_(place_.holder),
        unfinished_(TarnCloner::NameOfUnfinished(TarnBranches::LastOf(place_.rest))) {}

  TarnRef make(const TarnRef& branch) {
    verifyRemains(branch);
    try {
      begin(branch);
      copyNodes();
      setReferences();
      inPlace([this] {
        const TarnRef parent =
            MakeBranch(holder_, TarnBranches::ParentOf(place_.rest), place_.rest);
        modify(parent)->moveChild(std::string(TarnBranches::LastOf(place_.rest)).c_str(), top_);
      });
    } catch (...) {
      removeUnfinished();
      throw;
    }
    return top_;
  }

 private:
  // What an earlier copy has left is going to be deleted.
  void verifyRemains(const TarnRef& branch) const {
    const TarnRef left = holder_->getIterTo(unfinished_.c_str()).get(nullptr);
    if (left.is_null() || !IsAtOrAbove(left, branch)) return;
    TarnException error;
    error << "A branch within \"" << unfinished_ << "\" cannot be copied to \"" << place_.rest
          << "\", since that is where such a copy grows: move it elsewhere first.";
    throw error;
  }

  void begin(const TarnRef& branch) {
    if (branch.id() != 0) copy_.noteFew();
    top_ = copy_.begin(branch, BranchCopy::Below::kCopied);
    copy_.exclude(top_);  // where its place is within the branch
    if (TarnBranches::ParentOf(place_.rest).empty()) VerifyFits(holder_, place_.rest, top_);
    session_.atomically([this] {
      auto holder = modify(holder_);
      holder->deleteChild(unfinished_.c_str());
      holder->addChild(unfinished_.c_str(), top_);
    });
    link_ = linkOfTop();
    copy_.settle();
  }

  void copyNodes() {
    while (const std::size_t copied = copy_.copyMore(batchSize_)) {
      inPlace([this] { copy_.attach(); });
      copy_.settle();
      done_ += copied;
      tellProgress();
    }
  }

  // What a reference leads to is found outside of the transaction, which would lock all that is
  // looked at on the way.
  void setReferences() {
    for (std::size_t first = 0; first < copy_.countReferences(); first += batchSize_) {
      const auto exchanges = copy_.findExchanges(first, batchSize_);
      if (!exchanges.empty()) inPlace([&] { copy_.exchange(exchanges); });
      tellProgress();
    }
  }

  void tellProgress() const {
    if (options_.progress) options_.progress(done_);
  }

  // A transaction, while the copy is where it was begun.
  template <class Work>
  void inPlace(const Work& work) {
    session_.atomically([&] {
      if (link_ == 0 || linkOfTop() != link_) throwRemoved();
      work();
    });
  }

  // Its entry in the list of children, of which this looks at nothing else: others may change that.
  std::uint64_t linkOfTop() const {
    return goods::read_here([this](goods::reader& reader) {
      return WalkKeyOf(TarnNodeAccess::ParentLinkOf(*reader.get(top_)));
    });
  }

  [[noreturn]] void throwRemoved() const {
    TarnException error;
    error << "The unfinished copy \"" << unfinished_
          << "\" was removed, perhaps by another copy to the same place.";
    throw error;
  }

  void removeUnfinished() noexcept {
    try {
      session_.atomically([this] {
        if (!top_.is_null() && top_->getParent() == holder_) modify(holder_)->deleteChild(top_);
      });
    } catch (const std::exception& error) {
      Log(Log::Warning) << "The branch \"" << unfinished_ << "\" remains: " << error.what();
    }
  }

  goods::cache_manager& session_;
  const TarnCloneOptions& options_;
  const std::size_t batchSize_;
  const Place place_;
  const TarnRef& holder_;  // of the unfinished copy
  const std::string unfinished_;
  const goods::kept_numbers kept_;  // the copy knows originals by their identifiers
  BranchCopy copy_;
  TarnRef top_;
  std::uint64_t link_ = 0;  // of the unfinished copy; see WalkKeyOf()
  std::uint64_t done_ = 1;
};

void VerifyNode(const TarnRef& node) {
  if (node.is_null()) ThrowBadRef("NULL TarnRef read dereference");
}

}  // namespace

xcptref<TarnObject> TarnCloner::copy(const xcptref<TarnObject>& branch) const {
  VerifyNode(branch);
  BranchCopy copy;
  TarnRef top = copy.begin(branch, BranchCopy::Below::kCopied);
  copy.copyMore(kAll);
  copy.setReferences();
  return top;
}

std::string TarnCloner::NameOfUnfinished(std::string_view name) {
  return std::string(name) + kUnfinished;
}

xcptref<TarnObject> TarnCloner::copyInBatches(const xcptref<TarnObject>& branch,
                                              const xcptref<TarnObject>& parent,
                                              std::string_view path) const {
  VerifyNode(branch);
  VerifyNode(parent);
  VerifyPath(parent, path);
  goods::cache_manager* const session = goods::cache_manager::current();
  if (session != nullptr && parent.id() != 0 && !session->in_transaction()) {
    return CopyInBatches(*session, options_, FindPlace(parent, path)).make(branch);
  }
  TarnRef top = copy(branch);
  modify(parent)->setNode(std::string(path).c_str(), top);
  return top;
}

void TarnCloner::merge(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& parent,
                       std::string_view name) const {
  VerifyNode(branch);
  merge(branch, branch->getParent(), parent, name);
}

void TarnCloner::merge(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& lister,
                       const xcptref<TarnObject>& parent, std::string_view name) const {
  VerifyNode(branch);
  VerifyNode(parent);
  TarnObject::VerifyChildName(parent, name);
  BranchMerge(options_).merge({branch, lister}, {nullptr, parent}, name);
}

void TarnCloner::mergeInto(const xcptref<TarnObject>& branch, const xcptref<TarnObject>& lister,
                           const xcptref<TarnObject>& target) const {
  VerifyNode(branch);
  VerifyNode(target);
  BranchMerge(options_).merge({branch, lister}, {target, nullptr}, {});
}

std::vector<TarnMergeChange> TarnCloner::preview(const xcptref<TarnObject>& branch,
                                                 const xcptref<TarnObject>& parent,
                                                 std::string_view name) const {
  std::vector<TarnMergeChange> changes;
  TarnCloneOptions options = options_;
  options.changesNothing = true;
  options.report = [&](const TarnMergeChange& change) { changes.push_back(change); };
  TarnCloner(std::move(options)).merge(branch, parent, name);
  return changes;
}

const char* ToText(TarnMergeEffect effect) {
  switch (effect) {
    case TarnMergeEffect::kAdded:
      return "added";
    case TarnMergeEffect::kKept:
      return "kept";
    case TarnMergeEffect::kTakenOver:
      return "taken over";
    case TarnMergeEffect::kReplaced:
      return "replaced";
  }
  return "";
}

}  // namespace tarns
