#include <goods/cache_manager.h>
#include <goods/database.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/services/TarnBranchWatch.h>
#include <tarns/session/TarnAttachment.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "services/branch_shadow.h"

namespace tarns {

namespace {

constexpr std::size_t kMostPending = std::size_t{1} << 20;  // changed objects in commits that wait
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24);

std::vector<std::string> NamesOf(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const std::size_t end = path.find(TarnBranches::kSeparator);
    names.emplace_back(path.substr(0, end));
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  }
  return names;
}

}  // namespace

const char* NameOf(TarnBranchChange::Kind kind) {
  switch (kind) {
    case TarnBranchChange::Kind::Added:
      return "added";
    case TarnBranchChange::Kind::Removed:
      return "removed";
    case TarnBranchChange::Kind::Changed:
      return "changed";
    case TarnBranchChange::Kind::Moved:
      return "moved";
    case TarnBranchChange::Kind::Lost:
      return "lost";
  }
  return "";
}

// Takes notes of commits (on the threads that take them in), looks at them on a thread of its own,
// and keeps what has been found until somebody fetches it.
class TarnBranchWatch::Follower : private goods::commit_feed {
 public:
  Follower(TarnManager& manager, std::string_view path, const Options& options)
      : manager_(manager), path_(path), options_(options) {
    manager.verifyIsInitialized();
    session().add_feed(*this);
    try {
      thread_ = std::thread([this] { run(); });
    } catch (...) {
      session().remove_feed(*this);
      throw;
    }
    std::unique_lock guard(lock_);
    news_.wait(guard, [this] { return hasBegun_ || failure_ != nullptr; });
    if (failure_ == nullptr) return;
    guard.unlock();
    end();
    std::rethrow_exception(failure_);
  }
  ~Follower() override { end(); }
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;

  std::optional<TarnBranchChange> next(std::chrono::milliseconds limit) {
    std::unique_lock guard(lock_);
    const auto isOver = [this] { return !found_.empty() || stops_ || failure_ != nullptr; };
    limit = std::max(limit, limit.zero());
    // A clock cannot tell when the longest limits end.
    while (!news_.wait_for(guard, std::min(limit, kLongestWait), isOver) && limit > kLongestWait) {
      limit -= kLongestWait;
    }
    if (stops_) return std::nullopt;
    if (found_.empty()) {
      if (failure_ != nullptr) std::rethrow_exception(failure_);
      return std::nullopt;
    }
    TarnBranchChange change = std::move(found_.front());
    found_.pop_front();
    return change;
  }

  void stop() {
    const std::lock_guard guard(lock_);
    stops_ = true;
    news_.notify_all();
  }

 private:
  goods::cache_manager& session() const { return manager_.db().session(); }

  void end() {
    session().remove_feed(*this);
    stop();
    if (thread_.joinable()) thread_.join();
  }

  void committed(goods::storage_number storage, goods::commit_version version,
                 std::span<const goods::object_number> changed) noexcept override {
    const std::lock_guard guard(lock_);
    if (isOverrun_) return;
    try {
      CommitNote note{version, {}};
      for (const goods::object_number number : changed) {
        note.changed.push_back(goods::make_object_id(storage, number));
      }
      numPending_ += changed.size() + 1;
      pending_.push_back(std::move(note));
    } catch (const std::bad_alloc&) {
      numPending_ = kMostPending + 1;
    }
    if (numPending_ > kMostPending) {
      isOverrun_ = true;
      pending_.clear();
      numPending_ = 0;
    }
    news_.notify_all();
  }

  void run() noexcept {
    try {
      const TarnAttachment attachment(manager_);
      follow();
    } catch (...) {
      const std::lock_guard guard(lock_);
      failure_ = std::current_exception();
      news_.notify_all();
    }
  }

  void follow() {
    std::vector<goods::commit_version> before;
    for (unsigned long storage = 0; storage < manager_.getNumStorages(); ++storage) {
      before.push_back(session().version(static_cast<goods::storage_number>(storage)));
    }
    auto shadow = makeShadow();
    {
      const std::lock_guard guard(lock_);
      dropUpTo(before);
      hasBegun_ = true;
      news_.notify_all();
    }
    while (true) {
      std::vector<CommitNote> commits;
      bool isOverrun = false;
      {
        std::unique_lock guard(lock_);
        news_.wait(guard, [this] { return !pending_.empty() || isOverrun_ || stops_; });
        if (stops_) return;
        commits.swap(pending_);
        numPending_ = 0;
        isOverrun = std::exchange(isOverrun_, false);
      }
      if (isOverrun) {
        shadow.reset();
        shadow = makeShadow();
        const std::lock_guard guard(lock_);
        lose();
        continue;
      }
      std::vector<TarnBranchChange> changes;
      shadow->apply(commits, changes);
      if (!changes.empty()) keep(std::move(changes));
    }
  }

  // With lock_. Commits of before the watch that the session had not taken in until now.
  void dropUpTo(const std::vector<goods::commit_version>& versions) {
    std::erase_if(pending_, [&](const CommitNote& note) {
      const bool isOld = !note.changed.empty() &&
                         note.version <= versions.at(goods::storage_of(note.changed.front()));
      if (isOld) numPending_ -= note.changed.size() + 1;
      return isOld;
    });
  }

  std::unique_ptr<BranchShadow> makeShadow() {
    return std::make_unique<BranchShadow>(session(), NamesOf(path_), options_.mostNodes);
  }

  void keep(std::vector<TarnBranchChange> changes) {
    const std::lock_guard guard(lock_);
    for (TarnBranchChange& change : changes) {
      if (found_.size() >= std::max<std::size_t>(options_.capacity, 1)) lose();
      found_.push_back(std::move(change));
    }
    news_.notify_all();
  }

  // With lock_.
  void lose() {
    found_.clear();
    TarnBranchChange lost;
    lost.path = path_;
    found_.push_back(std::move(lost));
    news_.notify_all();
  }

  TarnManager& manager_;
  const std::string path_;
  const Options options_;

  std::mutex lock_;
  std::condition_variable news_;
  std::vector<CommitNote> pending_;  // under lock_, as all that follows
  std::size_t numPending_ = 0;       // objects in it, and commits
  bool isOverrun_ = false;           // there were too many
  bool hasBegun_ = false;
  bool stops_ = false;
  std::deque<TarnBranchChange> found_;
  std::exception_ptr failure_;

  std::thread thread_;
};

TarnBranchWatch::TarnBranchWatch(TarnManager& manager, TarnPathText path)
    : TarnBranchWatch(manager, path, Options()) {}

TarnBranchWatch::TarnBranchWatch(TarnManager& manager, TarnPathText path, const Options& options)
    : follower_(std::make_unique<Follower>(manager, path.view(), options)) {}

TarnBranchWatch::~TarnBranchWatch() = default;

std::optional<TarnBranchChange> TarnBranchWatch::next(std::chrono::milliseconds limit) {
  return follower_->next(limit);
}

void TarnBranchWatch::stop() { follower_->stop(); }

}  // namespace tarns
