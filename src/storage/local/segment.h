// 64 consecutive objects, as they are stored and cached.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <goods/dbs_storage.h>

#include "storage/local/row_format.h"

namespace goods {

using segment_number = std::uint32_t;  // object number / 64

inline constexpr unsigned segment_slots = 64;

inline segment_number segment_of(object_number number) { return number / segment_slots; }
inline unsigned slot_of(object_number number) { return number % segment_slots; }

// Longer objects are stored by themselves, in pieces; their segment knows layout and length only.
inline constexpr std::size_t longest_in_segment = 1024;  // bytes

// A segment's content, checked: whatever a slot answers lies within it.
//
//   present   8 bytes  bit n: slot n holds an object
//   apart     8 bytes  bit n: that object is stored in pieces; a subset of `present`
//   then for each object in order: layout (varint), length in bytes (varint)
//   then the objects that are not apart, one directly after the other
//
// Threads: unchanging, so any. Shared between the cache and its readers.
class segment {
 public:
  // Takes a content apart. Throws damaged_bytes.
  static std::shared_ptr<const segment> parse(segment_number number, std::uint64_t version,
                                              byte_block content);

  segment(segment_number number, std::uint64_t version, byte_block content);

  segment_number number() const { return number_; }
  std::uint64_t version() const { return version_; }  // of the commit that wrote it
  std::uint64_t present() const { return present_; }
  std::span<const std::byte> content() const { return content_.view(); }
  std::size_t memory() const;  // bytes, all in all

  bool has(unsigned slot) const { return (present_ >> slot & 1) != 0; }
  bool is_apart(unsigned slot) const { return (apart_ >> slot & 1) != 0; }
  // Only for slots that hold an object.
  class_number layout(unsigned slot) const { return entry_of(slot).layout; }
  std::size_t length(unsigned slot) const { return entry_of(slot).length; }
  // Only for objects that are not apart.
  std::span<const std::byte> body(unsigned slot) const {
    const entry& e = entry_of(slot);
    return {content_.bytes.get() + e.offset, e.length};
  }
  object_number object(unsigned slot) const { return number_ * segment_slots + slot; }

 private:
  struct entry {
    std::uint32_t offset;  // in content_
    std::uint32_t length;
    class_number layout;
  };

  const entry& entry_of(unsigned slot) const {
    const std::uint64_t before = present_ & ((std::uint64_t{1} << slot) - 1);
    return entries_[static_cast<unsigned>(std::popcount(before))];
  }

  segment_number number_;
  std::uint64_t version_;
  std::uint64_t present_ = 0;
  std::uint64_t apart_ = 0;
  std::unique_ptr<entry[]> entries_;  // one for each object present, in order
  byte_block content_;
};

// The longest content that a segment can have.
inline constexpr std::size_t longest_segment = 16 + segment_slots * (3 + 5 + longest_in_segment);

// A new version of a segment: the old one with some slots changed.
// The bodies that are put in, and `old`, must stay until build() has returned.
class segment_builder {
 public:
  // `old`: null when the segment is new.
  segment_builder(segment_number number, const segment* old);

  void put(unsigned slot, class_number layout, std::span<const std::byte> body);
  void put_apart(unsigned slot, class_number layout, std::size_t length);
  void remove(unsigned slot);

  bool is_empty() const { return present_ == 0; }
  std::shared_ptr<const segment> build(std::uint64_t version) const;

 private:
  struct source {
    const std::byte* body;
    std::uint32_t length;
    class_number layout;
  };

  void set(unsigned slot, bool apart, const source& from);

  segment_number number_;
  std::uint64_t present_ = 0;
  std::uint64_t apart_ = 0;
  source sources_[segment_slots];
};

}  // namespace goods
