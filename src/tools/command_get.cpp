#include <tarns/core/TarnException.h>

#include <memory>
#include <vector>

#include "tools/Invocation.h"
#include "tools/JsonWriter.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/shown_text.h"
#include "tools/tree_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

std::string ValueAt(OpenDatabase& database, const std::string& path) {
  const auto value = database->valueAt(path);
  if (value) return ValueText(*value);
  database.node(path);  // says so when nothing at all is there
  TarnException::ThrowNonExistentValue(path.c_str());
}

void WriteTable(OpenDatabase& database, Output& out, const std::vector<std::string>& paths) {
  Listing listing(out, {"PATH", "TYPE", "VALUE"});
  for (const std::string& path : paths) {
    const auto value = database->valueAt(path);
    if (!value) TarnException::ThrowNonExistentValue(path.c_str());
    listing.add({Shown(path), value->getTypeAsString(), Shown(ValueText(*value))});
  }
  listing.finish();
}

void WriteOne(OpenDatabase& database, Output& out, const std::string& path, Format format) {
  switch (format) {
    case Format::kJson:
      JsonWriter(out).write(database.node(path));
      break;
    case Format::kTree:
      WriteTree(out, path, database.node(path), kUsualDepth);
      break;
    case Format::kRaw:
      out << ValueAt(database, path);
      break;
    default: {
      const std::string value = ValueAt(database, path);
      out << (out.isTerminal() ? ShownInFull(value) : value) << '\n';
    }
  }
}

int Get(const Invocation& invocation, const std::vector<std::string>& paths) {
  OpenDatabase database(invocation);
  Output out;
  if (invocation.format == Format::kTable) {
    WriteTable(database, out, paths);
  } else {
    for (const std::string& path : paths) WriteOne(database, out, path, invocation.format);
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddGet(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "get", "Print the values at paths", "tarns -d data get machines~press~speed",
                 "tarns -d data --format raw get machines~press~manual > manual.txt");
  auto paths = std::make_shared<std::vector<std::string>>();
  command.add_option("PATH", *paths, "Where the values are")->required();
  command.callback([&invocation, paths] {
    invocation.action = [&invocation, paths] { return Get(invocation, *paths); };
  });
}

}  // namespace tarns
