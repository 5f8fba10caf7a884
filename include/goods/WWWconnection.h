#pragma once

#include <goods/goods_api.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace goods {

// The attributes of one web request: names with texts, from the query string of its address and
// from the body of a form (application/x-www-form-urlencoded), decoded.
//
//   WWWconnection request;
//   request.add_query("name=Miller&size=4");   // what stands behind the "?"
//   request.add_form(body);
//   const char* name = request.get("name");
//
// Decoding: attributes stand between "&", name and text around the first "="; "+" is a blank and
// %XX a byte. A "%" without two hexadecimal digits stands for itself, as browsers have it. Text is
// bytes. An attribute without "=" has the empty text, one without a name is left out. Of several of
// one name get() answers with the first.
//
// Requests come from anybody, so there are limits. What goes beyond them, or holds a NUL byte
// (%00), throws 111 and adds nothing. Ownership: the texts belong to this object. Threads: one.
class GOODS_API WWWconnection {
 public:
  static constexpr std::size_t kMaxLength = 16 * 1024 * 1024;  // bytes added, before decoding
  static constexpr std::size_t kMaxAttributes = 10'000;

  // A leading "?" and a fragment ("#...") do not count.
  void add_query(std::string_view query);
  void add_form(std::string_view body);
  // An attribute that is decoded already.
  void add(std::string_view name, std::string_view text);

  // Null when there is none. Valid until clear().
  const char* get(const char* name) const;
  bool has(std::string_view name) const { return attributes_.contains(name); }
  // Attributes of several values: how many there are, and the one at `index` (null behind them).
  std::size_t count(std::string_view name) const { return attributes_.count(name); }
  const char* get(const char* name, std::size_t index) const;
  // All of them, by name; those of one name in the order in which they were added.
  void for_each(
      const std::function<void(const std::string& name, const std::string& text)>& visit) const;

  void clear();

 private:
  using attribute_map = std::multimap<std::string, std::string, std::less<>>;
  void add_encoded(std::string_view attributes);
  void verify_room(std::size_t length, std::size_t number) const;

  attribute_map attributes_;  // ordered: no choice of names makes it slow
  std::size_t length_ = 0;    // of what was added
};

}  // namespace goods
