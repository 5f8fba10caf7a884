#include "storage/local/segment.h"

#include <limits>

#include "storage/local/byte_order.h"

namespace goods {

segment::segment(segment_number number, std::uint64_t version, byte_block content)
    : number_(number), version_(version), content_(std::move(content)) {
  byte_reader reader(content_.view());
  present_ = reader.number<std::uint64_t>();
  apart_ = reader.number<std::uint64_t>();
  if ((apart_ & ~present_) != 0) throw damaged_bytes("its directory contradicts itself");
  const auto count = static_cast<unsigned>(std::popcount(present_));
  entries_ = std::make_unique_for_overwrite<entry[]>(count);

  entry* next = entries_.get();
  for (std::uint64_t rest = present_; rest != 0; rest &= rest - 1) {
    const std::uint64_t layout = reader.varint();
    const std::uint64_t length = reader.varint();
    const bool apart = is_apart(static_cast<unsigned>(std::countr_zero(rest)));
    if (layout == 0 || layout > std::numeric_limits<class_number>::max())
      throw damaged_bytes("a layout number is out of range");
    if (length > (apart ? max_state_size : longest_in_segment))
      throw damaged_bytes("an object is too long");
    *next++ = {0, static_cast<std::uint32_t>(length), static_cast<class_number>(layout)};
  }

  std::size_t offset = content_.size - reader.left();
  next = entries_.get();
  for (std::uint64_t rest = present_; rest != 0; rest &= rest - 1, ++next) {
    if (is_apart(static_cast<unsigned>(std::countr_zero(rest)))) continue;
    next->offset = static_cast<std::uint32_t>(offset);
    offset += next->length;
  }
  if (offset != content_.size) throw damaged_bytes("its length does not fit its objects");
}

std::shared_ptr<const segment> segment::parse(segment_number number, std::uint64_t version,
                                              byte_block content) {
  return std::make_shared<const segment>(number, version, std::move(content));
}

std::size_t segment::memory() const {
  constexpr std::size_t overheads = 64;  // reference counts and the allocator's headers
  return sizeof(segment) + overheads + content_.size +
         static_cast<std::size_t>(std::popcount(present_)) * sizeof(entry);
}

segment_builder::segment_builder(segment_number number, const segment* old) : number_(number) {
  if (old == nullptr) return;
  for (std::uint64_t rest = old->present(); rest != 0; rest &= rest - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    if (old->is_apart(slot))
      put_apart(slot, old->layout(slot), old->length(slot));
    else
      put(slot, old->layout(slot), old->body(slot));
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

std::shared_ptr<const segment> segment_builder::build(std::uint64_t version) const {
  std::size_t size = 2 * sizeof(std::uint64_t);
  for (std::uint64_t rest = present_; rest != 0; rest &= rest - 1) {
    const auto slot = static_cast<unsigned>(std::countr_zero(rest));
    const source& from = sources_[slot];
    size += varint_size(from.layout) + varint_size(from.length);
    if ((apart_ >> slot & 1) == 0) size += from.length;
  }

  byte_block content = byte_block::of_size(size);
  std::byte* at = content.bytes.get();
  store_number(at, present_);
  store_number(at + sizeof present_, apart_);
  at += 2 * sizeof(std::uint64_t);
  for (std::uint64_t rest = present_; rest != 0; rest &= rest - 1) {
    const source& from = sources_[std::countr_zero(rest)];
    at = store_varint(at, from.layout);
    at = store_varint(at, from.length);
  }
  for (std::uint64_t rest = present_ & ~apart_; rest != 0; rest &= rest - 1) {
    const source& from = sources_[std::countr_zero(rest)];
    if (from.length != 0) std::memcpy(at, from.body, from.length);
    at += from.length;
  }
  return segment::parse(number_, version, std::move(content));
}

}  // namespace goods
