#include <goods/database.h>
#include <tarns/core/TarnException.h>

#include <memory>
#include <optional>
#include <string>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/json_names.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

// What a finding is about, as "machines~press (object 0:65600, TarnObject)".
std::string SubjectOf(const goods::check_finding& finding) {
  if (finding.id == 0) return "storage " + std::to_string(finding.storage);
  if (finding.last != finding.id) {
    return "objects " + ObjectText(finding.id) + " to " + ObjectText(finding.last);
  }
  std::string object = "object " + ObjectText(finding.id);
  if (!finding.class_name.empty()) object += ", " + ShownInFull(finding.class_name);
  if (finding.path.empty()) return object;
  return ShownInFull(finding.path) + " (" + object + ")";
}

// A line for each finding, or JSON, as they are found.
class FindingList {
 public:
  explicit FindingList(Format format) : isJson_(format == Format::kJson) {}

  void add(const goods::check_finding& finding) {
    ++count_;
    if (!isJson_) {
      out_ << SubjectOf(finding) << ": " << ShownInFull(finding.text) << '\n';
    } else {
      out_ << (count_ == 1 ? "[" : ",") << "\n  {\"storage\": " << std::to_string(finding.storage);
      if (finding.id != 0) {
        out_ << ", \"object\": \"" << ObjectText(finding.id) << "\", \"last\": \""
             << ObjectText(finding.last) << '"';
      }
      out_ << ", \"path\": " << Quoted(finding.path)
           << ", \"class\": " << Quoted(finding.class_name)
           << ", \"text\": " << Quoted(finding.text) << '}';
    }
    if (out_.isTerminal()) out_.flush();
  }

  // `summary`: for people.
  void finish(const std::string& summary) {
    if (isJson_) {
      out_ << (count_ == 0 ? "[" : "\n") << "]\n";
    } else {
      out_ << summary << '\n';
    }
    out_.finish();
  }

  int status() const { return count_ == 0 ? ExitStatus::kDone : ExitStatus::kFindings; }

 private:
  const bool isJson_;
  std::uint64_t count_ = 0;
  Output out_;
};

std::string Counted(std::uint64_t number, const char* one, const char* several) {
  return std::to_string(number) + ' ' + (number == 1 ? one : several);
}

std::string SummaryOf(const goods::check_result& result, bool isFull) {
  const std::string faults = Counted(result.faults, "fault", "faults");
  if (!isFull) return faults + "; the objects were not looked at (--full does)";
  return faults + " in " + Counted(result.objects, "object", "objects") + "; " +
         Counted(result.unreachable, "object is", "objects are") +
         " in no branch any more (gc removes them)";
}

// What cannot be opened because it is damaged has one finding.
std::unique_ptr<OpenDatabase> Open(const Invocation& invocation, FindingList& findings) {
  try {
    return std::make_unique<OpenDatabase>(invocation);
  } catch (const TarnException& error) {
    if (error.getErrorID() != ErrorID::CorruptData) throw;
    goods::check_finding finding;
    finding.text = error.getError();
    findings.add(finding);
    return nullptr;
  }
}

int Check(const Invocation& invocation, bool isFull) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"check has the formats table and json."};
  }
  FindingList findings(invocation.format);
  const auto database = Open(invocation, findings);
  if (database == nullptr) {
    findings.finish("The database cannot be opened (salvage writes out what can be read)");
    return findings.status();
  }
  SignalWatch watch;
  goods::check_options options;
  options.full = isFull;
  goods::check_result result;
  {
    Progress progress("Checking", 0, "objects");
    options.progress = [&](const goods::check_progress& reached) {
      ThrowIfInterrupted();
      progress.show(0, reached.checked != 0 ? reached.checked : reached.read);
      return true;
    };
    options.found = [&](const goods::check_finding& finding) { findings.add(finding); };
    result = (*database)->check(options);
  }
  watch.end();
  findings.finish(SummaryOf(result, isFull));
  return findings.status();
}

}  // namespace

void AddCheck(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "check", "Look for damage; the exit status is 4 when there is any",
                 "tarns -d data check", "tarns -d data check --full");
  auto isFull = std::make_shared<bool>(false);
  command.add_flag("--full", *isFull, "Read everything, and compare all objects with each other");
  command.callback([&invocation, isFull] {
    invocation.action = [&invocation, isFull] { return Check(invocation, *isFull); };
  });
}

}  // namespace tarns
