#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

#include <cstdint>

namespace tarns {

class TarnManager;

// One condition of a TarnQuery: a value, the subject, is compared with a reference text.
//
// Its settings are child values, so that it is read, written and exported like any branch. Texts
// are compared without regard to the case of the letters a to z; all other bytes, those of letters
// beyond ASCII included, count as they are, and texts are ordered by bytes as unsigned numbers.
// A subject that is no text is compared as the text that it reads as.
//
// An element with the reference text "*" is true whatever the subject. Otherwise it is false when
// the reference text or the subject is empty, or the operator is none of those below.
//
// Threads and errors: as every node.
class TARNS_API TarnQueryElement : public TarnObject {
  TARN_CLASS(TarnQueryElement, TarnObject)

 public:
  enum OperatorType : std::uint32_t {
    Less,
    Greater,
    Equal,
    NotEqual,
    GreaterOrEqual,
    LessOrEqual,
    StartsWith,
    Contains
  };
  // How the result is joined to the next element's. Any other number leaves the next one out.
  enum LogicType : std::uint32_t { And, Or };

  static constexpr const char* kElementName = "Name";   // text
  static constexpr const char* kValue = "Value";        // text
  static constexpr const char* kOperator = "Operator";  // Uint32
  static constexpr const char* kLogic = "Logic";        // Uint32
  // The reference text that means that none has been given, see hasExplicitValue().
  static constexpr const char* kNoValue = "value";
  static constexpr const char* kAnything = "*";

  static xcptref<TarnQueryElement> Create(const char* name, OperatorType op, const char* value,
                                          LogicType logic = And);
  ~TarnQueryElement() override;

  // The name or path of the subject; empty when there is none.
  XString getElementName() const;
  void setElementName(const char* name);
  // The reference text; empty when there is none.
  XString getQueryValue() const;
  void setQueryValue(const char* value);
  OperatorType getOperator() const;  // Less when there is none; may be a number of no operator
  void setOperator(OperatorType op);
  LogicType getLogic() const;  // And when there is none
  void setLogic(LogicType logic);

  // Whether there is a reference text other than "value".
  bool hasExplicitValue() const;

  // With the subject below `node`; at the path from the root; given, in which case it is compared
  // as it is, but for StartsWith and Contains: make it upper case before.
  bool evaluate(TarnRef node) const;
  bool evaluate(TarnManager& manager) const;
  bool evaluate(XString& subject) const;

  bool write(const char* name, GOODSinOut& out) override;
};

}  // namespace tarns
