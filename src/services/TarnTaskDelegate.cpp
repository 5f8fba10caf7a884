#include <tarns/services/TarnTaskDelegate.h>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace tarns {

namespace {

struct Known {
  std::uint64_t number;
  std::string type;
  TarnTaskDelegate::Maker maker;
};

// Registrations are static objects of any source file and library.
struct DelegateRegistry {
  std::mutex lock;
  std::uint64_t last = 0;
  std::vector<Known> known;  // those made later behind
};

DelegateRegistry& Delegates() {
  static auto* const registry = new DelegateRegistry;  // outlives the registrations
  return *registry;
}

TarnTaskDelegate::Maker MakerOf(std::string_view type) {
  DelegateRegistry& registry = Delegates();
  const std::lock_guard guard(registry.lock);
  const auto found = std::find_if(registry.known.rbegin(), registry.known.rend(),
                                  [type](const Known& one) { return one.type == type; });
  return found == registry.known.rend() ? nullptr : found->maker;
}

}  // namespace

TarnTaskDelegate::~TarnTaskDelegate() = default;

std::unique_ptr<TarnTaskDelegate> TarnTaskDelegate::Create(std::string_view type) {
  const Maker maker = MakerOf(type);
  return maker == nullptr ? nullptr : maker();
}

bool TarnTaskDelegate::IsKnown(std::string_view type) { return MakerOf(type) != nullptr; }

std::uint64_t TarnTaskDelegate::GetNumRegistrations() {
  DelegateRegistry& registry = Delegates();
  const std::lock_guard guard(registry.lock);
  return registry.last;
}

TarnTaskDelegateRegistration::TarnTaskDelegateRegistration(std::string type,
                                                           TarnTaskDelegate::Maker maker) {
  DelegateRegistry& registry = Delegates();
  const std::lock_guard guard(registry.lock);
  number_ = ++registry.last;
  registry.known.push_back({number_, std::move(type), maker});
}

TarnTaskDelegateRegistration::~TarnTaskDelegateRegistration() {
  DelegateRegistry& registry = Delegates();
  const std::lock_guard guard(registry.lock);
  std::erase_if(registry.known, [this](const Known& one) { return one.number == number_; });
}

TarnTaskRun::TarnTaskRun(TarnManager& manager, xcptref<TarnTask> task,
                         std::function<bool()> shouldStop)
    : manager_(manager),
      task_(std::move(task)),
      shouldStop_(std::move(shouldStop)),
      key_(task_->getRunKey()) {}

TarnRef TarnTaskRun::getArguments() const {
  return task_->getChildWithName(std::string_view(TarnTask::kArguments));
}

}  // namespace tarns
