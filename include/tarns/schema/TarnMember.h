#pragma once

#include <goods/WWWconnection.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnString.h>
#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>
#include <tarns/util/XStringList.h>

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// What a whole number can be that a web request or a template holds.
template <class T>
concept TarnUnsigned = std::unsigned_integral<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

// Members of persistent classes by text: names of elements, filling members from the attributes of
// a web request, putting their values into texts, and handing them out as nodes.
//
// Element names are a base name, '_' and a decimal index from 0, as in Items_3. They name the
// elements of array members, children with unique names, and the like.
//
// An object of the class stands for one access to a member by its name:
//
//   TarnData speed;
//   TarnMember member(*node, "Speed", speed);
//   member.access();
//   if (member.wasMemberFound()) ...
//
// Errors: TarnException 0; a function that throws has changed nothing. Threads: as for the nodes
// that are handed in.
class TARNS_API TarnMember {
 public:
  // Reads into `out`; stores `in`. All are kept by reference and outlive this object.
  TarnMember(const TarnObject& node, const char* name, TarnData& out)
      : readNode_(&node), name_(name), out_(&out) {}
  TarnMember(TarnObject* node, const char* name, const TarnData& in)
      : writtenNode_(node), name_(name), in_(&in) {}
  TarnMember(const TarnMember&) = delete;
  TarnMember& operator=(const TarnMember&) = delete;
  virtual ~TarnMember();

  // Reads or stores. Returns, and wasMemberFound() says from then on, whether the class has the
  // member (see TarnClassDescriptor::getChildValue() and setChildValue()).
  bool access();
  bool wasMemberFound() const { return wasFound_; }

  // --- Names of elements ------------------------------------------------------------------------

  static XString GetElementName(const char* base, unsigned long index);
  static std::string GetElementName(std::string_view base, unsigned long index);

  // Whether the name holds a '_' at all.
  static bool HasElementIndex(const char* name);

  // What stands behind the '_': an integer as Stringer::IsInteger() takes it, but without commas
  // between its digits. Nothing for any other text.
  static std::optional<std::int64_t> ParseIndex(const char* text);

  // Splits a name at its last '_'. Either output may be null; an index that is not asked for is not
  // looked at. Throws when there is no '_' behind the first character or the index is not an
  // integer.
  static void FromElementName(const char* name, XString* base, unsigned long* index);

  // -1, 0 or 1. Names that both hold a '_' are split, which may throw, and ordered by base and then
  // by index as a number: Item_2 before Item_10. Others by bytes as unsigned numbers.
  static int CompareElementNames(const char* left, const char* right);

  // --- From the attributes of a web request. An attribute that is not there leaves the target as
  // it is; one that cannot be read throws.

  // A whole number from `min` to `max`, both included. Throws when there is no such attribute.
  static std::uint64_t GetUintFrom(const char* name, const goods::WWWconnection& request,
                                   std::uint64_t min, std::uint64_t max);

  template <TarnUnsigned T>
  static void InitializeFrom(T* target, const char* name, const goods::WWWconnection& request) {
    if (request.get(name) == nullptr) return;
    *target = static_cast<T>(GetUintFrom(name, request, 0, std::numeric_limits<T>::max()));
  }
  static void InitializeFrom(double* target, const char* name, const goods::WWWconnection& request);
  // The text is set as TarnString::set() does: whoever shares it sees it.
  static void InitializeFrom(TarnString& target, const char* name,
                             const goods::WWWconnection& request);
  // Element i from the attribute called GetElementName(name, i). Integers that do not fit lose
  // their upper bits.
  static void InitializeFrom(double* targets, unsigned long count, const char* name,
                             const goods::WWWconnection& request);
  static void InitializeFrom(short* targets, unsigned long count, const char* name,
                             const goods::WWWconnection& request);

  // --- Into texts: every "#name#" is replaced by the value. What was put in is not searched again.
  // `isGrouped`: whether whole digits stand in groups of three, as in 1,234,567. `decimals`: how
  // many digits follow the point, rounded to the nearest (0: no point). A real number that is none,
  // or infinite, is written as nan, inf or -inf.

  static void Replace(XString& text, const char* name, bool value, const char* trueText,
                      const char* falseText);
  static void Replace(XString& text, const char* name, unsigned char value);
  template <TarnUnsigned T>
  static void Replace(XString& text, const char* name, T value, bool isGrouped) {
    ReplaceUint(text, name, value, isGrouped);
  }
  static void Replace(XString& text, const char* name, double value, unsigned short decimals,
                      bool isGrouped);
  static void Replace(XString& text, const char* name, const TarnString& value);
  // Element i for "#" + GetElementName(name, i) + "#".
  static void ReplaceArray(XString& text, const char* name, const double* values,
                           unsigned long count, unsigned short decimals, bool isGrouped);

  // --- Members as nodes: calls `callback` with a new value node of the fitting class that holds
  // the value and bears the name. The node is not stored; it is the only child of a node of its
  // own, so its name lasts as long as the callback unless it is put elsewhere. Throws for names
  // that no child may have.

  template <TarnScalar T>
  static void IterateValueRef(TarnObject::ChildFunction callback, const void* arg, const char* name,
                              T value) {
    IterateValue(callback, arg, name, TarnData(value));
  }
  static void IterateValueRef(TarnObject::ChildFunction callback, const void* arg, const char* name,
                              const TarnString& value);
  // The node as it is, under its own name.
  static void IterateValueRef(TarnObject::ChildFunction callback, const void* arg,
                              const TarnRef& node);
  // Each element under GetElementName(name, i).
  template <class T>
  requires TarnScalar<T> || std::same_as<T, TarnString>
  static void IterateArray(TarnObject::ChildFunction callback, const void* arg, const char* name,
                           const T* values, unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
      IterateValueRef(callback, arg, GetElementName(name, i), values[i]);
    }
  }

  // --- Others -----------------------------------------------------------------------------------

  // Stores `value` at the index that stands behind the first '_'.
  static void SetElement(const char* elementName, double value, double* array, unsigned long count);

  // Stores each text at the path of the same position below `node`, in one transaction, as
  // TarnObject::setValue() does; where a Boolean is, the words of TarnData::set(text, Boolean) are
  // understood. Throws when there are fewer texts than names.
  static void SetValues(const TarnRef& node, const XStringList& names, const XStringList& values);

  // Whether storing under these paths changes the branch: whether one of them is `branch` or leads
  // below it. The empty branch is everything.
  static bool WillModifyBranch(const XStringList& names, const char* branch);

 private:
  static void ReplaceUint(XString& text, const char* name, std::uint64_t value, bool isGrouped);
  static void IterateValue(TarnObject::ChildFunction callback, const void* arg, const char* name,
                           const TarnData& value);

  const TarnObject* readNode_ = nullptr;
  TarnObject* writtenNode_ = nullptr;
  const char* name_;
  TarnData* out_ = nullptr;
  const TarnData* in_ = nullptr;
  bool wasFound_ = false;
};

}  // namespace tarns
