// The dependencies between transactions of a history, and circles in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

// Which of two transactions must have come first, and why.
enum class dependency : std::uint8_t {
  write_write = 1,  // the second one wrote what followed the first one's state
  write_read = 2,   // the second one read what the first one wrote
  read_write = 4,   // the second one overwrote what the first one read
  real_time = 8,    // the first one had ended before the second one began
};

// Transactions are numbers from 0. "Had ended before" would be an edge for nearly every pair; the
// edges lead through a chain of the moments at which transactions ended instead.
class history_graph {
 public:
  struct edge {
    std::size_t to = 0;
    dependency why = dependency::real_time;
    std::size_t note = 0;  // the caller's own
  };
  struct circle {
    std::vector<std::size_t> transactions;  // each depends on the one before, the first on the last
    std::vector<edge> edges;                // edges[i] leaves transactions[i]
  };

  explicit history_graph(std::size_t transactions);

  // Nothing when both are the same.
  void add(std::size_t from, edge to);
  // Adds the order in time: begin and end of each transaction; call it once. One that is left out
  // has an end before its begin.
  void add_times(std::span<const std::pair<std::int64_t, std::int64_t>> times);

  // Of each strongly connected part of the graph, as far as edges of the kinds in `mask`
  // (dependency values added up) go, the circle of the fewest transactions.
  std::vector<circle> shortest_circles(unsigned mask) const;

 private:
  struct search;

  std::vector<std::vector<std::size_t>> connected_parts(unsigned mask) const;
  circle shortest_in(const std::vector<std::size_t>& part, unsigned mask) const;
  bool is_transaction(std::size_t node) const { return node < transactions_; }

  const std::size_t transactions_;
  std::vector<std::vector<edge>> edges_;  // of transactions, then of moments
};
