#include <goods/cache_manager.h>
#include <tarns/select/TarnSelection.h>

#include <algorithm>
#include <utility>

#include "core/node_access.h"
#include "core/value_index.h"
#include "goods/B_tree_walk.h"
#include "goods/index_trail.h"
#include "goods/prototype.h"
#include "select/QueryConditions.h"
#include "select/index_search.h"

namespace tarns {

namespace {

constexpr std::size_t kLookahead = 64;  // children that are looked at together
constexpr std::size_t kLeastAhead = 8;  // where few are wanted

// The children that come next in a list, and whether the query holds for them.
class ChildrenAhead {
 public:
  ChildrenAhead(goods::reader& reader, const QueryConditions& conditions)
      : reader_(reader), conditions_(conditions) {}

  bool isEmpty() const { return next_ == results_.size(); }
  bool takeNext() { return results_[next_++] != 0; }

  // Those from `place` on that stand on the same page, but not many more than are `wanted`.
  void look(const goods::B_tree_walk& place, std::size_t wanted) {
    words_.clear();
    nodes_.clear();
    next_ = 0;
    const std::size_t most = reader_.in_transaction()  // locks what it looks at
                                 ? 1
                                 : std::clamp<std::size_t>(wanted, kLeastAhead, kLookahead);
    const std::size_t count = std::min(most, place.left_on_page());
    for (std::size_t i = 0; i < count; ++i) words_.push_back(place.entry(i).target);
    const goods::guest_room room(reader_);  // only results stay
    reader_.prefetch(words_);
    for (const goods::ref_word word : words_) {
      nodes_.push_back(static_cast<const TarnObject*>(reader_.look(word, TarnObject::self_class)));
    }
    conditions_.hold(reader_, nodes_, subjects_, results_);
  }

 private:
  goods::reader& reader_;
  const QueryConditions& conditions_;
  std::vector<goods::ref_word> words_;
  std::vector<const TarnObject*> nodes_;
  SubjectBatch subjects_;
  std::vector<char> results_;
  std::size_t next_ = 0;
};

// Takes those of an index's candidates that the whole query holds for.
class CandidateFilter {
 public:
  CandidateFilter(goods::reader& reader, const TarnObjects& children,
                  const QueryConditions& conditions, std::vector<TarnChild>& found)
      : reader_(reader), children_(children), conditions_(conditions), found_(found) {}

  // All candidates of the name of the one at `next`; returns where the next name begins.
  std::size_t take(const std::vector<IndexCandidate>& some, std::size_t next) {
    const IndexCandidate& first = some[next];
    std::size_t end = next + 1;
    while (end < some.size() && some[end].name == first.name) ++end;
    if (end > next + 1) {
      takeNamed(first.name);
    } else if (first.isCertain && conditions_.isAnyOf()) {
      add(first.name, first.child);
    } else {
      if (next >= loaded_) loadFrom(some, next);
      takeIfHolds(first.name, first.child);
    }
    return end;
  }

 private:
  void add(std::string_view name, goods::ref_word child) {
    found_.push_back(
        {.name = std::string(name), .child = TarnRef::Trusted(goods::keep_word(child))});
  }
  void takeIfHolds(std::string_view name, goods::ref_word word) {
    const auto* child = static_cast<const TarnObject*>(reader_.look(word, TarnObject::self_class));
    if (child != nullptr && conditions_.hold(reader_, *child, subject_)) add(name, word);
  }
  // In the order of the children, which the index does not know.
  void takeNamed(const std::string& name) {
    goods::B_tree_walk place(reader_, children_);
    for (place.seek_lower(name); !place.at_end() && place.entry().name == name; place.next()) {
      takeIfHolds(name, place.entry().target);
    }
  }
  void loadFrom(const std::vector<IndexCandidate>& some, std::size_t next) {
    loaded_ = std::min(some.size(), next + kLookahead);
    std::vector<goods::ref_word> ahead;
    for (; next < loaded_; ++next) ahead.push_back(some[next].child);
    reader_.prefetch(ahead);
  }

  goods::reader& reader_;
  const TarnObjects& children_;
  const QueryConditions& conditions_;
  std::vector<TarnChild>& found_;
  QueryConditions::Subject subject_;
  std::size_t loaded_ = 0;  // so many have been loaded ahead
};

}  // namespace

struct TarnSelection::Batch {
  std::vector<TarnChild> found;
  std::optional<goods::index_position> last;
  std::size_t looked = 0;
  bool isAtEnd = false;
  std::vector<std::string> indexesUsed;
  bool isWholeName = false;  // `last` stands for all entries of its name
};

TarnSelection::TarnSelection(const TarnRef& parent, const xcptref<TarnQuery>& query)
    : index_(parent->getChildren()),
      conditions_(std::make_unique<QueryConditions>(*query.read())) {}

TarnSelection::~TarnSelection() = default;

void TarnSelection::startBehind(std::string_view name) {
  last_.emplace(name);
  startsBehindName_ = true;
}

TarnSelection::Iterator TarnSelection::begin() {
  if (at_ == found_.size()) fetch();
  return Iterator(*this);
}

void TarnSelection::next() {
  if (++at_ == found_.size()) fetch();
}

// Until something is found, or there is no more.
void TarnSelection::fetch() {
  found_.clear();
  at_ = 0;
  if (index_.is_null()) isAtEnd_ = true;
  while (found_.empty() && limit_ > 0 && !isAtEnd_) {
    Batch batch = goods::read_here([this](goods::reader& reader) { return look(reader); });
    limit_ -= std::min(limit_, batch.found.size());
    looked_ += batch.looked;
    found_ = std::move(batch.found);
    isAtEnd_ = batch.isAtEnd;
    indexesUsed_ = std::move(batch.indexesUsed);
    if (!batch.last) continue;
    last_ = std::move(batch.last);
    lastName_ = last_->name;
    startsBehindName_ = batch.isWholeName;
  }
}

// One state of the database throughout, and nothing of this object changed: may be repeated.
TarnSelection::Batch TarnSelection::look(goods::reader& reader) const {
  Batch batch;
  const goods::guest_scope guests(reader, goods::guest_scope::policy::at_first);
  const TarnObjects& children = *reader.get(index_);
  bool isDone = false;  // what is damaged among the children themselves is met again
  PastDamage([&] { isDone = lookUp(reader, children, batch); });
  if (isDone) return batch;
  batch = {};
  lookAtAll(reader, children, batch);
  return batch;
}

// By a value index, if there is one that helps.
bool TarnSelection::lookUp(goods::reader& reader, const TarnObjects& children, Batch& batch) const {
  if (last_ && !startsBehindName_) return false;
  const std::optional<IndexPlan> plan = PlanOf(reader, children, *conditions_);
  if (!plan) return false;
  PlanSearch search(reader, children, *plan);
  std::vector<IndexCandidate> some;
  const std::string_view after = last_ ? std::string_view(last_->name) : std::string_view();
  if (!search.collect(after, kBatchSize, some)) return false;
  CandidateFilter filter(reader, children, *conditions_, batch.found);
  std::size_t next = 0;
  while (next < some.size() && batch.found.size() < limit_) next = filter.take(some, next);
  batch.looked = search.looked();
  for (const QueryConditions::Condition* each : *plan) batch.indexesUsed.push_back(each->path);
  std::ranges::sort(batch.indexesUsed);
  batch.indexesUsed.erase(std::unique(batch.indexesUsed.begin(), batch.indexesUsed.end()),
                          batch.indexesUsed.end());
  batch.isAtEnd = next == some.size() && search.isAtEnd();
  if (next == 0) return batch.isAtEnd;
  batch.last.emplace(some[next - 1].name);
  batch.isWholeName = true;
  return true;
}

void TarnSelection::lookAtAll(goods::reader& reader, const TarnObjects& children,
                              Batch& batch) const {
  goods::B_tree_walk place(reader, children);
  goods::index_trail trail;
  if (!last_) {
    place.seek_index(0);
  } else if (startsBehindName_) {
    place.seek_upper(last_->name);
  } else {
    place.seek_behind(*last_);
    trail.resume(*last_);
  }
  ChildrenAhead ahead(reader, *conditions_);
  const auto goesOn = [&] {
    if (batch.found.size() < limit_) return batch.looked < kBatchSize;
    const auto& last = trail.last();
    return last && last->name == place.entry().name;  // see startBehind()
  };
  while (!place.at_end() && goesOn()) {
    if (ahead.isEmpty()) ahead.look(place, limit_ - std::min(limit_, batch.found.size()));
    const goods::index_entry entry = place.entry();
    trail.pass(entry);
    ++batch.looked;
    if (ahead.takeNext()) {
      batch.found.push_back({.name = std::string(entry.name),
                             .child = TarnRef::Trusted(goods::keep_word(entry.target))});
    }
    place.next();
  }
  batch.isAtEnd = place.at_end();
  batch.last = trail.position();
}

namespace {

struct Ranked {
  TarnChild child;
  TarnData value;
  std::size_t place = 0;  // among all
};

// Whether a child comes before another one of the same order; one without a value is the least.
template <class Compare>
bool ComesFirst(const Ranked& left, const Ranked& right, bool isDescending, Compare& compare) {
  const bool isNothing = left.value.getType() == TarnData::None;
  const bool isOtherNothing = right.value.getType() == TarnData::None;
  int order = static_cast<int>(isOtherNothing) - static_cast<int>(isNothing);
  if (order == 0 && !isNothing) order = compare(left, right);
  if (isDescending) order = -order;
  return order != 0 ? order < 0 : left.place < right.place;
}

// The first `count` of what `next(ranked)` gives, in order: a heap with the last of them on top.
template <class Next, class Compare>
std::vector<TarnChild> BestOf(std::size_t count, bool isDescending, const Next& next,
                              Compare compare) {
  const auto comesFirst = [&](const Ranked& left, const Ranked& right) {
    return ComesFirst(left, right, isDescending, compare);
  };
  std::vector<Ranked> kept;
  Ranked one;
  for (std::size_t place = 0; count > 0 && next(one); ++place) {
    one.place = place;
    if (kept.size() == count) {
      if (!comesFirst(one, kept.front())) continue;
      std::pop_heap(kept.begin(), kept.end(), comesFirst);
      kept.pop_back();
    }
    kept.push_back(std::exchange(one, Ranked()));
    std::push_heap(kept.begin(), kept.end(), comesFirst);
  }
  std::sort_heap(kept.begin(), kept.end(), comesFirst);
  std::vector<TarnChild> ordered;
  ordered.reserve(kept.size());
  for (Ranked& each : kept) ordered.push_back(std::move(each.child));
  return ordered;
}

}  // namespace

std::vector<TarnChild> TarnSelection::orderedBy(std::string_view path, bool isDescending) {
  return best(kNoLimit, path, isDescending);
}

std::vector<TarnChild> TarnSelection::best(std::size_t count, std::string_view path,
                                           bool isDescending) {
  bool hasBegun = false;
  const auto next = [&](Ranked& into) {
    const Iterator at = std::exchange(hasBegun, true) ? ++Iterator(*this) : begin();
    if (at == end()) return false;
    into.child = *at;
    into.value = into.child.child->valueAt(path).value_or(TarnData());
    return true;
  };
  return BestOf(count, isDescending, next, [](const Ranked& left, const Ranked& right) {
    return left.value.compare(right.value);
  });
}

std::vector<TarnChild> TarnSelection::best(std::size_t count, TarnValueComparator& order,
                                           TarnData& target, bool isDescending) {
  bool hasBegun = false;
  const auto next = [&](Ranked& into) {
    const Iterator at = std::exchange(hasBegun, true) ? ++Iterator(*this) : begin();
    if (at == end()) return false;
    into.child = *at;
    target.empty();
    order.compare(into.child.child, nullptr);  // sets the target when there is a value
    into.value = target;
    return true;
  };
  return BestOf(count, isDescending, next, [&](const Ranked& left, const Ranked& right) {
    return order.compare(left.child.child, &right.value);
  });
}

}  // namespace tarns
