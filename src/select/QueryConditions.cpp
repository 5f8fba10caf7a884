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

// The logic of the last one joins nothing.
bool QueryConditions::isAnyOf() const {
  for (std::size_t i = 0; i + 1 < conditions_.size(); ++i) {
    if (conditions_[i].logic == TarnQueryElement::And) return false;
  }
  return true;
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

void QueryConditions::hold(goods::reader& reader, std::span<const TarnObject* const> nodes,
                           SubjectBatch& subjects, std::vector<char>& results) const {
  results.assign(nodes.size(), false);
  TarnQueryElement::LogicType logic = TarnQueryElement::Or;  // the first one counts as it is
  std::vector<const TarnObject*> open(nodes.size());
  for (const Condition& condition : conditions_) {
    if (logic == TarnQueryElement::And || logic == TarnQueryElement::Or) {
      const bool isUndecided = logic == TarnQueryElement::And;
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        open[i] = results[i] == static_cast<char>(isUndecided) ? nodes[i] : nullptr;
      }
      Join(condition, reader, open, subjects, results);
    }
    logic = condition.logic;
  }
}

// Sets the results of all nodes that are not null.
void QueryConditions::Join(const Condition& condition, goods::reader& reader,
                           std::span<const TarnObject* const> nodes, SubjectBatch& subjects,
                           std::vector<char>& results) {
  const bool isAnything = condition.isAnything && !condition.path.empty();
  const bool isNothing = condition.path.empty() || condition.reference.empty();
  std::span<const std::string_view> texts;
  if (!isAnything && !isNothing) texts = subjects.read(reader, nodes, condition.path);
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i] == nullptr) continue;
    results[i] = static_cast<char>(
        isAnything || (!isNothing && !texts[i].empty() &&
                       SatisfiesInUpperCase(texts[i], condition.op, condition.reference)));
  }
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
