#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/select/TarnQuery.h>

#include <utility>

#include "select/QueryConditions.h"

namespace tarns {

TARN_REGISTER(TarnQuery, TarnObject);

namespace {

XString ElementName(unsigned long index) {
  return TarnMember::GetElementName(TarnQuery::kElement, index);
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

void TarnQuery::visitElements(
    const std::function<void(const TarnQueryElement& element)>& visit) const {
  for (unsigned long i = 0;; ++i) {
    const xcptref<TarnQueryElement> element = getChildWithName(ElementName(i).getText());
    if (element.is_null()) return;
    visit(*element.read());
  }
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
  TarnQueryElement::LogicType logic = TarnQueryElement::Or;  // the first one counts as it is
  visitElements([&](const TarnQueryElement& element) {
    const bool holds = subject != nullptr   ? element.evaluate(*subject)
                       : manager != nullptr ? element.evaluate(*manager)
                                            : element.evaluate(node);
    result = JoinResults(result, logic, holds);
    logic = element.getLogic();
  });
  return result;
}

}  // namespace tarns
