#include <tarns/select/TarnQuery.h>

#include <limits>
#include <memory>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/selection_command.h"
#include "tools/shown_text.h"
#include "tools/where_clause.h"

namespace tarns {

namespace {

struct QueryOptions {
  std::string query;  // the path of the TarnQuery
  std::string conditions;
  std::string path;
  std::string after;
  bool explains = false;
  std::size_t limit = std::numeric_limits<std::size_t>::max();
};

xcptref<TarnQuery> QueryAt(OpenDatabase& database, const std::string& path) {
  const TarnRef node = database.node(path);
  if (node.isA<TarnQuery>()) return xcptref<TarnQuery>(node);
  throw UsageError{"\"" + path + "\" is no query; `tarns query save` makes one."};
}

int Save(const Invocation& invocation, const QueryOptions& options) {
  const xcptref<TarnQuery> query = ParseWhere(options.conditions);
  OpenDatabase database(invocation);
  const TarnRef there = database->getObject(options.query);
  if (!there.is_null() && !there.isA<TarnQuery>()) {
    throw UsageError{"\"" + options.query + "\" is no query, and is not replaced by one."};
  }
  database->set(options.query, TarnRef(query));
  return ExitStatus::kDone;
}

int Show(const Invocation& invocation, const QueryOptions& options) {
  OpenDatabase database(invocation);
  Output out;
  const std::string text = WhereOf(*QueryAt(database, options.query).read());
  out << (invocation.format == Format::kRaw ? text : Shown(text)) << '\n';
  out.finish();
  return ExitStatus::kDone;
}

int RunQuery(const Invocation& invocation, const QueryOptions& options) {
  OpenDatabase database(invocation);
  return PrintSelection(database, options.path, QueryAt(database, options.query),
                        {invocation.format, options.after, options.limit, options.explains});
}

}  // namespace

void AddQuery(CLI::App& app, Invocation& invocation) {
  CLI::App& command =
      AddCommand(app, "query", "Keep conditions in the tree, and print the children they hold for",
                 "tarns -d data query save queries~libs 'Section = libs and Size > 1000'",
                 "tarns -d data query run queries~libs packages --limit 5");
  command.require_subcommand(1);
  auto options = std::make_shared<QueryOptions>();
  const auto add = [&](const char* name, const char* text,
                       int (*run)(const Invocation&, const QueryOptions&)) {
    CLI::App* const one = command.add_subcommand(name, text);
    one->add_option("QUERY", options->query, "The path of the query")->required();
    one->callback([&invocation, options, run] {
      invocation.action = [&invocation, options, run] { return run(invocation, *options); };
    });
    return one;
  };
  add("save", "Store conditions", Save)
      ->add_option("CONDITIONS", options->conditions, "As those of find --where")
      ->required();
  CLI::App* const run = add("run", "Print the children of PATH for which a query holds", RunQuery);
  run->add_option("PATH", options->path, "The node whose children are looked at");
  run->add_option("--after", options->after, "Begin behind the children of this name")
      ->type_name("NAME");
  run->add_flag("--explain", options->explains, "Tell how many children were looked at");
  run->add_option("--limit", options->limit, "Stop after so many")->check(CLI::NonNegativeNumber);
  add("show", "Print the conditions of a query", Show);
}

}  // namespace tarns
