#include "select/index_search.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

#include "core/value_index.h"
#include "core/value_index_changes.h"
#include "goods/B_tree_walk.h"
#include "select/query_text.h"

namespace tarns {

namespace {

// How much an index spares with the operator: the least is the best.
int CostOf(std::uint32_t op) {
  switch (op) {
    case TarnQueryElement::Equal:
      return 0;
    case TarnQueryElement::StartsWith:
      return 1;
    case TarnQueryElement::NotEqual:
    case TarnQueryElement::Contains:
      return 3;
    default:
      return 2;
  }
}

// Calls `visit(group)` for each group that has entries.
template <class Visit>
void ForEachGroup(goods::reader& reader, const goods::B_tree& tree, const Visit& visit) {
  goods::B_tree_walk walk(reader, tree);
  for (int next = 0; next <= 0xFF;) {
    walk.seek_lower(std::string(1, static_cast<char>(next)));
    if (walk.at_end()) return;
    const auto entry = ValueIndexEntry::Parse(walk.entry().name);
    if (!entry) return;
    visit(entry->group);
    next = entry->group + 1;
  }
}

}  // namespace

namespace {

struct Way {
  IndexPlan conditions;
  int cost = -1;  // of the worst of them

  bool isNoWorseThan(const Way& other) const {
    return std::pair(cost, conditions.size()) <= std::pair(other.cost, other.conditions.size());
  }
  void add(const Way& other) {
    conditions.insert(conditions.end(), other.conditions.begin(), other.conditions.end());
    cost = std::max(cost, other.cost);
  }
};

std::optional<Way> WayOf(goods::reader& reader, const TarnObjects& children,
                         const QueryConditions::Condition& condition) {
  const bool isNever = condition.path.empty() || condition.reference.empty() ||
                       (condition.op > TarnQueryElement::Contains && !condition.isAnything);
  if (isNever) return Way{};
  if (condition.isAnything) return std::nullopt;
  if (FindValueIndex(reader, children, condition.path) == nullptr) return std::nullopt;
  return Way{{&condition}, CostOf(condition.op)};
}

}  // namespace

std::optional<IndexPlan> PlanOf(goods::reader& reader, const TarnObjects& children,
                                const QueryConditions& conditions) {
  if (children.getValueIndexesWord().is_null() || HasChangesOfItsOwn()) return std::nullopt;
  std::optional<Way> way = Way{};  // no condition yet: it holds nowhere
  TarnQueryElement::LogicType logic = TarnQueryElement::Or;
  for (const QueryConditions::Condition& condition : conditions.all()) {
    if (logic == TarnQueryElement::And) {
      const std::optional<Way> next = WayOf(reader, children, condition);
      if (!way || (next && next->isNoWorseThan(*way))) way = next;
    } else if (logic == TarnQueryElement::Or && way) {
      const std::optional<Way> next = WayOf(reader, children, condition);
      if (next)
        way->add(*next);
      else
        way.reset();
    }
    logic = condition.logic;
  }
  if (!way) return std::nullopt;
  return std::move(way->conditions);
}

IndexSearch::IndexSearch(goods::reader& reader, const TarnObjects& children,
                         const QueryConditions::Condition& condition)
    : reader_(reader),
      tree_(*FindValueIndex(reader, children, condition.path)),
      condition_(condition) {}

bool IndexSearch::collect(std::string_view after, std::size_t some,
                          std::vector<IndexCandidate>& found) {
  found.clear();
  lastComplete_.reset();
  bool isUsable = true;
  ForEachGroup(reader_, tree_, [&](unsigned char group) {
    isUsable = isUsable && collectGroup(group, after, some, found);
  });
  if (!isUsable) return false;
  std::ranges::stable_sort(found, {}, &IndexCandidate::name);
  if (!lastComplete_) return true;
  const auto behind = std::ranges::upper_bound(found, *lastComplete_, {}, &IndexCandidate::name);
  found.erase(behind, found.end());
  return true;
}

// False when a name is cut.
bool IndexSearch::collectGroup(unsigned char group, std::string_view after, std::size_t some,
                               std::vector<IndexCandidate>& found) {
  using enum TarnQueryElement::OperatorType;
  const std::string_view reference = condition_.reference;
  const bool isElsewhere = group == ValueIndexEntry::kElsewhere;
  const bool isCutReference = reference.size() > ValueIndexEntry::kMostText;
  // What all keys that count begin with, and where to begin.
  std::string prefix(1, static_cast<char>(group));
  std::string from = prefix;
  bool isByName = isElsewhere;  // the keys behind the prefix are names
  if (!isElsewhere) {
    const std::string most = ValueIndexEntry::PrefixFor(group, reference);
    if (condition_.op == Equal) {
      from = prefix = most + (isCutReference ? '\1' : '\0');
      isByName = true;
    } else if (condition_.op == StartsWith) {
      from = prefix = most;
    } else if (condition_.op == Greater || condition_.op == GreaterOrEqual) {
      from = most;
    }
  }
  goods::B_tree_walk walk(reader_, tree_);
  if (isByName && !after.empty()) {
    walk.seek_upper(prefix + std::string(after));
  } else {
    walk.seek_lower(from);
  }
  const bool isUpTo = !isElsewhere && (condition_.op == Less || condition_.op == LessOrEqual);
  std::size_t taken = 0;
  std::string last;
  for (; !walk.at_end(); walk.next()) {
    const goods::index_entry stored = walk.entry();
    if (!stored.name.starts_with(prefix)) break;
    const auto entry = ValueIndexEntry::Parse(stored.name);
    if (!entry || entry->isNameCut) return false;
    if (isUpTo && entry->text > reference.substr(0, ValueIndexEntry::kMostText)) break;
    if (isByName && condition_.op == Equal && taken >= some && entry->name != last) {
      if (!lastComplete_ || last < *lastComplete_) lastComplete_ = last;
      break;
    }
    ++looked_;
    ++taken;
    if (isByName) last = entry->name;
    if (!isByName && !after.empty() && entry->name <= after) continue;
    const bool isKnown = !isElsewhere && !entry->isCut;
    if (isKnown && (entry->text.empty() || !Satisfies(entry->text, condition_.op, reference))) {
      continue;
    }
    found.push_back({std::string(entry->name), stored.target, isKnown});
  }
  return true;
}

// ---- several conditions

PlanSearch::PlanSearch(goods::reader& reader, const TarnObjects& children, const IndexPlan& plan) {
  searches_.reserve(plan.size());
  for (const QueryConditions::Condition* each : plan) {
    searches_.emplace_back(reader, children, *each);
  }
}

std::size_t PlanSearch::looked() const {
  std::size_t sum = 0;
  for (const IndexSearch& each : searches_) sum += each.looked();
  return sum;
}

bool PlanSearch::collect(std::string_view after, std::size_t some,
                         std::vector<IndexCandidate>& found) {
  found.clear();
  std::optional<std::string> upTo;
  std::vector<IndexCandidate> part;
  for (IndexSearch& each : searches_) {
    if (!each.collect(after, some, part)) return false;
    const auto& complete = each.completeUpTo();
    if (complete && (!upTo || *complete < *upTo)) upTo = complete;
    std::ranges::move(part, std::back_inserter(found));
  }
  isAtEnd_ = !upTo;
  if (searches_.size() > 1) std::ranges::stable_sort(found, {}, &IndexCandidate::name);
  if (upTo) std::erase_if(found, [&](const IndexCandidate& each) { return each.name > *upTo; });
  return true;
}

// ---- values that compare equal

namespace {

// The texts, in upper case, that values of the group that equal `wanted` may have; nothing when
// they may have any.
std::optional<std::vector<std::string>> TextsOfEqual(unsigned char group, const TarnData& wanted) {
  constexpr double kExact = 9007199254740992.0;  // integers up to here are real numbers as well
  if (group >= ValueIndexEntry::kEnumeration) return std::nullopt;
  const TarnData type(static_cast<TarnData::Type>(group - 1));
  std::vector<std::string> texts;
  if (type.isBoolean()) {
    texts.emplace_back(wanted.getBoolean() ? "TRUE" : "FALSE");
    return texts;
  }
  if (wanted.isBoolean()) return std::nullopt;
  const bool isNumeric =
      (type.isRealNumber() || type.isInteger()) && (wanted.isRealNumber() || wanted.isInteger());
  if (isNumeric && (type.isRealNumber() || wanted.isRealNumber())) {
    const double number = wanted.getDouble();
    if (std::isnan(number)) return std::nullopt;
    if (type.isRealNumber()) {
      texts = {"NAN", "-NAN", std::string(TarnData(number).getText())};
      if (number == 0) texts = {"NAN", "-NAN", "0.000000", "-0.000000"};
    } else if (std::abs(number) >= kExact) {
      return std::nullopt;
    } else if (number == std::floor(number)) {
      texts.emplace_back(TarnData(static_cast<std::int64_t>(number)).getText());
    }
  } else {
    texts.emplace_back(wanted.getText());
  }
  for (std::string& text : texts) MakeUpperCase(text);
  return texts;
}

// False when a name is cut.
bool AddNames(goods::reader& reader, const goods::B_tree& tree, const std::string& prefix,
              std::vector<std::string>& names) {
  goods::B_tree_walk walk(reader, tree);
  for (walk.seek_lower(prefix); !walk.at_end(); walk.next()) {
    const goods::index_entry stored = walk.entry();
    if (!stored.name.starts_with(prefix)) break;
    const auto entry = ValueIndexEntry::Parse(stored.name);
    if (!entry || entry->isNameCut) return false;
    names.emplace_back(entry->name);
  }
  return true;
}

}  // namespace

std::optional<std::vector<std::string>> NamesOfEqual(goods::reader& reader,
                                                     const TarnObjects& children,
                                                     std::string_view below,
                                                     const TarnData& wanted) {
  if (children.getValueIndexesWord().is_null() || HasChangesOfItsOwn()) return std::nullopt;
  const goods::B_tree* const tree = FindValueIndex(reader, children, below);
  if (tree == nullptr) return std::nullopt;
  std::vector<std::string> names;
  bool isUsable = true;
  const auto addGroup = [&](unsigned char group) {
    const auto texts = TextsOfEqual(group, wanted);
    if (!texts) {
      isUsable =
          isUsable && AddNames(reader, *tree, std::string(1, static_cast<char>(group)), names);
      return;
    }
    for (const std::string& text : *texts) {
      std::string prefix = ValueIndexEntry::PrefixFor(group, text);
      prefix += text.size() > ValueIndexEntry::kMostText ? '\1' : '\0';
      isUsable = isUsable && AddNames(reader, *tree, prefix, names);
    }
  };
  const bool isWhole = PastDamage([&] { ForEachGroup(reader, *tree, addGroup); });
  if (!isWhole || !isUsable) return std::nullopt;
  std::ranges::sort(names);
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace tarns
