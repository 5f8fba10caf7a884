// Printing the children of a node for which a query holds.
#pragma once

#include <tarns/select/TarnQuery.h>

#include <cstddef>
#include <string>

#include "tools/Invocation.h"
#include "tools/OpenDatabase.h"

namespace tarns {

struct SelectionOptions {
  Format format = Format::kAutomatic;
  std::string after;  // a name to begin behind, unless empty
  std::size_t limit = 0;
  bool explains = false;  // tells on standard error what has been looked at
};

// Returns an ExitStatus. Throws 7 when there is no node at `path`, UsageError for Format::kTree.
int PrintSelection(OpenDatabase& database, const std::string& path, const xcptref<TarnQuery>& query,
                   const SelectionOptions& options);

}  // namespace tarns
