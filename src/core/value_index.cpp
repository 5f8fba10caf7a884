#include "core/value_index.h"

#include <goods/cache_manager.h>
#include <goods/errors.h>
#include <goods/metaobject.h>
#include <goods/object_handle.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/util/Stringer.h>

#include <algorithm>

#include "core/branch_batch.h"
#include "core/node_access.h"
#include "core/value_index_changes.h"
#include "goods/B_tree_walk.h"
#include "goods/prototype.h"
#include "util/c_text.h"

namespace tarns {

goods::class_descriptor TarnValueIndexes::self_class("TarnValueIndexes", sizeof(TarnValueIndexes),
                                                     &goods::pessimistic_scheme,
                                                     goods::construct_object<TarnValueIndexes>,
                                                     goods::prototype_fields<TarnValueIndexes>(),
                                                     &goods::B_tree::self_class, 0, true);

namespace {

constexpr unsigned kPathsPageN = 2;
constexpr unsigned kPageN = 32;
constexpr char kWhole = '\0';
constexpr char kCut = '\1';

bool IsSame(goods::ref_word left, goods::ref_word right) {
  return WalkKeyOf(left) == WalkKeyOf(right);
}

bool IsHome(const TarnObject& node, goods::ref_word entry) {
  return IsSame(TarnNodeAccess::ParentLinkOf(node), entry);
}

std::string ElsewhereKey(std::string_view name) {
  std::string key(1, static_cast<char>(ValueIndexEntry::kElsewhere));
  key.append(name.substr(0, goods::set_member::max_key_length - 1));
  return key;
}

std::string KeyOf(unsigned char group, const TarnData& value, std::string_view name) {
  std::string_view text = value.getText();
  text = text.substr(0, text.find('\0'));
  std::string key = ValueIndexEntry::PrefixFor(group, text);
  std::transform(key.begin() + 1, key.end(), key.begin() + 1, Stringer::ToUpper);
  key += text.size() > ValueIndexEntry::kMostText ? kCut : kWhole;
  key.append(name.substr(0, goods::set_member::max_key_length - key.size()));
  return key;
}

// A member of the node's class with that name.
bool ReadMember(goods::reader& reader, const TarnObject& node, std::string_view name,
                TarnData& value, unsigned char& group) {
  if (!node.getClass().hasDataMembers()) return false;
  const CText text(name);
  const TarnFieldDescriptor* field = node.getClass().findMember(text.get());
  if (field == nullptr || !field->readValue(reader, node, text.get(), value)) return false;
  TarnData number(TarnData::Uint64);
  field->readValue(reader, node, text.get(), number);
  const bool isEnumeration = number.getType() != value.getType();
  group = isEnumeration ? ValueIndexEntry::kEnumeration : ValueIndexEntry::GroupOf(value.getType());
  return true;
}

enum class Step { kTaken, kMissing, kElsewhere };

// From `node` to its child of that name, if that is listed by the node and at home there.
Step StepDown(goods::reader& reader, const TarnObject*& node, std::string_view name) {
  const TarnObjects* const index = TarnNodeAccess::IndexOf(reader, *node);
  const auto entry = index != nullptr ? index->find(reader, name) : std::nullopt;
  const auto* next =
      entry ? static_cast<const TarnObject*>(reader.look(entry->target, TarnObject::self_class))
            : nullptr;
  if (!node->getClass().may_be_guest()) {
    const TarnObject* const found = node->findChild(reader, name);
    if (found == nullptr && next == nullptr) return Step::kMissing;
    const bool isListed = found != nullptr && next != nullptr && found->handle() != nullptr &&
                          IsSame(goods::ref_word::of(found->handle()), entry->target);
    if (!isListed) return Step::kElsewhere;
  }
  if (next == nullptr) return Step::kMissing;
  if (!IsHome(*next, entry->member)) return Step::kElsewhere;
  node = next;
  return Step::kTaken;
}

}  // namespace

TarnValueIndexes::TarnValueIndexes(const goods::object_ref& children)
    : goods::B_tree(self_class, children, kPathsPageN) {}

goods::ref<goods::B_tree> TarnValueIndexes::Create(const goods::ref<TarnObjects>& children) {
  return {new TarnValueIndexes(children)};
}

std::string ValueIndexEntry::PrefixFor(unsigned char group, std::string_view text) {
  std::string prefix(1, static_cast<char>(group));
  prefix.append(text.substr(0, kMostText));
  return prefix;
}

std::optional<ValueIndexEntry> ValueIndexEntry::Parse(std::string_view key) {
  if (key.empty()) return std::nullopt;
  ValueIndexEntry entry;
  entry.group = static_cast<unsigned char>(key.front());
  entry.isNameCut = key.size() == goods::set_member::max_key_length;
  if (entry.group == kElsewhere) {
    entry.name = key.substr(1);
    return entry;
  }
  std::size_t end = key.substr(0, kMostText + 2).find(kWhole, 1);
  if (end == std::string_view::npos) {
    end = kMostText + 1;
    if (end >= key.size() || key[end] != kCut) return std::nullopt;
    entry.isCut = true;
  }
  entry.text = key.substr(1, end - 1);
  entry.name = key.substr(end + 1);
  return entry;
}

bool ValueIndexEntry::IsKey(std::string_view name) {
  const auto entry = Parse(name);
  return entry && (entry->group >= kEnumeration || entry->group <= GroupOf(TarnData::Uint64));
}

namespace {

bool ReadKeyOfWhole(goods::reader& reader, const goods::index_entry& entry, std::string_view below,
                    std::string& key) {
  const auto* node =
      static_cast<const TarnObject*>(reader.look(entry.target, TarnObject::self_class));
  if (node == nullptr) return false;
  key = ElsewhereKey(entry.name);
  if (!IsHome(*node, entry.member)) return true;
  TarnData value;
  for (auto branch = TarnBranches(below).begin();; ++branch) {
    unsigned char group = 0;
    if (branch.isLast() && ReadMember(reader, *node, *branch, value, group)) {
      key = KeyOf(group, value, entry.name);
      return true;
    }
    const Step step = StepDown(reader, node, *branch);
    if (step != Step::kTaken) return step == Step::kElsewhere;
    if (branch.isLast()) break;
  }
  if (!node->getClass().may_be_guest()) return true;  // its value may come from anywhere
  if (!node->readValue(reader, value)) return false;
  key = KeyOf(ValueIndexEntry::GroupOf(value.getType()), value, entry.name);
  return true;
}

}  // namespace

bool IsDamage(const goods::error_info& error) {
  using enum goods::error_code;
  return error.code() == corrupt_data || error.code() == object_deleted ||
         error.code() == bad_typecast;
}

// Whoever looks for what cannot be read gets the error.
bool ReadIndexKey(goods::reader& reader, const goods::index_entry& entry, std::string_view below,
                  std::string& key) {
  try {
    return ReadKeyOfWhole(reader, entry, below, key);
  } catch (const goods::error_info& error) {
    if (!IsDamage(error)) throw;
    key = ElsewhereKey(entry.name);
    return true;
  }
}

namespace {

void SetValueIndexes(const goods::ref<TarnObjects>& children,
                     const std::vector<ValueIndexRef>& trees) {
  goods::ref<goods::B_tree> all;
  for (const ValueIndexRef& each : trees) {
    if (all.is_null()) all = TarnValueIndexes::Create(children);
    modify(all)->insert(goods::set_member::create(each.tree, each.below));
  }
  modify(children)->setValueIndexes(all);
}

// As they are in the transaction, whose own the children are from now on.
std::vector<ValueIndexRef> LockedValueIndexes(const goods::ref<TarnObjects>& children) {
  const auto list = modify(children);
  return goods::read_here(
      [&](goods::reader& reader) { return ValueIndexesOf(reader, *reader.get(children)); });
}

// Without the one of that path, and without those that are not known any more. False when it is
// none of them.
bool TakeOut(std::vector<ValueIndexRef>& trees, std::string_view below) {
  return std::erase_if(trees, [&](const ValueIndexRef& each) {
           return each.below.empty() || each.below == below;
         }) != 0;
}

void Declare(const goods::ref<TarnObjects>& children, std::vector<ValueIndexRef> trees,
             const std::string& below) {
  trees.push_back({below, goods::B_tree::create(children, kPageN)});
  SetValueIndexes(children, trees);
  ValueIndexChanges::NoteDeclared(children);
}

}  // namespace

bool DeclareValueIndex(const goods::ref<TarnObjects>& children, const std::string& below) {
  std::vector<ValueIndexRef> trees = LockedValueIndexes(children);
  const bool isThere = std::ranges::any_of(trees, [&](const ValueIndexRef& each) {
    return each.below == below && !each.tree.is_null();
  });
  if (isThere) return false;
  TakeOut(trees, below);
  Declare(children, std::move(trees), below);
  return true;
}

bool DropValueIndex(const goods::ref<TarnObjects>& children, std::string_view below) {
  std::vector<ValueIndexRef> trees = LockedValueIndexes(children);
  if (!TakeOut(trees, below)) return false;
  SetValueIndexes(children, trees);
  ValueIndexChanges::NoteDeclared(children);
  return true;
}

bool RebuildValueIndex(const goods::ref<TarnObjects>& children, const std::string& below) {
  std::vector<ValueIndexRef> trees = LockedValueIndexes(children);
  if (!TakeOut(trees, below)) return false;
  Declare(children, std::move(trees), below);
  return true;
}

void GiveUpValueIndex(const goods::ref<TarnObjects>& children, std::string_view below) {
  std::vector<ValueIndexRef> trees = LockedValueIndexes(children);
  for (ValueIndexRef& each : trees) {
    if (each.below == below) each.tree = nullptr;
  }
  SetValueIndexes(children, trees);
}

void DeclareValueIndexesOf(const goods::ref<TarnObjects>& model,
                           const goods::ref<TarnObjects>& children) {
  const auto all = goods::read_here(
      [&](goods::reader& reader) { return ValueIndexesOf(reader, *reader.get(model)); });
  for (const ValueIndexRef& each : all) {
    if (!each.below.empty()) DeclareValueIndex(children, each.below);
  }
}

namespace {

const goods::B_tree* AllValueIndexes(goods::reader& reader, const TarnObjects& children) {
  return static_cast<const goods::B_tree*>(
      reader.look(children.getValueIndexesWord(), goods::B_tree::self_class));
}

}  // namespace

std::vector<ValueIndexRef> ValueIndexesOf(goods::reader& reader, const TarnObjects& children) {
  std::vector<ValueIndexRef> found;
  const bool isReadable = PastDamage([&] {
    const goods::B_tree* const all = AllValueIndexes(reader, children);
    if (all == nullptr) return;
    goods::B_tree_walk walk(reader, *all);
    for (walk.seek_index(0); !walk.at_end(); walk.next()) {
      const goods::index_entry entry = walk.entry();
      found.push_back({.below = std::string(entry.name), .tree = nullptr});
      if (entry.target.is_null()) continue;
      found.back().tree = goods::ref<goods::B_tree>::trusted(goods::to_reference(entry.target));
    }
  });
  if (!isReadable) found.push_back({.below = "", .tree = nullptr, .isStored = false});
  return found;
}

const goods::B_tree* FindValueIndex(goods::reader& reader, const TarnObjects& children,
                                    std::string_view below) {
  const goods::B_tree* found = nullptr;
  PastDamage([&] {
    const goods::B_tree* const all = AllValueIndexes(reader, children);
    const auto entry = all != nullptr ? all->find(reader, below) : std::nullopt;
    if (!entry) return;
    found =
        static_cast<const goods::B_tree*>(reader.look(entry->target, goods::B_tree::self_class));
  });
  return found;
}

}  // namespace tarns
