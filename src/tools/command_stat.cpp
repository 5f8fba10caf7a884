#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/json_names.h"
#include "tools/json_values.h"
#include "tools/shown_text.h"
#include "tools/value_text.h"

namespace tarns {

namespace {

using Facts = std::vector<std::pair<std::string, TarnData>>;

Facts FactsOfDatabase(OpenDatabase& database) {
  Facts facts;
  facts.emplace_back("configuration", database->getDBconfigFilePath());
  const std::uint64_t count = database->getNumStorages();
  facts.emplace_back("storages", count);
  for (std::uint64_t i = 0; i < count; ++i) {
    facts.emplace_back("used bytes of storage " + std::to_string(i), database->getStorageUsage(i));
  }
  facts.emplace_back("children of the root", std::uint64_t{database->getNumChildren("")});
  return facts;
}

Facts FactsOfNode(OpenDatabase& database, const std::string& path) {
  const TarnRef node = database.node(path);
  const NodeView view(node);
  const std::uint64_t id = TarnObject::GetObjectID(node);
  Facts facts;
  facts.emplace_back("path", path);
  facts.emplace_back("class", view.className);
  facts.emplace_back("object", std::to_string(id >> 32) + ":" + std::to_string(id & 0xFFFFFFFF));
  facts.emplace_back("children", std::uint64_t{view.numChildren});
  if (view.value) {
    facts.emplace_back("type", view.value->getTypeAsString());
    facts.emplace_back("value", *view.value);
  }
  return facts;
}

void WriteJson(Output& out, const Facts& facts) {
  const char* separator = "{";
  for (const auto& [name, value] : facts) {
    const bool isNumber = value.isInteger();
    out << separator << "\n  " << Quoted(name) << ": "
        << (isNumber ? ValueText(value) : JsonOfValue(value));
    separator = ",";
  }
  out << "\n}\n";
}

void WriteTable(Output& out, const Facts& facts) {
  Listing listing(out, {});
  for (const auto& [name, value] : facts) {
    listing.add({name + ":", Shown(ValueText(value))});
  }
  listing.finish();
}

int Stat(const Invocation& invocation, const std::optional<std::string>& path) {
  if (invocation.format == Format::kTree || invocation.format == Format::kRaw) {
    throw UsageError{"stat has the formats table and json."};
  }
  OpenDatabase database(invocation);
  const Facts facts = path ? FactsOfNode(database, *path) : FactsOfDatabase(database);
  Output out;
  if (invocation.format == Format::kJson) {
    WriteJson(out, facts);
  } else {
    WriteTable(out, facts);
  }
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddStat(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(app, "stat", "Tell about the database or about one node",
                                 "tarns -d data stat", "tarns -d data stat machines~press");
  auto path = std::make_shared<std::optional<std::string>>();
  command.add_option("PATH", *path, "The node; without it the database");
  command.callback([&invocation, path] {
    invocation.action = [&invocation, path] { return Stat(invocation, *path); };
  });
}

}  // namespace tarns
