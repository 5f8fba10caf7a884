#pragma once

#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/tarns_api.h>

namespace tarns {

// A node that is a value: the base of the twelve classes of TarnValues.h, one for each type that a
// TarnData can have, which keep the value in a member "Value" of that type.
//
// The empty path leads to the value itself. A value that is stored is converted to the node's type;
// conversions never fail. Like any node a value may have children.
class TARNS_API TarnValue : public TarnObject {
  TARN_CLASS(TarnValue, TarnObject)

 public:
  ~TarnValue() override;

  using TarnObject::get;
  bool get(const char* path, TarnData& out) const override;
  void setValue(const char* path, const TarnData& value) override;
  bool readValue(goods::reader& reader, TarnData& out) const override;

  // Add to, take from the stored value, as TarnData does for its type.
  void add(const TarnData& value);
  void subtract(const TarnData& value);

  // Takes over the value of `other`, converted; an other without a value gives what an empty
  // TarnData converts to.
  void copyFrom(xcptref<TarnObject> other) override;

  // A new node without parent of the class that fits the value's type; a plain TarnObject for the
  // empty value. Throws 10 for a type that does not exist.
  static xcptref<TarnObject> CreateValue(const TarnData& value);

  // Adds `value` to the value node `name` below `parent` and returns the sum; where there is no
  // such value node, stores `value` as setValue() does and returns it.
  static TarnData AddToChild(const xcptref<TarnObject>& parent, const char* name,
                             const TarnData& value);

  // Sets every value of the branch below and including `node` to the zero of its type: false, 0 or
  // "" (a text member becomes the null string, which reads as the empty value). Values are the
  // value nodes among the children at any depth, reflected members that are numbers or texts, and
  // nodes that reflected members refer to where those have no parent. Types, names and the shape of
  // the branch stay. One transaction.
  static void ClearValuesIn(const xcptref<TarnObject>& node);

 protected:
  // The value, and storing one. The base has none: false, and nothing else happens. Overridden
  // together by classes with another kind of value.
  virtual bool getValue(TarnData& out) const;
  virtual bool setTarnValue(const TarnData& value);
};

}  // namespace tarns
