#include <goods/cache_manager.h>
#include <goods/kept_numbers.h>
#include <tarns/core/TarnException.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnCloner.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "schema/BranchCopy.h"
#include "schema/BranchMerge.h"

namespace tarns {

namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
constexpr const char* kUnfinished = " (unfinished copy)";

// A copy that grows below a stored node.
class CopyInBatches {
 public:
  CopyInBatches(goods::cache_manager& session, const TarnCloneOptions& options,
                const TarnRef& parent, std::string_view name)
      : session_(session),
        options_(options),
        batchSize_(std::max<std::size_t>(options.batchSize, 1)),
        parent_(parent),
        name_(name),
        unfinished_(TarnCloner::NameOfUnfinished(name)) {}

  TarnRef make(const TarnRef& branch) {
    try {
      begin(branch);
      copyNodes();
      setReferences();
      inPlace([this] { modify(parent_)->moveChild(name_.c_str(), top_); });
    } catch (...) {
      removeUnfinished();
      throw;
    }
    return top_;
  }

 private:
  void begin(const TarnRef& branch) {
    if (branch.id() != 0) copy_.noteFew();
    top_ = copy_.begin(branch, BranchCopy::Below::kCopied);
    copy_.exclude(top_);  // where its place is within the branch
    session_.atomically([this] {
      auto holder = modify(parent_);
      holder->deleteChild(unfinished_.c_str());
      holder->addChild(unfinished_.c_str(), top_);
    });
    copy_.settle();
  }

  void copyNodes() {
    std::uint64_t done = 1;
    while (const std::size_t copied = copy_.copyMore(batchSize_)) {
      inPlace([this] { copy_.attach(); });
      copy_.settle();
      done += copied;
      if (options_.progress) options_.progress(done);
    }
  }

  void setReferences() {
    for (std::size_t first = 0; first < copy_.countReferences(); first += batchSize_) {
      inPlace([&] { copy_.setReferences(first, batchSize_); });
    }
  }

  // A transaction, while the copy is where it was begun.
  template <class Work>
  void inPlace(const Work& work) {
    session_.atomically([&] {
      if (top_->getParent() != parent_) throwRemoved();
      work();
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
        if (!top_.is_null() && top_->getParent() == parent_) modify(parent_)->deleteChild(top_);
      });
    } catch (const std::exception& error) {
      Log(Log::Warning) << "The branch \"" << unfinished_ << "\" remains: " << error.what();
    }
  }

  goods::cache_manager& session_;
  const TarnCloneOptions& options_;
  const std::size_t batchSize_;
  const TarnRef parent_;
  const std::string name_, unfinished_;
  const goods::kept_numbers kept_;  // the copy knows originals by their identifiers
  BranchCopy copy_;
  TarnRef top_;
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
  copy.setReferences(0, kAll);
  return top;
}

std::string TarnCloner::NameOfUnfinished(std::string_view name) {
  return std::string(name) + kUnfinished;
}

xcptref<TarnObject> TarnCloner::copyInBatches(const xcptref<TarnObject>& branch,
                                              const xcptref<TarnObject>& parent,
                                              std::string_view name) const {
  VerifyNode(branch);
  VerifyNode(parent);
  TarnObject::VerifyChildName(parent, name);
  TarnObject::VerifyChildName(parent, NameOfUnfinished(name));
  goods::cache_manager* const session = goods::cache_manager::current();
  if (session != nullptr && parent.id() != 0 && !session->in_transaction()) {
    return CopyInBatches(*session, options_, parent, name).make(branch);
  }
  TarnRef top = copy(branch);
  modify(parent)->setNode(std::string(name).c_str(), top);
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
