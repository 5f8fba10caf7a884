#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

namespace tarns {

// The branches of a path, outermost first, as views into its text:
//
//   for (const std::string_view branch : TarnBranches(path)) node = childOf(node, branch);
//
// Copies and allocates nothing. The text must outlive this object and stay as it is. Any text goes:
// an empty one has no branches, and every "~" ends a branch, which may be empty ("a~" has two).
class TarnBranches {
 public:
  static constexpr char kSeparator = '~';

  class Iterator {
   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;
    using reference = std::string_view;

    Iterator() = default;
    explicit Iterator(std::string_view text) : rest_(text), atEnd_(text.empty()) { measure(); }

    std::string_view operator*() const noexcept { return rest_.substr(0, length_); }
    Iterator& operator++() noexcept {
      atEnd_ = isLast();
      rest_.remove_prefix(atEnd_ ? length_ : length_ + 1);
      measure();
      return *this;
    }
    Iterator operator++(int) noexcept {
      Iterator before = *this;
      ++*this;
      return before;
    }

    // Whether the path ends with this branch.
    bool isLast() const noexcept { return length_ == rest_.size(); }
    // The path from this branch on, and what follows the branch ("" for the last one).
    std::string_view rest() const noexcept { return rest_; }
    std::string_view tail() const noexcept {
      return isLast() ? std::string_view() : rest_.substr(length_ + 1);
    }

    // For iterators of one path.
    bool operator==(const Iterator& other) const noexcept {
      return atEnd_ == other.atEnd_ && rest_.size() == other.rest_.size();
    }
    bool operator==(std::default_sentinel_t) const noexcept { return atEnd_; }

   private:
    void measure() noexcept {
      const std::size_t separator = rest_.find(kSeparator);
      length_ = separator == std::string_view::npos ? rest_.size() : separator;
    }

    std::string_view rest_;   // from the current branch on
    std::size_t length_ = 0;  // of the current branch
    bool atEnd_ = true;
  };

  explicit TarnBranches(std::string_view path) noexcept : path_(path) {}
  // Null counts as the empty path.
  explicit TarnBranches(const char* path) noexcept
      : path_(path != nullptr ? std::string_view(path) : std::string_view()) {}

  Iterator begin() const noexcept { return Iterator(path_); }
  std::default_sentinel_t end() const noexcept { return {}; }
  bool isEmpty() const noexcept { return path_.empty(); }

  // The last branch of `path`, and what lies before it ("" for a single branch).
  static std::string_view LastOf(std::string_view path) noexcept {
    return path.substr(path.rfind(kSeparator) + 1);
  }
  static std::string_view ParentOf(std::string_view path) noexcept {
    const std::size_t separator = path.rfind(kSeparator);
    return separator == std::string_view::npos ? std::string_view() : path.substr(0, separator);
  }

 private:
  std::string_view path_;
};

}  // namespace tarns
