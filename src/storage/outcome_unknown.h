// Saying that nobody knows whether a commit has become durable.
#pragma once

#include <fmt/format.h>

#include <new>
#include <utility>

#include <goods/errors.h>

namespace goods {

// Thrown in place of the error that there was no memory for.
class outcome_unknown_without_memory : public std::bad_alloc, public error_info {
 public:
  outcome_unknown_without_memory() : error_info(error_code::outcome_unknown) {}
  const char* what() const noexcept override {
    return "Whether a commit has become durable is unknown, and there is no memory to tell more.";
  }
};

// Throws outcome_unknown, come what may: who takes a lack of memory for a commit that did not
// happen would undo half of one that did.
template <class... Args>
[[noreturn]] void throw_outcome_unknown(fmt::format_string<Args...> text, Args&&... args) {
  try {
    throw_error(error_code::outcome_unknown, fmt::format(text, std::forward<Args>(args)...));
  } catch (const std::bad_alloc&) {
    throw outcome_unknown_without_memory();
  }
}

}  // namespace goods
