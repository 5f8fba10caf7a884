#include <goods/cache_manager.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValue.h>
#include <tarns/core/TarnValues.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <unordered_set>
#include <vector>

#include "core/node_access.h"

namespace tarns {

TARN_REGISTER_WITH(TarnValue, TarnObject, .isTarnsBaseClass = true, .mayBeGuest = true);

namespace {

TarnRef NewNodeFor(TarnData::Type type) {
  switch (type) {
    case TarnData::None:
      return TarnObject::Create();
    case TarnData::Boolean:
      return TarnBooleanValue::Create();
    case TarnData::Double:
      return TarnDoubleValue::Create();
    case TarnData::Float:
      return TarnFloatValue::Create();
    case TarnData::Sint8:
      return TarnSint8Value::Create();
    case TarnData::Sint16:
      return TarnSint16Value::Create();
    case TarnData::Sint32:
      return TarnSint32Value::Create();
    case TarnData::Sint64:
      return TarnSint64Value::Create();
    case TarnData::String:
      return TarnStringValue::Create();
    case TarnData::Uint8:
      return TarnUint8Value::Create();
    case TarnData::Uint16:
      return TarnUint16Value::Create();
    case TarnData::Uint32:
      return TarnUint32Value::Create();
    case TarnData::Uint64:
      return TarnUint64Value::Create();
  }
  TarnException::ThrowBadDataType(type);
}

// A step of ClearValuesIn(): what belongs to one node.
struct ClearStep {
  TarnObject* node;
  std::vector<TarnRef>* owned;  // receives nodes that only members refer to
};

bool ClearMember(const TarnFieldDescriptor& field, const void* arg) {
  const auto& step = *static_cast<const ClearStep*>(arg);
  for (unsigned long item = 0; item < field.getNumNames(); ++item) {
    const XString name = field.getNameOfItem(item);
    if (field.isForNodes()) {
      TarnRef target;
      field.copyFrom(step.node, target, name);
      const bool isRoot = goods::number_of(target.id()) == goods::root_object_number;
      if (!target.is_null() && !isRoot && !target->hasParent()) step.owned->push_back(target);
    } else if (TarnData value(TarnData::Uint64); field.getValue(*step.node, name, value)) {
      if (value.getType() == TarnData::None) continue;
      value.zeroValue();
      field.setValue(step.node, name, value);
    }
  }
  return true;
}

void ClearOwnValue(TarnObject& node) {
  TarnData value;
  if (!node.get(nullptr, value)) return;
  value.zeroValue();
  node.setValue(nullptr, value);
}

}  // namespace

TarnValue::~TarnValue() = default;

bool TarnValue::getValue(TarnData&) const { return false; }

bool TarnValue::setTarnValue(const TarnData&) { return false; }

bool TarnValue::readValue(goods::reader&, TarnData& out) const { return getValue(out); }

bool TarnValue::get(const char* path, TarnData& out) const {
  return ViewOf(path).empty() ? getValue(out) : TarnObject::get(path, out);
}

void TarnValue::setValue(const char* path, const TarnData& value) {
  if (ViewOf(path).empty()) {
    setTarnValue(value);
  } else {
    TarnObject::setValue(path, value);
  }
}

void TarnValue::add(const TarnData& value) {
  TarnData sum;
  getValue(sum);
  sum.add(value);
  setValue(nullptr, sum);
}

void TarnValue::subtract(const TarnData& value) {
  TarnData difference;
  getValue(difference);
  difference.subtract(value);
  setValue(nullptr, difference);
}

void TarnValue::copyFrom(xcptref<TarnObject> other) {
  TarnData value;
  other->get(nullptr, value);
  setTarnValue(value);
}

xcptref<TarnObject> TarnValue::CreateValue(const TarnData& value) {
  TarnRef node = NewNodeFor(value.getType());
  modify(node)->setValue(nullptr, value);
  return node;
}

TarnData TarnValue::AddToChild(const xcptref<TarnObject>& parent, const char* name,
                               const TarnData& value) {
  const auto oneTransaction = *parent;
  const auto isValue = [](const TarnRef& node) {
    return !node.is_null() && node->isDerivedFrom(GetType());
  };
  TarnRef child = oneTransaction->getChildWithName(name);
  if (!isValue(child)) {
    // Somebody else may have made it until the write access was given.
    auto holder = modify(parent);
    child = holder->getChildWithName(name);
    if (!isValue(child)) {
      holder->setValue(name, value);
      return value;
    }
  }
  // Write access first: between reading and writing nobody else may add.
  auto node = modify(child);
  TarnData sum;
  node->get(nullptr, sum);
  sum.add(value);
  node->setValue(nullptr, sum);
  return sum;
}

void TarnValue::ClearValuesIn(const xcptref<TarnObject>& node) {
  const auto oneTransaction = *node;
  std::vector<TarnRef> open{node};
  std::unordered_set<TarnRef> seen{node};
  while (!open.empty()) {
    const TarnRef next = std::move(open.back());
    open.pop_back();
    std::vector<TarnRef> below;
    const bool holdsValues = next->isDerivedFrom(GetType()) || next->getClass().hasDataMembers();
    if (holdsValues) {
      auto body = modify(next);
      const ClearStep step{.node = &*body, .owned = &below};
      body->getClass().iterateFields(ClearMember, &step, true);
      ClearOwnValue(*body);
    }
    ForEachEntry(next->getChildren(), [&](const goods::held_entry&, const TarnRef& child) {
      below.push_back(child);
      return true;
    });
    for (TarnRef& found : below) {
      if (seen.insert(found).second) open.push_back(std::move(found));
    }
  }
}

}  // namespace tarns
