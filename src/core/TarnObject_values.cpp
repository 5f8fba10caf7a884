// TarnObject: values and nodes by path.
#include <goods/cache_manager.h>
#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/util/Stringer.h>

#include <cstring>
#include <iterator>
#include <string>

#include "core/node_access.h"

namespace tarns {

namespace {

// The value at `path`, or the error for one that has to be there. An enumeration gives a number
// when a number is asked for.
TarnData Required(const TarnObject& node, const char* path, TarnData::Type asked) {
  TarnData value(asked);
  if (!node.get(path, value)) TarnException::ThrowNonExistentValue(path);
  return value;
}

[[noreturn]] void ThrowOtherClass(const char* type) {
  TarnException error;
  error << "Cannot mutate this object into the specified object of type \"" << type
        << "\"; the parent should have made this mutation.";
  error.setErrorID(ErrorID::CannotMutate);
  throw error;
}

struct Token {
  const char* marker;
  bool isHtml;
};

constexpr Token kTokens[] = {{"#TarnValue:", false}, {"#TarnHTMLvalue:", true}};

// Finds the tokens of a text one after the other.
class TokenSearch {
 public:
  // The first token at or behind `from`, which only ever grows; null when there is none. A marker
  // that is not met before the other one is looked for once only.
  const char* next(const char* from, const Token*& which) {
    const char* first = nullptr;
    for (std::size_t i = 0; i < std::size(kTokens); ++i) {
      if (!isLooked_[i] || (found_[i] != nullptr && found_[i] < from)) {
        found_[i] = std::strstr(from, kTokens[i].marker);
        isLooked_[i] = true;
      }
      if (found_[i] == nullptr || (first != nullptr && first < found_[i])) continue;
      first = found_[i];
      which = &kTokens[i];
    }
    return first;
  }

 private:
  const char* found_[std::size(kTokens)] = {};
  bool isLooked_[std::size(kTokens)] = {};
};

}  // namespace

bool TarnObject::readValue(goods::reader&, TarnData&) const { return false; }

bool TarnObject::get(const char* path, TarnData& out) const { return get(ViewOf(path), out); }

bool TarnObject::get(std::string_view path, TarnData& out) const {
  // What is read may turn out to be two states mixed and be read again, so it goes to `out` last.
  TarnData found;
  if (out.getType() != TarnData::None && !out.isString()) found = TarnData(out.getType());
  const bool exists = goods::read_here([&](goods::reader& reader) {
    return ReadValue(reader, Current(reader, *this), path, found);
  });
  if (exists) out = std::move(found);
  return exists;
}

bool TarnObject::get(const char* path, TarnData& out, const TarnData& defaultValue) const {
  if (get(path, out)) return true;
  out = defaultValue;
  return false;
}

std::optional<TarnData> TarnObject::valueAt(std::string_view path) const {
  std::optional<TarnData> value(std::in_place);
  if (!get(path, *value)) value.reset();
  return value;
}

// NOLINTBEGIN(bugprone-macro-parentheses): the macro's argument is a type
#define TARN_TYPED_GETTER(Type, Name)                                \
  Type TarnObject::Name(const char* path) const {                    \
    return Required(*this, path, TarnData(Type{}).getType()).Name(); \
  }                                                                  \
  Type TarnObject::Name(const char* path, Type defaultValue) const { \
    TarnData value(Type{});                                          \
    return get(path, value) ? value.Name() : defaultValue;           \
  }
// NOLINTEND(bugprone-macro-parentheses)

TARN_TYPED_GETTER(bool, getBoolean)
TARN_TYPED_GETTER(double, getDouble)
TARN_TYPED_GETTER(float, getFloat)
TARN_TYPED_GETTER(std::int8_t, getSint8)
TARN_TYPED_GETTER(std::int16_t, getSint16)
TARN_TYPED_GETTER(std::int32_t, getSint32)
TARN_TYPED_GETTER(std::int64_t, getSint64)
TARN_TYPED_GETTER(std::uint8_t, getUint8)
TARN_TYPED_GETTER(std::uint16_t, getUint16)
TARN_TYPED_GETTER(std::uint32_t, getUint32)
TARN_TYPED_GETTER(std::uint64_t, getUint64)

#undef TARN_TYPED_GETTER

XString TarnObject::getXString(const char* path) const {
  return XString(Required(*this, path, TarnData::None).getText());
}

XString TarnObject::getXString(const char* path, const char* defaultValue) const {
  TarnData value;
  return get(path, value) ? XString(value.getText()) : XString(defaultValue);
}

void TarnObject::copyAsStringTo(const char* path, XString& text) const {
  TarnData value;
  if (!get(path, value)) TarnException::ThrowNonExistentPath(path);
  text = value.getText();
}

void TarnObject::set(const char* path, const TarnData& value) const {
  StoreExistingValue(getSelf(), ViewOf(path), value);
}

void TarnObject::set(const char* path, xcptref<TarnObject> node) const {
  if (ViewOf(path).find(TarnBranches::kSeparator) == std::string_view::npos) {
    TarnException error;
    error << "Programmer error: set() cannot set a node as an immediate descendant for \""
          << ViewOf(path) << "\"; use setNode() instead.";
    error.setErrorID(ErrorID::BadSet);
    throw error;
  }
  PlaceNode(getSelf(), path, node);
}

void TarnObject::setValue(const char* path, const TarnData& value) {
  if (!ViewOf(path).empty()) {
    StoreValue(getSelf(), path, value);
  } else if (value.getType() != TarnData::None) {
    TarnException error;
    error << "Cannot store value \"" << value.getText()
          << "\" because TarnObject instances do not have values.";
    error.setErrorID(ErrorID::CannotMutate);
    throw error;
  }
}

void TarnObject::setNode(const char* path, xcptref<TarnObject> node) {
  const std::string_view name = ViewOf(path);
  if (name.empty()) {
    const std::string type = node->getType();
    if (!isOfType(type.c_str())) ThrowOtherClass(type.c_str());
    copyFrom(node);
    return;
  }
  if (name.find(TarnBranches::kSeparator) != std::string_view::npos) {
    PlaceNode(getSelf(), name, node);
    return;
  }
  if (setChildNode(path, node)) return;
  if (node.is_null()) ThrowBadRef("NULL TarnRef write dereference");
  const TarnIterator existing = getIterTo(path);
  if (existing.isNull()) {
    addChild(path, node);
  } else if (existing.get(nullptr) != node) {
    modify(children_)->replaceChild(existing.getEntry(), node);
  }
}

bool TarnObject::willSetModify(const char* path) const {
  TarnData value;
  return get(path, value);
}

xcptref<TarnObject> TarnObject::createDefaultChild(const char* name) const {
  const TarnFieldDescriptor* field =
      getClass().hasDataMembers() ? getClass().findMember(name) : nullptr;
  if (field == nullptr) return Create();
  return field->isForNodes() ? CreateOfType(field->getReferencedClass()->name()) : nullptr;
}

bool TarnObject::setChildNode(const char* name, xcptref<TarnObject>& node) {
  if (!getClass().hasDataMembers()) return false;
  const TarnFieldDescriptor* field = getClass().findMember(name);
  if (field == nullptr || !field->mayHoldNodes() || field->getValueOffset(name) < 0) return false;
  field->copyTo(node, this, name);
  return true;
}

bool TarnObject::setChildValue(const char* name, const TarnData& value) {
  return getClass().hasDataMembers() && getClass().setChildValue(this, name, value);
}

void TarnObject::replaceTokens(XString& text) const {
  if (text.getText() == nullptr) return;
  XString result(std::string_view{});
  TokenSearch tokens;
  const Token* token = nullptr;
  const char* rest = text.getText();
  while (const char* found = tokens.next(rest, token)) {
    result << std::string_view(rest, static_cast<std::size_t>(found - rest));
    XString path;
    rest = Stringer::ParseAttributeValueToken(found + std::strlen(token->marker), path);
    XString value = getXString(path, "");
    if (token->isHtml) Stringer::MakeHTMLsafe(value);
    result << value.view();
  }
  result << rest;
  text = std::move(result);
}

}  // namespace tarns
