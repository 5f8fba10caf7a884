// What a store must hold after commits of which some have failed.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <new>
#include <optional>
#include <string>

#include <goods/dbs_storage.h>
#include <goods/errors.h>

namespace goods {

using contents = std::map<object_number, std::string>;

// What `work` has failed with. A lack of memory counts as one of room.
inline std::optional<error_code> code_of(const std::function<void()>& work) {
  try {
    work();
    return std::nullopt;
  } catch (const error_info& error) {
    return error.code();
  } catch (const std::bad_alloc&) {
    return error_code::storage_full;
  }
}

// What a store must hold, given what its commits have answered.
class expectation {
 public:
  // Carries out `change` on the expected contents, as far as the answer allows.
  void note(const std::optional<error_code>& failure,
            const std::function<void(contents&)>& change) {
    if (!failure) {
      EXPECT_EQ(unknown_, std::nullopt) << "a commit succeeded after one of unknown outcome";
      change(certain_);
      return;
    }
    const bool known = *failure == error_code::input_output || *failure == error_code::storage_full;
    if (known || unknown_) {
      EXPECT_TRUE(known || *failure == error_code::outcome_unknown)
          << static_cast<unsigned>(*failure);
      return;
    }
    EXPECT_EQ(*failure, error_code::outcome_unknown);
    unknown_ = certain_;
    change(*unknown_);
  }

  bool is_known() const { return !unknown_; }
  const contents& certain() const { return certain_; }
  bool fits(const contents& found) const {
    return found == certain_ || (unknown_ && found == *unknown_);
  }
  void check(const contents& found) const { EXPECT_TRUE(fits(found)); }

 private:
  contents certain_;
  std::optional<contents> unknown_;
};

}  // namespace goods
