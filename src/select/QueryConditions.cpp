#include "select/QueryConditions.h"

#include "core/node_access.h"
#include "select/query_text.h"

namespace tarns {

bool JoinResults(bool left, TarnQueryElement::LogicType logic, bool right) {
  switch (logic) {
    case TarnQueryElement::And:
      return left && right;
    case TarnQueryElement::Or:
      return left || right;
    default:
      return left;
  }
}

QueryConditions::QueryConditions(const TarnQuery& query) {
  query.visitElements([this](const TarnQueryElement& element) {
    Condition& condition = conditions_.emplace_back();
    condition.path = element.getElementName().view();
    condition.reference = element.getQueryValue().view();
    condition.isAnything = condition.reference == TarnQueryElement::kAnything;
    MakeUpperCase(condition.reference);
    condition.op = element.getOperator();
    condition.logic = element.getLogic();
  });
}

bool QueryConditions::hold(goods::reader& reader, const TarnObject& node, Subject& subject) const {
  bool result = false;
  TarnQueryElement::LogicType logic = TarnQueryElement::Or;  // the first one counts as it is
  for (const Condition& condition : conditions_) {
    // What cannot change the result any more need not be read.
    const bool decided = logic == TarnQueryElement::And  ? !result
                         : logic == TarnQueryElement::Or ? result
                                                         : true;
    if (!decided) result = JoinResults(result, logic, Holds(condition, reader, node, subject));
    logic = condition.logic;
  }
  return result;
}

bool QueryConditions::Holds(const Condition& condition, goods::reader& reader,
                            const TarnObject& node, Subject& subject) {
  if (condition.path.empty()) return false;
  if (condition.isAnything) return true;
  if (condition.reference.empty()) return false;
  subject.value.empty();
  if (!ReadValue(reader, node, condition.path, subject.value)) return false;
  const std::string_view text = subject.value.getText();
  subject.text = text.substr(0, text.find('\0'));  // as an XString has it
  if (subject.text.empty()) return false;
  MakeUpperCase(subject.text);
  return Satisfies(subject.text, condition.op, condition.reference);
}

}  // namespace tarns
