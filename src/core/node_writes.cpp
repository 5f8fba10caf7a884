// Storing by path: what exists is written alone; what is missing is made apart from the tree and
// attached by one write, so that nobody sees half of it and a failure leaves nothing behind.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <string>

#include "core/node_access.h"

namespace tarns {

namespace {

// Where a path leads to, as far as it leads.
struct Place {
  enum Kind { kNode, kMember, kMissing };
  Kind kind;
  TarnRef node;           // the node itself; the one with the member; the last one that exists
  std::string_view rest;  // the member's name; the branches that are missing
};

enum class Sought { kNode, kValue };

// A value's last branch may be a member that is no node.
bool IsMember(const TarnObject& node, std::string_view name) {
  return node.getClass().hasDataMembers() && node.getClass().findMember(name) != nullptr;
}

Place Locate(const TarnRef& from, std::string_view path, Sought sought) {
  return goods::read_here([&](goods::reader& reader) -> Place {
    const TarnObject* node = reader.get(from);
    const TarnBranches branches(path);
    for (auto branch = branches.begin(); branch != branches.end(); ++branch) {
      if (sought == Sought::kValue && branch.isLast() && IsMember(*node, *branch)) {
        return {Place::kMember, node->getSelf(), *branch};
      }
      const TarnObject* next = node->findChild(reader, *branch);
      if (next == nullptr) return {Place::kMissing, node->getSelf(), branch.rest()};
      node = next;
    }
    return {Place::kNode, node->getSelf(), {}};
  });
}

// Names end at a NUL as C strings do.
std::string_view UpToNul(std::string_view path) { return path.substr(0, path.find('\0')); }

// All branches of `path` can be names; no branch at all is an empty one behind a separator.
void VerifyBranches(const TarnRef& node, std::string_view path) {
  for (const std::string_view branch : TarnBranches(path)) {
    TarnObject::VerifyChildName(node, branch);
  }
  if (path.empty()) TarnObject::VerifyChildName(node, path);
}

[[noreturn]] void ThrowBadSet(const char* before, std::string_view path, const char* after) {
  TarnException error;
  error << before << path << after;
  error.setErrorID(ErrorID::BadSet);
  throw error;
}

[[noreturn]] void ThrowNoValueToSet(std::string_view path) {
  ThrowBadSet("Programmer error: set() cannot create the value for \"", path,
              "\"; use setValue() instead.");
}

TarnRef MakeDefaultChild(const TarnRef& parent, std::string_view name, std::string_view forPath) {
  TarnRef child = parent->createDefaultChild(std::string(name).c_str());
  if (child.is_null()) {
    ThrowBadSet("Programmer error: set() cannot create the childBranch for \"", forPath, "\"");
  }
  return child;
}

// Adds a new child, or puts it into the reference member of that name. False, and nothing changed,
// when somebody else has made that child meanwhile.
bool Attach(const TarnRef& parent, std::string_view name, const TarnRef& child) {
  const std::string text(name);
  auto node = modify(parent);
  if (!node->getChildWithName(text.c_str()).is_null()) return false;
  TarnRef placed = child;
  if (!node->setChildNode(text.c_str(), placed)) node->addChild(text.c_str(), child);
  return true;
}

// The node at `path` below the new node `top`, made as far as it is missing.
TarnRef CompleteBranch(const TarnRef& top, std::string_view path, std::string_view forPath) {
  TarnRef at = top;
  std::string_view rest = path;
  while (true) {
    const Place place = Locate(at, rest, Sought::kNode);
    if (place.kind == Place::kNode) return place.node;
    const auto branch = TarnBranches(place.rest).begin();
    const TarnRef child = MakeDefaultChild(place.node, *branch, forPath);
    Attach(place.node, *branch, child);
    at = child;
    rest = branch.tail();
  }
}

// Throws when `node` cannot be put below `parent` under that name: what is to be made on the way is
// not attached then.
void VerifyFits(const TarnRef& parent, std::string_view name, const TarnRef& node) {
  const std::string text(name);
  const auto body = *parent;
  const TarnFieldDescriptor* field = body->getClass().findMember(text.c_str());
  if (field != nullptr && field->mayHoldNodes() && field->getValueOffset(text.c_str()) >= 0) {
    field->verifyFits(*body, text.c_str(), node);
  } else if (node.is_null()) {
    ThrowBadRef("NULL TarnRef write dereference");
  }
}

// The node at `path`, made from default children as far as it is missing. `verify(node)` is called
// before anything is attached and may throw.
template <class Verify>
TarnRef MakeVerifiedBranch(const TarnRef& from, std::string_view path, std::string_view forPath,
                           const Verify& verify) {
  while (true) {
    const Place place = Locate(from, path, Sought::kNode);
    if (place.kind == Place::kNode) {
      verify(place.node);
      return place.node;
    }
    VerifyBranches(place.node, place.rest);
    const auto first = TarnBranches(place.rest).begin();
    const TarnRef top = MakeDefaultChild(place.node, *first, forPath);
    TarnRef bottom = CompleteBranch(top, first.tail(), forPath);
    verify(bottom);
    if (Attach(place.node, *first, top)) return bottom;
  }
}

void StoreAtMember(const Place& place, const TarnData& value, std::string_view path) {
  const std::string name(place.rest);
  if (!modify(place.node)->setChildValue(name.c_str(), value)) ThrowNoValueToSet(path);
}

enum class Missing { kCreate, kRefuse };

// Stores a value where something is; false when nothing is.
bool StoreAt(const Place& place, const TarnData& value, std::string_view path) {
  if (place.kind == Place::kMissing) return false;
  if (place.kind == Place::kMember) {
    StoreAtMember(place, value, path);
  } else {
    modify(place.node)->setValue(nullptr, value);
  }
  return true;
}

// Makes the branches `missing` below `node`, the last one being the value. Returns the first one.
TarnRef MakeValueBranch(const TarnRef& node, std::string_view missing, const TarnData& value,
                        Missing rule, std::string_view path) {
  const auto first = TarnBranches(missing).begin();
  const bool isValue = first.isLast();
  if (isValue && rule == Missing::kRefuse) ThrowNoValueToSet(path);
  if (isValue) return TarnValue::CreateValue(value);
  TarnRef top = MakeDefaultChild(node, *first, path);
  const std::string_view name = TarnBranches::LastOf(missing);
  const TarnRef bottom = CompleteBranch(top, TarnBranches::ParentOf(first.tail()), path);
  const Place place = Locate(bottom, name, Sought::kValue);
  if (StoreAt(place, value, path)) return top;
  if (rule == Missing::kRefuse) ThrowNoValueToSet(path);
  Attach(bottom, name, TarnValue::CreateValue(value));
  return top;
}

void Store(const TarnRef& from, std::string_view path, const TarnData& value, Missing rule) {
  while (true) {
    const Place place = Locate(from, path, Sought::kValue);
    if (StoreAt(place, value, path)) return;
    VerifyBranches(place.node, place.rest);
    const TarnRef top = MakeValueBranch(place.node, place.rest, value, rule, path);
    if (Attach(place.node, *TarnBranches(place.rest).begin(), top)) return;
  }
}

}  // namespace

void StoreValue(const TarnRef& from, std::string_view path, const TarnData& value) {
  if (from.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const goods::library_call here;
  Store(from, UpToNul(path), value, Missing::kCreate);
}

void StoreExistingValue(const TarnRef& from, std::string_view path, const TarnData& value) {
  if (from.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const goods::library_call here;
  Store(from, UpToNul(path), value, Missing::kRefuse);
}

void PlaceNode(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const std::string_view whole = UpToNul(path);
  VerifyBranches(from, whole);
  const std::string name(TarnBranches::LastOf(whole));
  const goods::library_call here;
  const auto oneTransaction = *from;
  const goods::changing_call call;
  const TarnRef parent =
      MakeVerifiedBranch(from, TarnBranches::ParentOf(whole), whole,
                         [&](const TarnRef& made) { VerifyFits(made, name, node); });
  modify(parent)->setNode(name.c_str(), node);
}

TarnRef MakeBranch(const TarnRef& from, std::string_view path, std::string_view forPath) {
  const goods::library_call here;
  return MakeVerifiedBranch(from, UpToNul(path), forPath, [](const TarnRef&) {});
}

bool AddMissingNode(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const goods::library_call here;
  const goods::changing_call call;
  const std::string_view whole = UpToNul(path);
  VerifyBranches(from, whole);
  const std::string_view name = TarnBranches::LastOf(whole);
  const TarnRef parent =
      MakeVerifiedBranch(from, TarnBranches::ParentOf(whole), whole,
                         [&](const TarnRef& made) { VerifyFits(made, name, node); });
  return Attach(parent, name, node);
}

}  // namespace tarns
