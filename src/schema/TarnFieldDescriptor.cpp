#include <goods/String.h>
#include <goods/byte_writer.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/XMap.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <cstring>
#include <string_view>

namespace tarns {

namespace {

constexpr std::size_t kBlobLineLength = 76;

// Members lie in the object as the class has them; memcpy reads any alignment.
template <class T>
T Load(const void* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <class T>
bool Store(void* at, T value) {
  std::memcpy(at, &value, sizeof value);
  return true;
}

template <class T>
bool Get(const void* at, TarnData& value) {
  value.set(Load<T>(at));
  return true;
}

// Calls `use` with a 0 of that one of the types whose size is `size`; false when there is none.
template <class... Types, class Use>
bool WithTypeOfSize(unsigned size, const Use& use) {
  return ((sizeof(Types) == size && use(Types{})) || ...);
}

template <class Use>
bool WithInteger(const goods::field_descriptor& field, const Use& use) {
  if (field.type() == goods::field_type::signed_integer) {
    return WithTypeOfSize<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(field.size(), use);
  }
  return WithTypeOfSize<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(field.size(),
                                                                                   use);
}

bool GetInteger(const goods::field_descriptor& field, const void* at, TarnData& value) {
  if (field.is_boolean()) return Get<bool>(at, value);
  return WithInteger(field, [&](auto zero) { return Get<decltype(zero)>(at, value); });
}

// Narrowing keeps the lower bits, as the getters of TarnData do.
bool SetInteger(const goods::field_descriptor& field, void* at, const TarnData& value) {
  if (field.is_boolean()) return Store(at, value.getBoolean());
  return WithInteger(field, [&](auto zero) {
    using T = decltype(zero);
    return Store(at, static_cast<T>(std::is_signed_v<T> ? value.getSint64() : value.getUint64()));
  });
}

bool IsNodeClass(const goods::class_descriptor* cls) {
  return cls != nullptr && TarnObject::self_class.is_superclass_for(*cls);
}

// Whether objects of the class can be read and written as values.
bool HasValues(const goods::class_descriptor* cls) {
  return cls == &goods::String::self_class || IsNodeClass(cls);
}

}  // namespace

TarnFieldDescriptor::TarnFieldDescriptor(const char* name, unsigned size, unsigned numItems,
                                         unsigned offset, goods::field_descriptor* components,
                                         goods::class_descriptor* referencedClass,
                                         bool isNullTerminated)
    : goods::field_descriptor(name, size, numItems, offset, components),
      referencedClass_(referencedClass),
      isNullTerminated_(isNullTerminated) {}

TarnFieldDescriptor::TarnFieldDescriptor(const char* name, unsigned size, unsigned numItems,
                                         unsigned offset, goods::field_descriptor* components,
                                         ClassFunction referencedClass, bool isNullTerminated)
    : goods::field_descriptor(name, size, numItems, offset, components),
      referencedClassFunction_(referencedClass),
      isNullTerminated_(isNullTerminated) {}

TarnFieldDescriptor::TarnFieldDescriptor(const goods::field_descriptor* declared,
                                         const goods::dbs_field_descriptor* stored)
    : goods::field_descriptor(declared, stored), isStoredOnly_(true) {}

TarnFieldDescriptor::~TarnFieldDescriptor() = default;

void TarnFieldDescriptor::getName(XString& text) const { text = name(); }

const TarnFieldDescriptor* TarnFieldDescriptor::getNext() const {
  return static_cast<const TarnFieldDescriptor*>(next());
}

XString TarnFieldDescriptor::getNameOfItem(unsigned long index) const {
  return getNumNames() > 1 ? TarnMember::GetElementName(name(), index) : XString(name());
}

std::int32_t TarnFieldDescriptor::getValueOffset(const char* name) const {
  if (isNullTerminated_ || getNumItems() < 2) return static_cast<std::int32_t>(offset());
  // The array as a whole is no value, and neither is what only looks like an element.
  const char* separator = name != nullptr ? std::strrchr(name, '_') : nullptr;
  if (separator == nullptr || hasName(name)) return -1;
  const auto index = TarnMember::ParseIndex(separator + 1);
  if (!index || *index < 0 || static_cast<std::uint64_t>(*index) >= getNumItems()) return -1;
  return static_cast<std::int32_t>(offset() + size() * static_cast<unsigned long>(*index));
}

bool TarnFieldDescriptor::hasName(const char* text) const {
  return text != nullptr && std::strcmp(name(), text) == 0;
}

goods::class_descriptor* TarnFieldDescriptor::getReferencedClass() const {
  return referencedClassFunction_ != nullptr ? referencedClassFunction_() : referencedClass_;
}

bool TarnFieldDescriptor::isForClass(const goods::class_descriptor* cls) const {
  return cls != nullptr && getReferencedClass() == cls;
}

bool TarnFieldDescriptor::isForClass(const char* className) const {
  const goods::class_descriptor* cls = getReferencedClass();
  return cls != nullptr && className != nullptr && std::strcmp(cls->name(), className) == 0;
}

bool TarnFieldDescriptor::isForNodes() const {
  return isReference() && IsNodeClass(getReferencedClass());
}

bool TarnFieldDescriptor::mayHoldNodes() const {
  return isForNodes() || (isReference() && isStoredOnly_);
}

bool TarnFieldDescriptor::isForText() const {
  return isReference() && getReferencedClass() == &goods::String::self_class;
}

goods::class_descriptor* TarnFieldDescriptor::classBehind(
    const goods::object_ref& reference) const {
  if (!isStoredOnly_) return getReferencedClass();
  return reference.is_null() ? nullptr : &goods::class_of(reference);
}

const void* TarnFieldDescriptor::addressIn(const TarnObject& node, const char* name) const {
  const std::int32_t at = getValueOffset(name);
  return at < 0 ? nullptr : reinterpret_cast<const char*>(&node) + at;
}

const goods::object_ref* TarnFieldDescriptor::referenceIn(const TarnObject& node,
                                                          const char* name) const {
  return isReference() ? static_cast<const goods::object_ref*>(addressIn(node, name)) : nullptr;
}

bool TarnFieldDescriptor::getValue(const TarnObject& node, const char* name,
                                   TarnData& value) const {
  const void* at = addressIn(node, name);
  if (at == nullptr) return false;
  switch (type()) {
    case goods::field_type::signed_integer:
      if (size() == 1 && isNullTerminated_) {
        const auto* text = static_cast<const char*>(at);
        value.copyString(text, static_cast<long>(strnlen(text, getNumItems())));
        return true;
      }
      [[fallthrough]];
    case goods::field_type::unsigned_integer:
      if (GetInteger(*this, at, value)) return true;
      break;
    case goods::field_type::real:
      if (size() == 4) return Get<float>(at, value);
      if (size() == 8) return Get<double>(at, value);
      break;
    case goods::field_type::reference: {
      value.empty();
      const goods::object_ref* reference = referenceIn(node, name);
      if (reference == nullptr || reference->is_null()) return true;
      goods::class_descriptor* cls = classBehind(*reference);
      const goods::ref<goods::object> target = goods::ref<goods::object>::trusted(*reference);
      if (HasValues(cls)) TarnClassDescriptor::GetValue(&target, value, cls);
      return true;
    }
    default:
      break;
  }
  throwUnsupportedType(name);
}

bool TarnFieldDescriptor::readValue(goods::reader& reader, const TarnObject& node, const char* name,
                                    TarnData& value) const {
  if (type() != goods::field_type::reference) return getValue(node, name, value);
  if (addressIn(node, name) == nullptr) return false;
  value.empty();
  const goods::object_ref* reference = referenceIn(node, name);
  if (reference == nullptr || !(isStoredOnly_ || HasValues(getReferencedClass()))) return true;
  const goods::object* target = reader.look(reference->word(), goods::object::self_class);
  if (target == nullptr) return true;
  if (&target->cls() == &goods::String::self_class) {
    value.set(static_cast<const goods::String*>(target)->text());
  } else if (IsNodeClass(&target->cls())) {
    static_cast<const TarnObject*>(target)->readValue(reader, value);
  }
  return true;
}

bool TarnFieldDescriptor::setValue(TarnObject* node, const char* name,
                                   const TarnData& value) const {
  void* at = const_cast<void*>(addressIn(*node, name));
  if (at == nullptr) return false;
  switch (type()) {
    case goods::field_type::signed_integer:
      if (size() == 1 && isNullTerminated_) {
        const std::string_view text = value.getText().substr(0, getNumItems() - 1);
        std::memset(at, 0, getNumItems());
        text.copy(static_cast<char*>(at), text.size());
        return true;
      }
      [[fallthrough]];
    case goods::field_type::unsigned_integer:
      if (SetInteger(*this, at, value)) return true;
      break;
    case goods::field_type::real:
      if (size() == 4) return Store(at, value.getFloat());
      if (size() == 8) return Store(at, value.getDouble());
      break;
    case goods::field_type::reference: {
      auto* reference = const_cast<goods::object_ref*>(referenceIn(*node, name));
      goods::class_descriptor* cls = reference != nullptr ? classBehind(*reference) : nullptr;
      if (!HasValues(cls)) break;
      auto target = goods::ref<goods::object>::trusted(*reference);
      TarnClassDescriptor::SetValue(&target, value, cls);
      *reference = target;
      return true;
    }
    default:
      break;
  }
  throwUnsupportedType(name);
}

void TarnFieldDescriptor::throwUnsupportedType(const char* name) const {
  TarnException error;
  error << "Cannot access value \"" << name
        << "\" because the TARNS library does not support implicit retrieval of fields with the "
           "type \""
        << static_cast<int>(type()) << "\".";
  throw error;
}

void TarnFieldDescriptor::copyFrom(const TarnObject* node, xcptref<TarnObject>& out,
                                   const char* name) const {
  const goods::object_ref* reference = referenceIn(*node, name);
  const bool isNode = reference != nullptr && TarnObject::IsTarnObject(*reference);
  out = isNode ? xcptref<TarnObject>::Trusted(*reference) : xcptref<TarnObject>();
}

void TarnFieldDescriptor::copyTo(xcptref<TarnObject>& in, TarnObject* node,
                                 const char* name) const {
  if (!mayHoldNodes()) return;
  auto* reference = const_cast<goods::object_ref*>(referenceIn(*node, name));
  if (reference == nullptr || *reference == in) return;
  verifyFits(*node, name, in);
  *reference = in;
  node->note_relinked();
}

void TarnFieldDescriptor::verifyFits(const TarnObject& node, const char* name,
                                     const goods::object_ref& in) const {
  if (isForNodes()) return VerifyRefClass(in, *getReferencedClass());
  const goods::object_ref* present = mayHoldNodes() ? referenceIn(node, name) : nullptr;
  if (present == nullptr || in.is_null()) return;
  const goods::class_descriptor* cls = classBehind(*present);
  if (cls == &goods::class_of(in)) return;
  TarnException error;
  error << "Cannot put an object of the class \"" << goods::class_of(in).name()
        << "\" into the member \"" << name << "\" of a \"" << node.getType()
        << "\": this program does not know that class, so the member only takes ";
  if (cls != nullptr) {
    error << "objects of the class \"" << cls->name() << "\".";
  } else {
    error << "null.";
  }
  error.setErrorID(ErrorID::CannotMutate);
  throw error;
}

const TarnObject* TarnFieldDescriptor::look(goods::reader& reader, const TarnObject& node,
                                            const char* name) const {
  const goods::object_ref* reference = referenceIn(node, name);
  if (reference == nullptr || !mayHoldNodes()) return nullptr;
  const goods::object* target = reader.look(reference->word(), goods::object::self_class);
  if (target == nullptr || !IsNodeClass(&target->cls())) return nullptr;
  return static_cast<const TarnObject*>(target);
}

void TarnFieldDescriptor::writeBlobTo(const TarnObject* node, XStringList& lines) const {
  const goods::object_ref* reference = referenceIn(*node, name());
  if (reference == nullptr || reference->is_null()) return;
  const auto target = goods::ref<goods::object>::trusted(*reference);
  const auto body = *target;
  goods::byte_writer state;
  body->cls().pack(*body, state, target.id());
  const Buffer bytes(std::string_view(reinterpret_cast<const char*>(state.data()), state.size()));
  Buffer text;
  bytes.copyToBase64(text);
  for (std::string_view rest = text.view(); !rest.empty();
       rest.remove_prefix(std::min(kBlobLineLength, rest.size()))) {
    lines.addLast(XString(rest.substr(0, kBlobLineLength)));
  }
}

bool TarnFieldDescriptor::ShatterMember(const TarnFieldDescriptor& field, const void* arg) {
  const auto& step = *static_cast<const ShatterStep*>(arg);
  for (unsigned long item = 0; item < field.getNumNames(); ++item) {
    xcptref<TarnObject> target;
    field.copyFrom(step.node, target, field.getNameOfItem(item));
    if (!target.is_null()) step.targets->push_back(std::move(target));
  }
  return true;
}

int TarnFieldDescriptor::compareName(const TarnFieldDescriptor& other) const {
  return Stringer::Compare(name(), other.name());
}

unsigned long TarnFieldDescriptor::getHashForName(unsigned long size) const {
  return XMapItem::HashOf(std::string_view(name()), size);
}

}  // namespace tarns
