#pragma once

#include <goods/class_descriptor.h>
#include <goods/field_descriptor.h>
#include <goods/reader.h>
#include <goods/ref.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarns {

class TarnData;
class TarnObject;
class XString;
class XStringList;
template <class T>
class xcptref;

// One persistent member of a node class, with access to its value in a given node.
//
// `name` in the functions below is the member's name or, for one element of an array, its element
// name (name_0, name_1, ...); an array's bare name is none of its elements.
// Threads: read only once the class is registered. The node is the caller's affair: const access
// for reading, a write access for writing.
class TARNS_API TarnFieldDescriptor : public goods::field_descriptor {
 public:
  // The class that a reference member refers to, asked for when first needed: classes may refer to
  // each other before either is registered.
  using ClassFunction = goods::class_descriptor* (*)();

  TarnFieldDescriptor(const char* name, unsigned size, unsigned numItems, unsigned offset,
                      goods::field_descriptor* components, goods::class_descriptor* referencedClass,
                      bool isNullTerminated);
  TarnFieldDescriptor(const char* name, unsigned size, unsigned numItems, unsigned offset,
                      goods::field_descriptor* components, ClassFunction referencedClass,
                      bool isNullTerminated);
  // A member known from a stored layout only: no referenced class, not a text.
  TarnFieldDescriptor(const goods::field_descriptor* declared,
                      const goods::dbs_field_descriptor* stored);
  TarnFieldDescriptor(const TarnFieldDescriptor&) = default;
  TarnFieldDescriptor& operator=(const TarnFieldDescriptor&) = default;
  ~TarnFieldDescriptor() override;

  // False when the class has no such element. A reference to what is neither a text nor a node
  // reads as the empty value; types that cannot be read or written throw, see
  // throwUnsupportedType().
  virtual bool getValue(const TarnObject& node, const char* name, TarnData& value) const;
  virtual bool setValue(TarnObject* node, const char* name, const TarnData& value) const;

  // getValue() within a function that reads several objects: what a reference leads to is read
  // through `reader`, a node's value with TarnObject::readValue().
  bool readValue(goods::reader& reader, const TarnObject& node, const char* name,
                 TarnData& value) const;

  void getName(XString& name) const;
  goods::field_type getType() const { return type(); }
  unsigned long getNumItems() const { return n_items(); }  // array length, 1 for a scalar
  const TarnFieldDescriptor* getNext() const;              // circular; null in no list
  // Whether the member is a fixed array of char that holds a text ended by a NUL.
  bool isNullTerminated() const { return isNullTerminated_; }
  // How many names the member has in a list of children.
  unsigned long getNumNames() const { return isNullTerminated_ ? 1 : getNumItems(); }
  // The member's name, or of an array the name of element `index`.
  XString getNameOfItem(unsigned long index) const;

  // Bytes from the begin of the node; negative when the class has no such element.
  std::int32_t getValueOffset(const char* name) const;

  bool hasName(const char* name) const;
  goods::class_descriptor* getReferencedClass() const;  // null for none
  bool isForClass(const goods::class_descriptor* cls) const;
  bool isForClass(const char* className) const;
  // Whether the member refers to nodes. Not known, and false, for a member that is known from a
  // stored layout only.
  bool isForNodes() const;
  // Whether the member may refer to a node: also true for references of stored layouts.
  bool mayHoldNodes() const;
  // Whether the member is a text of any length.
  bool isForText() const;

  // Read or replace a reference member; what does not fit its class throws 12. A reference that is
  // known from a stored layout only takes null and nodes of the class that it refers to so far, and
  // throws 11 for others. `out` becomes null, and nothing is replaced, when the class has no such
  // element or it is no reference to nodes.
  void copyFrom(const TarnObject* node, xcptref<TarnObject>& out, const char* name) const;
  void copyTo(xcptref<TarnObject>& in, TarnObject* node, const char* name) const;
  // Throws what copyTo() would throw; changes nothing.
  void verifyFits(const TarnObject& node, const char* name, const goods::object_ref& in) const;

  // The node that a reference member refers to, within a function that reads several objects; null
  // also where copyFrom() gives null.
  const TarnObject* look(goods::reader& reader, const TarnObject& node, const char* name) const;

  // Adds the state that the reference member's target would be stored as, in base 64, to `lines` in
  // lines of 76 characters. Nothing for null, for arrays and for members that are no references.
  // The references in it are relative to the target, which must not refer to objects that are not
  // stored: throws 111.
  void writeBlobTo(const TarnObject* node, XStringList& lines) const;

  // The step of TarnObject::shatter() for one member: adds what it refers to, when that is a node,
  // to the list of nodes to be taken apart. `arg`: a ShatterStep.
  struct ShatterStep {
    const TarnObject* node;
    std::vector<xcptref<TarnObject>>* targets;
  };
  static bool ShatterMember(const TarnFieldDescriptor& field, const void* arg);

  // -1, 0 or 1 by the bytes of the names as unsigned numbers.
  int compareName(const TarnFieldDescriptor& other) const;
  unsigned long getHashForName(unsigned long size) const;

  // States stored while the member had another name, see GOODSinOut::addFormerName().
  const std::vector<std::string>& getFormerNames() const { return formerNames_; }
  void addFormerName(const char* name) { formerNames_.emplace_back(name); }

 protected:
  [[noreturn]] void throwUnsupportedType(const char* name) const;

 private:
  bool isReference() const {
    return type() == goods::field_type::reference && kind() == goods::ref_kind::counted;
  }
  // The class whose objects getValue() and setValue() read and write through the reference.
  goods::class_descriptor* classBehind(const goods::object_ref& reference) const;
  const void* addressIn(const TarnObject& node, const char* name) const;  // null: no such element
  const goods::object_ref* referenceIn(const TarnObject& node, const char* name) const;

  ClassFunction referencedClassFunction_ = nullptr;
  goods::class_descriptor* referencedClass_ = nullptr;
  bool isNullTerminated_ = false;
  bool isStoredOnly_ = false;  // what a reference is to is found out by looking
  std::vector<std::string> formerNames_;
};

}  // namespace tarns
