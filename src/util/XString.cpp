#include <tarns/util/Stringer.h>
#include <tarns/util/XString.h>

#include <cstring>

namespace tarns {

namespace {

std::string_view CutAtNul(std::string_view text) { return text.substr(0, text.find('\0')); }

// The position of the `count`-th `separator`, or npos.
std::size_t FindNth(std::string_view text, std::string_view separator, unsigned long count) {
  if (separator.empty() || count == 0) return std::string_view::npos;
  std::size_t at = text.find(separator);
  while (--count != 0 && at != std::string_view::npos) {
    at = text.find(separator, at + separator.size());
  }
  return at;
}

}  // namespace

XString::XString(const char* text) { *this = text; }

XString& XString::operator=(const char* text) {
  if (text == nullptr) {
    text_.setCapacity(0);
  } else {
    text_.set(text);
  }
  return *this;
}

void XString::assign(std::string_view text) { text_.set(CutAtNul(text)); }

int XString::compare(const char* text, bool caseSensitive) const {
  return compare(ViewOf(text), caseSensitive);
}

int XString::compare(std::string_view text, bool caseSensitive) const {
  return Stringer::Compare(view(), text, caseSensitive);
}

void XString::trim() {
  std::string_view rest = view();
  while (!rest.empty() && Stringer::IsBlank(rest.front())) rest.remove_prefix(1);
  while (!rest.empty() && Stringer::IsBlank(rest.back())) rest.remove_suffix(1);
  if (rest.size() != getLength()) text_.set(rest);
}

bool XString::trimTo(const char* separator, unsigned long count) {
  const std::size_t at = FindNth(view(), ViewOf(separator), count);
  if (at == std::string_view::npos) return false;
  text_.set(view().substr(at + ViewOf(separator).size()));
  return true;
}

bool XString::trimPast(const char* separator, unsigned long count) {
  const std::size_t at = FindNth(view(), ViewOf(separator), count);
  if (at == std::string_view::npos) return false;
  text_.truncate(at);
  return true;
}

void XString::exchange(Buffer& buffer) {
  text_.exchange(buffer);
  cutAtNul(0);
}

void XString::cutAtNul(std::size_t from) noexcept {
  const std::size_t nul = view().find('\0', from);
  if (nul != std::string_view::npos) text_.truncate(nul);
}

}  // namespace tarns
