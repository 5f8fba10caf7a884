#include <goods/database.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

std::string ObjectText(goods::object_id id) {
  return std::to_string(goods::storage_of(id)) + ":" + std::to_string(goods::number_of(id));
}

// What would go: a table, or JSON.
class GarbageListing {
 public:
  explicit GarbageListing(Format format) : isJson_(format == Format::kJson) {}

  void add(goods::object_id id, std::string_view className) {
    isEmpty_ = false;
    if (!isJson_) return table_.add({ObjectText(id), Shown(className)});
    out_ << separator_ << "\n  {\"object\": \"" << ObjectText(id)
         << "\", \"class\": " << Quoted(className) << '}';
    separator_ = ",";
  }

  void finish() {
    if (isJson_) {
      out_ << (isEmpty_ ? "[" : "\n") << "]\n";
    } else if (!isEmpty_) {
      table_.finish();
    }
    out_.finish();
  }

 private:
  const bool isJson_;
  const char* separator_ = "[";
  bool isEmpty_ = true;
  Output out_;
  Listing table_{out_, {"OBJECT", "CLASS"}};
};

int Gc(const Invocation& invocation, bool isDryRun) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"gc has the formats table and json."};
  }
  OpenDatabase database(invocation);
  // Ends between two steps, each of which is whole.
  SignalWatch watch;
  GarbageListing listing(invocation.format);
  std::uint64_t removed = 0;
  goods::gc_options options;
  options.dry_run = isDryRun;
  if (isDryRun) {
    options.removes = [&](goods::object_id id, std::string_view name) { listing.add(id, name); };
  }
  {
    Progress progress("Collecting", 0, "objects in use");
    options.progress = [&](const goods::gc_progress& reached) {
      ThrowIfInterrupted();
      if (reached.is_removing && !isDryRun) {
        progress.showLastStep("removing");
      } else {
        progress.show(0, reached.marked);
      }
      removed = reached.removed;
      return true;
    };
    database->startGarbageCollection(options);
  }
  watch.end();
  if (isDryRun) listing.finish();
  if (TalksToTerminal()) {
    std::fprintf(stderr, "%llu objects %s.\n", static_cast<unsigned long long>(removed),
                 isDryRun ? "would be removed" : "were removed");
  }
  return ExitStatus::kDone;
}

}  // namespace

void AddGc(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "gc", "Remove the objects that no path leads to any more, and free their room",
      "tarns -d data gc", "tarns -d data gc --dry-run");
  auto isDryRun = std::make_shared<bool>(false);
  command.add_flag("--dry-run", *isDryRun, "List what would be removed, and leave it");
  command.callback([&invocation, isDryRun] {
    invocation.action = [&invocation, isDryRun] { return Gc(invocation, *isDryRun); };
  });
}

}  // namespace tarns
