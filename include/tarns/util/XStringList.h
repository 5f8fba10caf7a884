#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XString.h>

#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace tarns {

// A list of texts in the order in which they were put there, or sorted when asked.
//
// Indexes count from 0; an index that is not below getCount() is an error of the caller.
// Ownership: the list owns its strings; adding copies. Threads: not shared.
class TARNS_API XStringList {
 public:
  using Iterator = std::vector<XString>::iterator;
  using ConstIterator = std::vector<XString>::const_iterator;

  XStringList() = default;
  XStringList(std::initializer_list<const char*> texts);

  std::size_t getCount() const noexcept { return strings_.size(); }
  bool isEmpty() const noexcept { return strings_.empty(); }
  XString& operator[](std::size_t index) { return strings_[index]; }
  const XString& operator[](std::size_t index) const { return strings_[index]; }
  Iterator begin() noexcept { return strings_.begin(); }
  Iterator end() noexcept { return strings_.end(); }
  ConstIterator begin() const noexcept { return strings_.begin(); }
  ConstIterator end() const noexcept { return strings_.end(); }

  void addLast(XString text) { strings_.push_back(std::move(text)); }
  void addFirst(XString text) { strings_.insert(strings_.begin(), std::move(text)); }
  void removeAt(std::size_t index);
  void removeFirst() { removeAt(0); }
  void clear() noexcept { strings_.clear(); }

  // Adds the pieces of `text` between separators, empty ones included, and returns how many. A
  // separator at the very end closes the last piece and begins no further one, as a line feed does;
  // an empty text has no pieces.
  std::size_t split(std::string_view text, char separator);

  // The texts in order, with `separator` between them.
  XString join(std::string_view separator) const;

  bool contains(std::string_view text) const;

  // Ascending by bytes as unsigned numbers.
  void sort();
  // By a comparison that returns a negative number, 0 or a positive one; equal texts keep their
  // order. A comparison that contradicts itself gives some order and does no other harm.
  void sort(int (*compare)(const XString** left, const XString** right));

  void swap(XStringList& other) noexcept { strings_.swap(other.strings_); }
  friend void swap(XStringList& left, XStringList& right) noexcept { left.swap(right); }

  friend bool operator==(const XStringList& left, const XStringList& right) = default;

 private:
  std::vector<XString> strings_;
};

}  // namespace tarns
