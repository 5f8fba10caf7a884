#include <gtest/gtest.h>

#include <string>

#include <goods/String.h>
#include <goods/object_handle.h>

#include "errors_matcher.h"
#include "sample_class.h"

namespace goods {
namespace {

TEST(StringTest, DoublesItsCapacityOrTakesWhatItNeeds) {
  const ref<String> text = String::create("abc");
  struct test_case {
    std::string set;
    std::size_t capacity;
  };
  const test_case cases[] = {{"0123456789", 11},
                             {"0123456789ab", 22},
                             {"", 22},
                             {std::string(21, 'x'), 22},
                             {std::string(100, 'y'), 101}};
  EXPECT_EQ(text->capacity(), 4U);
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.set);
    modify(text)->set(c.set);
    EXPECT_EQ(text->text(), c.set);
    EXPECT_STREQ(text->data(), c.set.c_str());
    EXPECT_EQ(text->capacity(), c.capacity);
  }
}

TEST(StringTest, AppendsAlsoFromItself) {
  const ref<String> text = String::create("ab");
  for (int i = 0; i < 10; ++i) modify(text)->append(std::string_view(text->text()).substr(1));
  std::string expected = "ab";
  for (int i = 0; i < 10; ++i) expected += expected.substr(1);
  EXPECT_EQ(text->text(), expected);
  modify(text)->set(std::string_view(text->text()).substr(3, 5));
  EXPECT_EQ(text->text(), "bbbbb");
}

TEST(StringTest, IsLoadedInOnePieceWithItsCapacity) {
  const std::string content("zero \0 inside", 13);
  const ref<String> text = String::create(content, 1000);
  const object_id self = make_object_id(0, 0x10001);
  byte_writer out;
  String::self_class.pack(*text.handle()->body(), out, self);
  EXPECT_EQ(out.size(), 2 + 1 + content.size());
  const owned_body body(String::self_class.create(nullptr, static_cast<unsigned>(out.size())));
  byte_reader in(out.bytes(), self);
  String::self_class.unpack(*body, in);
  auto& loaded = static_cast<String&>(*body);
  EXPECT_EQ(loaded.text(), content);
  EXPECT_EQ(loaded.capacity(), 1000U);
  EXPECT_EQ(loaded.varying_bytes(), out.size());  // the text lies behind the object
  loaded.append("!");
  EXPECT_EQ(loaded.text(), content + "!");
  const owned_body copy(String::self_class.create(nullptr));
  String::self_class.copy_state(loaded, *copy);
  EXPECT_EQ(static_cast<String&>(*copy).text(), content + "!");
  EXPECT_EQ(static_cast<String&>(*copy).capacity(), 1000U);
}

TEST(StringTest, RefusesATextOfMoreThanItsLimit) {
  const ref<String> text = String::create("kept");
  const std::string_view huge(text->data(), String::max_length + 1);  // never read
  EXPECT_EQ(code_of([&] { modify(text)->set(huge); }), error_code::storage_full);
  EXPECT_EQ(text->text(), "kept");
}

}  // namespace
}  // namespace goods
