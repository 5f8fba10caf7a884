#include "storage/local/segment.h"

#include <algorithm>

#include "storage/local/byte_order.h"

namespace goods {

segment_view::segment_view(segment_number number, std::uint64_t version,
                           std::span<const std::byte> content)
    : number_(number), version_(version), content_(content.data()), size_(content.size()) {
  row_reader reader(content);
  present_ = reader.number<std::uint64_t>();
  apart_ = reader.number<std::uint64_t>();
  if ((apart_ & ~present_) != 0) throw damaged_bytes("its directory contradicts itself");
  count_ = static_cast<unsigned>(std::popcount(present_));
  const auto apart_count = static_cast<unsigned>(std::popcount(apart_));
  reader.take(4 * count_ + sizeof(std::uint32_t) * apart_count);
  bodies_at_ = size_ - reader.left();
  check();
}

// Every segment that is read comes by here: column by column, so that the loops stay short.
void segment_view::check() {
  const unsigned count = count_;
  const std::uint8_t* const columns = column(0);
  unsigned end = 0, longest = 0;
  for (unsigned place = 0; place < count; ++place) {
    const unsigned length = columns[place] | unsigned{columns[count + place]} << 8;
    longest = std::max(longest, length);
    starts_[place] = static_cast<std::uint16_t>(end);
    end += length;
  }
  if (longest > longest_in_segment) throw damaged_bytes("an object is too long");
  unsigned without_layout = 0;
  for (unsigned place = 0; place < count; ++place)
    without_layout += (columns[2 * count + place] | columns[3 * count + place]) == 0 ? 1 : 0;
  if (without_layout != 0) throw damaged_bytes("a layout number is out of range");
  for (std::uint64_t rest = apart_; rest != 0; rest &= rest - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    if (pair_at(0, place_of(slot)) != 0) throw damaged_bytes("its directory contradicts itself");
    if (apart_length(slot) > max_state_size) throw damaged_bytes("an object is too long");
  }
  if (bodies_at_ + end != size_) throw damaged_bytes("its length does not fit its objects");
}

std::size_t segment_view::apart_length(unsigned slot) const {
  const std::byte* const lengths = content_ + columns_at + 4 * count_;
  return load_number<std::uint32_t>(lengths + sizeof(std::uint32_t) * set_bits_below(apart_, slot));
}

bool segment::find(object_number number, object_state& found) const {
  const unsigned slot = slot_of(number);
  if (segment_of(number) != this->number() || !has(slot) || is_apart(slot)) return false;
  found = state(slot);
  return true;
}

std::shared_ptr<const segment> segment::parse(segment_number number, std::uint64_t version,
                                              byte_block content) {
  return std::make_shared<const segment>(number, version, std::move(content));
}

std::size_t segment::memory() const {
  constexpr std::size_t overheads = 64;  // reference counts and the allocator's headers
  return sizeof(segment) + overheads + content_.size;
}

segment_builder::segment_builder(segment_number number, const segment_view* old) : number_(number) {
  if (old != nullptr) put_all(*old);
}

void segment_builder::put_all(const segment_view& from) {
  for (std::uint64_t rest = from.present(); rest != 0; rest &= rest - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    if (from.is_apart(slot))
      put_apart(slot, from.layout(slot), from.length(slot));
    else
      put(slot, from.layout(slot), from.body(slot));
  }
}

void segment_builder::set(unsigned slot, bool apart, const source& from) {
  const std::uint64_t bit = std::uint64_t{1} << slot;
  present_ |= bit;
  apart_ = apart ? apart_ | bit : apart_ & ~bit;
  sources_[slot] = from;
}

void segment_builder::put(unsigned slot, class_number layout, std::span<const std::byte> body) {
  set(slot, false, {body.data(), static_cast<std::uint32_t>(body.size()), layout});
}

void segment_builder::put_apart(unsigned slot, class_number layout, std::size_t length) {
  set(slot, true, {nullptr, static_cast<std::uint32_t>(length), layout});
}

void segment_builder::remove(unsigned slot) {
  const std::uint64_t bit = std::uint64_t{1} << slot;
  present_ &= ~bit;
  apart_ &= ~bit;
}

byte_block segment_builder::content() const {
  const auto count = static_cast<unsigned>(std::popcount(present_));
  const auto apart_count = static_cast<unsigned>(std::popcount(apart_));
  std::size_t size = 2 * sizeof(std::uint64_t) + 4 * count + sizeof(std::uint32_t) * apart_count;
  for (std::uint64_t rest = present_ & ~apart_; rest != 0; rest &= rest - 1)
    size += sources_[std::countr_zero(rest)].length;

  byte_block content = byte_block::of_size(size);
  std::byte* at = content.bytes.get();
  store_number(at, present_);
  store_number(at + sizeof present_, apart_);
  std::byte* const columns = at + 2 * sizeof(std::uint64_t);
  at = columns + 4 * count;
  unsigned place = 0;
  for (std::uint64_t rest = present_; rest != 0; rest &= rest - 1, ++place) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    const source& from = sources_[slot];
    const bool apart = (apart_ >> slot & 1) != 0;
    const std::uint32_t length = apart ? 0 : from.length;
    columns[place] = static_cast<std::byte>(length);
    columns[count + place] = static_cast<std::byte>(length >> 8);
    columns[2 * count + place] = static_cast<std::byte>(from.layout);
    columns[3 * count + place] = static_cast<std::byte>(from.layout >> 8);
    if (!apart) continue;
    store_number(at, from.length);
    at += sizeof from.length;
  }
  for (std::uint64_t rest = present_ & ~apart_; rest != 0; rest &= rest - 1) {
    const source& from = sources_[std::countr_zero(rest)];
    if (from.length != 0) std::memcpy(at, from.body, from.length);
    at += from.length;
  }
  return content;
}

std::shared_ptr<const segment> segment_builder::build(std::uint64_t version) const {
  return segment::parse(number_, version, content());
}

}  // namespace goods
