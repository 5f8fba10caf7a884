#include <goods/WWWconnection.h>
#include <goods/errors.h>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace goods {

namespace {

// The value of a hexadecimal digit; -1 for anything else.
int digit_value(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

std::string decoded(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = digit_value(text[i + 1]);
      const int low = digit_value(text[i + 2]);
      if (high >= 0 && low >= 0) {
        result += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    result += text[i] == '+' ? ' ' : text[i];
  }
  return result;
}

void verify_text(std::string_view text) {
  if (text.find('\0') == std::string_view::npos) return;
  throw_error(error_code::usage, "An attribute of a web request holds a NUL byte.");
}

}  // namespace

void WWWconnection::add_query(std::string_view query) {
  if (query.starts_with('?')) query.remove_prefix(1);
  add_encoded(query.substr(0, query.find('#')));
}

void WWWconnection::add_form(std::string_view body) { add_encoded(body); }

void WWWconnection::add(std::string_view name, std::string_view text) {
  verify_room(name.size() + text.size(), 1);
  verify_text(name);
  verify_text(text);
  if (name.empty()) return;
  attributes_.emplace(name, text);
  length_ += name.size() + text.size();
}

// All are decoded and checked before the first is added.
void WWWconnection::add_encoded(std::string_view attributes) {
  verify_room(attributes.size(), 0);
  attribute_map fresh;
  for (std::string_view rest = attributes; !rest.empty();) {
    const std::string_view attribute = rest.substr(0, rest.find('&'));
    rest.remove_prefix(std::min(rest.size(), attribute.size() + 1));
    const std::size_t equals = attribute.find('=');
    const bool has_text = equals != std::string_view::npos;
    std::string name = decoded(attribute.substr(0, equals));
    std::string text = has_text ? decoded(attribute.substr(equals + 1)) : std::string();
    verify_text(name);
    verify_text(text);
    if (name.empty()) continue;
    verify_room(0, fresh.size() + 1);
    fresh.emplace(std::move(name), std::move(text));
  }
  attributes_.merge(fresh);  // allocates nothing
  length_ += attributes.size();
}

void WWWconnection::verify_room(std::size_t length, std::size_t number) const {
  if (length > kMaxLength - length_) {
    throw_error(
        error_code::usage,
        fmt::format("A web request with more than {} bytes of attributes is refused.", kMaxLength));
  }
  if (number > kMaxAttributes - attributes_.size()) {
    throw_error(
        error_code::usage,
        fmt::format("A web request with more than {} attributes is refused.", kMaxAttributes));
  }
}

const char* WWWconnection::get(const char* name) const { return get(name, 0); }

const char* WWWconnection::get(const char* name, std::size_t index) const {
  if (name == nullptr) return nullptr;
  auto [first, end] = attributes_.equal_range(std::string_view(name));
  if (index >= static_cast<std::size_t>(std::distance(first, end))) return nullptr;
  return std::next(first, static_cast<std::ptrdiff_t>(index))->second.c_str();
}

void WWWconnection::for_each(
    const std::function<void(const std::string& name, const std::string& text)>& visit) const {
  for (const auto& [name, text] : attributes_) visit(name, text);
}

void WWWconnection::clear() {
  attributes_.clear();
  length_ = 0;
}

}  // namespace goods
