#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>

#include "support/history.h"
#include "support/history_graph.h"

namespace {

using element_list = std::vector<std::uint64_t>;
using outcome = history_transaction::outcome;

std::string text_of(const element_list& list) {
  std::ostringstream text;
  text << '[';
  for (std::size_t i = 0; i < list.size(); ++i) text << (i == 0 ? "" : " ") << list[i];
  text << ']';
  return text.str();
}

std::string place_of(const std::string& key, const std::string& path) {
  return path.empty() ? key : key + " at \"" + path + '"';
}

std::string place_of(const history_step& step) { return place_of(step.key, step.path); }

bool begins_with(const element_list& longer, const element_list& shorter) {
  return shorter.size() <= longer.size() &&
         std::equal(shorter.begin(), shorter.end(), longer.begin());
}

std::string text_of(std::size_t number, const history_transaction& transaction) {
  std::ostringstream text;
  text << "T" << number << " (" << transaction.who << ", ";
  switch (transaction.end) {
    case outcome::committed:
      text << "committed";
      break;
    case outcome::aborted:
      text << "rolled back";
      break;
    case outcome::unknown:
      text << "outcome unknown";
      break;
  }
  text << ", " << transaction.begun << " to ";
  if (transaction.ended == history_transaction::never) {
    text << "?";
  } else {
    text << transaction.ended;
  }
  text << " ns):";
  for (const history_step& step : transaction.steps) {
    text << (step.what == history_step::kind::read ? " reads " : " appends ");
    if (step.what == history_step::kind::append) text << step.element << " to ";
    text << place_of(step);
    if (step.what == history_step::kind::read) text << " = " << text_of(step.list);
    text << ';';
  }
  return text.str();
}

// A state of a list as a transaction found it, or left it.
struct list_state {
  std::size_t transaction;
  element_list list;
  std::string place;
  bool is_written;
  element_list base;  // what was there before, of one that is written
};

class checker {
 public:
  explicit checker(std::span<const history_transaction> history)
      : history_(history), graph_(history.size()), counts_(history.size()) {
    for (std::size_t t = 0; t < history.size(); ++t) {
      counts_[t] = history[t].end == outcome::committed;
    }
  }

  std::vector<history_finding> check() {
    note_appends();
    settle_unknown();
    for (std::size_t t = 0; t < history_.size(); ++t) {
      if (counts_[t]) follow(t);
    }
    for (const auto& [key, states] : states_) order(key, states);
    find_lost();
    find_circles();
    return std::move(findings_);
  }

 private:
  struct append {
    std::size_t transaction;
    std::string key;
    std::string path;
    bool is_last = true;  // of its transaction to the list
  };
  // Of a dependency: an append, a read, or an append before a read or another append.
  struct reason {
    std::uint64_t before, after;  // elements; 0 for none
    const list_state* read;       // null when both are appends
  };

  void find(std::string kind, const std::string& what, const std::vector<std::size_t>& concerned) {
    std::string text = what;
    for (const std::size_t t : concerned) text += "\n  " + ::text_of(t, history_[t]);
    findings_.push_back({std::move(kind), std::move(text)});
  }

  void note_appends() {
    for (std::size_t t = 0; t < history_.size(); ++t) {
      std::map<std::string, std::uint64_t> last;
      for (const history_step& step : history_[t].steps) {
        if (step.what != history_step::kind::append) continue;
        const auto [known, is_new] =
            appends_.try_emplace(step.element, append{t, step.key, step.path});
        if (!is_new) {
          find("duplicate element", std::to_string(step.element) + " was appended twice",
               {known->second.transaction, t});
        }
        const auto before = last.find(step.key);
        if (before != last.end()) appends_.at(before->second).is_last = false;
        last[step.key] = step.element;
      }
    }
  }

  // What is read has been committed, and so may be what that one has read in turn.
  void settle_unknown() {
    std::vector<std::size_t> open;
    for (std::size_t t = 0; t < history_.size(); ++t) {
      if (counts_[t]) open.push_back(t);
    }
    while (!open.empty()) {
      const std::size_t reader = open.back();
      open.pop_back();
      for (const history_step& step : history_[reader].steps) {
        for (const std::uint64_t element : step.list) {
          const auto found = appends_.find(element);
          if (found == appends_.end()) continue;
          const std::size_t writer = found->second.transaction;
          if (counts_[writer] || history_[writer].end != outcome::unknown) continue;
          counts_[writer] = true;
          open.push_back(writer);
        }
      }
    }
  }

  // Goes through a transaction's steps, telling what it reads of others from what is its own.
  void follow(std::size_t t) {
    struct knowledge {
      std::optional<element_list> base;  // as others left it; none until it is read
      element_list own;
      std::string place;
    };
    std::map<std::string, knowledge> known;
    for (const history_step& step : history_[t].steps) {
      knowledge& list = known[step.key];
      list.place = place_of(step);
      if (step.what == history_step::kind::append) {
        list.own.push_back(step.element);
        continue;
      }
      element_list others = step.list;
      const std::size_t own = std::min(others.size(), list.own.size());
      const element_list end(others.end() - static_cast<std::ptrdiff_t>(own), others.end());
      others.resize(others.size() - own);
      if (end != list.own || (list.base && *list.base != others)) {
        find("own writes", "after what it has done, the read of " + place_of(step) + " is wrong",
             {t});
        continue;
      }
      if (list.base) continue;
      list.base = others;
      if (verify_read(t, step, others)) {
        states_[step.key].push_back({t, others, place_of(step), false, {}});
      }
    }
    for (const auto& [key, list] : known) {
      if (!list.base || list.own.empty()) continue;
      element_list written = *list.base;
      written.insert(written.end(), list.own.begin(), list.own.end());
      states_[key].push_back({t, std::move(written), list.place, true, *list.base});
    }
  }

  // False when the list holds what cannot have an order.
  bool verify_read(std::size_t t, const history_step& step, const element_list& list) {
    std::set<std::uint64_t> met;
    for (const std::uint64_t element : list) {
      const std::string what = std::to_string(element) + " in " + place_of(step);
      const auto found = appends_.find(element);
      if (found == appends_.end() || found->second.key != step.key) {
        find("unknown element", "nobody appended " + what, {t});
        return false;
      }
      const std::size_t writer = found->second.transaction;
      if (history_[writer].end == outcome::aborted) {
        find("G1a", what + " was rolled back", {t, writer});
        return false;
      }
      if (!met.insert(element).second) {
        find("duplicate element", what + " stands there twice", {t, writer});
        return false;
      }
    }
    if (list.empty()) return true;
    const append& last = appends_.at(list.back());
    if (last.transaction != t && !last.is_last) {
      find("G1b", "the state of " + place_of(step) + " is in the middle of a transaction",
           {t, last.transaction});
    }
    return true;
  }

  // The longest state of a list says which element came when; all others must be beginnings of it.
  void order(const std::string& key, const std::vector<list_state>& states) {
    const list_state& longest = *std::ranges::max_element(
        states, {}, [](const list_state& state) { return state.list.size(); });
    std::map<element_list, std::size_t> overwritten;  // by whom
    for (const list_state& state : states) {
      if (!state.is_written) continue;
      const auto [other, is_first] = overwritten.try_emplace(state.base, state.transaction);
      if (is_first || other->second == state.transaction) continue;
      find("lost update", "both append to " + key + " = " + ::text_of(state.base),
           {other->second, state.transaction});
    }
    std::set<element_list> reported;
    for (const list_state& state : states) {
      if (begins_with(longest.list, state.list)) {
        connect(state, longest.list);
      } else if (reported.insert(state.list).second) {
        find("forked list",
             state.place + " is " + ::text_of(state.list) + ", " + longest.place + " is " +
                 ::text_of(longest.list),
             {state.transaction, longest.transaction});
      }
    }
    connect_writes(longest.list);
    orders_[key] = std::set<std::uint64_t>(longest.list.begin(), longest.list.end());
  }

  std::string name(std::size_t t) const { return "T" + std::to_string(t); }

  std::string appended(std::uint64_t element) const {
    const append& made = appends_.at(element);
    return name(made.transaction) + " appended " + std::to_string(element) + " to " +
           place_of(made.key, made.path);
  }

  void connect(const list_state& state, const element_list& order) {
    if (state.is_written) return;
    const std::size_t length = state.list.size();
    if (length > 0) {
      const std::uint64_t last = state.list.back();
      depend(appends_.at(last).transaction, state.transaction, {last, 0, &state},
             dependency::write_read);
    }
    if (length < order.size()) {
      depend(state.transaction, appends_.at(order[length]).transaction, {0, order[length], &state},
             dependency::read_write);
    }
  }

  void connect_writes(const element_list& order) {
    for (std::size_t i = 1; i < order.size(); ++i) {
      depend(appends_.at(order[i - 1]).transaction, appends_.at(order[i]).transaction,
             {order[i - 1], order[i], nullptr}, dependency::write_write);
    }
  }

  void depend(std::size_t from, std::size_t to, const reason& because, dependency why) {
    graph_.add(from, {to, why, reasons_.size()});
    reasons_.push_back(because);
  }

  std::string text_of(const reason& because) const {
    std::string text;
    if (because.before != 0) text = appended(because.before) + ", then ";
    if (because.read != nullptr) {
      text += name(because.read->transaction) + " read " + because.read->place + " = " +
              ::text_of(because.read->list);
    }
    if (because.read != nullptr && because.after != 0) text += ", then ";
    if (because.after != 0) text += appended(because.after);
    return text;
  }

  // Acknowledged elements that are in no state of their list, though somebody looked later.
  void find_lost() {
    std::map<std::string, std::size_t> last_look;
    for (const auto& [key, states] : states_) {
      std::size_t& last = last_look.try_emplace(key, states.front().transaction).first->second;
      for (const list_state& state : states) {
        if (history_[state.transaction].begun > history_[last].begun) last = state.transaction;
      }
    }
    std::map<std::uint64_t, append> in_order(appends_.begin(), appends_.end());
    for (const auto& [element, made] : in_order) {
      if (history_[made.transaction].end != outcome::committed) continue;
      const auto looked = last_look.find(made.key);
      if (looked == last_look.end() || orders_[made.key].contains(element)) continue;
      if (history_[looked->second].begun <= history_[made.transaction].ended) continue;
      find("lost append", appended(element) + ", which is not there later",
           {made.transaction, looked->second});
    }
  }

  void find_circles() {
    std::vector<std::pair<std::int64_t, std::int64_t>> times(history_.size(), {1, 0});
    for (std::size_t t = 0; t < history_.size(); ++t) {
      if (counts_[t]) times[t] = {history_[t].begun, history_[t].ended};
    }
    graph_.add_times(times);
    std::map<std::size_t, std::size_t> reported;  // transactions, and how long their circle is
    // The worst kinds first: what is a circle without some edges is one with them, too.
    for (const unsigned mask : {1U, 3U, 7U, 15U}) {
      for (const history_graph::circle& found : graph_.shortest_circles(mask)) {
        const std::size_t length = found.transactions.size();
        const auto is_known = [&](std::size_t t) {
          const auto known = reported.find(t);
          return known != reported.end() && known->second <= length;
        };
        if (std::ranges::any_of(found.transactions, is_known)) continue;
        for (const std::size_t t : found.transactions) reported[t] = length;
        report(found);
      }
    }
  }

  void report(const history_graph::circle& found) {
    std::map<dependency, int> count;
    std::string text;
    for (std::size_t i = 0; i < found.edges.size(); ++i) {
      const history_graph::edge& edge = found.edges[i];
      ++count[edge.why];
      text += i == 0 ? "" : "\n";
      text += edge.why == dependency::real_time
                  ? name(found.transactions[i]) + " had ended before " + name(edge.to) + " began"
                  : text_of(reasons_[edge.note]);
    }
    const int overwritten = count[dependency::read_write];
    std::string kind = count[dependency::write_read] == 0 ? "G0" : "G1c";
    if (overwritten == 1) kind = "G-single";
    if (overwritten > 1) kind = "G2";
    if (count[dependency::real_time] > 0) kind += " in real time";
    find(kind, text, found.transactions);
  }

  const std::span<const history_transaction> history_;
  history_graph graph_;
  std::vector<bool> counts_;  // committed, or must have been
  std::unordered_map<std::uint64_t, append> appends_;
  std::map<std::string, std::vector<list_state>> states_;
  std::map<std::string, std::set<std::uint64_t>> orders_;
  std::vector<reason> reasons_;
  std::vector<history_finding> findings_;
};

}  // namespace

std::vector<history_finding> check_history(std::span<const history_transaction> history) {
  return checker(history).check();
}

std::string describe(std::span<const history_finding> findings) {
  constexpr std::size_t most = 10;
  if (findings.empty()) return "nothing";
  std::string text = std::to_string(findings.size()) + " findings";
  for (const history_finding& finding : findings.first(std::min(findings.size(), most))) {
    text += "\n\n" + finding.kind + ": " + finding.text;
  }
  return text;
}
