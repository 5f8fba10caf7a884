#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <goods/B_page.h>
#include <goods/byte_reader.h>
#include <goods/byte_writer.h>

#include "errors_matcher.h"
#include "sample_class.h"

namespace goods {
namespace {

constexpr object_id page_id = make_object_id(0, 0x50000);

ref_word word(std::uint64_t i) { return ref_word::of(page_id + 1 + i); }

// Names that share long beginnings, hold zeros and high bytes, and repeat.
std::string random_name(std::mt19937& random) {
  static const std::string begins[] = {
      "", "a", "abcdefgh", "abcdefghi", std::string(20, 'q'), std::string("ab\0", 3), "\xFF\xFE"};
  std::string name = begins[random() % std::size(begins)];
  static constexpr char letters[] = {'a', 'b', '\0', '\xFF'};
  for (unsigned i = random() % 4; i > 0; --i) name += letters[random() % 4];
  return name;
}

struct model_entry {
  std::string name;
  ref_word member;
};

void expect_equal(const index_page& page, const std::vector<model_entry>& model) {
  ASSERT_EQ(page.size(), model.size());
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < model.size(); ++i) {
    ASSERT_EQ(page.name(i), model[i].name);
    ASSERT_EQ(page.member(i), model[i].member);
    bytes += model[i].name.size();
  }
  EXPECT_EQ(page.name_bytes(), bytes);
}

TEST(IndexPageTest, FindsNamesAsASortedVectorDoes) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    index_page page;
    std::vector<model_entry> model;
    for (unsigned step = 0; step < 300; ++step) {
      const std::string name = random_name(random);
      const auto lower = std::ranges::lower_bound(model, name, {}, &model_entry::name);
      const auto upper = std::ranges::upper_bound(model, name, {}, &model_entry::name);
      ASSERT_EQ(page.lower_bound(name), static_cast<std::size_t>(lower - model.begin()));
      ASSERT_EQ(page.upper_bound(name), static_cast<std::size_t>(upper - model.begin()));
      if (random() % 3 == 0 && lower != upper) {
        page.erase(page.lower_bound(name));
        model.erase(lower);
      } else {
        page.insert_member(page.upper_bound(name), name, word(step), word(step + 1000));
        model.insert(upper, {name, word(step)});
      }
      if (step % 50 == 49) {
        const std::size_t at = 1 + random() % (page.size() - 1);
        index_page rest = page.split_off(at);
        expect_equal(rest, {model.begin() + static_cast<std::ptrdiff_t>(at), model.end()});
        page.append(std::move(rest), {});
      }
    }
    expect_equal(page, model);
    expect_equal(index_page(page), model);
  }
}

std::vector<std::byte> packed_page(const index_page& page) {
  byte_writer out;
  out.put_byte(static_cast<std::uint8_t>(page.level()));
  page.pack(out, page_id);
  return {out.bytes().begin(), out.bytes().end()};
}

owned_body load_page(std::span<const std::byte> state) {
  owned_body body(B_page::self_class.create(nullptr));
  byte_reader in(state, page_id);
  B_page::self_class.unpack(*body, in);
  return body;
}

const index_page& page_of(const owned_body& body) {
  return static_cast<const B_page&>(*body).page();
}

index_page sample_leaf() {
  index_page leaf;
  std::mt19937 random(1);
  for (unsigned i = 0; i < 40; ++i) {
    const std::string name = random_name(random);
    leaf.insert_member(leaf.upper_bound(name), name, word(i), i % 5 == 0 ? ref_word() : word(i));
  }
  return leaf;
}

index_page sample_upper() {
  index_page upper(2);
  upper.insert_page(0, "never looked at", word(1), 10);
  upper.insert_page(1, "b", word(2), 20);
  upper.insert_page(2, "b", word(3), 30);
  return upper;
}

TEST(IndexPageTest, IsTheSameAfterPackingAndUnpacking) {
  const index_page leaf = sample_leaf();
  const owned_body leaf_body = load_page(packed_page(leaf));
  ASSERT_EQ(page_of(leaf_body).size(), leaf.size());
  for (std::size_t i = 0; i < leaf.size(); ++i) {
    EXPECT_EQ(page_of(leaf_body).name(i), leaf.name(i));
    EXPECT_EQ(page_of(leaf_body).target(i), leaf.target(i));
    EXPECT_EQ(page_of(leaf_body).lower_bound(leaf.name(i)), leaf.lower_bound(leaf.name(i)));
  }
  const owned_body upper_body = load_page(packed_page(sample_upper()));
  const index_page& upper = page_of(upper_body);
  EXPECT_EQ(upper.level(), 2U);
  EXPECT_EQ(upper.total(), 60U);
  EXPECT_EQ(upper.page(2), word(3));
  EXPECT_EQ(upper.lower_bound("a"), 1U);  // below the first bound: page 0
  EXPECT_EQ(upper.upper_bound("b"), 3U);
}

TEST(IndexPageTest, IsSearchedInItsPackedForm) {
  const index_page leaf = sample_leaf();
  byte_writer out;
  leaf.pack(out, page_id);
  std::vector<std::byte> state(out.bytes().begin(), out.bytes().end());
  std::vector<std::string> names{"", "a", "zz"};
  for (std::size_t i = 0; i < leaf.size(); ++i) {
    names.emplace_back(leaf.name(i));
    names.push_back(names.back() + '\0');
  }
  const auto find = [&](std::string_view name) {
    return index_page::find_packed(byte_reader(state, page_id), name);
  };
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::size_t at = leaf.lower_bound(name);
    const auto found = find(name);
    ASSERT_EQ(found.has_value(), at < leaf.size() && leaf.name(at) == name);
    if (!found) continue;
    EXPECT_EQ(found->name, name);
    EXPECT_EQ(found->member, leaf.member(at));
    EXPECT_EQ(found->target, leaf.target(at));
  }
  for (std::size_t bit = 0; bit < state.size() * 8; ++bit) {
    state[bit / 8] ^= std::byte{1} << bit % 8;
    for (const std::string& name : names) {
      const auto code = code_of([&] {
        const auto found = find(name);
        EXPECT_TRUE(!found || found->name == name);
      });
      EXPECT_TRUE(!code || code == error_code::corrupt_data) << bit;
    }
    state[bit / 8] ^= std::byte{1} << bit % 8;
  }
}

TEST(IndexPageTest, RefusesWhatNoPageIs) {
  struct test_case {
    const char* what;
    std::function<void(byte_writer&)> write;
  };
  const auto entry = [](byte_writer& out, const char* name) {
    out.put_text(name);
    out.put_reference(page_id + 1, page_id);
    out.put_reference(page_id + 2, page_id);
  };
  const test_case cases[] = {
      {"out of order",
       [&](byte_writer& out) {
         out.put_byte(0), out.put_unsigned(2), entry(out, "b"), entry(out, "a"), out.put_byte(0);
       }},
      {"of two kinds",
       [&](byte_writer& out) {
         out.put_byte(0), out.put_unsigned(1), entry(out, "b"), out.put_unsigned(1),
             entry(out, "a");
       }},
      {"null member",
       [](byte_writer& out) {
         out.put_byte(0), out.put_unsigned(1), out.put_text("a"), out.put_byte(0), out.put_byte(0),
             out.put_byte(0);
       }},
      {"empty upper page",
       [](byte_writer& out) { out.put_byte(1), out.put_byte(0), out.put_byte(0); }},
      {"level 64", [](byte_writer& out) { out.put_byte(64), out.put_byte(0), out.put_byte(0); }},
      {"name too long",
       [&](byte_writer& out) {
         out.put_byte(0), out.put_unsigned(1), entry(out, std::string(65'536, 'x').c_str()),
             out.put_byte(0);
       }},
      {"more members than there can be",
       [](byte_writer& out) {
         out.put_byte(1), out.put_byte(0), out.put_unsigned(1), out.put_text(""),
             out.put_reference(page_id + 1, page_id), out.put_unsigned(std::uint64_t{1} << 60);
       }},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.what);
    byte_writer out;
    c.write(out);
    EXPECT_EQ(code_of([&] { load_page(out.bytes()); }), error_code::corrupt_data);
  }
}

TEST(IndexPageTest, SurvivesEveryFlippedBit) {
  for (const index_page& page : {sample_leaf(), sample_upper()}) {
    std::vector<std::byte> state = packed_page(page);
    for (std::size_t bit = 0; bit < state.size() * 8; ++bit) {
      state[bit / 8] ^= std::byte{1} << bit % 8;
      const auto code = code_of([&] {
        const owned_body body = load_page(state);
        const index_page& loaded = page_of(body);
        for (std::size_t i = 0; i < loaded.size(); ++i) {
          EXPECT_LE(loaded.lower_bound(loaded.name(i)), std::max<std::size_t>(i, 1));
        }
      });
      EXPECT_TRUE(!code || code == error_code::corrupt_data) << bit;
      state[bit / 8] ^= std::byte{1} << bit % 8;
    }
  }
}

}  // namespace
}  // namespace goods
