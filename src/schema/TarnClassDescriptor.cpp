#include <goods/String.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptorMap.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/schema/TarnString.h>

#include <cstring>
#include <string>

#include "util/c_text.h"

namespace tarns {

namespace {

// A path is never a member's name.
bool IsPath(const char* name) {
  return name == nullptr || std::strchr(name, TarnBranches::kSeparator) != nullptr;
}

}  // namespace

TarnClassDescriptor::TarnClassDescriptor(const char* name, unsigned size, goods::metaobject* scheme,
                                         constructor_function construct,
                                         goods::field_descriptor* fields,
                                         goods::class_descriptor* base, int flags,
                                         bool isTarnsBaseClass, unsigned char pageN,
                                         bool mayBeGuest)
    : goods::class_descriptor(name, size, scheme, construct, fields, base, flags | kNodeClass,
                              mayBeGuest),
      isTarnsBaseClass_(isTarnsBaseClass),
      pageN_(pageN) {
  goods::for_each_field(fields, [this](goods::field_descriptor& field) {
    for (const std::string& former :
         static_cast<const TarnFieldDescriptor&>(field).getFormerNames()) {
      add_alias(former.c_str(), field.name());
    }
  });
}

TarnClassDescriptor::~TarnClassDescriptor() = default;

template <class Visit>
unsigned long TarnClassDescriptor::visitFields(Visit&& visit, bool includeBases) const {
  unsigned long visited = 0;
  bool goesOn = true;
  for (const TarnClassDescriptor* cls = this; cls != nullptr && !cls->isTarnsBaseClass_ && goesOn;
       cls = includeBases ? From(cls->base()) : nullptr) {
    goods::for_each_field(cls->fields(), [&](const goods::field_descriptor& field) {
      if (!goesOn || field.type() == goods::field_type::structure) return;
      ++visited;
      goesOn = visit(static_cast<const TarnFieldDescriptor&>(field));
    });
  }
  return visited;
}

unsigned long TarnClassDescriptor::iterateFields(FieldFunction function, const void* arg,
                                                 bool includeBases) const {
  return visitFields([&](const TarnFieldDescriptor& field) { return function(field, arg); },
                     includeBases);
}

unsigned long TarnClassDescriptor::iterateFields(void* target, FieldMember function,
                                                 const void* arg, bool includeBases) const {
  auto* node = static_cast<TarnObject*>(target);
  return visitFields(
      [&](const TarnFieldDescriptor& field) { return (node->*function)(field, arg); },
      includeBases);
}

unsigned long TarnClassDescriptor::getNumDataMembers() const {
  std::uint32_t count = numDataMembers_.load(std::memory_order_relaxed);
  if (count != kNotCounted) return count;
  count = 0;
  visitFields(
      [&](const TarnFieldDescriptor& field) {
        count += static_cast<std::uint32_t>(field.getNumItems());
        return true;
      },
      true);
  numDataMembers_.store(count, std::memory_order_relaxed);
  return count;
}

const TarnFieldDescriptorMap& TarnClassDescriptor::getFieldMap() const {
  std::call_once(mapFilled_, [this] {
    auto map = std::make_unique<TarnFieldDescriptorMap>();
    visitFields(
        [&](const TarnFieldDescriptor& field) { return map->addFieldToMap(field, nullptr); }, true);
    fieldMap_ = std::move(map);
  });
  return *fieldMap_;
}

const TarnFieldDescriptor* TarnClassDescriptor::findField(const char* name) const {
  if (name == nullptr || !hasDataMembers()) return nullptr;
  if (const TarnFieldDescriptor* field = getFieldMap().lookup(name)) return field;
  const char* separator = std::strchr(name, '_');
  return separator != nullptr ? findElement(name, separator) : nullptr;
}

const TarnFieldDescriptor* TarnClassDescriptor::findField(std::string_view name) const {
  return hasDataMembers() ? findField(CText(name).get()) : nullptr;
}

const TarnFieldDescriptor* TarnClassDescriptor::findMember(const char* name) const {
  if (const TarnFieldDescriptor* field = findField(name)) return field;
  if (name == nullptr || !hasDataMembers()) return nullptr;
  const char* separator = std::strrchr(name, '_');
  const bool isFirst = separator == std::strchr(name, '_');
  return isFirst ? nullptr : findElement(name, separator);
}

const TarnFieldDescriptor* TarnClassDescriptor::findMember(std::string_view name) const {
  return hasDataMembers() ? findMember(CText(name).get()) : nullptr;
}

const TarnFieldDescriptor* TarnClassDescriptor::findElement(const char* name,
                                                            const char* separator) const {
  const auto index = TarnMember::ParseIndex(separator + 1);
  if (!index || *index < 0) return nullptr;
  const TarnFieldDescriptor* field = getFieldMap().lookup(CText({name, separator}).get());
  const bool exists = field != nullptr && static_cast<std::uint64_t>(*index) < field->getNumItems();
  return exists ? field : nullptr;
}

bool TarnClassDescriptor::getChildValue(const TarnObject& node, const char* name,
                                        TarnData& value) const {
  if (IsPath(name)) return false;
  const TarnFieldDescriptor* field = findField(name);
  if (field == nullptr) {
    XString base(name);
    if (!base.trimPast("_", 1)) return false;
    field = findField(base.getText());
  }
  return field != nullptr && field->getValue(node, name, value);
}

bool TarnClassDescriptor::setChildValue(TarnObject* node, const char* name,
                                        const TarnData& value) const {
  if (IsPath(name)) return false;
  const TarnFieldDescriptor* field = findField(name);
  if (field != nullptr && field->setValue(node, name, value)) return true;
  const char* separator = std::strrchr(name, '_');
  if (separator == nullptr || separator == name || !TarnMember::ParseIndex(separator + 1)) {
    return false;
  }
  field = findField(std::string_view(name, separator));
  return field != nullptr && field->setValue(node, name, value);
}

void TarnClassDescriptor::GetValue(const goods::ref<goods::object>* reference, TarnData& value,
                                   goods::class_descriptor* referencedClass) {
  value.empty();
  if (reference->is_null()) return;
  const goods::object_ref target(*reference);
  if (referencedClass == &goods::String::self_class) {
    TarnString(goods::checked_cast<goods::String>(target)).copyTo(value);
  } else {
    xcptref<TarnObject>(target)->get(nullptr, value);
  }
}

void TarnClassDescriptor::SetValue(goods::ref<goods::object>* reference, const TarnData& value,
                                   goods::class_descriptor* referencedClass) {
  if (referencedClass == &goods::String::self_class) {
    TarnString text(goods::checked_cast<goods::String>(*reference));
    if (value.getText().empty()) {
      text.clear();
    } else {
      text.set(value.getText());
    }
    *reference = text.getReference();
    return;
  }
  TarnRef target{goods::object_ref(*reference)};
  if (target.is_null()) target = TarnObject::CreateOfType(referencedClass->name());
  if (target.is_null()) TarnException::ThrowMissingDescriptor(referencedClass->name());
  modify(target)->setValue(nullptr, value);
  *reference = target;
}

}  // namespace tarns
