// The words of the text form, and values as text.
#pragma once

#include <tarns/core/TarnData.h>
#include <tarns/core/TarnObject.h>
#include <tarns/util/PInOut.h>

namespace tarns {

struct TextWord {
  static constexpr const char* kName = "Name";
  static constexpr const char* kValue = "Value";
  static constexpr const char* kChildren = "Children";
  static constexpr const char* kOpen = "{";
  static constexpr const char* kClose = "}";
  static constexpr const char* kNull = "NULL";
  static constexpr const char* kSame = "=";   // the node that stands elsewhere in the file
  static constexpr const char* kHome = "==";  // the same, and this is its place in the tree
};

// Whether the class has a member that a line "Name" is about.
bool HasMemberCalledName(const TarnObject& node);

// The value class of the type; TarnValue for None.
TarnClassDescriptor& TarnValueClassOf(TarnData::Type type);

// Writes a value so that it reads back exactly.
bool WriteValue(PInOut& out, const char* command, const TarnData& value);

}  // namespace tarns
