#pragma once

#include <tarns/session/TarnManager.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tools/JsonInput.h"

namespace tarns {

// Makes branches from JSON; see docs/json-form.md.
//
// Objects are merged into nodes of the same class that exist already, everything else takes the
// place of what is there; nothing outside the branch changes. Works while it reads and does not
// recurse: it holds the nodes of the levels that are open, and a hash of each key in them. Within a
// transaction of the caller's, who decides whether the whole is kept. Errors: TarnException, with
// the line of the input; what was stored until then stays in the transaction.
class JsonImporter {
 public:
  // `stored`: called after each value and each empty node, with their number so far; may commit and
  // begin a transaction.
  JsonImporter(TarnManager& manager, JsonInput& input, std::function<void(std::uint64_t)> stored);

  // Reads the whole input and puts what it says at `path`.
  void read(std::string_view path);

  // What the parser calls.
  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  void key(std::string_view key);
  void null();
  void boolean(bool value);
  void integer(std::int64_t value);
  void integer(std::uint64_t value);
  void real(double value, std::string_view digits);
  void text(std::string_view text);

 private:
  // What the next value in a level is for.
  enum class Role { kChild, kClass, kOwnValue, kMembers, kMember, kTypedValue };

  // An object or array that is open. The lowest one stands for the node above the target.
  struct Level {
    TarnRef node;             // null until it is clear what the object stands for
    std::string className;    // what "~class" says, or "~value" implies
    std::string name;         // of the child, or member, that is next
    std::size_t ordinal = 1;  // of that child among those of its name
    TarnIterator place;       // of the child of that ordinal when it is above 1; null for none
    TarnIterator following;   // what comes next
    std::size_t element = 0;  // of an array: the next one
    Role role = Role::kChild;
    TarnData::Type type = TarnData::None;  // of the typed value that the object is
    std::optional<TarnData> typedValue;
    bool isArray = false;
    bool isMembers = false;
    bool mustBeTyped = false;  // stands where only a value can be
    bool existed = false;      // the node was there before
    bool hasChildren = false;
    std::unordered_set<std::uint64_t> keys;  // hashes, see hashOf()

    bool isTyped() const { return type != TarnData::None; }
  };

  Level& top() { return levels_.back(); }
  void startValue();
  void reservedKey(std::string_view key);
  void childKey(std::string name, std::size_t ordinal);
  void noteKey(std::string_view key);
  std::uint64_t hashOf(std::string_view key) const;
  void settleNode();
  void verifyClass(const Level& level) const;
  const TarnRef& takingParent() const;
  TarnRef existingChild(Level& parent) const;
  void put(const Level& parent, const TarnRef& node, const TarnRef& existing);
  void finishTyped(const std::optional<TarnData>& value);
  void deliver(const TarnData& value);
  void storeChild(const TarnData& value);
  void storeOwnValue(const TarnData& value);
  void storeMember(const TarnData& value);
  void storeNullMember();
  [[noreturn]] void failMissingMember(const TarnRef& node) const;
  void count() { stored_(++count_); }

  TarnManager& manager_;
  JsonInput& input_;
  std::function<void(std::uint64_t)> stored_;
  const std::uint64_t seed_;  // of the hashes: nobody can make keys that share one
  std::vector<Level> levels_;
  std::uint64_t count_ = 0;
};

}  // namespace tarns
