#pragma once

#include <tarns/schema/TarnFieldDescriptor.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <map>
#include <string>

namespace tarns {

// A member that is an enumeration: an unsigned integer whose values have names.
//
// Read into an empty value or a text it gives the number and the name, "3 (Blue)"; into a number,
// the number. What is written is taken as a text, whose first word counts and must be a whole
// number: TarnData(3.0), which is "3.000000", and true, which is "True", store 0. A number without
// a name can be written but is refused, with an exception, when read as text. Negative enumerators
// are read and written as the unsigned number that has their bits.
class TARNS_API TarnEnumFieldDescriptor : public TarnFieldDescriptor {
 public:
  using TarnFieldDescriptor::TarnFieldDescriptor;
  TarnEnumFieldDescriptor(const TarnEnumFieldDescriptor&) = default;
  TarnEnumFieldDescriptor& operator=(const TarnEnumFieldDescriptor&) = default;
  ~TarnEnumFieldDescriptor() override;

  // Gives a value a name, or another one.
  void addValue(unsigned long value, const char* name);

  // Throws TarnException 0 for a number without a name, see above.
  bool getValue(const TarnObject& node, const char* name, TarnData& value) const override;
  bool setValue(TarnObject* node, const char* name, const TarnData& value) const override;

 private:
  std::map<std::uint32_t, std::string> names_;
};

}  // namespace tarns
