#include <tarns/session/TarnSalvage.h>

#include <goods/B_tree.h>
#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/reader.h>
#include <goods/salvage.h>
#include <goods/set_member.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/TarnValue.h>
#include <tarns/core/TarnValueIndex.h>
#include <tarns/session/TarnDatabase.h>
#include <tarns/session/TarnManager.h>
#include <tarns/session/TarnRoot.h>

#include <algorithm>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "core/node_access.h"
#include "core/value_index.h"
#include "core/value_index_changes.h"

namespace tarns {

namespace {

using goods::object_id;

constexpr object_id kRoot = goods::make_object_id(0, goods::root_object_number);
constexpr std::size_t kStepsPerCommit = 500;
constexpr const char* kLost = "lost";

std::string IdText(object_id id) {
  return std::to_string(goods::storage_of(id)) + ":" + std::to_string(goods::number_of(id));
}

// What a lost node is called below "lost".
std::string LostName(object_id id) {
  std::string number = std::to_string(goods::number_of(id));
  if (goods::storage_of(id) == 0) return number;
  return std::to_string(goods::storage_of(id)) + ":" + number;
}

// What `read()` answers, or `otherwise` for an object that is damaged in a way that checksums do
// not show, or for what is left of an index that was not whole.
template <class Answer, class Read>
Answer UnlessDamaged(Answer otherwise, Read&& read) {
  try {
    return read();
  } catch (const TarnException& error) {
    const unsigned long id = error.getErrorID();
    if (id != ErrorID::CorruptData && id != ErrorID::BadTypecast) throw;
    return otherwise;
  }
}

// Puts the tree together again from what goods::salvage() has left.
class TreeMender {
 public:
  TreeMender(TarnManager& into, goods::salvage_result& found) : into_(into), found_(found) {}

  TarnSalvageResult run() {
    result_.objects = found_.objects;
    into_.getRoot();
    findOwners();
    findLostLists();
    placeStandIns();
    putBackEntries();
    placeUnreachable();
    mendValueIndexes();
    tellMissing();
    return std::move(result_);
  }

 private:
  void findOwners();
  void findLostLists();
  void placeStandIns();
  void putBackEntries();
  void placeUnreachable();
  bool placeTops(bool any);
  void dropValue(const TarnRef& value);
  void mendValueIndexes();
  std::vector<std::pair<TarnRef, std::string>> lostValueIndexes() const;
  void tellMissing();

  TarnRef standInFor(object_id lost);
  TarnRef ownerOf(object_id index);
  // Whether it is there, as something of the class or one derived from it.
  bool isA(object_id id, const goods::class_descriptor& cls) const;
  void mendValueIndex(const TarnRef& owner, const std::string& below);
  template <class Work>
  bool goOnAfter(const std::string& failure, const Work& work);
  void moveEntries(object_id index, const TarnRef& node);
  TarnRef lostBranch();
  std::string pathOf(object_id id) const;
  static std::string PathOf(const TarnRef& node);
  // Calls `work(i)` for each number below `count`, some in one transaction.
  template <class Work>
  void inTransactions(std::size_t count, Work&& work);
  goods::object_ref object(object_id id) const;
  TarnRef node(object_id id) const;

  TarnManager& into_;
  goods::salvage_result& found_;
  TarnSalvageResult result_;
  std::map<object_id, object_id> nodeOfLostIndex_;
  // Indexes whose node is lost, by that.
  std::multimap<object_id, object_id> indexesOfLost_;
  std::map<object_id, object_id> childrenOfLostValueIndexes_;
  std::set<object_id> lostLists_;          // lost indexes that listed nodes under their names
  std::map<object_id, TarnRef> standIns_;  // of lost nodes, and of lost indexes without a node
  std::map<object_id, bool> isPlaced_;     // stand-ins that have got their place
  TarnRef lostBranch_;
};

template <class Work>
void TreeMender::inTransactions(std::size_t count, Work&& work) {
  for (std::size_t from = 0; from < count; from += kStepsPerCommit) {
    const std::size_t to = std::min(count, from + kStepsPerCommit);
    into_.transaction([&] {
      for (std::size_t i = from; i < to; ++i) work(i);
    });
  }
}

// Runs `work`; false when it failed, which is told.
template <class Work>
bool TreeMender::goOnAfter(const std::string& failure, const Work& work) {
  try {
    work();
    return true;
  } catch (const TarnException& error) {
    result_.missing.push_back(failure + error.getError());
    return false;
  }
}

goods::object_ref TreeMender::object(object_id id) const {
  goods::object_ref found;
  into_.db().get_object(found, goods::number_of(id), goods::storage_of(id));
  return found;
}

TarnRef TreeMender::node(object_id id) const {
  const goods::object_ref found = object(id);
  const bool isNode = UnlessDamaged(false, [&] { return TarnObject::IsTarnObject(found); });
  return isNode ? checked_cast<TarnObject>(found) : TarnRef();
}

std::string TreeMender::PathOf(const TarnRef& node) {
  TarnPath path;
  TarnObject::GetPath(node, path);
  return std::string(path.view());
}

void TreeMender::findOwners() {
  for (const goods::lost_reference& lost : found_.lost) {
    if (lost.member == "Children") nodeOfLostIndex_[lost.target] = lost.from;
    if (lost.member == "mParent") indexesOfLost_.emplace(lost.target, lost.from);
    if (lost.member == "ValueIndexes") childrenOfLostValueIndexes_[lost.target] = lost.from;
  }
}

// What stood in a lost index tells whether it listed children: a value index has its keys for
// names, and the list of a node's value indexes leads to indexes.
void TreeMender::findLostLists() {
  for (const goods::loose_entry& entry : found_.loose) {
    if (entry.is_lost || lostLists_.contains(entry.index)) continue;
    if (ValueIndexEntry::IsKey(entry.name) || isA(entry.index, goods::object::self_class)) continue;
    if (!node(entry.target).is_null()) lostLists_.insert(entry.index);
  }
}

TarnRef TreeMender::lostBranch() {
  if (lostBranch_.is_null()) {
    const TarnRef root = into_.getRoot();
    lostBranch_ = TarnObject::Create();
    const XString name = modify(root)->addUniqueChild(kLost, lostBranch_);
    result_.lostName = std::string(name.view());
  }
  return lostBranch_;
}

// The node in the place of one that is lost; it gets its own place later.
TarnRef TreeMender::standInFor(object_id lost) {
  if (lost == kRoot) return into_.getRoot();
  TarnRef& found = standIns_[lost];
  if (found.is_null()) {
    found = TarnObject::Create();
    isPlaced_[lost] = false;
  }
  return found;
}

// The node that an index which is lost, or has been emptied, belongs to; null for an index of
// something else than children.
TarnRef TreeMender::ownerOf(object_id index) {
  if (const auto known = nodeOfLostIndex_.find(index); known != nodeOfLostIndex_.end())
    return node(known->second);
  for (const auto& [lost, of] : indexesOfLost_) {
    if (of == index) return standInFor(lost);
  }
  if (!isA(index, goods::object::self_class)) {
    return lostLists_.contains(index) ? standInFor(index) : nullptr;
  }
  if (!isA(index, TarnObjects::self_class)) return nullptr;
  return checked_cast<TarnObjects>(object(index))->getParent();
}

bool TreeMender::isA(object_id id, const goods::class_descriptor& cls) const {
  const goods::object_ref found = object(id);
  try {
    return goods::read_here([&](goods::reader& reader) {
      const goods::object* body = reader.get(goods::ref<goods::object>::trusted(found));
      return body != nullptr && cls.is_superclass_for(body->cls());
    });
  } catch (const goods::error_info& error) {
    if (error.code() != goods::error_code::object_deleted) throw;
    return false;
  }
}

// Hands the children of an index without node to `node`.
void TreeMender::moveEntries(object_id index, const TarnRef& node) {
  const auto from = checked_cast<TarnObjects>(object(index));
  std::vector<std::pair<std::string, TarnRef>> children;
  ForEachEntry(from, [&](const goods::held_entry& entry, const TarnRef& child) {
    children.emplace_back(entry.name, child);
    return true;
  });
  inTransactions(children.size(), [&](std::size_t i) {
    modify(node)->addChild(children[i].first.c_str(), children[i].second);
  });
}

// Stand-ins go where an entry still names the node that they stand for, and otherwise to what is
// lost; all of this before they get children, so that these are stored one by one.
void TreeMender::placeStandIns() {
  for (const auto& [lost, index] : indexesOfLost_) standInFor(lost);
  for (const goods::loose_entry& entry : found_.loose) {
    if (!entry.is_lost) ownerOf(entry.index);
  }
  for (const goods::loose_entry& entry : found_.loose) {
    const auto standIn = standIns_.find(entry.target);
    if (!entry.is_lost || standIn == standIns_.end() || isPlaced_[entry.target]) continue;
    const TarnRef owner = ownerOf(entry.index);
    if (owner.is_null()) continue;
    into_.transaction([&] { modify(owner)->addChild(entry.name.c_str(), standIn->second); });
    isPlaced_[entry.target] = true;
  }
  // Those that were put below another stand-in have been stored with that.
  for (const bool wasPlaced : {false, true}) {
    for (const auto& place : isPlaced_) {
      const auto lost = place.first;
      const TarnRef standIn = standIns_.at(lost);
      if (place.second != wasPlaced || TarnObject::GetObjectID(standIn) != 0) continue;
      into_.transaction([&] { modify(lostBranch())->addChild(LostName(lost).c_str(), standIn); });
      ++result_.lostBranches;
    }
  }
  for (const auto& [lost, index] : indexesOfLost_) moveEntries(index, standInFor(lost));
}

void TreeMender::putBackEntries() {
  inTransactions(found_.loose.size(), [&](std::size_t i) {
    const goods::loose_entry& entry = found_.loose[i];
    if (entry.is_lost) return;
    if (const TarnRef owner = ownerOf(entry.index); !owner.is_null()) {
      const TarnRef child = node(entry.target);
      if (!child.is_null() && IsChildName(entry.name)) {
        modify(owner)->addChild(entry.name.c_str(), child);
      }
      return;
    }
    if (!isA(entry.index, goods::B_tree::self_class)) return;
    const auto index = goods::checked_cast<goods::B_tree>(object(entry.index));
    goods::modify(index)->insert(goods::set_member::create(object(entry.target), entry.name));
  });
}

// Nodes that nothing leads to: those without a parent first, with all that is below them; then, as
// long as there are any (that are below each other), one of them.
void TreeMender::placeUnreachable() {
  while (placeTops(false)) continue;
  while (placeTops(true)) continue;
}

bool TreeMender::placeTops(bool any) {
  std::vector<object_id> unreachable;
  goods::check_options options;
  options.full = true;
  options.unreachable = [&](object_id id, std::string_view) { unreachable.push_back(id); };
  into_.check(options);
  std::vector<object_id> tops;
  for (const object_id id : unreachable) {
    const TarnRef lost = node(id);
    if (lost.is_null() || (!any && UnlessDamaged(false, [&] { return lost->hasParent(); })))
      continue;
    tops.push_back(id);
    if (any) break;
  }
  inTransactions(tops.size(), [&](std::size_t i) {
    modify(lostBranch())->addChild(LostName(tops[i]).c_str(), node(tops[i]));
  });
  result_.lostBranches += tops.size();
  return !tops.empty();
}

// Those that are lost, and those that do not agree with what is left of the values. All else is
// done by now: what cannot be mended here is told.
void TreeMender::mendValueIndexes() {
  if (!MayHaveValueIndexes(goods::cache_manager::require())) return;
  goOnAfter("The value indexes could not be looked at: ", [&] {
    for (const auto& [owner, below] : lostValueIndexes()) {
      if (below.empty()) {
        result_.missing.push_back("the value indexes at \"" + PathOf(owner) + "\"");
      } else {
        mendValueIndex(owner, below);
      }
    }
    std::set<object_id> suspects;
    goods::check_options options;
    options.full = true;
    options.found = [&](const goods::check_finding& finding) { suspects.insert(finding.id); };
    into_.check(options);
    for (const object_id id : suspects) {
      const TarnRef owner = node(id);
      if (owner.is_null()) continue;
      for (const std::string& below : TarnValueIndex::List(owner)) mendValueIndex(owner, below);
    }
  });
}

// An entry of a list of value indexes says which index there was; the path is empty where there is
// none left.
std::vector<std::pair<TarnRef, std::string>> TreeMender::lostValueIndexes() const {
  std::vector<std::pair<TarnRef, std::string>> indexes;
  const auto add = [&](object_id children, const std::string& below) {
    if (children == 0 || !isA(children, TarnObjects::self_class)) return;
    const TarnRef owner = checked_cast<TarnObjects>(object(children))->getParent();
    if (!owner.is_null()) indexes.emplace_back(owner, below);
  };
  std::map<object_id, object_id> silent = childrenOfLostValueIndexes_;
  for (const goods::loose_entry& entry : found_.loose) {
    const auto known = childrenOfLostValueIndexes_.find(entry.index);
    if (known != childrenOfLostValueIndexes_.end()) {
      add(known->second, entry.name);
      silent.erase(entry.index);
    } else if (isA(entry.index, TarnValueIndexes::self_class)) {
      add(goods::checked_cast<goods::B_tree>(object(entry.index))->owner().id(), entry.name);
    }
  }
  for (const auto& [lost, children] : silent) add(children, "");
  return indexes;
}

// An index that is wrong is worse than none.
void TreeMender::mendValueIndex(const TarnRef& owner, const std::string& below) {
  const std::string which = "the index of \"" + below + "\" at \"" + PathOf(owner) + "\"";
  const bool isMended = goOnAfter(which + " could not be made anew: ", [&] {
    if (!TarnValueIndex::Rebuild(owner, below)) TarnValueIndex::Declare(owner, below);
  });
  if (isMended) return;
  goOnAfter(which + " is wrong and could not be dropped: ",
            [&] { TarnValueIndex::Drop(owner, below); });
}

// Empty for what is no node.
std::string TreeMender::pathOf(object_id id) const {
  const TarnRef at = node(id);
  return at.is_null() ? "" : PathOf(at);
}

// A value without its text would read as an empty one: it goes, or leaves a plain node in its place
// when it has children.
void TreeMender::dropValue(const TarnRef& value) {
  if (value.is_null() || !value->isDerivedFrom(TarnValue::GetType())) return;
  const TarnRef parent = value->getParent();
  if (parent.is_null()) return;
  into_.transaction([&] {
    const std::string name(value->getName().view());
    TarnRef plain = TarnObject::Create();
    const bool hasChildren = value->getNumAbstractChildren() != 0;
    if (hasChildren) modify(value)->bequeathChildren(plain);
    modify(parent)->deleteChild(value);
    if (hasChildren) modify(parent)->addChild(name.c_str(), plain);
  });
}

void TreeMender::tellMissing() {
  const auto add = [&](std::string text) { result_.missing.push_back(std::move(text)); };
  for (const auto& [first, last] : found_.lost_ranges) {
    add("objects " + IdText(first) + " to " + IdText(last) + " cannot be read");
  }
  for (const goods::loose_entry& entry : found_.loose) {
    if (!entry.is_lost) continue;
    const TarnRef owner = ownerOf(entry.index);
    const bool isOfValueIndex = ValueIndexEntry::IsKey(entry.name) ||
                                childrenOfLostValueIndexes_.contains(entry.index) ||
                                isA(entry.index, TarnValueIndexes::self_class);
    if (isOfValueIndex) continue;  // which has been made anew
    std::string path = owner.is_null() ? "" : PathOf(owner);
    if (!path.empty()) path += '~';
    const bool hasStandIn = standIns_.contains(entry.target);
    add(path + entry.name + " (object " + IdText(entry.target) + ") cannot be read" +
        (hasStandIn ? "; a plain node takes its place" : ""));
  }
  for (const goods::lost_reference& lost : found_.lost) {
    if (lost.member == "mParent" || lost.member == "ParentLink" || lost.member == "Children" ||
        lost.member == "owner" || lost.member == "object" || lost.member == "entries" ||
        lost.member == "ValueIndexes") {
      continue;
    }
    std::string path = pathOf(lost.from);
    if (!path.empty()) path += '~';
    add(path + lost.member + " (object " + IdText(lost.target) + ", a member of object " +
        IdText(lost.from) + ") cannot be read");
    dropValue(node(lost.from));
  }
}

}  // namespace

TarnSalvageResult Salvage(const std::string& from, TarnManager& into,
                          const std::function<void(std::uint64_t)>& progress) {
  goods::salvage_result found = goods::salvage(from, into.db(), progress);
  return TreeMender(into, found).run();
}

}  // namespace tarns
