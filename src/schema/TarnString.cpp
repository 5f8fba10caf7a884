#include <goods/cache_manager.h>
#include <tarns/core/TarnData.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnString.h>
#include <tarns/util/Buffer.h>
#include <tarns/util/Stringer.h>

#include <cstring>
#include <memory>

namespace tarns {

namespace {

// By upper-cased bytes: the difference of the first that differ, which Stringer::Compare() does not
// give; a text that ends has a NUL there.
int CompareIgnoringCase(std::string_view left, std::string_view right) {
  const std::size_t common = std::min(left.size(), right.size());
  for (std::size_t i = 0; i <= common; ++i) {
    const char a = i < left.size() ? Stringer::ToUpper(left[i]) : '\0';
    const char b = i < right.size() ? Stringer::ToUpper(right[i]) : '\0';
    if (a != b) return static_cast<unsigned char>(a) - static_cast<unsigned char>(b);
  }
  return 0;
}

[[noreturn]] void ThrowUnverified(const char* text, const char* rule) {
  TarnException error;
  error << "The specified value \"" << text << rule;
  throw error;
}

}  // namespace

TarnString::TarnString(const char* text) {
  if (text != nullptr) text_ = goods::String::create(text);
}

TarnString::TarnString(std::string_view text) : text_(goods::String::create(text)) {}

void TarnString::set(const char* text) {
  if (text == nullptr) {
    clear();
  } else {
    set(std::string_view(text));
  }
}

void TarnString::set(std::string_view text) {
  if (text_.is_null()) {
    text_ = goods::String::create(text);
  } else {
    modify(text_)->set(text);
  }
}

void TarnString::append(const char* text) {
  if (text == nullptr) return;
  if (text_.is_null()) {
    text_ = goods::String::create(text);
  } else {
    modify(text_)->append(text);
  }
}

std::string_view TarnString::look(goods::reader& reader) const {
  const goods::String* text = reader.get(text_);
  return text != nullptr ? text->text() : std::string_view();
}

std::string TarnString::str() const {
  return goods::read_here([&](goods::reader& reader) { return std::string(look(reader)); });
}

signed char TarnString::compare(const char* text, bool caseSensitive) const {
  const bool isEmpty = text == nullptr || *text == '\0';
  if (isNull()) return isEmpty ? 0 : -1;
  if (isEmpty) return 1;
  return goods::read_here([&](goods::reader& reader) {
    const std::string_view own = look(reader);
    return static_cast<signed char>(caseSensitive ? Stringer::Compare(own, text)
                                                  : CompareIgnoringCase(own, text));
  });
}

signed char TarnString::compare(const TarnString& other, bool caseSensitive) const {
  return compare(other.isNull() ? nullptr : other.str().c_str(), caseSensitive);
}

void TarnString::copyTo(Buffer& text) const {
  if (isNull()) {
    text.setCapacity(0);
    return;
  }
  const std::string own = str();
  auto copy = std::make_unique<char[]>(own.size() + 1);
  std::memcpy(copy.get(), own.c_str(), own.size() + 1);
  text.take(std::move(copy), own.size() + 1);
}

void TarnString::copyTo(TarnData& value) const {
  goods::read_here([&](goods::reader& reader) { value.set(look(reader)); });
}

void TarnString::copyFrom(const TarnString& other) {
  if (other.isNull()) {
    clear();
  } else {
    set(std::string_view(other.str()));
  }
}

void TarnString::VerifyFloat(const char* text) {
  if (Stringer::IsFloat(text)) return;
  ThrowUnverified(
      text,
      "\"does not appear to be a real number.  Real numbers only contain the characters "
      "[`0'..`9',`-',`,',`.'].  Please correct the value and try again.");
}

void TarnString::VerifyInteger(const char* text) {
  if (Stringer::IsInteger(text)) return;
  ThrowUnverified(text,
                  "\"does not appear to be an integer.  Integers only contain the characters "
                  "[`0'..`9',`-',`,'].  Please correct the value and try again.");
}

TarnData::TarnData(TarnString text) { text.copyTo(*this); }

void TarnData::set(const TarnString& text) { text.copyTo(*this); }

}  // namespace tarns
