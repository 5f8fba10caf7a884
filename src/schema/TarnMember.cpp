#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Stringer.h>

#include <cstring>

namespace tarns {

namespace {

[[noreturn]] void ThrowUnparsable(const char* name, const char* why) {
  TarnException error;
  error << "Could not parse the base name and index from \"" << name << "\" because the " << why;
  throw error;
}

}  // namespace

XString TarnMember::GetElementName(const char* base, unsigned long index) {
  XString name(base);
  name << '_' << index;
  return name;
}

std::string TarnMember::GetElementName(std::string_view base, unsigned long index) {
  std::string name(base);
  name += '_';
  name += std::to_string(index);
  return name;
}

bool TarnMember::HasElementIndex(const char* name) {
  return name != nullptr && std::strchr(name, '_') != nullptr;
}

std::optional<std::int64_t> TarnMember::ParseIndex(const char* text) {
  if (!Stringer::IsInteger(text) || std::strchr(text, ',') != nullptr) return std::nullopt;
  return Stringer::Atol(text);
}

void TarnMember::FromElementName(const char* name, XString* base, unsigned long* index) {
  if (name == nullptr) name = "";
  const char* separator = std::strrchr(name, '_');
  if (separator == nullptr || separator == name) {
    ThrowUnparsable(name, "separator ('_') is missing.");
  }
  if (index != nullptr) {
    const auto parsed = ParseIndex(separator + 1);
    if (!parsed) ThrowUnparsable(name, "index is not an integer.");
    *index = static_cast<unsigned long>(*parsed);
  }
  if (base != nullptr) *base = std::string_view(name, static_cast<std::size_t>(separator - name));
}

}  // namespace tarns
