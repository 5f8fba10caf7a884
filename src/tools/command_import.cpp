#include <tarns/core/TarnException.h>
#include <tarns/session/TarnTransaction.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>

#include "tools/BranchPlacer.h"
#include "tools/InputFile.h"
#include "tools/Invocation.h"
#include "tools/JsonImporter.h"
#include "tools/OpenDatabase.h"
#include "tools/Progress.h"
#include "tools/branch_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct ImportOptions {
  std::string file;
  std::string path;
  std::uint64_t batch = 0;  // values (of text: nodes) per transaction; 0: all in one
  std::uint64_t skip = 0;   // nodes of a text that an earlier run has imported
  std::string format;       // "json", "text" or empty
  bool merges = false;      // which is what happens without as well
  bool replaces = false;
  bool isDryRun = false;
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
  void undo() {
    transaction_->rollback();
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
void SayWhatWasKept(std::uint64_t kept, bool isKnown, const char* unit = "values") {
  if (!isKnown) {
    std::fputs("tarns: It is not known how much was imported.\n", stderr);
  } else if (kept == 0) {
    std::fputs("tarns: Nothing was imported.\n", stderr);
  } else {
    std::fprintf(stderr, "tarns: The first %llu %s were imported.\n",
                 static_cast<unsigned long long>(kept), unit);
  }
}

class ImportProgress : public XProgressReporter {
 public:
  explicit ImportProgress(const InputFile& input)
      : input_(input), progress_("Importing", input.getSize(), Progress::kKibibytes) {}
  void reportProgress(std::uint64_t, std::uint64_t) override {
    ThrowIfInterrupted();
    progress_.show(input_.getPosition(), input_.getPosition() / 1024);
  }

 private:
  const InputFile& input_;
  Progress progress_;
};

// What is kept when a part fails can be passed over by the next run.
void PlaceInBatches(TarnManager& manager, const TarnRef& node, const ImportOptions& options) {
  std::uint64_t kept = options.skip;
  const auto say = [&kept](bool isKnown) {
    SayWhatWasKept(kept, isKnown, "nodes");
    if (kept == 0 || !isKnown) return;
    std::fprintf(stderr, "tarns: With --skip %llu the others can be imported.\n",
                 static_cast<unsigned long long>(kept));
  };
  try {
    SignalWatch watch;
    Batches batches(manager, options.batch);
    BranchPlacer::Options placing{.isNodeByNode = true, .skip = options.skip};
    placing.placed = [&](std::uint64_t count) {
      batches.countTo(count);
      kept = std::max(kept, batches.getKept());
    };
    BranchPlacer(manager, placing).place(options.path, node);
    watch.end();
    batches.finish();
  } catch (const TarnException& error) {
    say(error.getErrorID() != ErrorID::OutcomeUnknown);
    throw;
  } catch (...) {
    say(true);
    throw;
  }
}

// Calls read(PInOut&).
template <class Read>
auto ReadWithProgress(InputFile& input, const Read& read) {
  ImportProgress progress(input);
  PInOut in;
  in.reportProgressTo(&progress);
  in.readFrom([&](char* into, std::size_t size) { return input.read(into, size); });
  return read(in);
}

// Whether the text becomes the branch at the path, and nothing is merged.
bool TakesPlace(const TarnManager& manager, const ImportOptions& options) {
  if (options.batch != 0 || options.isDryRun || options.path.empty()) return false;
  return options.replaces || manager.getObject(options.path).is_null();
}

int ImportText(const Invocation& invocation, const ImportOptions& options) {
  InputFile input(options.file);
  OpenDatabase database(invocation);
  if (TakesPlace(*database, options)) {
    ReadWithProgress(input, [&](PInOut& in) { ImportKnownTo(*database, options.path, in); });
    return ExitStatus::kDone;
  }
  const TarnRef node =
      ReadWithProgress(input, [&](PInOut& in) { return ImportKnown(*database, in); });
  if (options.batch != 0) {
    PlaceInBatches(*database, node, options);
    return ExitStatus::kDone;
  }
  TarnTransaction transaction(*database);
  const std::string before = options.isDryRun ? TextAt(*database, options.path) : std::string();
  PlaceBranch(*database, options.path, node, options.replaces);
  if (options.isDryRun) {
    PrintChanges(*database, options.path, before);
    transaction.rollback();
  } else {
    transaction.commit();
  }
  return ExitStatus::kDone;
}

void Verify(const ImportOptions& options, BranchForm form) {
  const bool isJson = form == BranchForm::kJson;
  if ((options.isDryRun || options.replaces) && options.batch != 0) {
    throw UsageError{"--batch goes with neither --dry-run nor --replace"};
  }
  if (options.skip != 0 && (isJson || options.batch == 0)) {
    throw UsageError{"--skip goes with text and --batch"};
  }
  if (options.merges && options.replaces)
    throw UsageError{"--merge and --replace exclude each other"};
}

int Import(const Invocation& invocation, const ImportOptions& options) {
  const BranchForm form = FormFor(options.format, options.file);
  Verify(options, form);
  if (form == BranchForm::kText) return ImportText(invocation, options);
  JsonInput input(options.file);
  OpenDatabase database(invocation);
  std::uint64_t kept = 0;
  try {
    SignalWatch watch;  // to say what was kept
    const InputFile& file = input.getFile();
    Progress progress("Importing", file.getSize());
    Batches batches(*database, options.batch);
    const std::string before = options.isDryRun ? TextAt(*database, options.path) : std::string();
    if (options.replaces) RemoveBranch(*database, options.path);
    JsonImporter importer(*database, input, [&](std::uint64_t count) {
      batches.countTo(count);
      kept = batches.getKept();
      progress.show(file.getPosition(), count);
    });
    importer.read(options.path);
    watch.end();
    if (options.isDryRun) {
      PrintChanges(*database, options.path, before);
      batches.undo();
      return ExitStatus::kDone;
    }
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
      "Read JSON or text into a branch: nodes are merged into the nodes that are there, everything "
      "else replaces. The whole is one transaction",
      "tarns -d data import machines.txt machines --dry-run",
      "zcat all.gz | tarns -d data import - packages --batch 100000");
  auto options = std::make_shared<ImportOptions>();
  command
      .add_option("FILE", options->file,
                  "The file; - is standard input. Names that end with .txt or .tarns are text, "
                  "others JSON; "
                  "with .zst behind that compressed")
      ->required();
  command.add_option("PATH", options->path, "Where to; without it the root");
  command
      .add_option(
          "--batch", options->batch,
          "Commit after each so many values (of text: nodes): small transactions, but not undone "
          "as a whole when something fails")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber);
  command
      .add_option(
          "--skip", options->skip,
          "Of text: pass over the first N nodes, which an earlier run with --batch imported")
      ->type_name("N")
      ->check(CLI::NonNegativeNumber);
  command.add_option("--format", options->format, "json or text, whatever the file is called")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"json", "text"}).description(""));
  command.add_flag("--merge", options->merges, "Merge into what is there, which is the default");
  command.add_flag("--replace", options->replaces, "Remove first what is there");
  command.add_flag("--dry-run", options->isDryRun,
                   "Change nothing, and print the lines of the text form that would go and come");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Import(invocation, *options); };
  });
}

}  // namespace tarns
