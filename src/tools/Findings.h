#pragma once

#include <cstddef>
#include <string>

#include "tools/Invocation.h"
#include "tools/Listing.h"
#include "tools/Output.h"
#include "tools/node_view.h"

namespace tarns {

// Writes what was found one by one, in the format wanted, which is not tree.
class Findings {
 public:
  Findings(Output& out, Format format);

  void add(const std::string& path, const NodeView& view);
  // How many there were.
  std::size_t finish();

 private:
  Output& out_;
  const Format format_;
  Listing listing_;
  std::size_t count_ = 0;
};

}  // namespace tarns
