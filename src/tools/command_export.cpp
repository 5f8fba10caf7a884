#include <tarns/core/TarnException.h>

#include <memory>
#include <optional>

#include "tools/Invocation.h"
#include "tools/JsonWriter.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/branch_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

struct ExportOptions {
  std::string path;
  std::string file = "-";
  std::string format;  // "json", "text" or empty
};

// A file given alone is taken for the branch.
[[noreturn]] void ThrowNothingAt(const ExportOptions& options) {
  const std::string& path = options.path;
  const bool mayBeFile = options.file == "-" && path.find_first_of("./") != std::string::npos;
  if (!mayBeFile) TarnException::ThrowNonExistentPath(path.c_str());
  TarnException error;
  error << "The specified path \"" << path
        << "\" does not exist. The branch comes before the file; everything is \"\": tarns export "
           "\"\" FILE";
  error.setErrorID(ErrorID::NonExistentPath);
  throw error;
}

void ExportText(const TarnRef& node, Output& output, Progress* progress) {
  std::uint64_t written = 0;
  PInOut out;
  out.writeTo([&](std::string_view bytes) {
    ThrowIfInterrupted();
    output << bytes;
    written += bytes.size();
    if (progress != nullptr) progress->show(0, written / 1024);
    return true;
  });
  node->exportTo(out);
  out.close();
}

void ExportJson(const TarnRef& node, Output& output, Progress* progress) {
  JsonWriter(output, [&](std::uint64_t count) {
    if (progress != nullptr) progress->show(0, count);
  }).write(node);
}

int Export(const Invocation& invocation, const ExportOptions& options) {
  const BranchForm form = FormFor(options.format, options.file);
  OpenDatabase database(invocation);
  const TarnRef node = database->getObject(options.path);
  if (node.is_null()) ThrowNothingAt(options);
  const bool isText = form == BranchForm::kText;
  Output out(options.file);
  std::optional<Progress> progress;
  if (!out.isTerminal()) progress.emplace("Exporting", 0, isText ? Progress::kKibibytes : "values");
  (isText ? ExportText : ExportJson)(node, out, progress ? &*progress : nullptr);
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddExport(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "export", "Write a branch as JSON or as text, from which import makes it again",
      "tarns -d data export machines machines.json", "tarns -d data export \"\" all.txt.zst");
  auto options = std::make_shared<ExportOptions>();
  command.add_option("PATH", options->path, "The branch; without it everything");
  command.add_option("FILE", options->file,
                     "The file, which appears when it is complete; - is standard output "
                     "(default). Names that end with .txt or .tarns are text, others JSON; with "
                     ".zst behind that compressed");
  command.add_option("--format", options->format, "json or text, whatever the file is called")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"json", "text"}).description(""));
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Export(invocation, *options); };
  });
}

}  // namespace tarns
