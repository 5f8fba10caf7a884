#pragma once

#include <cstdint>
#include <string_view>

namespace tarns::bench {

// A value as the peers store it: text, or an integer of 64 bits.
struct Value {
  bool isInteger = false;
  std::int64_t number = 0;
  std::string_view text = {};  // not owned

  static Value Text(std::string_view text) { return {false, 0, text}; }
  static Value Integer(std::int64_t number) { return {true, number, {}}; }
};

// A value under its name within a node. Not owned.
struct Field {
  std::string_view name;
  Value value;
};

// A number that stands for a value when what was read is compared with what should be there: the
// sum of the digests of many reads tells whether all of them were right. The text 5 and the
// integer 5 have different ones.
std::uint64_t DigestOf(const Value& value, std::uint64_t seed = 0);
std::uint64_t DigestOf(std::string_view name);

// Adds up a walk over a tree such that a value counts together with the names that lead to it. The
// order of siblings does not matter: peers order bytes alike, but need not.
class WalkSum {
 public:
  void enter(std::string_view name);  // a node that holds others
  void leave();
  void value(std::string_view name, const Value& value);

  std::uint64_t sum() const { return sum_; }
  std::uint64_t values() const { return values_; }

 private:
  static constexpr int kMaxDepth = 8;

  std::uint64_t place_[kMaxDepth + 1] = {};  // the digest of the path so far, by depth
  int depth_ = 0;
  std::uint64_t sum_ = 0;
  std::uint64_t values_ = 0;
};

}  // namespace tarns::bench
