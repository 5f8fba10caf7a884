#include <goods/cache_manager.h>
#include <tarns/select/TarnSelection.h>

#include <algorithm>
#include <utility>

#include "core/node_access.h"
#include "goods/B_tree_walk.h"
#include "goods/prototype.h"
#include "select/QueryConditions.h"

namespace tarns {

namespace {

constexpr std::size_t kLookahead = 64;    // children that are loaded at once
constexpr std::size_t kMostBefore = 256;  // entries of one name that a position remembers

goods::ref<goods::set_member> Kept(goods::ref_word member) {
  return goods::ref<goods::set_member>::trusted(goods::keep_word(member));
}

}  // namespace

struct TarnSelection::Batch {
  std::vector<TarnChild> found;
  std::optional<goods::index_position> last;
  std::size_t looked = 0;
  bool isAtEnd = false;
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
    if (!batch.last) continue;
    last_ = std::move(batch.last);
    lastName_ = last_->name;
    startsBehindName_ = false;
  }
}

// One state of the database throughout, and nothing of this object changed: may be repeated.
TarnSelection::Batch TarnSelection::look(goods::reader& reader) const {
  Batch batch;
  QueryConditions::Subject subject;
  const goods::guest_scope guests(reader, goods::guest_scope::policy::at_first);
  goods::B_tree_walk place(reader, *reader.get(index_));
  if (!last_) {
    place.seek_index(0);
  } else if (startsBehindName_) {
    place.seek_upper(last_->name);
  } else {
    place.seek_behind(*last_);
  }
  std::vector<goods::ref_word> ahead;
  std::optional<goods::index_entry> last;
  std::vector<goods::ref_word> before;
  const auto goesOn = [&] {
    if (batch.found.size() < limit_) return batch.looked < kBatchSize;
    return last && last->name == place.entry().name;  // see startBehind()
  };
  while (!place.at_end() && goesOn()) {
    if (batch.looked % kLookahead == 0) {
      ahead.clear();
      const std::size_t count = std::min(kLookahead, place.left_on_page());
      for (std::size_t i = 0; i < count; ++i) ahead.push_back(place.entry(i).target);
      reader.prefetch(ahead);
    }
    const goods::index_entry entry = place.entry();
    if (!last || last->name != entry.name) {
      before.clear();
    } else {
      if (before.size() == kMostBefore) before.erase(before.begin());
      before.push_back(last->member);
    }
    last = entry;
    ++batch.looked;
    const auto* child =
        static_cast<const TarnObject*>(reader.look(entry.target, TarnObject::self_class));
    if (child != nullptr && conditions_->hold(reader, *child, subject)) {
      batch.found.push_back({.name = std::string(entry.name),
                             .child = TarnRef::Trusted(goods::keep_word(entry.target))});
    }
    place.next();
  }
  batch.isAtEnd = place.at_end();
  if (!last) return batch;
  batch.last.emplace(last->name, Kept(last->member));
  for (const goods::ref_word member : before) batch.last->before.push_back(Kept(member));
  return batch;
}

std::vector<TarnChild> TarnSelection::orderedBy(std::string_view path, bool isDescending) {
  struct Ranked {
    TarnChild child;
    std::optional<TarnData> value;
  };
  std::vector<Ranked> ranked;
  for (auto child = begin(); child != end(); ++child) {
    ranked.push_back({*child, child->child->valueAt(path)});
  }
  const auto isLess = [](const Ranked& left, const Ranked& right) {
    if (!left.value || !right.value) return right.value.has_value() && !left.value;
    return left.value->compare(*right.value) < 0;
  };
  std::stable_sort(ranked.begin(), ranked.end(), [&](const Ranked& left, const Ranked& right) {
    return isDescending ? isLess(right, left) : isLess(left, right);
  });
  std::vector<TarnChild> ordered;
  ordered.reserve(ranked.size());
  for (Ranked& each : ranked) ordered.push_back(std::move(each.child));
  return ordered;
}

}  // namespace tarns
