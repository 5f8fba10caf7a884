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

}  // namespace tarns
