// Storing by path: what exists is written alone; what is missing is made apart from the tree and
// attached by one write, so that nobody sees half of it and a failure leaves nothing behind.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnValue.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>

#include <string>
#include <utility>

#include "core/node_access.h"
#include "core/value_index_changes.h"
#include "goods/thread_attachment.h"

namespace tarns {

namespace {

// Where a path leads to, as far as it leads.
struct Place {
  enum Kind { kNode, kMember, kMissing, kText };
  Kind kind;
  TarnRef node;           // the node itself; the one with the member; the last one that exists
  std::string_view rest;  // the member's name; the branches that are missing
  goods::ref<goods::String> text = {};  // that the value at the place is, and nothing else
};

enum class Sought { kNode, kValue };

// A value's last branch may be a member that is no node.
bool IsMember(const TarnObject& node, std::string_view name) {
  return node.getClass().hasDataMembers() && node.getClass().findMember(name) != nullptr;
}

// Nodes on the way are looked at in passing; a member may be one. `word`: where it is.
const TarnObject* NextOnTheWay(goods::reader& reader, const TarnObject& node, std::string_view name,
                               goods::ref_word& word) {
  if (!node.getClass().hasDataMembers()) {
    return PassToChild(reader, node, name, goods::guest_scope::policy::at_first, word);
  }
  const TarnObject* const child = node.findChild(reader, name);
  if (child != nullptr) word = goods::ref_word::of(child->handle());
  return child;
}

// The text of a value that may be stored without writing the value's node, which has been locked as
// if it was; null where there is none.
goods::ref<goods::String> TextToWrite(goods::ref_word value) {
  goods::cache_manager* const session = goods::cache_manager::current();
  if (session == nullptr || !value.is_id()) return {};
  goods::transaction* const open = session->attachment()->open();
  if (open == nullptr || !open->is_explicit()) return {};
  const goods::object* const node = open->look_beside_write(value.id());
  if (node == nullptr || &node->cls() != &TarnStringValue::self_class) return {};
  // Indexes are kept by the nodes that a transaction writes. Not before the lock: who declares one
  // has read the value by then, or waits for it.
  if (MayHaveValueIndexes(*session)) return {};
  const auto& text = static_cast<const TarnStringValue&>(*node).getTarnString().getReference();
  return goods::ref<goods::String>::trusted(HeldTo(text.word()));
}

Place Locate(const TarnRef& from, std::string_view path, Sought sought) {
  return goods::read_here([&](goods::reader& reader) -> Place {
    const TarnObject* node = reader.get(from);
    goods::ref_word at = from.word();
    const auto here = [&] { return TarnRef::Trusted(goods::to_reference(at)); };
    const TarnBranches branches(path);
    for (auto branch = branches.begin(); branch != branches.end(); ++branch) {
      if (sought == Sought::kValue && branch.isLast() && IsMember(*node, *branch)) {
        return {Place::kMember, here(), *branch};
      }
      goods::ref_word next;
      // What is going to be written must not be looked at: it would be locked for reading before it
      // is locked for writing, and two that do so wait for each other.
      if (sought == Sought::kValue && branch.isLast() &&
          FindInIndex(reader, *node, *branch, next)) {
        if (next.is_null()) return {Place::kMissing, here(), branch.rest()};
        if (auto text = TextToWrite(next); !text.is_null()) {
          return {Place::kText, {}, {}, std::move(text)};
        }
        at = next;
        return {Place::kNode, here(), {}};
      }
      node = NextOnTheWay(reader, *node, *branch, next);
      if (node == nullptr) return {Place::kMissing, here(), branch.rest()};
      at = next;
    }
    return {Place::kNode, here(), {}};
  });
}

// A place as it was found without locks. Before its node can be locked, somebody may lead the path
// elsewhere and take along what was there (a merge copies values and drops the nodes): what was
// then written would be lost. So: find, lock the node by a write access, ask stillHolds().
// In a transaction everything that was passed is locked, and every place holds.
class Finding {
 public:
  Finding(const TarnRef& from, std::string_view path, Sought sought)
      : from_(from),
        path_(path),
        sought_(sought),
        session_(goods::cache_manager::current()),
        isUnlocked_(session_ != nullptr && !session_->in_transaction()),
        relinks_(isUnlocked_ ? session_->relink_count() : 0),
        place_(Locate(from, path, sought)) {}

  const Place* operator->() const { return &place_; }
  const Place& operator*() const { return place_; }

  // While place.node is held by a write access. When it returns false, the access must end without
  // a change, and stores nothing.
  bool stillHolds() const {
    if (!isUnlocked_) return true;
    session_->catch_up();  // the lock tells of its own storage only
    if (session_->relink_count() == relinks_) return true;
    const Place now =
        session_->outside_transaction([this] { return Locate(from_, path_, sought_); });
    if (now.kind == place_.kind && now.node == place_.node && now.rest == place_.rest) return true;
    leaveUnchanged();
    return false;
  }
  // The same access is found not to be needed.
  void leaveUnchanged() const {
    if (session_ != nullptr) session_->touched(*place_.node.handle());
  }

 private:
  const TarnRef& from_;
  const std::string_view path_;
  const Sought sought_;
  goods::cache_manager* const session_;
  const bool isUnlocked_;
  const std::uint64_t relinks_;
  const Place place_;
};

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

// What became of a child that was to be attached. Unless it is kDone, nothing has changed.
enum class Attached {
  kDone,
  kTaken,  // somebody else has made that child meanwhile
  kMoved   // the path leads elsewhere by now
};

// Adds a new child to the node of `parent`, or puts it into the reference member of that name.
Attached Attach(const Finding& parent, std::string_view name, const TarnRef& child) {
  const std::string text(name);
  auto node = modify(parent->node);
  if (!parent.stillHolds()) return Attached::kMoved;
  if (!node->getChildWithName(text.c_str()).is_null()) {
    parent.leaveUnchanged();
    return Attached::kTaken;
  }
  TarnRef placed = child;
  if (!node->setChildNode(text.c_str(), placed)) node->addChild(text.c_str(), child);
  return Attached::kDone;
}

// The node at `path` below the new node `top`, made as far as it is missing.
TarnRef CompleteBranch(const TarnRef& top, std::string_view path, std::string_view forPath) {
  TarnRef at = top;
  std::string_view rest = path;
  while (true) {
    const Finding place(at, rest, Sought::kNode);
    if (place->kind == Place::kNode) return place->node;
    const auto branch = TarnBranches(place->rest).begin();
    const TarnRef child = MakeDefaultChild(place->node, *branch, forPath);
    Attach(place, *branch, child);
    at = child;
    rest = branch.tail();
  }
}

// The node at `path`, made from default children as far as it is missing. `verify(node)` is called
// before anything is attached and may throw.
template <class Verify>
TarnRef MakeVerifiedBranch(const TarnRef& from, std::string_view path, std::string_view forPath,
                           const Verify& verify) {
  while (true) {
    const Finding place(from, path, Sought::kNode);
    if (place->kind == Place::kNode) {
      verify(place->node);
      return place->node;
    }
    VerifyBranches(place->node, place->rest);
    const auto first = TarnBranches(place->rest).begin();
    const TarnRef top = MakeDefaultChild(place->node, *first, forPath);
    TarnRef bottom = CompleteBranch(top, first.tail(), forPath);
    verify(bottom);
    if (Attach(place, *first, top) == Attached::kDone) return bottom;
  }
}

enum class Missing { kCreate, kRefuse };

// Stores a value where something is; false when nothing is, or the path leads elsewhere by now.
bool StoreAt(const Finding& place, const TarnData& value, std::string_view path) {
  if (place->kind == Place::kMissing) return false;
  if (place->kind == Place::kText) {
    modify(place->text)->set(value.getText());
    return true;
  }
  auto node = modify(place->node);
  if (!place.stillHolds()) return false;
  if (place->kind == Place::kNode) {
    node->setValue(nullptr, value);
  } else if (!node->setChildValue(std::string(place->rest).c_str(), value)) {
    ThrowNoValueToSet(path);
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
  const Finding place(bottom, name, Sought::kValue);
  if (StoreAt(place, value, path)) return top;
  if (rule == Missing::kRefuse) ThrowNoValueToSet(path);
  Attach(place, name, TarnValue::CreateValue(value));
  return top;
}

void Store(const TarnRef& from, std::string_view path, const TarnData& value, Missing rule) {
  while (true) {
    const Finding place(from, path, Sought::kValue);
    if (StoreAt(place, value, path)) return;
    if (place->kind != Place::kMissing) continue;
    VerifyBranches(place->node, place->rest);
    const TarnRef top = MakeValueBranch(place->node, place->rest, value, rule, path);
    if (Attach(place, *TarnBranches(place->rest).begin(), top) == Attached::kDone) return;
  }
}

void PlaceAt(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const std::string name(TarnBranches::LastOf(path));
  const auto oneTransaction = *from;
  const goods::changing_call call;
  while (true) {
    MakeVerifiedBranch(from, TarnBranches::ParentOf(path), path,
                       [&](const TarnRef& made) { VerifyFits(made, name, node); });
    const Finding parent(from, TarnBranches::ParentOf(path), Sought::kNode);
    if (parent->kind != Place::kNode) continue;  // removed again
    auto holder = modify(parent->node);
    if (!parent.stillHolds()) continue;
    holder->setNode(name.c_str(), node);
    return;
  }
}

bool AddAt(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const std::string_view name = TarnBranches::LastOf(path);
  const goods::changing_call call;
  while (true) {
    MakeVerifiedBranch(from, TarnBranches::ParentOf(path), path,
                       [&](const TarnRef& made) { VerifyFits(made, name, node); });
    const Finding parent(from, TarnBranches::ParentOf(path), Sought::kNode);
    if (parent->kind != Place::kNode) continue;  // removed again
    const Attached result = Attach(parent, name, node);
    if (result != Attached::kMoved) return result == Attached::kDone;
  }
}

}  // namespace

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

void StoreValue(const TarnRef& from, std::string_view path, const TarnData& value) {
  if (from.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const goods::library_call here;
  goods::repeat_here([&] { Store(from, UpToNul(path), value, Missing::kCreate); });
}

void StoreExistingValue(const TarnRef& from, std::string_view path, const TarnData& value) {
  if (from.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const goods::library_call here;
  goods::repeat_here([&] { Store(from, UpToNul(path), value, Missing::kRefuse); });
}

void PlaceNode(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const std::string_view whole = UpToNul(path);
  VerifyBranches(from, whole);
  const goods::library_call here;
  goods::repeat_here([&] { PlaceAt(from, whole, node); });
}

TarnRef MakeBranch(const TarnRef& from, std::string_view path, std::string_view forPath) {
  const goods::library_call here;
  return goods::repeat_here(
      [&] { return MakeVerifiedBranch(from, UpToNul(path), forPath, [](const TarnRef&) {}); });
}

bool AddMissingNode(const TarnRef& from, std::string_view path, const TarnRef& node) {
  const std::string_view whole = UpToNul(path);
  VerifyBranches(from, whole);
  const goods::library_call here;
  return goods::repeat_here([&] { return AddAt(from, whole, node); });
}

}  // namespace tarns
