#include "tools/node_view.h"

#include <goods/String.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/session/TarnRoot.h>
#include <tarns/util/XStringList.h>

#include <charconv>
#include <functional>
#include <string_view>

#include "tools/TarnJsonNodes.h"

namespace tarns {

namespace {

std::string ClassOfType(TarnData::Type type) {
  return std::string("Tarn") + TarnData::GetTypeAsString(type) + "Value";
}

// The index of an element's name as GetElementName() makes it; `count` for any other name.
std::size_t ElementIndex(std::string_view name, std::size_t count) {
  const std::string_view base = TarnJsonArray::kElements;
  if (!name.starts_with(base) || name.size() < base.size() + 2) return count;
  const std::string_view digits = name.substr(base.size() + 1);
  std::size_t index = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), index);
  if (error != std::errc() || end != digits.data() + digits.size()) return count;
  return TarnMember::GetElementName(base, index) == name ? index : count;
}

// Whether the children are exactly the elements 0 to count - 1, each once.
bool IsComplete(const TarnRef& node, std::size_t count) {
  std::string_view previous;
  std::string kept;
  for (const auto& [name, child] : node->children()) {
    if (ElementIndex(name, count) >= count || name == previous) return false;
    kept = name;
    previous = kept;
  }
  return true;
}

using MemberVisit = std::function<void(const TarnFieldDescriptor& field, const XString& name)>;

// For every member, and for every element of an array.
void ForEachMember(const TarnRef& node, const MemberVisit& visit) {
  node->getClass().iterateFields(
      [](const TarnFieldDescriptor& field, const void* function) {
        for (unsigned long i = 0; i < field.getNumNames(); ++i) {
          (*static_cast<const MemberVisit*>(function))(field, field.getNameOfItem(i));
        }
        return true;
      },
      &visit, true);
}

// Whether the member refers to what is neither a text nor null.
bool RefersElsewhere(const TarnObject& node, const TarnFieldDescriptor& field, const char* name,
                     const TarnData& value) {
  if (field.getType() != goods::field_type::reference) return false;
  TarnRef target;
  field.copyFrom(&node, target, name);
  if (!target.is_null()) return true;
  if (value.getType() != TarnData::None || field.isForNodes()) return false;
  XStringList state;  // of the target, whatever it is
  field.writeBlobTo(&node, state);
  return !state.isEmpty();
}

// Whether a text goes on behind its first NUL, where values of a TarnData end.
bool HoldsNul(const TarnObject& node, const TarnFieldDescriptor& field, const char* name) {
  const std::int32_t at = field.isForText() ? field.getValueOffset(name) : -1;
  if (at < 0) return false;
  const auto* const member =
      reinterpret_cast<const goods::object_ref*>(reinterpret_cast<const char*>(&node) + at);
  const auto text = goods::ref<goods::String>::trusted(*member);
  return !text.is_null() && text->text().find('\0') != std::string_view::npos;
}

TarnData ValueOf(const TarnRef& node, const TarnFieldDescriptor& field, const char* name) {
  const auto body = *node;
  TarnData value(TarnData::Uint64);  // an enumeration gives its number
  field.getValue(*body, name, value);
  const bool refersElsewhere = RefersElsewhere(*body, field, name, value);
  if (!refersElsewhere && !HoldsNul(*body, field, name)) return value;
  TarnException error;
  error << "The member \"" << name << "\" of the class \"" << goods::class_of(node).name() << "\" "
        << (refersElsewhere ? "refers to another node" : "holds a byte that is 0")
        << ", which JSON cannot express.";
  throw error;
}

}  // namespace

NodeView::NodeView(const TarnRef& node)
    : className(goods::class_of(node).name()), numChildren(node->getNumAbstractChildren()) {
  TarnData own;
  if (node->get("", own)) value = std::move(own);
  isPlain = className == TarnObject::GetType() || className == TarnRoot::GetType();
  isPlainValue = value.has_value() && className == ClassOfType(value->getType());
}

std::vector<MemberValue> MembersOf(const TarnRef& node) {
  std::vector<MemberValue> members;
  ForEachMember(node, [&](const TarnFieldDescriptor& field, const XString& name) {
    members.push_back({std::string(name.view()), ValueOf(node, field, name)});
  });
  return members;
}

TarnData MemberOf(const TarnRef& node, const std::string& name) {
  const TarnFieldDescriptor* field = node->getClass().findField(name.c_str());
  if (field == nullptr) TarnException::ThrowNonExistentValue(name.c_str());
  return ValueOf(node, *field, name.c_str());
}

ChildSource::ChildSource(const TarnRef& node) : node_(node) {
  if (goods::class_of(node).name() == std::string_view(TarnJsonArray::GetType())) {
    numElements_ = node->getNumAbstractChildren();
    isArray_ = IsComplete(node, numElements_);
  } else {
    isArray_ = false;
  }
  if (!isArray_) place_ = node->children().begin();
}

bool ChildSource::isAtEnd() const {
  return isArray_ ? element_ == numElements_ : place_ == std::default_sentinel;
}

std::optional<TarnChild> ChildSource::next() {
  if (isAtEnd()) return std::nullopt;
  if (!isArray_) {
    TarnChild child = *place_;
    ++place_;
    return child;
  }
  std::string name =
      TarnMember::GetElementName(std::string_view(TarnJsonArray::kElements), element_);
  ++element_;
  TarnRef child = node_->getChildWithName(std::string_view(name));
  return TarnChild{std::move(name), std::move(child)};
}

}  // namespace tarns
