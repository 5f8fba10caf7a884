#include "core/value_index_upkeep.h"

#include <goods/object_handle.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnValueIndex.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/branch_batch.h"
#include "core/node_access.h"
#include "core/value_index.h"
#include "core/value_index_changes.h"
#include "goods/B_tree_walk.h"
#include "goods/prototype.h"
#include "goods/transaction.h"

namespace tarns {

namespace {

// An entry of indexed children that a transaction may have given another place in an index.
struct AffectedEntry {
  struct State {
    std::string name;
    goods::object_ref child;
  };
  goods::ref<goods::set_member> entry;
  std::optional<State> before;  // committed
  bool isThere = true;
  bool isChanged = false;         // the entry itself: all indexes have to look
  std::set<std::string> changed;  // otherwise: paths below the child of nodes that are changed
  std::map<std::string, goods::ref<TarnObjects>> relisted;  // and whose children are
};

struct AffectedChildren {
  goods::ref<TarnObjects> index;
  bool isOwn = false;  // changed by the transaction, and so locked
  std::vector<ValueIndexRef> trees;
  std::map<goods::object_id, AffectedEntry> entries;  // by entries, see WalkKeyOf()
};

// Whether a change at the path `way` can matter to the value at `below`: it is on the way there.
bool IsOnTheWay(std::string_view way, std::string_view below) {
  return way.empty() || way == below ||
         (below.starts_with(way) && below[way.size()] == TarnBranches::kSeparator);
}

// The branch of `below` that follows `way`, which is on the way; empty when none does.
std::string_view BranchBehind(std::string_view way, std::string_view below) {
  if (way.size() == below.size()) return {};
  return *TarnBranches(below.substr(way.empty() ? 0 : way.size() + 1)).begin();
}

const TarnObject* NodeAt(goods::reader& in, goods::ref_word word) {
  return static_cast<const TarnObject*>(in.look(word, TarnObject::self_class));
}

struct KeyChange {
  std::string key;
  goods::object_ref child;
  bool operator==(const KeyChange& other) const {
    return key == other.key && WalkKeyOf(child.word()) == WalkKeyOf(other.child.word());
  }
};

// One commit's work. Whose value may have changed is found without locks, in what is committed: a
// private copy that matters is at, or below, an entry of indexed children there, unless the
// transaction has put it there, and then the entry is noted or a copy is on the way. Then both
// values are read, the new one first: it locks all that it depends on, and the old one depends on
// nothing else that others could change and commit meanwhile; see docs/architecture.md.
class UpkeepRun {
 public:
  UpkeepRun(goods::cache_manager& session, goods::transaction& ending)
      : session_(session), ending_(ending), changes_(ValueIndexChanges::OfTransaction(ending)) {
    for (const auto& copy : ending.copies()) {
      if (copy.body == nullptr) continue;
      const bool isNode = TarnObject::self_class.is_superclass_for(copy.body->cls());
      if (isNode || TarnObjects::self_class.is_superclass_for(copy.body->cls())) {
        written_.push_back({copy.keeps, copy.body, isNode});
      }
    }
  }

  void run() {
    trace();
    addNoted();
    for (auto& [id, children] : found_) update(children);
  }

 private:
  struct Written {
    goods::object_ref object;
    const goods::object* copy;
    bool isNode;
  };

  void trace();
  void traceLink(goods::reader& in, goods::ref_word before, goods::ref_word now);
  void traceEntry(goods::reader& in, goods::ref_word link);
  // `relisted`: what is changed is the list of the node's children; null: the node itself.
  void traceFrom(goods::reader& in, const TarnObject* node, const goods::object_ref& relisted);
  void traceUp(goods::reader& in, const TarnObject* node, const goods::object_ref& relisted);
  AffectedEntry* affect(goods::reader& in, goods::ref_word link, const goods::set_member& entry,
                        const TarnObjects& children, const std::string* way);
  void addNoted();
  void update(AffectedChildren& children);
  bool matters(const AffectedEntry& entry, std::string_view below);
  bool isRelisted(const goods::ref<TarnObjects>& index, std::string_view name);
  void fill(const AffectedChildren& children, const ValueIndexRef& tree);
  void follow(const AffectedChildren& children, const ValueIndexRef& tree);
  static void Change(const ValueIndexRef& tree, const std::vector<KeyChange>& before,
                     const std::vector<KeyChange>& now);
  std::vector<KeyChange> keysNow(const ValueIndexRef& tree,
                                 const std::vector<const AffectedEntry*>& entries);
  std::vector<KeyChange> keysBefore(const ValueIndexRef& tree,
                                    const std::vector<const AffectedEntry*>& entries);

  goods::cache_manager& session_;
  goods::transaction& ending_;
  const ValueIndexChanges* const changes_;
  std::vector<Written> written_;
  std::map<std::uint64_t, AffectedChildren> found_;  // by index, see WalkKeyOf()
};

void UpkeepRun::trace() {
  if (written_.empty() || !MayHaveValueIndexes(session_)) return;
  session_.outside_transaction([this] {
    session_.read([this](goods::reader& in) {
      found_.clear();
      for (const Written& written : written_) {
        const auto word = goods::ref_word::of(written.object.id());
        if (written.isNode) {
          const TarnObject* const node = NodeAt(in, word);
          const auto& copy = static_cast<const TarnObject&>(*written.copy);
          traceFrom(in, node, nullptr);
          traceLink(in, TarnNodeAccess::ParentLinkOf(*node), TarnNodeAccess::ParentLinkOf(copy));
        } else {
          const auto* index =
              static_cast<const TarnObjects*>(in.look(word, TarnObjects::self_class));
          PastDamage([&] { traceUp(in, NodeAt(in, index->getParentWord()), written.object); });
        }
      }
    });
  });
}

// A node that gets another parent stays listed where it was: there others have to look, or need not
// any more.
void UpkeepRun::traceLink(goods::reader& in, goods::ref_word before, goods::ref_word now) {
  if (WalkKeyOf(before) == WalkKeyOf(now)) return;
  for (const goods::ref_word link : {before, now}) {
    // What is new has its place in a copy that is traced as well.
    if (link.is_null() || (link.is_handle() && link.handle()->is_transient())) continue;
    PastDamage(
        [&] { traceEntry(in, link.is_id() ? link : goods::ref_word::of(link.handle()->id())); });
  }
}

void UpkeepRun::traceEntry(goods::reader& in, goods::ref_word link) {
  const auto* entry =
      static_cast<const goods::set_member*>(in.look(link, goods::set_member::self_class));
  if (entry == nullptr || entry->owner_word().is_null()) return;
  const auto* children =
      static_cast<const TarnObjects*>(in.look(entry->owner_word(), TarnObjects::self_class));
  if (AffectedEntry* found = affect(in, link, *entry, *children, nullptr)) {
    found->isChanged = true;
  }
  traceFrom(in, NodeAt(in, children->getParentWord()), nullptr);
}

// What is damaged on the way up keeps nobody from changing what is below.
void UpkeepRun::traceFrom(goods::reader& in, const TarnObject* node,
                          const goods::object_ref& relisted) {
  PastDamage([&] { traceUp(in, node, relisted); });
}

void UpkeepRun::traceUp(goods::reader& in, const TarnObject* node,
                        const goods::object_ref& relisted) {
  std::string way;
  for (std::size_t depth = 0; node != nullptr && depth <= TarnValueIndex::kMostBranches; ++depth) {
    const goods::ref_word link = TarnNodeAccess::ParentLinkOf(*node);
    const auto* entry =
        static_cast<const goods::set_member*>(in.look(link, goods::set_member::self_class));
    if (entry == nullptr || entry->owner_word().is_null()) return;
    const auto* children =
        static_cast<const TarnObjects*>(in.look(entry->owner_word(), TarnObjects::self_class));
    if (AffectedEntry* found = affect(in, link, *entry, *children, &way)) {
      if (relisted.is_null()) {
        found->changed.insert(way);
      } else {
        found->relisted[way] = goods::ref<TarnObjects>::trusted(relisted);
      }
    }
    if (!way.empty()) way.insert(0, 1, TarnBranches::kSeparator);
    way.insert(0, entry->key());
    node = NodeAt(in, children->getParentWord());
  }
}

// Null when the children have no index, or none that cares for what lies at `way` (null: it is the
// entry itself).
AffectedEntry* UpkeepRun::affect(goods::reader& in, goods::ref_word link,
                                 const goods::set_member& entry, const TarnObjects& children,
                                 const std::string* way) {
  if (children.getValueIndexesWord().is_null()) return nullptr;
  AffectedChildren& affected = found_[WalkKeyOf(entry.owner_word())];
  if (affected.index.is_null()) {
    affected.index = goods::ref<TarnObjects>::trusted(goods::to_reference(entry.owner_word()));
    affected.trees = ValueIndexesOf(in, children);
  }
  const bool matters =
      way == nullptr || std::ranges::any_of(affected.trees, [&](const ValueIndexRef& tree) {
        return !tree.isStored || IsOnTheWay(*way, tree.below);
      });
  if (!matters) return nullptr;
  AffectedEntry& found = affected.entries[WalkKeyOf(link)];
  if (found.entry.is_null()) {
    found.entry = goods::ref<goods::set_member>::trusted(goods::to_reference(link));
    found.before = {std::string(entry.key()), HeldTo(entry.target_word())};
  }
  return &found;
}

void UpkeepRun::addNoted() {
  if (changes_ == nullptr) return;
  for (const auto& [handle, noted] : changes_->all()) {
    AffectedChildren& affected = found_[WalkKeyOf(noted.index.word())];
    affected.index = noted.index;
    affected.isOwn = true;
    for (const auto& [entryHandle, change] : noted.entries) {
      AffectedEntry& found = affected.entries[WalkKeyOf(change.entry.word())];
      found.entry = change.entry;
      found.isChanged = true;
      found.isThere = change.isThere;
      found.before.reset();
      if (change.before) found.before = {change.before->first, change.before->second};
    }
  }
}

void UpkeepRun::update(AffectedChildren& children) {
  if (children.isOwn) {
    children.trees = session_.read(
        [&](goods::reader& in) { return ValueIndexesOf(in, *in.get(children.index)); });
  }
  for (const ValueIndexRef& tree : children.trees) {
    if (tree.tree.is_null()) {
      if (!tree.isStored) GiveUpValueIndex(children.index, tree.below);
    } else if (tree.tree.handle()->is_transient()) {
      fill(children, tree);
    } else {
      follow(children, tree);
    }
  }
}

// A new index: all children, whatever has been changed.
void UpkeepRun::fill(const AffectedChildren& children, const ValueIndexRef& tree) {
  auto keys = session_.read([&](goods::reader& in) {
    std::vector<KeyChange> found;
    std::string key;
    goods::B_tree_walk walk(in, *in.get(children.index));
    for (walk.seek_index(0); !walk.at_end(); walk.next()) {
      const goods::index_entry entry = walk.entry();
      if (ReadIndexKey(in, entry, tree.below, key)) {
        found.push_back({key, goods::keep_word(entry.target)});
      }
    }
    return found;
  });
  std::ranges::stable_sort(keys, {}, &KeyChange::key);
  auto body = modify(tree.tree);
  body->remove_all();
  for (KeyChange& each : keys) {
    body->insert(goods::set_member::create(HeldTo(each.child.word()), each.key));
  }
}

std::vector<KeyChange> UpkeepRun::keysNow(const ValueIndexRef& tree,
                                          const std::vector<const AffectedEntry*>& entries) {
  return session_.read([&](goods::reader& in) {
    std::vector<KeyChange> keys(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (!entries[i]->isThere) continue;
      const goods::set_member* const member = in.get(entries[i]->entry);
      const goods::index_entry entry{member->key(), entries[i]->entry.word(),
                                     member->target_word()};
      if (ReadIndexKey(in, entry, tree.below, keys[i].key)) {
        keys[i].child = HeldTo(entry.target);
      } else {
        keys[i].key.clear();
      }
    }
    return keys;
  });
}

std::vector<KeyChange> UpkeepRun::keysBefore(const ValueIndexRef& tree,
                                             const std::vector<const AffectedEntry*>& entries) {
  return session_.outside_transaction([&] {
    return session_.read([&](goods::reader& in) {
      std::vector<KeyChange> keys(entries.size());
      for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto& before = entries[i]->before;
        if (!before || before->child.is_null()) continue;
        const goods::index_entry entry{before->name, entries[i]->entry.word(),
                                       before->child.word()};
        if (ReadIndexKey(in, entry, tree.below, keys[i].key)) {
          keys[i].child = before->child;
        } else {
          keys[i].key.clear();
        }
      }
      return keys;
    });
  });
}

goods::ref<goods::set_member> MemberFor(const goods::B_tree& tree, const KeyChange& wanted) {
  goods::index_position position(wanted.key);
  while (true) {
    const auto some = tree.entries_after(&position, 16);
    for (const goods::held_entry& entry : some) {
      if (entry.name != wanted.key) return nullptr;
      if (WalkKeyOf(entry.target.word()) == WalkKeyOf(wanted.child.word())) {
        return goods::ref<goods::set_member>::trusted(HeldTo(entry.member.word()));
      }
    }
    if (some.size() < 16) return nullptr;
    position.move_behind(some);
  }
}

// Whether the value at `below` may be another one.
bool UpkeepRun::matters(const AffectedEntry& entry, std::string_view below) {
  const auto isOnTheWay = [&](const std::string& way) { return IsOnTheWay(way, below); };
  if (entry.isChanged || std::ranges::any_of(entry.changed, isOnTheWay)) return true;
  return std::ranges::any_of(entry.relisted, [&](const auto& relisted) {
    const auto& [way, index] = relisted;
    if (!isOnTheWay(way)) return false;
    const std::string_view next = BranchBehind(way, below);
    return !next.empty() && isRelisted(index, next);
  });
}

// Whether the name leads to another entry than in what is committed. The transaction has changed
// the list, so looking locks nothing that it does not hold.
bool UpkeepRun::isRelisted(const goods::ref<TarnObjects>& index, std::string_view name) {
  const auto find = [&](goods::reader& in) {
    const auto entry = in.get(index)->find(in, name);
    return entry ? std::pair(WalkKeyOf(entry->member), WalkKeyOf(entry->target))
                 : std::pair<std::uint64_t, std::uint64_t>(0, 0);
  };
  const auto now = session_.read(find);
  return now != session_.outside_transaction([&] { return session_.read(find); });
}

void UpkeepRun::follow(const AffectedChildren& children, const ValueIndexRef& tree) {
  std::vector<const AffectedEntry*> entries;
  for (const auto& [id, entry] : children.entries) {
    if (matters(entry, tree.below)) entries.push_back(&entry);
  }
  if (entries.empty()) return;
  const std::vector<KeyChange> now = keysNow(tree, entries);
  const std::vector<KeyChange> before = keysBefore(tree, entries);
  if (now == before) return;
  const bool isDone = PastDamage([&] { ending_.attempt([&] { Change(tree, before, now); }); });
  if (!isDone) GiveUpValueIndex(children.index, tree.below);
}

void UpkeepRun::Change(const ValueIndexRef& tree, const std::vector<KeyChange>& before,
                       const std::vector<KeyChange>& now) {
  const goods::write_access<goods::B_tree> body(tree.tree);
  for (std::size_t i = 0; i < now.size(); ++i) {
    if (now[i] == before[i]) continue;
    if (!before[i].key.empty()) {
      const auto member = MemberFor(*body, before[i]);
      if (!member.is_null()) body->remove(member);
    }
    if (!now[i].key.empty()) body->insert(goods::set_member::create(now[i].child, now[i].key));
  }
}

}  // namespace

void KeepValueIndexes(goods::cache_manager& session, goods::transaction& ending) {
  if (ending.upkeep == nullptr && !MayHaveValueIndexes(session)) return;
  const goods::library_call here;
  UpkeepRun(session, ending).run();
}

}  // namespace tarns
