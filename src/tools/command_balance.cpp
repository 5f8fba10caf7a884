#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <algorithm>
#include <memory>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/signals.h"

namespace tarns {

// Is touched with every child that is moved: shows how far it is, and ends the work on a signal.
class BalanceProgress : public TarnObject {
  TARN_CLASS(BalanceProgress, TarnObject)

 public:
  void touch() override {
    ThrowIfInterrupted();
    if (progress_ != nullptr) progress_->show(std::min(moved_, total_), moved_);
    ++moved_;
  }
  void showWith(Progress* progress, std::uint64_t total) {
    progress_ = progress;
    total_ = total;
  }

 private:
  Progress* progress_ = nullptr;
  std::uint64_t moved_ = 0, total_ = 0;
};
TARN_REGISTER(BalanceProgress, TarnObject);

namespace {

// The node whose children are to be moved: of a collection that an earlier call has left, the old
// one. Throws for what a collection does not replace.
TarnRef NodeToEmpty(const TarnRef& node, const std::string& path) {
  if (node->isOfType(TarnObject::GetType())) return node;
  if (!node.isA<TarnCollection>()) {
    throw UsageError{"balance takes plain nodes and collections; \"" + path + "\" is a " +
                     node->getType() + "."};
  }
  TarnRef old = xcptref<TarnCollection>(node)->getOld();
  return old.is_null() ? node : old;
}

int Balance(const Invocation& invocation, const std::string& path) {
  if (invocation.format != Format::kAutomatic) throw UsageError{"balance has no --format."};
  if (path.empty()) throw UsageError{"The root cannot be balanced: a node takes its place."};
  OpenDatabase database(invocation);
  const TarnRef node = database.node(path);
  const TarnRef parent = database.node(std::string(TarnBranches::ParentOf(path)));
  const std::string name(TarnBranches::LastOf(path));
  {
    const std::uint64_t total = NodeToEmpty(node, path)->getNumAbstractChildren();
    SignalWatch watch;
    Progress progress("Balancing", total, "children");
    const auto steps = BalanceProgress::Create();
    modify(steps)->showWith(&progress, total);
    TarnCollection::Balance(*database, parent, name.c_str(), steps);
  }
  const xcptref<TarnCollection> collection(database.node(path));
  Output out;
  out << std::to_string(collection->getNumChildren()) << " children, height "
      << std::to_string(collection->getHeight()) << '\n';
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddBalance(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "balance", "Make the index of a node with very many children anew; may be interrupted",
      "tarns -d data balance packages", "tarns -d data balance machines~spares");
  auto path = std::make_shared<std::string>();
  command.add_option("PATH", *path, "The node; a collection takes its place")->required();
  command.callback([&invocation, path] {
    invocation.action = [&invocation, path] { return Balance(invocation, *path); };
  });
}

}  // namespace tarns
