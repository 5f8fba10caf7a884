#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Output.h"
#include "tools/node_view.h"

namespace tarns {

// Rows of columns under a heading (none when it is empty), for people. Keeps a number of rows back
// to find the widths of the columns, then writes as it goes. The last column is cut at the end of
// the terminal's line.
class Listing {
 public:
  Listing(Output& out, std::vector<std::string> heading);

  void add(std::vector<std::string> row);  // texts as Shown() returns them
  void finish();

 private:
  static constexpr std::size_t kRowsToMeasure = 500;

  void write(const std::vector<std::string>& row);

  Output& out_;
  std::vector<std::vector<std::string>> rows_;
  std::vector<std::size_t> widths_;
  bool isMeasured_ = false;
};

// What a listing says of a node: its value's type, or its class when it is not a plain node; and
// its value, or how many children it has.
std::string TypeOf(const NodeView& view);
std::string SummaryOf(const NodeView& view);  // as Shown() returns it

}  // namespace tarns
