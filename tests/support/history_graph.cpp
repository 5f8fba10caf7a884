#include "support/history_graph.h"

#include <algorithm>
#include <deque>
#include <limits>

namespace {

constexpr std::size_t none = std::numeric_limits<std::size_t>::max();

bool is_in(unsigned mask, dependency why) { return (mask & static_cast<unsigned>(why)) != 0; }

}  // namespace

history_graph::history_graph(std::size_t transactions)
    : transactions_(transactions), edges_(transactions) {}

void history_graph::add(std::size_t from, edge to) {
  if (from != to.to) edges_[from].push_back(to);
}

void history_graph::add_times(std::span<const std::pair<std::int64_t, std::int64_t>> times) {
  std::vector<std::size_t> by_end;
  for (std::size_t i = 0; i < times.size(); ++i) {
    if (times[i].first <= times[i].second) by_end.push_back(i);
  }
  std::ranges::sort(by_end, {}, [&](std::size_t i) { return times[i].second; });
  edges_.resize(transactions_ + by_end.size());
  for (std::size_t k = 0; k < by_end.size(); ++k) {
    const std::size_t moment = transactions_ + k;
    add(by_end[k], {moment, dependency::real_time});
    if (k + 1 < by_end.size()) add(moment, {moment + 1, dependency::real_time});
  }
  for (const std::size_t i : by_end) {
    const auto before = std::ranges::lower_bound(by_end, times[i].first, {},
                                                 [&](std::size_t k) { return times[k].second; });
    if (before == by_end.begin()) continue;
    const auto moment = transactions_ + static_cast<std::size_t>(before - by_end.begin()) - 1;
    add(moment, {i, dependency::real_time});
  }
}

// Tarjan's algorithm with a stack of its own: a history is as deep as it is long.
struct history_graph::search {
  const history_graph& graph;
  unsigned mask;
  std::vector<std::size_t> index, low;
  std::vector<bool> is_open;
  std::vector<std::size_t> open;                           // found, in no finished part yet
  std::vector<std::pair<std::size_t, std::size_t>> going;  // node, next of its edges
  std::vector<std::vector<std::size_t>> parts;
  std::size_t found = 0;

  search(const history_graph& of, unsigned kinds)
      : graph(of),
        mask(kinds),
        index(of.edges_.size(), none),
        low(of.edges_.size(), none),
        is_open(of.edges_.size()) {
    for (std::size_t node = 0; node < index.size(); ++node) {
      if (index[node] == none) run_from(node);
    }
  }

  void enter(std::size_t node) {
    index[node] = low[node] = found++;
    open.push_back(node);
    is_open[node] = true;
    going.emplace_back(node, 0);
  }

  void run_from(std::size_t start) {
    enter(start);
    while (!going.empty()) {
      const auto [node, next] = going.back();
      const std::vector<edge>& out = graph.edges_[node];
      if (next == out.size()) {
        going.pop_back();
        leave(node);
        continue;
      }
      ++going.back().second;
      if (!is_in(mask, out[next].why)) continue;
      const std::size_t to = out[next].to;
      if (index[to] == none) {
        enter(to);
      } else if (is_open[to]) {
        low[node] = std::min(low[node], index[to]);
      }
    }
  }

  void leave(std::size_t node) {
    if (!going.empty()) {
      const std::size_t above = going.back().first;
      low[above] = std::min(low[above], low[node]);
    }
    if (low[node] != index[node]) return;
    std::vector<std::size_t> part;
    do {
      part.push_back(open.back());
      is_open[open.back()] = false;
      open.pop_back();
    } while (part.back() != node);
    if (part.size() > 1) parts.push_back(std::move(part));
  }
};

std::vector<history_graph::circle> history_graph::shortest_circles(unsigned mask) const {
  std::vector<circle> circles;
  for (const auto& part : search(*this, mask).parts) circles.push_back(shortest_in(part, mask));
  return circles;
}

// From each transaction the shortest way back to it: breadth first, where moments between
// transactions cost nothing. A way that gets longer than the best circle so far is given up.
history_graph::circle history_graph::shortest_in(const std::vector<std::size_t>& part,
                                                 unsigned mask) const {
  std::vector<bool> is_member(edges_.size());
  for (const std::size_t node : part) is_member[node] = true;
  std::vector<std::size_t> distance(edges_.size(), none), touched;
  std::vector<std::pair<std::size_t, const edge*>> came_by(edges_.size());
  circle best;
  std::size_t shortest = none;
  for (const std::size_t start : part) {
    if (!is_transaction(start)) continue;
    for (const std::size_t node : touched) distance[node] = none;
    touched.clear();
    std::deque<std::size_t> ahead{start};
    std::size_t length = none;
    while (!ahead.empty() && length == none) {
      const std::size_t node = ahead.front();
      ahead.pop_front();
      const std::size_t here = node == start ? 0 : distance[node];
      for (const edge& out : edges_[node]) {
        if (!is_in(mask, out.why) || !is_member[out.to]) continue;
        const std::size_t cost = is_transaction(out.to) ? 1 : 0;
        if (here + cost >= std::min(distance[out.to], shortest)) continue;
        if (distance[out.to] == none) touched.push_back(out.to);
        distance[out.to] = here + cost;
        came_by[out.to] = {node, &out};
        if (out.to == start) {
          length = here + cost;
          break;
        }
        if (cost == 0) {
          ahead.push_front(out.to);
        } else {
          ahead.push_back(out.to);
        }
      }
    }
    if (length == none) continue;
    shortest = length;
    best = {};
    std::size_t node = start;
    do {
      const auto [from, by] = came_by[node];
      // The edge that leads on from a chain of moments stands for the whole chain.
      if (is_transaction(node)) best.edges.push_back({node, by->why, by->note});
      node = from;
      if (is_transaction(node)) best.transactions.push_back(node);
    } while (node != start);
    std::ranges::reverse(best.edges);
    std::ranges::reverse(best.transactions);
    if (shortest == 2) break;
  }
  return best;
}
