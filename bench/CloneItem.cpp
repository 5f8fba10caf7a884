// Copying a branch against loading it: tarns alone.
#include <fmt/format.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/schema/TarnCloner.h>
#include <tarns/session/TarnAttachment.h>

#include <functional>

#include "Bench.h"
#include "Machine.h"
#include "TarnsStore.h"

namespace tarns::bench {
namespace {

constexpr const char* kCopy = "copy";

// Goes through both branches side by side.
void CheckCopy(TarnManager& manager, std::size_t values) {
  TarnBranchWalk original(manager.getObject(kPackages)), copy(manager.getObject(kCopy));
  std::size_t found = 0;
  while (const TarnBranchWalk::Step* const wanted = original.next()) {
    const TarnBranchWalk::Step* const made = copy.next();
    Verify(made != nullptr && made->name == wanted->name && made->depth == wanted->depth &&
               made->cls == wanted->cls && made->hasValue == wanted->hasValue &&
               made->value.compare(wanted->value) == 0 && made->lister.is_null() &&
               made->node.id() != wanted->node.id(),
           kPeer, fmt::format("the copy of \"{}\"", original.path()));
    found += made->hasValue ? 1 : 0;
  }
  Verify(copy.next() == nullptr, kPeer, "the copy has more than its original");
  Verify(found == values, kPeer, fmt::format("{} values in the copy", found));
}

double CopiedPerSecond(TarnManager& manager, std::size_t values,
                       const std::function<void()>& copy) {
  const Stopwatch watch;
  copy();
  const double seconds = watch.seconds();
  CheckCopy(manager, values);
  manager.deleteBranch(kCopy);
  return static_cast<double>(values) / seconds;
}

}  // namespace

void Bench::clone() {
  TarnsStore store(optionsOf(kPeer));
  TarnManager& manager = store.manager();
  const TarnAttachment attachment(manager);
  std::size_t values = 0;
  for (const TarnBranchWalk::Step& step : TarnBranchWalk(manager.getObject(kPackages))) {
    values += step.hasValue ? 1 : 0;
  }
  const double batches = CopiedPerSecond(
      manager, values, [&] { manager.copyBranch(kPackages, kCopy, TarnCloneOptions{}); });
  report_.add({"copy of the branch, in batches",
               "values/s",
               {{kPeer, batches}},
               Target{Target::kAtLeast, 0.7, "", loaded_, "loading it"}});
  const double whole =
      CopiedPerSecond(manager, values, [&] { manager.copyBranch(kPackages, kCopy); });
  report_.add({"the same in one transaction",
               "values/s",
               {{kPeer, whole}},
               Target{Target::kAtLeast, 0.7, "", loaded_, "loading it"}});
}

}  // namespace tarns::bench
