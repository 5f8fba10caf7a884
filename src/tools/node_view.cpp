#include "tools/node_view.h"

#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/session/TarnRoot.h>

#include <charconv>
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

std::vector<std::string> MemberNames(const TarnRef& node) {
  std::vector<std::string> names;
  node->getClass().iterateFields(
      [](const TarnFieldDescriptor& field, const void* into) {
        auto& list = *static_cast<std::vector<std::string>*>(const_cast<void*>(into));
        XString name;
        field.getName(name);
        const bool isArray = field.getNumItems() > 1 && !field.isNullTerminated();
        if (!isArray) list.emplace_back(name.view());
        for (unsigned long i = 0; isArray && i < field.getNumItems(); ++i) {
          list.push_back(TarnMember::GetElementName(name.view(), i));
        }
        return true;
      },
      &names, true);
  return names;
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
  for (std::string& name : MemberNames(node)) {
    TarnData value(TarnData::Uint64);  // an enumeration gives its number
    if (node->get(name.c_str(), value)) {
      members.push_back({std::move(name), std::move(value)});
    } else if (!node->getChildWithName(name.c_str()).is_null()) {
      TarnException error;
      error << "The member \"" << name << "\" of the class \"" << goods::class_of(node).name()
            << "\" refers to another node, which JSON cannot express.";
      throw error;
    }
  }
  return members;
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
