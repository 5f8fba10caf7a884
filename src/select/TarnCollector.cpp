#include <goods/cache_manager.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/select/TarnCollector.h>
#include <tarns/util/XString.h>

#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "core/node_access.h"
#include "select/index_search.h"

namespace tarns {

TARN_REGISTER(TarnCollector, TarnObject);

namespace {

constexpr std::int64_t kLastElement = std::numeric_limits<std::uint32_t>::max();

// The comparison of the elements of one name: 0 for them.
bool IsElementOf(std::string_view name, std::string_view base) {
  if (name.size() <= base.size() || !name.starts_with(base) || name[base.size()] != '_') {
    return false;
  }
  const std::string index(name.substr(base.size() + 1));
  const auto number = TarnMember::ParseIndex(index.c_str());
  return number && *number >= 0 && *number <= kLastElement;
}

struct WantedValue {
  const char* path;
  const TarnData* value;
};

// The names that a value index of the parent leads to; nothing when it has none for that path.
std::optional<std::vector<std::string>> NamesFromIndex(const TarnRef& parent,
                                                       std::string_view below,
                                                       const TarnData& value) {
  return goods::read_here([&](goods::reader& reader) -> std::optional<std::vector<std::string>> {
    const TarnObjects* const children = TarnNodeAccess::IndexOf(reader, *reader.get(parent));
    if (children == nullptr) return std::nullopt;
    return NamesOfEqual(reader, *children, below, value);
  });
}

// Calls `visit(child)` for all children of that name.
template <class Visit>
void ForEachNamed(const xcptref<TarnObjects>& children, const std::string& name,
                  const Visit& visit) {
  constexpr std::size_t kAtOnce = 16;
  goods::index_position position(name);
  for (std::size_t read = kAtOnce; read == kAtOnce;) {
    const auto some = goods::read_here([&](goods::reader& reader) {
      return reader.get(children)->entries_after(reader, &position, kAtOnce);
    });
    read = some.size();
    for (const goods::held_entry& entry : some) {
      if (entry.name != name) return;
      visit(TarnRef::Trusted(goods::to_reference(entry.target.word())));
    }
    position.move_behind(some);
  }
}

int CompareValues(TarnRef node, const void* arg) {
  const auto* const wanted = static_cast<const WantedValue*>(arg);
  TarnData found(wanted->value->getType());  // an enumeration is compared with a number as one
  return node->get(wanted->path, found) ? found.compare(*wanted->value) : -1;
}

}  // namespace

TarnCollector::TarnCollector(Compare function, const void* arg) : TarnCollector() {
  compare_ = function;
  arg_ = arg;
}

TarnCollector::TarnCollector(void* target, MemberCompare function, const void* arg)
    : TarnCollector() {
  target_ = static_cast<TarnObject*>(target);
  memberCompare_ = function;
  arg_ = arg;
}

TarnCollector::~TarnCollector() = default;

bool TarnCollector::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return true;
}

// ---- comparing and adding

int TarnCollector::compare(TarnRef node, const void* /*arg*/) {
  if (compare_ != nullptr) return compare_(std::move(node), arg_);
  if (memberCompare_ != nullptr && target_ != nullptr) {
    return (target_->*memberCompare_)(std::move(node), arg_);
  }
  throw TarnException(
      "This TarnCollector has nothing to compare with: only one that was constructed with a "
      "comparison function can collect.",
      ErrorID::Unspecified);
}

void TarnCollector::add(const char* name, TarnRef node) { addChild(name, std::move(node)); }

void TarnCollector::addChild(const char* name, TarnRef child) {
  if (child.is_null() || !child->hasParent()) return TarnObject::addChild(name, std::move(child));
  VerifyChildName(getSelf(), ViewOf(name));
  modify(TarnNodeAccess::MakeIndex(*this))->link(name, child);
}

void TarnCollector::addIfEqual(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) == 0) add(name, std::move(node));
}

void TarnCollector::addIfNotEqual(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) != 0) add(name, std::move(node));
}

void TarnCollector::addIfGreater(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) > 0) add(name, std::move(node));
}

void TarnCollector::addIfGreaterOrEqual(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) >= 0) add(name, std::move(node));
}

void TarnCollector::addIfLess(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) < 0) add(name, std::move(node));
}

void TarnCollector::addIfLessOrEqual(const char* name, TarnRef node, const void* arg) {
  if (compare(node, arg) <= 0) add(name, std::move(node));
}

// ---- the children of a node

void TarnCollector::collect(const TarnRef& parent, AddIf addIf) {
  if (parent == getSelf()) {
    throw TarnException("A TarnCollector cannot collect its own children.", ErrorID::Unspecified);
  }
  parent->iterateChildren(this, static_cast<ChildMember>(addIf), nullptr);
}

void TarnCollector::collectChildrenIfEqual(TarnRef parent) {
  collect(parent, &TarnCollector::addIfEqual);
}

void TarnCollector::collectChildrenIfNotEqual(TarnRef parent) {
  collect(parent, &TarnCollector::addIfNotEqual);
}

void TarnCollector::collectChildrenIfGreater(TarnRef parent) {
  collect(parent, &TarnCollector::addIfGreater);
}

void TarnCollector::collectChildrenIfGreaterOrEqual(TarnRef parent) {
  collect(parent, &TarnCollector::addIfGreaterOrEqual);
}

void TarnCollector::collectChildrenIfLess(TarnRef parent) {
  collect(parent, &TarnCollector::addIfLess);
}

void TarnCollector::collectChildrenIfLessOrEqual(TarnRef parent) {
  collect(parent, &TarnCollector::addIfLessOrEqual);
}

// ---- by name

int TarnCollector::CompareNames(TarnRef node, const void* name) {
  const XString own = node->getName();
  return TarnMember::CompareElementNames(own, static_cast<const char*>(name));
}

goods::ref<TarnCollector> TarnCollector::CollectByName(const TarnRef& parent, const char* name,
                                                       AddIf addIf) {
  auto collector = Create(CompareNames, nullptr);
  auto body = modify(collector);
  body->name_ = ViewOf(name);
  body->arg_ = body->name_.c_str();
  body->collect(parent, addIf);
  return collector;
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfEqual(TarnRef parent, const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfEqual);
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfNotEqual(TarnRef parent,
                                                                   const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfNotEqual);
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfGreater(TarnRef parent,
                                                                  const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfGreater);
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfGreaterOrEqual(TarnRef parent,
                                                                         const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfGreaterOrEqual);
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfLess(TarnRef parent, const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfLess);
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenIfLessOrEqual(TarnRef parent,
                                                                      const char* name) {
  return CollectByName(parent, name, &TarnCollector::addIfLessOrEqual);
}

// Names that lie between those of the first and the last element are the elements' and no others.
goods::ref<TarnCollector> TarnCollector::CollectChildrenWithBaseName(TarnRef parent,
                                                                     const char* baseName) {
  auto collector = Create();
  const std::string_view base = ViewOf(baseName);
  auto body = modify(collector);
  parent->iterateChildren([&](const char* name, TarnRef child) {
    if (IsElementOf(name, base)) body->add(name, std::move(child));
  });
  return collector;
}

// ---- by value

goods::ref<TarnCollector> TarnCollector::CollectChildrenWithValue(TarnRef parent, const char* name,
                                                                  TarnData* value) {
  if (value == nullptr) return Create();
  const WantedValue wanted{name, value};
  auto collector = Create(CompareValues, &wanted);
  auto body = modify(collector);
  if (const auto names = NamesFromIndex(parent, ViewOf(name), *value)) {
    const xcptref<TarnObjects> children = parent->getChildren();
    for (const std::string& each : *names) {
      ForEachNamed(children, each,
                   [&](const TarnRef& child) { body->addIfEqual(each.c_str(), child, nullptr); });
    }
  } else {
    body->collectChildrenIfEqual(std::move(parent));
  }
  body->compare_ = nullptr;  // what it compares with goes with this call
  return collector;
}

goods::ref<TarnCollector> TarnCollector::CollectChildrenWithValue(TarnRef parent, const char* name,
                                                                  const char* value) {
  TarnData data(value);
  return CollectChildrenWithValue(std::move(parent), name, &data);
}

// ---- deleting

void TarnCollector::DeleteChildFrom(const char* name, TarnRef /*child*/, const void* parent) {
  static_cast<TarnObject*>(const_cast<void*>(parent))->deleteChild(name);
}

void TarnCollector::DeleteChildFromRef(const char* name, TarnRef /*child*/, const void* parent) {
  modify(*static_cast<const TarnRef*>(parent))->deleteChild(name);
}

void TarnCollector::deleteFrom(TarnObject& parent) const {
  iterateChildren(&DeleteChildFrom, &parent);
}

void TarnCollector::deleteFrom(TarnRef parent) const {
  const auto oneTransaction = modify(parent);
  iterateChildren(&DeleteChildFromRef, &parent);
}

}  // namespace tarns
