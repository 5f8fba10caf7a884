// The comparison of texts that queries make.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tarns {

// Makes the letters a to z upper case; all other bytes stay.
void MakeUpperCase(std::string& text);

// Whether the subject satisfies the operator (a TarnQueryElement::OperatorType, or any number) with
// the reference text, which is in upper case. Neither is empty.
bool Satisfies(std::string_view subject, std::uint32_t op, std::string_view reference);

// The same as if `subject` were in upper case, without a copy of it.
bool SatisfiesInUpperCase(std::string_view subject, std::uint32_t op, std::string_view reference);

}  // namespace tarns
