#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/select/TarnQuery.h>

#include <utility>

namespace tarns {

TARN_REGISTER(TarnQuery, TarnObject);

namespace {

XString ElementName(unsigned long index) {
  return TarnMember::GetElementName(TarnQuery::kElement, index);
}

bool Join(bool left, TarnQueryElement::LogicType logic, bool right) {
  switch (logic) {
    case TarnQueryElement::And:
      return left && right;
    case TarnQueryElement::Or:
      return left || right;
    default:
      return left;
  }
}

}  // namespace

TarnQuery::~TarnQuery() = default;

bool TarnQuery::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return true;
}

void TarnQuery::addElement(xcptref<TarnQueryElement> element) {
  const std::uint32_t count = getUint32(kCount, 0);
  addChild(ElementName(count), std::move(element));
  setValue(kCount, count + 1);
}

xcptref<TarnQueryElement> TarnQuery::getElement(unsigned long index) const {
  if (index >= getUint32(kCount, 0)) return nullptr;
  return getChildWithName(ElementName(index).getText());
}

void TarnQuery::setAllQueryValues(const char* value) {
  for (unsigned long i = 0;; ++i) {
    const xcptref<TarnQueryElement> element = getElement(i);
    if (element.is_null() || element->hasExplicitValue()) return;
    modify(element)->setQueryValue(value);
  }
}

bool TarnQuery::evaluate(TarnRef node) const { return evaluate(std::move(node), nullptr, nullptr); }

bool TarnQuery::evaluate(TarnManager& manager) const {
  return evaluate(nullptr, &manager, nullptr);
}

bool TarnQuery::evaluate(XString& subject) const { return evaluate(nullptr, nullptr, &subject); }

bool TarnQuery::evaluate(TarnRef node, TarnManager* manager, XString* subject) const {
  bool result = false;
  TarnQueryElement::LogicType logic = TarnQueryElement::And;
  for (unsigned long i = 0;; ++i) {
    const xcptref<TarnQueryElement> element = getChildWithName(ElementName(i).getText());
    if (element.is_null()) return result;
    const auto body = *element;
    const bool holds = subject != nullptr   ? body->evaluate(*subject)
                       : manager != nullptr ? body->evaluate(*manager)
                                            : body->evaluate(node);
    result = i == 0 ? holds : Join(result, logic, holds);
    logic = body->getLogic();
  }
}

}  // namespace tarns
