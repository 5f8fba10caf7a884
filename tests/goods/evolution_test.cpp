#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include <goods/B_tree.h>
#include <goods/object_handle.h>

#include "errors_matcher.h"
#include "goods/class_layout.h"
#include "goods/layout_catalog.h"
#include "goods/state_loader.h"
#include "sample_class.h"
#include "support/scratch_directory.h"

namespace goods {
namespace {

constexpr object_number number = 0x20000;
constexpr object_id evolved_id = make_object_id(1, number);

dbs_field_descriptor stored(const char* name, field_type type, std::uint32_t size,
                            std::uint32_t n_items = 1) {
  return {name, type, ref_kind::counted, size, n_items, {}};
}

// A sample_object made from a state that was stored under other members.
owned_body load(std::vector<dbs_field_descriptor> fields, class_descriptor& cls,
                const std::function<void(byte_writer&)>& write) {
  byte_writer out;
  write(out);
  const auto layout = std::make_shared<const class_layout>(
      class_layout::make("sample_object", {"object"}, std::move(fields)));
  return owned_body(state_loader(layout, cls).load(nullptr, out.bytes(), evolved_id));
}

TEST(EvolutionTest, NumbersBecomeTheNearestThatTheirMemberCanHold) {
  using enum field_type;
  struct test_case {
    const char* what;
    dbs_field_descriptor field;
    std::function<void(byte_writer&)> write;
    std::function<bool(const sample_object&)> is_right;
  };
  const test_case cases[] = {
      {"wider", stored("whole", signed_integer, 2), [](byte_writer& o) { o.put_signed(-300); },
       [](const sample_object& s) { return s.whole == -300; }},
      {"narrower, fits", stored("whole", signed_integer, 8),
       [](byte_writer& o) { o.put_signed(-5); },
       [](const sample_object& s) { return s.whole == -5; }},
      {"narrower, too large", stored("whole", signed_integer, 8),
       [](byte_writer& o) { o.put_signed(std::int64_t{1} << 40); },
       [](const sample_object& s) { return s.whole == 0x7FFFFFFF; }},
      {"narrower, too small", stored("tiny", signed_integer, 4),
       [](byte_writer& o) { o.put_signed(-1000); },
       [](const sample_object& s) { return s.tiny == -128; }},
      {"negative to unsigned", stored("wide", signed_integer, 4),
       [](byte_writer& o) { o.put_signed(-1); },
       [](const sample_object& s) { return s.wide == 0; }},
      {"one byte to four", stored("whole", signed_integer, 1),
       [](byte_writer& o) { o.put_byte(0x80); },
       [](const sample_object& s) { return s.whole == -128; }},
      {"unsigned to signed, too large", stored("whole", unsigned_integer, 8),
       [](byte_writer& o) { o.put_unsigned(~std::uint64_t{0}); },
       [](const sample_object& s) { return s.whole == 0x7FFFFFFF; }},
      {"integer to real", stored("real", signed_integer, 8),
       [](byte_writer& o) { o.put_signed(-3); },
       [](const sample_object& s) { return s.real == -3.0; }},
      {"real to integer", stored("whole", real, 8), [](byte_writer& o) { o.put_double(-2.9); },
       [](const sample_object& s) { return s.whole == -2; }},
      {"huge real to integer", stored("wide", real, 8), [](byte_writer& o) { o.put_double(1e30); },
       [](const sample_object& s) { return s.wide == ~std::uint64_t{0}; }},
      {"not a number to integer", stored("whole", real, 8),
       [](byte_writer& o) { o.put_double(std::numeric_limits<double>::quiet_NaN()); },
       [](const sample_object& s) { return s.whole == 0; }},
      {"float to double", stored("real", real, 4), [](byte_writer& o) { o.put_float(0.5F); },
       [](const sample_object& s) { return s.real == 0.5; }},
      {"scalar to array", stored("numbers", unsigned_integer, 8),
       [](byte_writer& o) { o.put_unsigned(9); },
       [](const sample_object& s) {
         return s.numbers == std::array<std::uint32_t, 3>{9, 0, 0};
       }},
      {"longer array", stored("numbers", unsigned_integer, 4, 4),
       [](byte_writer& o) {
         for (unsigned i = 1; i <= 4; ++i) o.put_unsigned(i);
       },
       [](const sample_object& s) {
         return s.numbers == std::array<std::uint32_t, 3>{1, 2, 3};
       }},
      {"bytes to integers", stored("numbers", unsigned_integer, 1, 4),
       [](byte_writer& o) { o.put_text("\x01\xFF"); },
       [](const sample_object& s) {
         return s.numbers == std::array<std::uint32_t, 3>{1, 255, 0};
       }},
      {"longer text", stored("letters", signed_integer, 1, 40),
       [](byte_writer& o) { o.put_text("0123456789abcdefghij"); },
       [](const sample_object& s) {
         return std::string_view(s.letters.data(), 16) == "0123456789abcdef";
       }},
      {"another name", stored("once", signed_integer, 4), [](byte_writer& o) { o.put_signed(4); },
       [](const sample_object& s) { return s.whole == 4; }},
      {"a reference where a number is now", stored("whole", reference, 8),
       [](byte_writer& o) { o.put_reference(evolved_id, evolved_id); },
       [](const sample_object& s) { return s.whole == 0; }},
      {"a member that is gone", stored("gone", text, 1, 9), [](byte_writer& o) { o.put_text("x"); },
       [](const sample_object& s) { return s.whole == 0 && s.letters[0] == 0; }},
  };
  const auto cls = make_sample_class();
  cls->add_alias("once", "whole");
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.what);
    // Another member stands behind the one that is tried, to see that it is read from its place.
    const owned_body body = load({c.field, stored("single", real, 4)}, *cls, [&](byte_writer& out) {
      c.write(out);
      out.put_float(7.5F);
    });
    EXPECT_TRUE(c.is_right(static_cast<const sample_object&>(*body)));
    EXPECT_EQ(static_cast<const sample_object&>(*body).single, 7.5F);
  }
}

TEST(EvolutionTest, StructuresMatchByTheNamesOfTheirComponents) {
  dbs_field_descriptor parts = stored("parts", field_type::structure, 24, 3);
  parts.components = {stored("link", field_type::reference, 8),
                      stored("color", field_type::real, 8),
                      stored("number", field_type::signed_integer, 4)};
  const auto cls = make_sample_class();
  const owned_body body = load({parts}, *cls, [](byte_writer& out) {
    for (int i = 1; i <= 3; ++i) {
      out.put_reference(evolved_id + static_cast<unsigned>(i), evolved_id);
      out.put_double(0.1);
      out.put_signed(i * 100'000);
    }
  });
  const auto& sample = static_cast<const sample_object&>(*body);
  EXPECT_EQ(sample.parts[0].link.id(), evolved_id + 1);
  EXPECT_EQ(sample.parts[1].link.id(), evolved_id + 2);
  EXPECT_EQ(sample.parts[1].number, 0x7FFF);
}

TEST(EvolutionTest, VaryingPartsGainAndLoseComponents) {
  // Entries once had a color, and no object.
  const auto& now = B_page::self_class.layout();
  std::vector<dbs_field_descriptor> fields = now.fields;
  auto& components = fields[1].components;
  ASSERT_EQ(components[2].name, "object");
  components[2] = stored("color", field_type::real, 8);
  const auto layout =
      std::make_shared<const class_layout>(class_layout::make("B_page", {"object"}, fields));
  byte_writer out;
  out.put_byte(0);
  out.put_unsigned(2);
  for (const char* name : {"a", "b"}) {
    out.put_text(name);
    out.put_reference(evolved_id + 1, evolved_id);
    out.put_double(0.1);
  }
  out.put_unsigned(0);
  const owned_body body(
      state_loader(layout, B_page::self_class).load(nullptr, out.bytes(), evolved_id));
  const index_page& page = static_cast<const B_page&>(*body).page();
  ASSERT_EQ(page.size(), 2U);
  EXPECT_EQ(page.name(1), "b");
  EXPECT_EQ(page.member(1), ref_word::of(evolved_id + 1));
  EXPECT_TRUE(page.target(1).is_null());
}

// --- Layouts and classes made at random
// -------------------------------------------------------------

class random_layouts {
 public:
  explicit random_layouts(unsigned seed) : random_(seed) {}

  class_layout make(const char* name) {
    std::vector<dbs_field_descriptor> fields;
    for (int i = below(8); i >= 0; --i) fields.push_back(field(0, 1 + below(3)));
    for (int i = below(3); i > 0; --i) fields.push_back(field(0, 0));
    return class_layout::make(name, {"no_such_base", "object"}, std::move(fields));
  }

  void write(const dbs_field_descriptor& field, byte_writer& out) {
    const bool as_text = field.type == field_type::text || (field.size == 1 && field.n_items > 1 &&
                                                            field.type != field_type::structure);
    if (as_text) {
      return out.put_text(std::string(below(field.is_varying() ? 50 : field.n_items), 'x'));
    }
    const unsigned count = field.is_varying() ? below(6) : field.n_items;
    if (field.is_varying()) out.put_unsigned(count);
    for (unsigned i = 0; i < count; ++i) write_item(field, out);
  }

 private:
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  dbs_field_descriptor field(unsigned depth, unsigned n_items) {
    static constexpr std::uint32_t sizes[] = {1, 2, 4, 8};
    dbs_field_descriptor made;
    made.name = "member_" + std::to_string(below(1000));
    made.type = static_cast<field_type>(depth == 2 ? 1 + below(4) : below(6));
    made.kind = static_cast<ref_kind>(below(2));
    made.n_items = n_items;
    switch (made.type) {
      case field_type::reference:
        made.size = 8;
        break;
      case field_type::real:
        made.size = sizes[2 + below(2)];
        break;
      case field_type::text:
        made.size = 1;
        break;
      case field_type::structure:
        for (int i = below(3); i >= 0; --i) {
          made.components.push_back(field(depth + 1, n_items == 0 ? below(3) : 1 + below(3)));
        }
        break;
      default:
        made.size = sizes[below(4)];
    }
    return made;
  }

  void write_item(const dbs_field_descriptor& field, byte_writer& out) {
    const std::uint64_t value = random_() & (~std::uint64_t{0} >> (64 - field.size * 8) % 64);
    switch (field.type) {
      case field_type::structure:
        for (const dbs_field_descriptor& component : field.components) write(component, out);
        break;
      case field_type::reference:
        out.put_reference(below(3) == 0 ? 0 : make_object_id(below(3), 0x10000 + below(0x20000)),
                          evolved_id);
        break;
      case field_type::real:
        field.size == 4 ? out.put_float(static_cast<float>(below(100)) / 3)
                        : out.put_double(below(100) / 3.0);
        break;
      case field_type::signed_integer:
        if (field.size == 1) return out.put_byte(static_cast<std::uint8_t>(value));
        out.put_signed(static_cast<std::int64_t>(value) >> 1);
        break;
      default:
        if (field.size == 1) return out.put_byte(static_cast<std::uint8_t>(value));
        out.put_unsigned(value);
    }
  }

  std::mt19937_64 random_;
};

std::vector<std::byte> bytes_of(const byte_writer& out) {
  return {out.bytes().begin(), out.bytes().end()};
}

class visited_references : public ref_visitor {
 public:
  void visit(ref_word& word, ref_kind kind) override { found.emplace_back(word.id(), kind); }
  std::vector<std::pair<object_id, ref_kind>> found;
};

TEST(EvolutionTest, AnUnknownClassLosesNothingWhenItIsRewritten) {
  const scratch_directory directory;
  const auto store = open_storage("file:store?durability=relaxed", directory.path().string());
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    random_layouts random(seed);
    layout_catalog catalog(*store, 1);
    const class_layout layout = random.make("nobody_knows_this");
    const class_number layout_number = store->intern_layout(layout.bytes);
    byte_writer out;
    for (const dbs_field_descriptor& field : layout.fields) random.write(field, out);
    const std::vector<std::byte> state = bytes_of(out);

    owned_body body(catalog.instantiate(nullptr, {number, layout_number, state}));
    ASSERT_TRUE(body->cls().is_unknown_class());
    EXPECT_STREQ(body->cls().name(), "nobody_knows_this");
    EXPECT_EQ(catalog.number_for(body->cls()), layout_number);
    EXPECT_EQ(packed(*body, evolved_id), state);
    const owned_body copy(body->cls().create(nullptr));
    body->cls().copy_state(*body, *copy);
    visited_references by_body;
    body->cls().visit_references(*body, by_body);
    body.reset();
    EXPECT_EQ(packed(*copy, evolved_id), state);

    std::vector<std::pair<object_id, ref_kind>> by_layout;
    catalog.for_each_reference({number, layout_number, state}, [&](const stored_reference& found) {
      by_layout.emplace_back(found.target, found.kind);
    });
    EXPECT_EQ(by_body.found, by_layout);
  }
}

TEST(EvolutionTest, DamagedStatesAndLayoutsAreRefused) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    random_layouts random(seed);
    const class_layout layout = random.make("damaged");
    byte_writer out;
    for (const dbs_field_descriptor& field : layout.fields) random.write(field, out);
    std::mt19937 damage(seed);
    for (int flips = 0; flips < 20; ++flips) {
      std::vector<std::byte> state = bytes_of(out), described = layout.bytes;
      for (auto* bytes : {&state, &described}) {
        if (!bytes->empty()) (*bytes)[damage() % bytes->size()] ^= std::byte{1} << damage() % 8;
      }
      const auto attempt = [&](const std::vector<std::byte>& text) {
        const auto parsed = std::make_shared<const class_layout>(class_layout::parse(text));
        const owned_body body(
            state_loader(parsed, class_for(parsed)).load(nullptr, state, evolved_id));
        EXPECT_LE(packed(*body, evolved_id).size(), state.size() + 16);
      };
      for (const auto& text : {layout.bytes, described}) {
        const auto code = code_of([&] { attempt(text); });
        EXPECT_TRUE(!code || code == error_code::corrupt_data);
      }
    }
    for (std::size_t length = 0; length < layout.bytes.size(); ++length) {
      EXPECT_EQ(code_of([&] { class_layout::parse(std::span(layout.bytes).first(length)); }),
                error_code::corrupt_data);
    }
  }
}

// Sizes that are small as described, but not once the components have their places.
TEST(EvolutionTest, LayoutsOfMoreMemoryThanAllowedAreRefused) {
  constexpr std::uint32_t most = 16U << 20;
  const auto member = [](field_type type, std::uint32_t size, std::uint32_t n_items,
                         std::vector<dbs_field_descriptor> components = {}) {
    return dbs_field_descriptor{"m", type, ref_kind::counted, size, n_items, std::move(components)};
  };
  const auto text = member(field_type::text, 1, most);
  const auto integer = member(field_type::signed_integer, 8, 1);
  struct test_case {
    const char* what;
    dbs_field_descriptor field;
  };
  const test_case cases[] = {
      {"many large items", member(field_type::structure, 0, most, {text})},
      {"many large components", member(field_type::structure, 1, 1, {text, text})},
      {"gaps", member(field_type::structure, 1, most / 12,
                      {member(field_type::text, 1, 1), integer, member(field_type::text, 1, 1)})},
      {"structures in structures",
       member(field_type::structure, 1, 4096,
              {member(field_type::structure, 1, 4096, {integer, integer})})},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.what);
    const class_layout layout = class_layout::make("huge", {}, {c.field});
    EXPECT_EQ(code_of([&] { class_layout::parse(layout.bytes); }), error_code::corrupt_data);
  }
}

TEST(EvolutionTest, ACatalogNamesAnUnknownLayoutNumber) {
  const scratch_directory directory;
  const auto store = open_storage("file:store", directory.path().string());
  layout_catalog catalog(*store, 1);
  EXPECT_EQ(code_of([&] {
              catalog.instantiate(nullptr, {number, 9, {}});
            }),
            error_code::corrupt_data);
  const auto cls = make_sample_class("interned_once");
  const class_number first = catalog.number_for(*cls);
  EXPECT_EQ(catalog.number_for(*cls), first);
  EXPECT_EQ(&catalog.class_of(first), cls.get());
}

}  // namespace
}  // namespace goods
