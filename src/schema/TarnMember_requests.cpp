// TarnMember: filling members from the attributes of a web request.
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnMember.h>
#include <tarns/util/Stringer.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>
#include <vector>

namespace tarns {

namespace {

[[noreturn]] void ThrowBadAttribute(const char* name, const char* expected) {
  TarnException error;
  error << "Invalid URL attribute \"" << name << "\":  expected " << expected << '.';
  throw error;
}

[[noreturn]] void ThrowOutOfRange(const char* name, std::uint64_t min, std::uint64_t max) {
  TarnException error;
  error << "Invalid URL attribute \"" << name << "\":  expected a positive integer in the range ["
        << min << ".." << max << "].";
  throw error;
}

double RealFrom(const char* name, const char* text) {
  if (!Stringer::IsFloat(text)) ThrowBadAttribute(name, "a real number");
  std::string digits(text);
  std::erase(digits, ',');
  return Stringer::Atof(digits.c_str());
}

short ShortFrom(const char* name, const char* text) {
  if (!Stringer::IsInteger(text)) ThrowBadAttribute(name, "an integer");
  return static_cast<short>(Stringer::ToSint64(text));
}

// Everything is read before anything is stored.
template <class T>
void InitializeArray(T* targets, unsigned long count, const char* name,
                     const goods::WWWconnection& request, T (*read)(const char*, const char*)) {
  std::vector<T> values(targets, targets + count);
  for (unsigned long i = 0; i < count; ++i) {
    const XString element = TarnMember::GetElementName(name, i);
    if (const char* text = request.get(element)) values[i] = read(element, text);
  }
  std::ranges::copy(values, targets);
}

}  // namespace

std::uint64_t TarnMember::GetUintFrom(const char* name, const goods::WWWconnection& request,
                                      std::uint64_t min, std::uint64_t max) {
  const char* const text = request.get(name);
  if (!Stringer::IsInteger(text)) ThrowBadAttribute(name, "a positive integer");
  std::string digits(text);
  std::erase(digits, ',');
  std::uint64_t value = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (read.ec == std::errc::invalid_argument) ThrowBadAttribute(name, "a positive integer");
  if (read.ec != std::errc() || value < min || value > max) ThrowOutOfRange(name, min, max);
  return value;
}

void TarnMember::InitializeFrom(double* target, const char* name,
                                const goods::WWWconnection& request) {
  if (const char* text = request.get(name)) *target = RealFrom(name, text);
}

void TarnMember::InitializeFrom(TarnString& target, const char* name,
                                const goods::WWWconnection& request) {
  if (const char* text = request.get(name)) target.set(text);
}

void TarnMember::InitializeFrom(double* targets, unsigned long count, const char* name,
                                const goods::WWWconnection& request) {
  InitializeArray(targets, count, name, request, RealFrom);
}

void TarnMember::InitializeFrom(short* targets, unsigned long count, const char* name,
                                const goods::WWWconnection& request) {
  InitializeArray(targets, count, name, request, ShortFrom);
}

}  // namespace tarns
