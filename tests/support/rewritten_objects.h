// Changes single members of stored objects of a store that is closed, with checksums that fit.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <goods/byte_reader.h>
#include <goods/byte_writer.h>

#include "goods/class_layout.h"
#include "support/replaced_rows.h"

namespace goods {

// What becomes of the members that are met, in stored order; unset functions change nothing. `at`:
// how many of that kind in members of that name came before.
struct member_changes {
  std::function<object_id(std::string_view member, unsigned at, object_id target)> reference;
  std::function<std::string(std::string_view member, unsigned at, std::string text)> text;
  std::function<std::uint64_t(std::string_view member, unsigned at, std::uint64_t number)> number;
};

// Copies a packed state from one to the other, changing it on the way. For layouts of references,
// texts and unsigned integers.
class state_rewriter {
 public:
  state_rewriter(object_id self, const member_changes& changes) : self_(self), changes_(changes) {}

  std::vector<std::byte> rewrite(const class_layout& layout, std::span<const std::byte> state) {
    byte_reader in(state, self_);
    for (const dbs_field_descriptor& field : layout.fields) copy(field, in);
    EXPECT_TRUE(in.at_end());
    return {out_.bytes().begin(), out_.bytes().end()};
  }

 private:
  void copy(const dbs_field_descriptor& field, byte_reader& in) {
    if (field.type == field_type::text) {
      std::string text(in.get_text());
      if (changes_.text) text = changes_.text(field.name, texts_++, text);
      return out_.put_text(text);
    }
    std::size_t count = field.n_items;
    if (field.is_varying()) out_.put_unsigned(count = in.get_count());
    for (; count > 0; --count) copy_item(field, in);
  }

  void copy_item(const dbs_field_descriptor& field, byte_reader& in) {
    if (field.type == field_type::structure) {
      for (const dbs_field_descriptor& component : field.components) copy(component, in);
    } else if (field.type == field_type::reference) {
      object_id target = in.get_reference();
      if (changes_.reference) target = changes_.reference(field.name, references_++, target);
      out_.put_reference(target, self_);
    } else {
      ASSERT_EQ(field.type, field_type::unsigned_integer);
      std::uint64_t number = field.size == 1 ? in.get_byte() : in.get_unsigned();
      if (changes_.number) number = changes_.number(field.name, numbers_++, number);
      if (field.size == 1)
        out_.put_byte(static_cast<std::uint8_t>(number));
      else
        out_.put_unsigned(number);
    }
  }

  const object_id self_;
  const member_changes& changes_;
  byte_writer out_;
  unsigned references_ = 0, texts_ = 0, numbers_ = 0;
};

inline void rewrite_members(const std::string& file, object_id object,
                            const member_changes& changes) {
  const object_number number = number_of(object);
  class_number layout = 0;
  rewrite_segment(file, number, [&](segment_builder&, const segment& old) {
    layout = old.layout(slot_of(number));
  });
  const auto parsed =
      class_layout::parse(row_of(file, "layouts", row_kind::layout, layout).content);
  rewrite_object(file, number, [&](std::vector<std::byte>& state) {
    state = state_rewriter(object, changes).rewrite(parsed, state);
  });
}

}  // namespace goods
