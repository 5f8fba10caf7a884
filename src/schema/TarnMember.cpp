#include <tarns/core/TarnBranches.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnValue.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/leCompare.h>

#include <cstring>

namespace tarns {

namespace {

[[noreturn]] void ThrowUnparsable(const char* name, const char* why) {
  TarnException error;
  error << "Could not parse the base name and index from \"" << name << "\" because the " << why;
  throw error;
}

[[noreturn]] void ThrowNoIndex(const char* name) {
  TarnException error;
  error << "Cannot set array element value:  \"" << name << "\" does not contain an array index.";
  throw error;
}

[[noreturn]] void ThrowBadIndex(const char* name, unsigned long count) {
  TarnException error;
  error << "Cannot set array element value: \"" << name << "\"'s index must be in the range [0 .. "
        << static_cast<long>(count) - 1 << "]";
  throw error;
}

[[noreturn]] void ThrowTooFewValues(const XStringList& names, const XStringList& values) {
  TarnException error;
  error << "Cannot set " << names.getCount() << " values:  only " << values.getCount()
        << " texts are given.";
  throw error;
}

// The text as a value that can be stored where `path` leads.
TarnData ValueFor(const TarnRef& node, const char* path, const XString& text) {
  TarnData present(TarnData::Uint64);
  if (!node->get(path, present) || present.getType() != TarnData::Boolean) return TarnData(text);
  present.set(text.getText(), TarnData::Boolean);
  return present;
}

}  // namespace

TarnMember::~TarnMember() = default;

bool TarnMember::access() {
  wasFound_ = readNode_ != nullptr
                  ? readNode_->getClass().getChildValue(*readNode_, name_, *out_)
                  : writtenNode_->getClass().setChildValue(writtenNode_, name_, *in_);
  return wasFound_;
}

XString TarnMember::GetElementName(const char* base, unsigned long index) {
  XString name(base);
  name << '_' << index;
  return name;
}

std::string TarnMember::GetElementName(std::string_view base, unsigned long index) {
  std::string name(base);
  name += '_';
  name += std::to_string(index);
  return name;
}

bool TarnMember::HasElementIndex(const char* name) {
  return name != nullptr && std::strchr(name, '_') != nullptr;
}

std::optional<std::int64_t> TarnMember::ParseIndex(const char* text) {
  if (!Stringer::IsInteger(text) || std::strchr(text, ',') != nullptr) return std::nullopt;
  return Stringer::Atol(text);
}

void TarnMember::FromElementName(const char* name, XString* base, unsigned long* index) {
  if (name == nullptr) name = "";
  const char* separator = std::strrchr(name, '_');
  if (separator == nullptr || separator == name) {
    ThrowUnparsable(name, "separator ('_') is missing.");
  }
  std::optional<std::int64_t> parsed;
  if (index != nullptr) {
    parsed = ParseIndex(separator + 1);
    if (!parsed) ThrowUnparsable(name, "index is not an integer.");
  }
  if (base != nullptr) *base = std::string_view(name, static_cast<std::size_t>(separator - name));
  if (index != nullptr) *index = static_cast<unsigned long>(*parsed);
}

int TarnMember::CompareElementNames(const char* left, const char* right) {
  if (!HasElementIndex(left) || !HasElementIndex(right)) {
    return Stringer::Compare(ViewOf(left), ViewOf(right));
  }
  XString leftBase, rightBase;
  unsigned long leftIndex = 0, rightIndex = 0;
  FromElementName(left, &leftBase, &leftIndex);
  FromElementName(right, &rightBase, &rightIndex);
  const int order = leftBase.compare(rightBase.view());
  return order != 0 ? order : leCompare(leftIndex, rightIndex);
}

void TarnMember::IterateValueRef(TarnObject::ChildFunction callback, const void* arg,
                                 const char* name, const TarnString& value) {
  IterateValue(callback, arg, name, TarnData(value));
}

void TarnMember::IterateValueRef(TarnObject::ChildFunction callback, const void* arg,
                                 const TarnRef& node) {
  const XString name = node.is_null() ? XString("") : node->getName();
  callback(name.getText() != nullptr ? name.getText() : "", node, arg);
}

void TarnMember::IterateValue(TarnObject::ChildFunction callback, const void* arg, const char* name,
                              const TarnData& value) {
  const TarnRef holder = TarnObject::Create();
  const TarnRef node = TarnValue::CreateValue(value);
  modify(holder)->addChild(name, node);
  callback(name, node, arg);
}

void TarnMember::SetElement(const char* elementName, double value, double* array,
                            unsigned long count) {
  const char* separator = elementName != nullptr ? std::strchr(elementName, '_') : nullptr;
  if (separator == nullptr) ThrowNoIndex(elementName != nullptr ? elementName : "");
  const std::int64_t index = Stringer::Atol(separator + 1);
  if (index < 0 || static_cast<unsigned long>(index) >= count) ThrowBadIndex(elementName, count);
  array[index] = value;
}

void TarnMember::SetValues(const TarnRef& node, const XStringList& names,
                           const XStringList& values) {
  if (values.getCount() < names.getCount()) ThrowTooFewValues(names, values);
  auto body = modify(node);
  for (std::size_t i = 0; i < names.getCount(); ++i) {
    body->setValue(names[i], ValueFor(node, names[i], values[i]));
  }
}

bool TarnMember::WillModifyBranch(const XStringList& names, const char* branch) {
  const std::string_view whole = ViewOf(branch);
  for (const XString& name : names) {
    const std::string_view path = name.view();
    const bool isBelow =
        path.size() > whole.size() && path[whole.size()] == TarnBranches::kSeparator;
    if (whole.empty() || path == whole || (isBelow && path.starts_with(whole))) return true;
  }
  return false;
}

}  // namespace tarns
