#include "services/branch_shadow.h"

#include <tarns/core/TarnBranches.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "services/branch_shadow_parts.h"

namespace tarns {

namespace {

using goods::object_id;
using Kind = TarnBranchChange::Kind;

template <class Entry>
void ForEachBelow(Entry& top, const std::function<void(Entry&)>& visit) {
  std::vector<Entry*> left{&top};
  while (!left.empty()) {
    Entry* const one = left.back();
    left.pop_back();
    visit(*one);
    for (const auto& child : one->children) left.push_back(child.get());
  }
}

template <class Entry>
bool IsWithin(const Entry& place, const Entry& top) {
  for (const Entry* one = &place; one != nullptr; one = one->parent) {
    if (one == &top) return true;
  }
  return false;
}

template <class Entry>
std::string PathOf(const Entry& entry) {
  std::vector<const Entry*> way;
  for (const Entry* one = &entry; one->parent != nullptr; one = one->parent) way.push_back(one);
  std::string path;
  for (std::size_t i = way.size(); i-- > 0;) {
    if (!path.empty()) path += TarnBranches::kSeparator;
    path += way[i]->name;
  }
  return path;
}

}  // namespace

BranchShadow::BranchShadow(goods::cache_manager& session, std::vector<std::string> path,
                           std::size_t mostNodes)
    : session_(session),
      way_(std::move(path)),
      mostNodes_(mostNodes),
      root_(std::make_unique<Entry>()) {
  root_->node = goods::make_object_id(0, goods::root_object_number);
  ++count_;
  Update none;
  fill({root_.get()}, none);
}

BranchShadow::~BranchShadow() = default;

// ---- Places

std::size_t BranchShadow::levelOf(const Entry& entry) const {
  std::size_t level = 0;
  for (const Entry* one = entry.parent; one != nullptr && level < way_.size(); one = one->parent) {
    ++level;
  }
  return level;
}

void BranchShadow::own(Entry& entry) {
  owners_.emplace(entry.node, &entry);
  if (entry.index != 0) owners_.emplace(entry.index, &entry);
  for (const object_id text : entry.texts) owners_.emplace(text, &entry);
}

void BranchShadow::disown(Entry& entry) {
  const auto remove = [&](object_id id) {
    const auto [first, last] = owners_.equal_range(id);
    const auto found = std::find_if(first, last, [&](const auto& o) { return o.second == &entry; });
    if (found != last) owners_.erase(found);
  };
  remove(entry.node);
  if (entry.index != 0) remove(entry.index);
  for (const object_id text : entry.texts) remove(text);
}

// ---- Comparing

void BranchShadow::apply(std::span<const CommitNote> commits,
                         std::vector<TarnBranchChange>& changes) {
  Update update;
  const std::vector<Entry*> touched = findTouched(commits, update);
  if (touched.empty()) return;
  Pictures pictures = look(touched, [](const Entry& entry) { return entry.isRewritten; });
  for (Entry* const entry : touched) compare(*entry, pictures.at(entry), update);
  for (auto& [entry, name] : update.names) entry->name = std::move(name);
  for (Entry* const entry : touched) {
    if (update.structure.contains(entry)) putMovedInPlace(*entry, update);
  }
  emptyFormerHomes(update);
  std::vector<Entry*> fresh;
  for (const Update::Come& one : update.come) fresh.push_back(one.entry);
  fill(std::move(fresh), update);
  const std::unordered_set<const Entry*> dead = forgetWhatIsGone(update);
  if (count_ > mostNodes_) ThrowBranchTooLarge();  // not before: what has moved was counted twice
  tell(update, commits.back().version, dead, changes);
}

// The entries that the commits are about, each once.
std::vector<BranchShadow::Entry*> BranchShadow::findTouched(std::span<const CommitNote> commits,
                                                            Update& update) {
  std::vector<Entry*> touched;
  std::unordered_set<Entry*> known;
  for (const CommitNote& commit : commits) {
    std::vector<Entry*> written;  // by this commit
    std::unordered_set<Entry*> indexes, isWritten;
    for (const object_id id : commit.changed) {
      const auto [first, last] = owners_.equal_range(id);
      for (auto owner = first; owner != last; ++owner) {
        Entry* const entry = owner->second;
        if (known.insert(entry).second) touched.push_back(entry);
        if (id == entry->index || id == entry->node) {
          entry->isRewritten = true;
          update.structure.insert(entry);
        }
        if (id == entry->index) {
          indexes.insert(entry);
        } else if (isWritten.insert(entry).second) {
          written.push_back(entry);
        }
      }
    }
    for (Entry* const entry : written) {
      update.written.push_back({entry, indexes.contains(entry), commit.version});
    }
  }
  return touched;
}

void BranchShadow::compare(Entry& entry, Picture& picture, Update& update) {
  if (!picture.exists) {  // the index that lists it tells more, or will do so
    entry.isRewritten = false;
    return;
  }
  const bool isRelinked = entry.index != picture.index || entry.link != picture.link;
  const bool isSame = picture.isPlain || (picture.hasValue && entry.value == picture.value);
  if (isSame) update.same.insert(&entry);
  if (isRelinked) update.relinked.insert(&entry);
  if (entry.isRewritten) {
    if (entry.isHome && picture.link != entry.member) {
      update.formerHomes.push_back({&entry, PathOf(entry)});
    }
    entry.isHome |= picture.link == entry.member;
    compareChildren(entry, picture, update);
  }
  takeOver(entry, picture);
}

// Takes out children that are not there any more, and puts in those that are new.
void BranchShadow::compareChildren(Entry& entry, Picture& picture, Update& update) {
  std::unordered_map<object_id, std::unique_ptr<Entry>> before;
  for (auto& child : entry.children) before.emplace(child->member, std::move(child));
  entry.children.clear();
  for (Picture::Child& child : picture.children) {
    const auto known = before.find(child.member);
    if (known != before.end() && known->second->node == child.node) {
      std::unique_ptr<Entry>& kept = entry.children.emplace_back(std::move(known->second));
      before.erase(known);
      if (kept->name == child.name) continue;
      update.moved.push_back({kept.get(), PathOf(*kept)});
      update.names.push_back({kept.get(), std::move(child.name)});
      update.relinked.insert(kept.get());
      continue;
    }
    auto& made = entry.children.emplace_back(std::make_unique<Entry>());
    made->parent = &entry;
    made->member = child.member;
    made->node = child.node;
    made->name = std::move(child.name);
    ++count_;
    update.fresh.insert(made.get());
  }
  for (auto& [member, left] : before) {
    Update::Gone gone{nullptr, PathOf(*left)};
    gone.entry = std::move(left);
    const object_id node = gone.entry->node;
    const bool mayMove = gone.entry->isHome && levelOf(*gone.entry) == way_.size();
    if (mayMove && !update.gone.contains(node)) {
      update.gone.emplace(node, std::move(gone));
    } else {
      update.further.push_back(std::move(gone));
    }
  }
}

// The entry of a node that is now below `parent` and was elsewhere in the branch; null for others.
std::unique_ptr<BranchShadow::Entry> BranchShadow::findMoved(Entry& parent, object_id member,
                                                             object_id node,
                                                             const std::string& name,
                                                             Update& update) {
  const auto found = update.gone.find(node);
  if (found == update.gone.end() || found->second.entry->link != member) return nullptr;
  if (isOnWay(parent) || IsWithin(parent, *found->second.entry)) return nullptr;
  std::unique_ptr<Entry> moved = std::move(found->second.entry);
  update.moved.push_back({moved.get(), std::move(found->second.path)});
  update.gone.erase(found);
  moved->parent = &parent;
  moved->member = member;
  moved->name = name;
  moved->isHome = true;
  return moved;
}

// Among the new children of a node.
void BranchShadow::putMovedInPlace(Entry& parent, Update& update) {
  for (auto& child : parent.children) {
    const auto fresh = update.fresh.find(child.get());
    if (fresh == update.fresh.end()) continue;
    auto moved = findMoved(parent, child->member, child->node, child->name, update);
    if (moved == nullptr) {
      update.come.push_back({child.get(), {}});
      continue;
    }
    update.fresh.erase(fresh);
    --count_;
    child = std::move(moved);
  }
}

// A node that is listed in several places may have its children at another one of them now.
void BranchShadow::emptyFormerHomes(Update& update) {
  if (update.formerHomes.empty()) return;
  const std::unordered_set<const Entry*> dead = findDead(update);
  for (const auto& [entry, path] : update.formerHomes) {
    const bool isListed = !dead.contains(entry) && entry->link != entry->member;
    if (!isListed || isOnWay(*entry)) continue;
    entry->isHome = false;
    for (auto& child : entry->children) {
      std::string before = path + TarnBranches::kSeparator + child->name;
      update.further.push_back({std::move(child), std::move(before)});
    }
    entry->children.clear();
  }
}

// The entries that are not in the branch any more.
std::unordered_set<const BranchShadow::Entry*> BranchShadow::findDead(const Update& update) const {
  std::unordered_set<const Entry*> dead;
  const std::function<void(Entry&)> add = [&](Entry& entry) { dead.insert(&entry); };
  for (const auto& [node, gone] : update.gone) ForEachBelow(*gone.entry, add);
  for (const auto& gone : update.further) ForEachBelow(*gone.entry, add);
  return dead;
}

// Returns them.
std::unordered_set<const BranchShadow::Entry*> BranchShadow::forgetWhatIsGone(Update& update) {
  const std::function<void(Entry&)> forget = [&](Entry& entry) {
    disown(entry);
    --count_;
  };
  for (auto& [node, gone] : update.gone) ForEachBelow(*gone.entry, forget);
  for (const auto& gone : update.further) ForEachBelow(*gone.entry, forget);
  return findDead(update);
}

// First what is gone, then what has moved, has come and was changed. All is of the last commit:
// what is there now may be of it, whatever commit has written the index. Where all nodes are where
// they were, each change of a value is of the commit that wrote it.
void BranchShadow::tell(const Update& update, std::uint64_t version,
                        const std::unordered_set<const Entry*>& dead,
                        std::vector<TarnBranchChange>& changes) const {
  const auto add = [&](Kind kind, std::string path, std::string from, object_id node) {
    changes.push_back({kind, std::move(path), std::move(from), node, version});
  };
  const bool isOfValuesOnly = update.isOfValuesOnly();
  const auto isInBranch = [&](const Entry& entry) {
    return !dead.contains(&entry) && levelOf(entry) == way_.size();
  };
  const auto addGone = [&](const Update::Gone& gone) {
    // Of what is above the branch only the branch is told.
    const Entry* entry = gone.entry.get();
    std::string path = gone.path;
    while (isOnWay(*entry) && !entry->children.empty()) {
      entry = entry->children.front().get();
      path += TarnBranches::kSeparator + entry->name;
    }
    const bool wasKnown = !isOnWay(*entry) && !update.fresh.contains(entry);
    if (wasKnown) add(Kind::Removed, std::move(path), {}, entry->node);
  };
  for (const auto& [node, gone] : update.gone) addGone(gone);
  for (const Update::Gone& gone : update.further) addGone(gone);
  for (const Update::Come& one : update.moved) {
    if (isInBranch(*one.entry)) {
      add(Kind::Moved, PathOf(*one.entry), one.from, one.entry->node);
    } else {  // into what has been removed
      add(Kind::Removed, one.from, {}, one.entry->node);
    }
  }
  for (const Update::Come& one : update.come) {
    if (isInBranch(*one.entry)) add(Kind::Added, PathOf(*one.entry), {}, one.entry->node);
  }
  for (const auto& [entry, withIndex, written] : update.written) {
    // A node is also written when it gets or loses a child, or gets another parent or name.
    const bool isOnlyLinked =
        update.same.contains(entry) && (withIndex || update.relinked.contains(entry));
    if (isOnlyLinked || !isInBranch(*entry)) continue;
    add(Kind::Changed, PathOf(*entry), {}, entry->node);
    if (isOfValuesOnly) changes.back().version = written;
  }
}

}  // namespace tarns
