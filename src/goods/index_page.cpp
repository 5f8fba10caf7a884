#include <goods/index_page.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>
#include <goods/object_handle.h>
#include <goods/set_member.h>

#include "goods/pack_program.h"

namespace goods {
namespace {

constexpr std::size_t least_capacity = 4;
constexpr std::uint32_t least_name_waste = 64;  // bytes that are not worth moving names for
constexpr std::size_t prefetch_distance = 24;
constexpr std::size_t least_entry_bytes = 3;  // in the stored form

std::uint64_t bits_of(ref_word word) { return std::bit_cast<std::uint64_t>(word); }

// As a number, so that one comparison orders most texts; zeros stand for what a short one lacks.
std::uint64_t first_bytes(std::string_view text) {
  std::uint64_t bits = 0;
  if (text.size() >= sizeof(bits)) {
    std::memcpy(&bits, text.data(), sizeof(bits));
  } else if (!text.empty()) {
    std::memcpy(&bits, text.data(), text.size());
  }
  static_assert(std::endian::native == std::endian::little);
  return __builtin_bswap64(bits);
}

std::size_t common_length(std::string_view a, std::string_view b) {
  const std::size_t limit = std::min(a.size(), b.size());
  return static_cast<std::size_t>(std::mismatch(a.begin(), a.begin() + limit, b.begin()).first -
                                  a.begin());
}

}  // namespace

// --- Life
// ------------------------------------------------------------------------------------------

index_page::index_page(const index_page& other) : skip_(other.skip_), level_(other.level_) {
  if (other.size_ == 0) return;
  resize_room(other.size_);
  size_ = other.size_;
  std::copy_n(other.prefixes(), size_, prefixes());
  std::copy_n(other.firsts(), size_, firsts());
  std::copy_n(other.seconds(), size_, seconds());
  resize_names(other.name_bytes());
  for (std::size_t i = 0; i < size_; ++i) {
    spans()[i] = add_name(other.name(i));
    count_word(to_word(firsts()[i]));
    if (is_leaf()) count_word(to_word(seconds()[i]));
  }
}

index_page::index_page(index_page&& other) noexcept { swap(other); }

index_page& index_page::operator=(const index_page& other) {
  if (this != &other) index_page(other).swap(*this);
  return *this;
}

index_page& index_page::operator=(index_page&& other) noexcept {
  index_page(std::move(other)).swap(*this);
  return *this;
}

index_page::~index_page() { release_words(); }

void index_page::swap(index_page& other) noexcept {
  std::swap(room_, other.room_);
  std::swap(names_, other.names_);
  std::swap(capacity_, other.capacity_);
  std::swap(size_, other.size_);
  std::swap(names_capacity_, other.names_capacity_);
  std::swap(names_used_, other.names_used_);
  std::swap(names_unused_, other.names_unused_);
  std::swap(skip_, other.skip_);
  std::swap(level_, other.level_);
}

void index_page::release_words() noexcept {
  for (std::size_t i = 0; i < size_; ++i) {
    release_word(to_word(firsts()[i]));
    if (is_leaf()) release_word(to_word(seconds()[i]));
  }
}

void index_page::forget_members() noexcept {
  for (std::size_t i = 0; is_leaf() && i < size_; ++i) {
    const ref_word word = member(i);
    if (!word.is_handle() || !word.handle()->is_transient()) continue;
    object* const body = word.handle()->body();
    if (body != nullptr && set_member::self_class.is_superclass_for(body->cls())) {
      static_cast<set_member*>(body)->leave();
    }
  }
}

std::size_t index_page::heap_bytes() const {
  return capacity_ * 4 * sizeof(std::uint64_t) + names_capacity_;
}

std::uint64_t index_page::total() const {
  if (is_leaf()) return size_;
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < size_; ++i) sum += count(i);
  return sum;
}

// --- Memory
// ----------------------------------------------------------------------------------------

void index_page::resize_room(std::size_t capacity) {
  std::unique_ptr<std::uint64_t[]> larger(new std::uint64_t[capacity * 4]);
  for (std::size_t part = 0; part < 4 && size_ != 0; ++part) {
    std::copy_n(room_.get() + part * capacity_, size_, larger.get() + part * capacity);
  }
  room_ = std::move(larger);
  capacity_ = static_cast<std::uint32_t>(capacity);
}

void index_page::resize_names(std::size_t capacity) {
  std::unique_ptr<char[]> larger(new char[capacity]);
  std::size_t used = 0;
  for (std::size_t i = 0; names_ != nullptr && i < size_; ++i) {
    const std::string_view text = name(i);
    std::memcpy(larger.get() + used, text.data(), text.size());
    spans()[i] = used << 32 | text.size();
    used += text.size();
  }
  names_ = std::move(larger);
  names_capacity_ = static_cast<std::uint32_t>(capacity);
  names_used_ = static_cast<std::uint32_t>(used);
  names_unused_ = 0;
}

// `name` may not lie in this page: its names move when there is no room.
std::uint64_t index_page::add_name(std::string_view name) {
  if (names_used_ + name.size() > names_capacity_) {
    const std::size_t needed = name_bytes() + name.size();
    resize_names(std::max(needed + needed / 4, std::size_t{32}));
  }
  if (!name.empty()) std::memcpy(names_.get() + names_used_, name.data(), name.size());
  const std::uint64_t span = std::uint64_t{names_used_} << 32 | name.size();
  names_used_ += static_cast<std::uint32_t>(name.size());
  return span;
}

void index_page::place(std::size_t at, std::string_view name, std::uint64_t first,
                       std::uint64_t second) {
  if (at == size_) return place_last(name, first, second);
  if (size_ == capacity_) resize_room(std::max(least_capacity, size_ + size_t{size_} / 2));
  const std::uint64_t span = add_name(name);
  std::uint64_t* const parts[] = {prefixes(), firsts(), seconds(), spans()};
  const std::uint64_t values[] = {0, first, second, span};
  for (std::size_t part = 0; part < 4; ++part) {
    std::copy_backward(parts[part] + at, parts[part] + size_, parts[part] + size_ + 1);
    parts[part][at] = values[part];
  }
  ++size_;
}

void index_page::place_last(std::string_view name, std::uint64_t first, std::uint64_t second) {
  if (size_ == capacity_) resize_room(std::max(least_capacity, size_ + size_t{size_} / 2));
  spans()[size_] = add_name(name);
  prefixes()[size_] = 0;
  firsts()[size_] = first;
  seconds()[size_] = second;
  ++size_;
}

void index_page::close_gap(std::size_t at) {
  names_unused_ += static_cast<std::uint32_t>(name(at).size());
  for (std::uint64_t* part : {prefixes(), firsts(), seconds(), spans()}) {
    std::copy(part + at + 1, part + size_, part + at);
  }
  --size_;
}

// --- Prefixes
// --------------------------------------------------------------------------------------

std::uint64_t index_page::prefix_of(std::string_view name) const {
  return first_bytes(name.substr(std::min<std::size_t>(skip_, name.size())));
}

void index_page::set_skip(std::size_t skip) {
  skip_ = static_cast<std::uint32_t>(skip);
  for (std::size_t i = 0; i < size_; ++i) prefixes()[i] = prefix_of(name(i));
}

void index_page::find_skip() {
  const std::size_t first = first_compared();
  set_skip(size_ <= first ? 0 : common_length(name(first), name(size_ - 1)));
}

// After an entry was placed at `at`.
void index_page::keep_prefixes(std::size_t at) {
  const std::size_t first = first_compared();
  const std::size_t compared = size_ - std::min<std::size_t>(first, size_);
  if (compared <= 1 || at < first) return find_skip();
  const std::string_view neighbour = name(at == first ? at + 1 : first);
  const std::size_t common = std::min<std::size_t>(skip_, common_length(name(at), neighbour));
  if (common < skip_) return set_skip(common);
  prefixes()[at] = prefix_of(name(at));
}

template <bool Upper>
std::size_t index_page::bound(std::string_view name) const {
  std::size_t low = first_compared();
  if (size_ <= low) return size_;
  if (skip_ != 0) {
    const std::string_view common = this->name(low).substr(0, skip_);
    const int order = name.substr(0, skip_).compare(common);
    if (order != 0) return order < 0 ? low : size_;
  }
  const std::uint64_t prefix = prefix_of(name);
  const std::uint64_t* const all = prefixes();
  // The places that a search looks at first, fetched side by side instead of one after the other.
  for (std::size_t i = 0; i < size_; i += prefetch_distance) __builtin_prefetch(all + i);
  low = static_cast<std::size_t>(std::lower_bound(all + low, all + size_, prefix) - all);
  if (low == size_ || all[low] != prefix) return low;
  const std::string_view rest = name.substr(skip_);
  std::size_t high = size_;
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    int order = 1;
    if (all[middle] == prefix) order = this->name(middle).substr(skip_).compare(rest);
    if (Upper ? order <= 0 : order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

template std::size_t index_page::bound<false>(std::string_view) const;
template std::size_t index_page::bound<true>(std::string_view) const;

// --- Changes
// ---------------------------------------------------------------------------------------

void index_page::insert_member(std::size_t at, std::string_view name, ref_word member,
                               ref_word target) {
  place(at, name, bits_of(member), bits_of(target));
  count_word(member);
  count_word(target);
  keep_prefixes(at);
}

void index_page::insert_page(std::size_t at, std::string_view bound, ref_word page,
                             std::uint64_t count) {
  place(at, bound, bits_of(page), count);
  count_word(page);
  keep_prefixes(at);
}

void index_page::set_member_at(std::size_t at, ref_word member, ref_word target) {
  count_word(member);
  count_word(target);
  release_word(to_word(std::exchange(firsts()[at], bits_of(member))));
  release_word(to_word(std::exchange(seconds()[at], bits_of(target))));
}

void index_page::erase(std::size_t at) {
  const ref_word first = to_word(firsts()[at]);
  const ref_word second = is_leaf() ? to_word(seconds()[at]) : ref_word();
  close_gap(at);
  release_word(first);
  release_word(second);
}

index_page index_page::split_off(std::size_t at) {
  index_page rest(level_);
  // All memory first: an entry may never stand in both pages.
  rest.resize_room(size_ - at);
  std::size_t bytes = 0;
  for (std::size_t i = at; i < size_; ++i) bytes += name(i).size();
  rest.resize_names(bytes);
  for (std::size_t i = at; i < size_; ++i) {
    rest.place(i - at, name(i), firsts()[i], seconds()[i]);
    names_unused_ += static_cast<std::uint32_t>(name(i).size());
  }
  size_ = static_cast<std::uint32_t>(at);
  find_skip();
  rest.find_skip();
  return rest;
}

void index_page::append(index_page&& next, std::string_view first_bound) {
  resize_room(std::max<std::size_t>(capacity_, size_ + next.size_));
  resize_names(name_bytes() + next.name_bytes() + first_bound.size());
  index_page taken(std::move(next));
  for (std::size_t i = 0; i < taken.size_; ++i) {
    const bool is_first_bound = i == 0 && !is_leaf();
    place(size_, is_first_bound ? first_bound : taken.name(i), taken.firsts()[i],
          taken.seconds()[i]);
  }
  taken.size_ = 0;  // what it held has moved
  find_skip();
}

// --- Stored form
// -----------------------------------------------------------------------------------

void index_page::describe(field_descriptor*& list, const object& owner) const {
  const auto component = [](field_descriptor*& components, const char* name, field_type type,
                            unsigned size, unsigned n_items) {
    (new field_descriptor(name, size, n_items, 0))->set_type(type).append_to(components);
  };
  describe_member(list, "level", owner, level_);
  field_descriptor* entry = nullptr;
  component(entry, "name", field_type::text, 1, 0);
  component(entry, "member", field_type::reference, sizeof(ref_word), 1);
  component(entry, "object", field_type::reference, sizeof(ref_word), 1);
  (new field_descriptor("entries", 0, 0, 0, entry))->append_to(list);
  field_descriptor* page = nullptr;
  component(page, "name", field_type::text, 1, 0);
  component(page, "page", field_type::reference, sizeof(ref_word), 1);
  component(page, "count", field_type::unsigned_integer, 8, 1);
  (new field_descriptor("pages", 0, 0, 0, page))->append_to(list);
}

void index_page::pack(byte_writer& out, object_id self) const {
  if (!is_leaf()) out.put_unsigned(0);
  out.put_unsigned(size_);
  for (std::size_t i = 0; i < size_; ++i) {
    out.put_text(i < first_compared() ? std::string_view() : name(i));
    out.put_reference(to_word(firsts()[i]), ref_kind::counted, self);
    if (is_leaf()) {
      out.put_reference(to_word(seconds()[i]), ref_kind::counted, self);
    } else {
      out.put_unsigned(seconds()[i]);
    }
  }
  if (is_leaf()) out.put_unsigned(0);
}

void index_page::unpack(byte_reader& in) {
  constexpr std::uint64_t most_members = std::uint64_t{1} << 48;
  if (level_ > max_level) in.fail("is an index page of an impossible level");
  if (!is_leaf() && in.get_unsigned() != 0) in.fail("is an index page of two kinds");
  const std::size_t count = in.get_count();
  if (!is_leaf() && count == 0) in.fail("is an empty page of an index");
  if (count > in.left() / least_entry_bytes) in.fail("ends too early");
  resize_room(count);
  resize_names(std::min<std::size_t>(in.left(), count * 16));
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string_view text = in.get_text();
    const object_id first = in.get_reference();
    const std::uint64_t second = is_leaf() ? in.get_reference() : in.get_unsigned();
    if (text.size() > set_member::max_key_length || first == 0) {
      in.fail("is an index page with an impossible entry");
    }
    if (i > first_compared() && text < name(i - 1)) in.fail("is an index page out of order");
    if (!is_leaf() && (second > most_members || (total += second) > most_members)) {
      in.fail("is an index page with an impossible entry");
    }
    const bool is_id = is_leaf() && second != 0;
    place_last(text, bits_of(ref_word::of(first)), is_id ? bits_of(ref_word::of(second)) : second);
  }
  if (is_leaf() && in.get_unsigned() != 0) in.fail("is an index page of two kinds");
  if (names_capacity_ - names_used_ > std::max(least_name_waste, names_used_ / 4)) {
    resize_names(names_used_);
  }
  find_skip();
}

std::optional<index_entry> index_page::find_packed(byte_reader in, std::string_view name) {
  const std::uint64_t wanted = first_bytes(name);
  std::string_view before;
  std::uint64_t before_bytes = 0;
  for (std::size_t left = in.get_count(); left > 0; --left) {
    const std::string_view text = in.get_text();
    if (text.size() > set_member::max_key_length) {
      in.fail("is an index page with an impossible entry");
    }
    const std::uint64_t bytes = first_bytes(text);
    if (bytes < before_bytes || (bytes == before_bytes && text < before)) {
      in.fail("is an index page out of order");
    }
    before = text;
    before_bytes = bytes;
    if (bytes > wanted) break;
    const int order = bytes < wanted ? -1 : text.compare(name);
    if (order > 0) break;
    if (order < 0) {
      in.skip_reference();
      in.skip_reference();
      continue;
    }
    const object_id member = in.get_reference();
    const object_id target = in.get_reference();
    if (member == 0) in.fail("is an index page with an impossible entry");
    return index_entry{text, ref_word::of(member), target == 0 ? ref_word() : ref_word::of(target)};
  }
  return std::nullopt;
}

void index_page::visit(ref_visitor& visitor) {
  for (std::size_t i = 0; i < size_; ++i) {
    visitor.visit(word_at(static_cast<void*>(firsts() + i)), ref_kind::counted);
    if (!is_leaf() || target(i).is_null()) continue;
    visitor.visit(word_at(static_cast<void*>(seconds() + i)), ref_kind::counted);
  }
}

}  // namespace goods
