// A sequence of commits, and what a store holds after some of them.
#pragma once

#include <string>

#include "storage/expected_contents.h"
#include "storage/storage_fixture.h"

namespace goods {

inline constexpr object_number first_numbered = 0x10100;

// The commit `number`, from 0, and what it does. Small objects and large ones, new segments, far
// ones, objects that grow out of a segment and back into it, removals.
class numbered_commit {
 public:
  explicit numbered_commit(unsigned number) : changes_(1) {
    const object_number first = first_numbered;
    put(first + number % 4,
        std::string(number % 3 == 0 ? 900 : 9000, static_cast<char>('a' + number % 26)));
    put(first + 1000 + number, std::to_string(number));
    put(first + number % 10 * 3'000'000, "far away " + std::to_string(number));
    if (number > 4) remove(first + 1000 + number - 4);
  }

  commit_request request() const { return changes_.request(); }
  void apply(contents& all) const {
    for (const auto& [number, text] : stored_) all[number] = text;
    for (object_number number : removed_) all.erase(number);
  }

 protected:
  void put(object_number number, const std::string& text) {
    changes_.put(number, text);
    stored_[number] = text;
  }
  void remove(object_number number) {
    changes_.remove(number);
    removed_.insert(number);
  }

 private:
  change_list changes_;
  contents stored_;
  std::set<object_number> removed_;
};

}  // namespace goods
