#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/select/TarnQueryElement.h>
#include <tarns/session/TarnManager.h>

#include <string>

#include "select/query_text.h"

namespace tarns {

TARN_REGISTER(TarnQueryElement, TarnObject);

namespace {

// The subject as the conditions on nodes want it.
XString UpperCase(const XString& subject) {
  std::string text(subject.view());
  MakeUpperCase(text);
  return XString(text);
}

}  // namespace

xcptref<TarnQueryElement> TarnQueryElement::Create(const char* name, OperatorType op,
                                                   const char* value, LogicType logic) {
  xcptref<TarnQueryElement> element = Create();
  auto body = modify(element);
  body->setElementName(name);
  body->setOperator(op);
  body->setQueryValue(value);
  body->setLogic(logic);
  return element;
}

TarnQueryElement::~TarnQueryElement() = default;

bool TarnQueryElement::write(const char* name, GOODSinOut& out) {
  TarnObject::write(name, out);
  return true;
}

XString TarnQueryElement::getElementName() const { return getXString(kElementName, ""); }

void TarnQueryElement::setElementName(const char* name) { setValue(kElementName, TarnData(name)); }

XString TarnQueryElement::getQueryValue() const { return getXString(kValue, ""); }

void TarnQueryElement::setQueryValue(const char* value) { setValue(kValue, TarnData(value)); }

TarnQueryElement::OperatorType TarnQueryElement::getOperator() const {
  return static_cast<OperatorType>(getUint32(kOperator, Less));
}

void TarnQueryElement::setOperator(OperatorType op) {
  setValue(kOperator, static_cast<std::uint32_t>(op));
}

TarnQueryElement::LogicType TarnQueryElement::getLogic() const {
  return static_cast<LogicType>(getUint32(kLogic, And));
}

void TarnQueryElement::setLogic(LogicType logic) {
  setValue(kLogic, static_cast<std::uint32_t>(logic));
}

bool TarnQueryElement::hasExplicitValue() const {
  const auto value = valueAt(kValue);
  return value && XString(value->getText()) != kNoValue;
}

bool TarnQueryElement::evaluate(TarnRef node) const {
  const XString name = getElementName();
  if (name.isEmpty()) return false;
  XString subject = UpperCase(node->getXString(name, ""));
  return evaluate(subject);
}

bool TarnQueryElement::evaluate(TarnManager& manager) const {
  const XString name = getElementName();
  if (name.isEmpty()) return false;
  XString subject = UpperCase(manager.getXString(name.view(), ""));
  return evaluate(subject);
}

bool TarnQueryElement::evaluate(XString& subject) const {
  std::string reference(getQueryValue().view());
  if (reference == kAnything) return true;
  if (reference.empty() || subject.isEmpty()) return false;
  MakeUpperCase(reference);
  return Satisfies(subject.view(), getOperator(), reference);
}

}  // namespace tarns
