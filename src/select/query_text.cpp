#include "select/query_text.h"

#include <tarns/select/TarnQueryElement.h>
#include <tarns/util/Stringer.h>

#include <algorithm>

namespace tarns {

namespace {

bool IsSameLetter(char left, char right) { return Stringer::ToUpper(left) == right; }

}  // namespace

void MakeUpperCase(std::string& text) {
  std::transform(text.begin(), text.end(), text.begin(), Stringer::ToUpper);
}

bool Satisfies(std::string_view subject, std::uint32_t op, std::string_view reference) {
  switch (op) {
    case TarnQueryElement::Less:
      return subject < reference;
    case TarnQueryElement::Greater:
      return subject > reference;
    case TarnQueryElement::Equal:
      return subject == reference;
    case TarnQueryElement::NotEqual:
      return subject != reference;
    case TarnQueryElement::GreaterOrEqual:
      return subject >= reference;
    case TarnQueryElement::LessOrEqual:
      return subject <= reference;
    case TarnQueryElement::StartsWith:
      return subject.size() >= reference.size() &&
             std::equal(reference.begin(), reference.end(), subject.begin(),
                        [](char right, char left) { return IsSameLetter(left, right); });
    case TarnQueryElement::Contains:
      return std::search(subject.begin(), subject.end(), reference.begin(), reference.end(),
                         IsSameLetter) != subject.end();
    default:
      return false;
  }
}

bool SatisfiesInUpperCase(std::string_view subject, std::uint32_t op, std::string_view reference) {
  const std::size_t common = std::min(subject.size(), reference.size());
  const auto differs = [](char left, char right) { return Stringer::ToUpper(left) != right; };
  std::size_t same = 0;
  while (same < common && !differs(subject[same], reference[same])) ++same;
  int order = 0;
  if (same < common) {
    const auto left = static_cast<unsigned char>(Stringer::ToUpper(subject[same]));
    order = left < static_cast<unsigned char>(reference[same]) ? -1 : 1;
  } else if (subject.size() != reference.size()) {
    order = subject.size() < reference.size() ? -1 : 1;
  }
  switch (op) {
    case TarnQueryElement::Less:
      return order < 0;
    case TarnQueryElement::Greater:
      return order > 0;
    case TarnQueryElement::Equal:
      return order == 0;
    case TarnQueryElement::NotEqual:
      return order != 0;
    case TarnQueryElement::GreaterOrEqual:
      return order >= 0;
    case TarnQueryElement::LessOrEqual:
      return order <= 0;
    default:
      return Satisfies(subject, op, reference);  // which regards no case
  }
}

}  // namespace tarns
