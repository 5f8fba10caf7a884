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

// Bytes of all storages that are in use.
std::uint64_t UsedBytes(OpenDatabase& database) {
  std::uint64_t used = 0;
  for (std::uint64_t i = 0; i < database->getNumStorages(); ++i) {
    used += database->getStorageUsage(i);
  }
  return used;
}

// Collects; with a listing it only looks. Returns how far it has come.
goods::gc_progress Collect(OpenDatabase& database, GarbageListing* listing) {
  // Ends between two steps, each of which is whole.
  SignalWatch watch;
  goods::gc_progress last;
  goods::gc_options options;
  options.dry_run = listing != nullptr;
  if (listing != nullptr) {
    options.removes = [&](goods::object_id id, std::string_view name) { listing->add(id, name); };
  }
  {
    Progress progress("Collecting", 0, "objects in use");
    options.progress = [&](const goods::gc_progress& reached) {
      ThrowIfInterrupted();
      if (reached.is_removing && !options.dry_run) {
        progress.showLastStep("removing");
      } else {
        progress.show(0, reached.marked);
      }
      last = reached;
      return true;
    };
    database->startGarbageCollection(options);
  }
  watch.end();
  return last;
}

int ListGarbage(const Invocation& invocation) {
  OpenDatabase database(invocation);
  GarbageListing listing(invocation.format);
  const goods::gc_progress found = Collect(database, &listing);
  listing.finish();
  if (TalksToTerminal()) {
    std::fprintf(stderr, "%llu objects would be removed.\n",
                 static_cast<unsigned long long>(found.removed));
  }
  return ExitStatus::kDone;
}

int RemoveGarbage(const Invocation& invocation) {
  OpenDatabase database(invocation);
  const std::uint64_t before = UsedBytes(database);
  const goods::gc_progress done = Collect(database, nullptr);
  const std::uint64_t after = UsedBytes(database);
  const std::string removed = std::to_string(done.removed);
  const std::string stayed = std::to_string(done.stored - done.removed);
  const std::string freed = std::to_string(before > after ? before - after : 0);
  Output out;
  if (invocation.format == Format::kJson) {
    out << "{\"removed\": " << removed << ", \"stayed\": " << stayed << ", \"freed\": " << freed
        << "}\n";
  } else {
    out << "objects removed: " << removed << ", stayed: " << stayed << "; bytes freed: " << freed
        << '\n';
  }
  out.finish();
  return ExitStatus::kDone;
}

int Gc(const Invocation& invocation, bool isDryRun) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"gc has the formats table and json."};
  }
  return isDryRun ? ListGarbage(invocation) : RemoveGarbage(invocation);
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
