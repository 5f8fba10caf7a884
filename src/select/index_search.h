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

// Conditions one of which holds wherever a whole query does, each with an index that can be used.
using IndexPlan = std::vector<const QueryConditions::Condition*>;

// The plan that spares most: of what And joins the cheaper side, of what Or joins both. No
// conditions: the query holds nowhere. Nothing when there is no such plan, or when the transaction
// has changes of its own, which indexes do not know of.
std::optional<IndexPlan> PlanOf(goods::reader& reader, const TarnObjects& children,
                                const QueryConditions& conditions);

// The children for which one condition may hold, in the order of their names.
//
// Within one goods::cache_manager::read().
class IndexSearch {
 public:
  // The index of the condition's path must exist.
  IndexSearch(goods::reader& reader, const TarnObjects& children,
              const QueryConditions::Condition& condition);

  // Some of the candidates behind all that are called `after` (unless that is empty), always all of
  // one name: for Equal about `some`, for other operators all that there are. Nothing when names
  // are too long to be told apart by the index.
  bool collect(std::string_view after, std::size_t some, std::vector<IndexCandidate>& found);
  // Up to which name collect() has found all; nothing when it has reached the end.
  const std::optional<std::string>& completeUpTo() const { return lastComplete_; }
  // How many entries it has looked at.
  std::size_t looked() const { return looked_; }

 private:
  bool collectGroup(unsigned char group, std::string_view after, std::size_t some,
                    std::vector<IndexCandidate>& found);

  goods::reader& reader_;
  const goods::B_tree& tree_;
  const QueryConditions::Condition& condition_;
  std::size_t looked_ = 0;
  std::optional<std::string> lastComplete_;
};

// The same for all conditions of a plan: a child that several may hold for is there several times.
class PlanSearch {
 public:
  PlanSearch(goods::reader& reader, const TarnObjects& children, const IndexPlan& plan);
  bool collect(std::string_view after, std::size_t some, std::vector<IndexCandidate>& found);
  bool isAtEnd() const { return isAtEnd_; }
  std::size_t looked() const;

 private:
  std::vector<IndexSearch> searches_;
  bool isAtEnd_ = true;
};

// The names of all children whose value at `below` may equal `wanted`, as TarnData::compare() says,
// in their order, each once; nothing when no index tells.
std::optional<std::vector<std::string>> NamesOfEqual(goods::reader& reader,
                                                     const TarnObjects& children,
                                                     std::string_view below,
                                                     const TarnData& wanted);

}  // namespace tarns
