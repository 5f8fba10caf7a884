#include "goods/pack_program.h"

#include <cstring>

#include <goods/object_handle.h>

namespace goods {
namespace {

template <class T>
T load(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  return value;
}

template <class T>
void store(char* at, T value) {
  std::memcpy(at, &value, sizeof(T));
}

template <class T>
void store_unsigned(char* at, byte_reader& in) {
  const std::uint64_t value = in.get_unsigned();
  if (value != static_cast<T>(value)) in.fail("holds a number that does not fit its member");
  store(at, static_cast<T>(value));
}

template <class T>
void store_signed(char* at, byte_reader& in) {
  const std::int64_t value = in.get_signed();
  if (value != static_cast<T>(value)) in.fail("holds a number that does not fit its member");
  store(at, static_cast<T>(value));
}

char* address_of(object& body) { return reinterpret_cast<char*>(&body); }
const char* address_of(const object& body) { return reinterpret_cast<const char*>(&body); }

void pack_bytes(const char* at, std::size_t count, byte_writer& out) {
  while (count > 0 && at[count - 1] == 0) --count;
  out.put_text({at, count});
}

void unpack_bytes(char* at, std::size_t count, byte_reader& in) {
  const std::string_view bytes = in.get_text();
  if (bytes.size() > count) in.fail("holds a text that does not fit its member");
  bytes.copy(at, bytes.size());
  std::memset(at + bytes.size(), 0, count - bytes.size());
}

void unpack_booleans(char* at, std::size_t count, byte_reader& in) {
  unpack_bytes(at, count, in);
  for (char* const end = at + count; at != end; ++at) *at = *at != 0 ? 1 : 0;
}

}  // namespace

void count_word(ref_word word) {
  if (word.is_handle()) word.handle()->add_reference();
}

void release_word(ref_word word) noexcept {
  if (word.is_handle()) word.handle()->remove_reference();
}

pack_program::action pack_program::action_for(const field_descriptor& field) {
  const bool is_wide = field.size() > 1;
  switch (field.type()) {
    case field_type::reference:
      return field.kind() == ref_kind::counted ? action::counted : action::back;
    case field_type::real:
      return field.size() == 4 ? action::float4 : action::float8;
    case field_type::signed_integer:
      if (!is_wide) return field.n_items() == 1 ? action::byte : action::bytes;
      return field.size() == 2   ? action::signed2
             : field.size() == 4 ? action::signed4
                                 : action::signed8;
    case field_type::unsigned_integer:
      if (field.is_boolean()) return field.n_items() == 1 ? action::boolean : action::booleans;
      if (!is_wide) return field.n_items() == 1 ? action::byte : action::bytes;
      return field.size() == 2   ? action::unsigned2
             : field.size() == 4 ? action::unsigned4
                                 : action::unsigned8;
    case field_type::text:
      return action::bytes;
    case field_type::structure:
      break;
  }
  return action::loop;
}

void pack_program::add(const field_descriptor& field, std::uint32_t base) {
  if (field.is_varying()) return;
  const action what = action_for(field);
  const std::uint32_t offset = base + field.offset();
  steps_.push_back({what, offset, field.n_items(), field.size()});
  if (what == action::counted || what == action::back) {
    const ref_kind kind = what == action::counted ? ref_kind::counted : ref_kind::back;
    for (std::uint32_t i = 0; i < field.n_items(); ++i) {
      references_.push_back({offset + i * std::uint32_t{sizeof(ref_word)}, kind});
    }
  }
  if (what != action::loop) return;
  has_loops_ = true;
  const std::size_t loop = steps_.size() - 1;
  for_each_field(field.components(),
                 [&](const field_descriptor& component) { add(component, offset); });
  steps_[loop].steps = static_cast<std::uint32_t>(steps_.size() - 1 - loop);
}

template <class Visit>
void pack_program::for_each_step(steps program, std::uintptr_t base, const Visit& visit) {
  for (std::size_t i = 0; i < program.size(); ++i) {
    const step& one = program[i];
    if (one.what != action::loop) {
      visit(one, base + one.offset);
      continue;
    }
    for (std::uint32_t item = 0; item < one.count; ++item) {
      for_each_step(program.subspan(i + 1, one.steps), base + std::size_t{item} * one.stride,
                    visit);
    }
    i += one.steps;
  }
}

void pack_program::pack_step(const step& one, const char* at, byte_writer& out, object_id self) {
  if (is_byte_array(one.what)) return pack_bytes(at, one.count, out);
  for (std::uint32_t i = 0; i < one.count; ++i, at += one.stride) {
    switch (one.what) {
      case action::byte:
      case action::boolean:
        out.put_byte(load<std::uint8_t>(at));
        break;
      case action::signed2:
        out.put_signed(load<std::int16_t>(at));
        break;
      case action::signed4:
        out.put_signed(load<std::int32_t>(at));
        break;
      case action::signed8:
        out.put_signed(load<std::int64_t>(at));
        break;
      case action::unsigned2:
        out.put_unsigned(load<std::uint16_t>(at));
        break;
      case action::unsigned4:
        out.put_unsigned(load<std::uint32_t>(at));
        break;
      case action::unsigned8:
        out.put_unsigned(load<std::uint64_t>(at));
        break;
      case action::float4:
        out.put_float(load<float>(at));
        break;
      case action::float8:
        out.put_double(load<double>(at));
        break;
      case action::counted:
        out.put_reference(word_at(at), ref_kind::counted, self);
        break;
      case action::back:
        out.put_reference(word_at(at), ref_kind::back, self);
        break;
      case action::bytes:
      case action::booleans:
      case action::loop:
        break;
    }
  }
}

void pack_program::unpack_step(const step& one, char* at, byte_reader& in) {
  if (one.what == action::bytes) return unpack_bytes(at, one.count, in);
  if (one.what == action::booleans) return unpack_booleans(at, one.count, in);
  for (std::uint32_t i = 0; i < one.count; ++i, at += one.stride) {
    switch (one.what) {
      case action::byte:
        store(at, in.get_byte());
        break;
      case action::boolean:
        store(at, in.get_byte() != 0);
        break;
      case action::signed2:
        store_signed<std::int16_t>(at, in);
        break;
      case action::signed4:
        store_signed<std::int32_t>(at, in);
        break;
      case action::signed8:
        store_signed<std::int64_t>(at, in);
        break;
      case action::unsigned2:
        store_unsigned<std::uint16_t>(at, in);
        break;
      case action::unsigned4:
        store_unsigned<std::uint32_t>(at, in);
        break;
      case action::unsigned8:
        store_unsigned<std::uint64_t>(at, in);
        break;
      case action::float4:
        store(at, in.get_float());
        break;
      case action::float8:
        store(at, in.get_double());
        break;
      case action::counted:
      case action::back: {
        const object_id id = in.get_reference();
        if (one.what == action::counted) release_word(word_at(at));
        word_at(at) = id == 0 ? ref_word() : ref_word::of(id);
        break;
      }
      case action::bytes:
      case action::booleans:
      case action::loop:
        break;
    }
  }
}

void pack_program::pack(const object& body, byte_writer& out, object_id self) const {
  for_each_step(steps_, reinterpret_cast<std::uintptr_t>(address_of(body)),
                [&](const step& one, std::uintptr_t at) {
                  pack_step(one, reinterpret_cast<const char*>(at), out, self);
                });
}

void pack_program::unpack(object& body, byte_reader& in) const {
  for_each_step(steps_, reinterpret_cast<std::uintptr_t>(address_of(body)),
                [&](const step& one, std::uintptr_t at) {
                  unpack_step(one, reinterpret_cast<char*>(at), in);
                });
}

void pack_program::copy(const object& from, object& to) const {
  const auto distance = reinterpret_cast<std::uintptr_t>(address_of(from)) -
                        reinterpret_cast<std::uintptr_t>(address_of(to));
  for_each_step(steps_, reinterpret_cast<std::uintptr_t>(address_of(to)),
                [&](const step& one, std::uintptr_t at) {
                  const std::size_t item = is_byte_array(one.what) ? 1 : one.stride;
                  char* const target = reinterpret_cast<char*>(at);
                  const char* const source = reinterpret_cast<const char*>(at + distance);
                  if (one.what == action::counted) {
                    for (std::uint32_t i = 0; i < one.count; ++i) {
                      count_word(word_at(source + i * sizeof(ref_word)));
                      release_word(word_at(target + i * sizeof(ref_word)));
                    }
                  }
                  std::memcpy(target, source, item * one.count);
                });
}

void pack_program::visit(object& body, ref_visitor& visitor) const {
  if (!has_loops_) {
    for (const reference& one : references_) {
      ref_word& word = word_at(static_cast<void*>(address_of(body) + one.offset));
      if (!word.is_null()) visitor.visit(word, one.kind);
    }
    return;
  }
  for_each_step(steps_, reinterpret_cast<std::uintptr_t>(address_of(body)),
                [&](const step& one, std::uintptr_t at) {
                  if (one.what != action::counted && one.what != action::back) return;
                  const ref_kind kind =
                      one.what == action::counted ? ref_kind::counted : ref_kind::back;
                  for (std::uint32_t i = 0; i < one.count; ++i) {
                    ref_word& word = word_at(reinterpret_cast<char*>(at) + i * sizeof(ref_word));
                    if (!word.is_null()) visitor.visit(word, kind);
                  }
                });
}

void pack_program::release(object& body) const noexcept {
  for_each_step(steps_, reinterpret_cast<std::uintptr_t>(address_of(body)),
                [&](const step& one, std::uintptr_t at) {
                  if (one.what != action::counted) return;
                  for (std::uint32_t i = 0; i < one.count; ++i) {
                    ref_word& word = word_at(reinterpret_cast<char*>(at) + i * sizeof(ref_word));
                    release_word(word);
                    word = ref_word();
                  }
                });
}

}  // namespace goods
