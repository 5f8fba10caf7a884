#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>

#include <cstdio>
#include <memory>
#include <optional>

#include "tools/Invocation.h"
#include "tools/JsonImporter.h"
#include "tools/OpenDatabase.h"
#include "tools/Progress.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct ImportOptions {
  std::string file;
  std::string path;
  std::uint64_t batch = 0;  // values per transaction; 0: all in one
};

// The import's transaction, or one after the other when batches are wanted.
class Batches {
 public:
  Batches(TarnManager& manager, std::uint64_t size) : manager_(manager), size_(size) {
    transaction_.emplace(manager_);
  }

  void countTo(std::uint64_t count) {
    if (size_ == 0 || count % size_ != 0) return;
    finish();
    kept_ = count;
    transaction_.emplace(manager_);
  }
  void finish() {
    transaction_->commit();
    transaction_.reset();
  }
  std::uint64_t getKept() const { return kept_; }  // values that are stored whatever happens

 private:
  TarnManager& manager_;
  std::uint64_t size_;
  std::uint64_t kept_ = 0;
  std::optional<TarnTransaction> transaction_;
};

// `isKnown`: false when the outcome of a commit is not.
void SayWhatWasKept(std::uint64_t kept, bool isKnown) {
  if (!isKnown) {
    std::fputs("tarns: It is not known how much was imported.\n", stderr);
  } else if (kept == 0) {
    std::fputs("tarns: Nothing was imported.\n", stderr);
  } else {
    std::fprintf(stderr, "tarns: The first %llu values were imported.\n",
                 static_cast<unsigned long long>(kept));
  }
}

int Import(const Invocation& invocation, const ImportOptions& options) {
  JsonInput input(options.file);
  OpenDatabase database(invocation);
  std::uint64_t kept = 0;
  try {
    SignalWatch watch;  // to say what was kept
    Progress progress("Importing", input.getSize());
    Batches batches(*database, options.batch);
    JsonImporter importer(*database, input, [&](std::uint64_t count) {
      batches.countTo(count);
      kept = batches.getKept();
      progress.show(input.getPosition(), count);
    });
    importer.read(options.path);
    watch.end();
    progress.showLastStep("storing");
    batches.finish();
  } catch (const TarnException& error) {
    SayWhatWasKept(kept, error.getErrorID() != ErrorID::OutcomeUnknown);
    if (error.getErrorID() == ErrorID::StorageFull && options.batch == 0) {
      std::fputs("tarns: Where one transaction takes too much memory, --batch N makes several.\n",
                 stderr);
    }
    throw;
  } catch (...) {
    SayWhatWasKept(kept, true);
    throw;
  }
  return ExitStatus::kDone;
}

}  // namespace

void AddImport(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "import",
      "Read JSON into a branch: objects are merged into the nodes that are there, everything else "
      "replaces. The whole is one transaction",
      "tarns -d data import machines.json machines",
      "zcat all.gz | tarns -d data import - packages --batch 100000");
  auto options = std::make_shared<ImportOptions>();
  command.add_option("FILE", options->file, "The JSON; - is standard input")->required();
  command.add_option("PATH", options->path, "Where to; without it the root");
  command
      .add_option("--batch", options->batch,
                  "Commit after each so many values: needs less memory, but is not undone as a "
                  "whole when something fails")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber);
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Import(invocation, *options); };
  });
}

}  // namespace tarns
