// 64 consecutive objects, as they are stored and cached.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

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
//   four columns with one byte for each object, in order: low and high byte of its length (0 when
//   it is apart), low and high byte of its layout
//   then for each object apart, in order: its length, 4 bytes
//   then the objects that are not apart, one directly after the other
//
// Little is taken apart in advance: most segments are read for two or three of their objects.
// Ownership: the bytes are somebody else's, who keeps them. Threads: unchanging, so any.
class segment_view {
 public:
  // Takes a content apart. Throws damaged_bytes.
  segment_view(segment_number number, std::uint64_t version, std::span<const std::byte> content);

  segment_number number() const { return number_; }
  std::uint64_t version() const { return version_; }  // of the commit that wrote it
  std::uint64_t present() const { return present_; }
  std::uint64_t apart() const { return apart_; }
  std::span<const std::byte> content() const { return {content_, size_}; }

  // Its objects will be looked at soon.
  void prefetch() const {
    constexpr std::size_t line = 64, most = 4096;
    const std::size_t end = size_ < most ? size_ : most;
    for (std::size_t at = 0; at < end; at += line) __builtin_prefetch(content_ + at);
  }

  bool has(unsigned slot) const { return (present_ >> slot & 1) != 0; }
  bool is_apart(unsigned slot) const { return (apart_ >> slot & 1) != 0; }
  // Only for slots that hold an object.
  class_number layout(unsigned slot) const {
    return static_cast<class_number>(pair_at(2, place_of(slot)));
  }
  std::size_t length(unsigned slot) const {
    return is_apart(slot) ? apart_length(slot) : pair_at(0, place_of(slot));
  }
  // Only for objects that are not apart.
  std::span<const std::byte> body(unsigned slot) const {
    const unsigned place = place_of(slot);
    return {content_ + bodies_at_ + starts_[place], pair_at(0, place)};
  }
  object_number object(unsigned slot) const { return number_ * segment_slots + slot; }

 private:
  // Objects are numbered in order, from 0, apart from their slots.
  unsigned place_of(unsigned slot) const { return set_bits_below(present_, slot); }
  static unsigned set_bits_below(std::uint64_t bits, unsigned bit) {
    return static_cast<unsigned>(std::popcount(bits & ((std::uint64_t{1} << bit) - 1)));
  }
  const std::uint8_t* column(unsigned n) const {
    return reinterpret_cast<const std::uint8_t*>(content_) + columns_at + n * count_;
  }
  // Of the columns n and n + 1.
  unsigned pair_at(unsigned n, unsigned place) const {
    return column(n)[place] | unsigned{column(n + 1)[place]} << 8;
  }
  std::size_t apart_length(unsigned slot) const;
  void check();

  static constexpr std::size_t columns_at = 16;

  segment_number number_;
  unsigned count_ = 0;  // of objects
  std::uint64_t version_;
  std::uint64_t present_ = 0;
  std::uint64_t apart_ = 0;
  std::size_t bodies_at_ = 0;
  const std::byte* content_;
  std::size_t size_;
  std::array<std::uint16_t, segment_slots> starts_;  // of each object's body, behind bodies_at_
};

// A segment with its content. As a group it has the objects that are not apart.
// Shared between the cache and its readers.
class segment : public state_group, public segment_view {
 public:
  // Throws damaged_bytes.
  static std::shared_ptr<const segment> parse(segment_number number, std::uint64_t version,
                                              byte_block content);

  segment(segment_number number, std::uint64_t version, byte_block content)
      : segment_view(number, version, content.view()), content_(std::move(content)) {}

  std::size_t memory() const;  // bytes, all in all

  // Requires an object that is not apart.
  object_state state(unsigned slot) const { return {object(slot), layout(slot), body(slot), this}; }
  bool find(object_number number, object_state& found) const override;

 private:
  byte_block content_;
};

// The longest content that a segment can have.
inline constexpr std::size_t longest_segment = 16 + segment_slots * (4 + longest_in_segment);

// A new version of a segment: the old one with some slots changed.
// The bytes of what is put in must stay until content() or build() has returned.
class segment_builder {
 public:
  // `old`: null when the segment is new.
  segment_builder(segment_number number, const segment_view* old);

  void put(unsigned slot, class_number layout, std::span<const std::byte> body);
  void put_apart(unsigned slot, class_number layout, std::size_t length);
  void put_all(const segment_view& from);  // all objects of it
  void remove(unsigned slot);
  void remove_all() { present_ = apart_ = 0; }

  bool is_empty() const { return present_ == 0; }
  byte_block content() const;
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
