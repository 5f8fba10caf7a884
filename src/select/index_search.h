// Finding children by their node's value indexes, see TarnValueIndex.
#pragma once

#include <goods/reader.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObjects.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "select/QueryConditions.h"

namespace tarns {

// A child that a condition may hold for.
struct IndexCandidate {
  std::string name;
  goods::ref_word child;
  bool isCertain = false;  // the condition holds
};

// The children for which one condition may hold, in the order of their names.
//
// Within one goods::cache_manager::read().
class IndexSearch {
 public:
  // The condition of `conditions` that an index of `children` helps most with: of those without
  // which the whole cannot hold. Null when there is none, or the transaction has changes of its
  // own, which indexes do not know of.
  static const QueryConditions::Condition* Choose(goods::reader& reader,
                                                  const TarnObjects& children,
                                                  const QueryConditions& conditions);

  // The index of the condition's path must exist.
  IndexSearch(goods::reader& reader, const TarnObjects& children,
              const QueryConditions::Condition& condition);

  // Some of the candidates behind all that are called `after` (unless that is empty), always all of
  // one name: for Equal about `some`, for other operators all that there are. Nothing when names
  // are too long to be told apart by the index.
  bool collect(std::string_view after, std::size_t some, std::vector<IndexCandidate>& found);
  // Whether collect() has reached the end, and how many entries it has looked at.
  bool isAtEnd() const { return isAtEnd_; }
  std::size_t looked() const { return looked_; }

 private:
  bool collectGroup(unsigned char group, std::string_view after, std::size_t some,
                    std::vector<IndexCandidate>& found);

  goods::reader& reader_;
  const goods::B_tree& tree_;
  const QueryConditions::Condition& condition_;
  bool isAtEnd_ = true;
  std::size_t looked_ = 0;
  std::optional<std::string> lastComplete_;  // where there is more: up to which name all is found
};

// The names of all children whose value at `below` may equal `wanted`, as TarnData::compare() says,
// in their order, each once; nothing when no index tells.
std::optional<std::vector<std::string>> NamesOfEqual(goods::reader& reader,
                                                     const TarnObjects& children,
                                                     std::string_view below,
                                                     const TarnData& wanted);

}  // namespace tarns
