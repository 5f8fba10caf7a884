#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/select/TarnQueryElement.h>
#include <tarns/tarns_api.h>

#include <functional>

namespace tarns {

class TarnManager;

// A stored list of conditions, joined from the first to the last.
//
//   const auto query = TarnQuery::Create();
//   modify(query)->addElement(
//       TarnQueryElement::Create("Section", TarnQueryElement::Equal, "libs"));
//   modify(query)->addElement(
//       TarnQueryElement::Create("Package", TarnQueryElement::StartsWith, "libx"));
//   if (query->evaluate(package)) ...
//
// The elements are the children Elem_0, Elem_1, ..., as far as they follow each other; the child
// value Count is how many were added. There is no precedence: A or B and C is (A or B) and C. A
// query without elements is false.
//
// Threads and errors: as every node. A query that others change meanwhile: evaluate in a
// transaction.
class TARNS_API TarnQuery : public TarnObject {
  TARN_CLASS(TarnQuery, TarnObject)

 public:
  static constexpr const char* kCount = "Count";     // Uint32
  static constexpr const char* kElement = "Elem";    // with "_" and the element's number
  static constexpr const char* kQueryName = "Name";  // text

  ~TarnQuery() override;

  // Adds it behind the others.
  void addElement(xcptref<TarnQueryElement> element);
  // Null when `index` is not below Count, or there is no such child.
  xcptref<TarnQueryElement> getElement(unsigned long index) const;

  // Calls `visit` for each element that is evaluated, in their order.
  void visitElements(const std::function<void(const TarnQueryElement& element)>& visit) const;

  // Gives the first elements this reference text, up to the one that has an explicit one.
  virtual void setAllQueryValues(const char* value);

  // See TarnQueryElement; every element is evaluated.
  bool evaluate(TarnRef node) const;
  bool evaluate(TarnManager& manager) const;
  bool evaluate(XString& subject) const;

  bool write(const char* name, GOODSinOut& out) override;

 protected:
  // With the first that is not null of `subject`, `manager` and `node`.
  bool evaluate(TarnRef node, TarnManager* manager, XString* subject) const;
};

}  // namespace tarns
