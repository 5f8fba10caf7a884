#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarns {

// Element names: a base name, '_' and a decimal index from 0, as in Items_3. They name the elements
// of array members, children with unique names, and the like.
class TARNS_API TarnMember {
 public:
  static XString GetElementName(const char* base, unsigned long index);
  static std::string GetElementName(std::string_view base, unsigned long index);

  // Whether the name holds a '_' at all.
  static bool HasElementIndex(const char* name);

  // What stands behind the '_': an integer as Stringer::IsInteger() takes it, but without commas
  // between its digits. Nothing for any other text.
  static std::optional<std::int64_t> ParseIndex(const char* text);

  // Splits a name at its last '_'. Either output may be null; an index that is not asked for is not
  // looked at. Throws TarnException 0, with the outputs as before, when there is no '_' behind the
  // first character or the index is not an integer.
  static void FromElementName(const char* name, XString* base, unsigned long* index);
};

}  // namespace tarns
