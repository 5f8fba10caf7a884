#include <tarns/core/TarnException.h>

#include <memory>
#include <optional>

#include "tools/Invocation.h"
#include "tools/JsonWriter.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"
#include "tools/TextFile.h"

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

void ExportText(const TarnRef& node, const std::string& file) {
  TextOutput output(file);
  PInOut out;
  out.writeTo(output.sink());
  node->exportTo(out);
  out.close();
  output.finish();
}

int Export(const Invocation& invocation, const ExportOptions& options) {
  const BranchForm form = FormFor(options.format, options.file);
  if (form == BranchForm::kJson && IsCompressed(options.file)) {
    throw UsageError{"Only the text form is compressed: name the file .txt.zst"};
  }
  OpenDatabase database(invocation);
  const TarnRef node = database->getObject(options.path);
  if (node.is_null()) ThrowNothingAt(options);
  if (form == BranchForm::kText) {
    ExportText(node, options.file);
    return ExitStatus::kDone;
  }
  Output out(options.file);
  std::optional<Progress> progress;
  if (!out.isTerminal()) progress.emplace("Exporting", 0);
  JsonWriter(out, [&](std::uint64_t count) {
    if (progress) progress->show(0, count);
  }).write(node);
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
                     "(default). Names that end with .txt or .tarns are text, with .zst behind "
                     "that compressed");
  command.add_option("--format", options->format, "json or text, whatever the file is called")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"json", "text"}).description(""));
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Export(invocation, *options); };
  });
}

}  // namespace tarns
