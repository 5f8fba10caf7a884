#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>

#include <goods/object_handle.h>
#include <goods/set_member.h>

#include "errors_matcher.h"
#include "goods/class_layout.h"
#include "sample_class.h"

namespace goods {
namespace {

constexpr object_id self = make_object_id(1, 0x20000);

class reference_list : public ref_visitor {
 public:
  void visit(ref_word& word, ref_kind kind) override {
    found.emplace_back(word.is_id() ? word.id() : 0, kind);
  }
  std::vector<std::pair<object_id, ref_kind>> found;
};

// Puts an identifier into a reference member, as unpacking does.
void point(object_ref& reference, object_id id) {
  *reinterpret_cast<ref_word*>(&reference) = ref_word::of(id);
}

void fill(sample_object& body) {
  body.tiny = -7;
  body.flag = true;
  body.whole = -123456;
  body.wide = 1ULL << 63;
  body.real = 0.1;
  body.single = -2.5F;
  point(body.link, make_object_id(1, 0x20001));
  body.numbers = {1, 1000, 0xFFFFFFFF};
  std::strcpy(body.letters.data(), "some text");
  body.parts[0].number = 5;
  body.parts[1].number = -5;
  point(body.parts[1].link, make_object_id(2, 0x30000));
}

TEST(ClassDescriptorTest, UnpacksAndCopiesEveryKindOfMember) {
  const auto cls = make_sample_class();
  const owned_body original(cls->create(nullptr));
  fill(static_cast<sample_object&>(*original));
  const std::vector<std::byte> state = packed(*original, self);

  const owned_body loaded(cls->create(nullptr));
  byte_reader in(state, self);
  cls->unpack(*loaded, in);
  const owned_body copy(cls->create(nullptr));
  cls->copy_state(*loaded, *copy);
  for (const object* body : {loaded.get(), copy.get()}) {
    const auto& sample = static_cast<const sample_object&>(*body);
    EXPECT_EQ(sample.tiny, -7);
    EXPECT_TRUE(sample.flag);
    EXPECT_EQ(sample.wide, 1ULL << 63);
    EXPECT_EQ(sample.real, 0.1);
    EXPECT_STREQ(sample.letters.data(), "some text");
    EXPECT_EQ(sample.link.id(), make_object_id(1, 0x20001));
    EXPECT_EQ(sample.parts[1].number, -5);
    EXPECT_EQ(packed(*body, self), state);
  }

  reference_list list;
  cls->visit_references(*loaded, list);
  EXPECT_EQ(list.found, (decltype(list.found){{make_object_id(1, 0x20001), ref_kind::counted},
                                              {make_object_id(2, 0x30000), ref_kind::counted}}));
}

TEST(ClassDescriptorTest, CountsTheHandlesOfACopy) {
  const auto cls = make_sample_class();
  const ref<set_member> target = set_member::create(nullptr, "held");
  owned_body original(cls->create(nullptr));
  static_cast<sample_object&>(*original).link = target;
  owned_body copy(cls->create(nullptr));
  cls->copy_state(*original, *copy);
  original.reset();
  EXPECT_EQ(target->key(), "held");
  EXPECT_EQ(static_cast<sample_object&>(*copy).link, target);
  EXPECT_EQ(code_of([&] { packed(*copy, self); }), error_code::usage);  // not stored yet
  copy.reset();
  EXPECT_TRUE(target.handle()->is_referenced());
}

TEST(ClassDescriptorTest, RefusesStatesThatDoNotFit) {
  const auto cls = make_sample_class();
  const owned_body original(cls->create(nullptr));
  fill(static_cast<sample_object&>(*original));
  std::vector<std::byte> state = packed(*original, self);
  for (std::size_t length = 0; length < state.size(); ++length) {
    SCOPED_TRACE(length);
    const owned_body body(cls->create(nullptr));
    byte_reader in({state.data(), length}, self);
    EXPECT_EQ(code_of([&] { cls->unpack(*body, in); }), error_code::corrupt_data);
  }
  state.push_back(std::byte{0});
  const owned_body body(cls->create(nullptr));
  byte_reader in(state, self);
  EXPECT_EQ(code_of([&] { cls->unpack(*body, in); }), error_code::corrupt_data);
}

TEST(ClassDescriptorTest, KnowsItsAncestorsInWhateverOrderClassesAreMade) {
  // The derived class exists before its base does, as static objects of two files may.
  alignas(class_descriptor) static std::byte room[sizeof(class_descriptor)];
  auto* base = reinterpret_cast<class_descriptor*>(room);
  class_descriptor derived("late_derived", 64, nullptr, nullptr, nullptr, base);
  new (room) class_descriptor("late_base", 64, nullptr, nullptr, nullptr, &object::self_class);
  EXPECT_TRUE(base->is_superclass_for(derived));
  EXPECT_TRUE(object::self_class.is_superclass_for(derived));
  EXPECT_TRUE(derived.is_superclass_for(derived));
  EXPECT_FALSE(derived.is_superclass_for(*base));
  EXPECT_FALSE(set_member::self_class.is_superclass_for(derived));
  base->~class_descriptor();
}

TEST(ClassDescriptorTest, FindsTheNewestClassOfANameAndNoHelpers) {
  EXPECT_EQ(class_descriptor::find("find_me"), nullptr);
  const auto first = make_sample_class("find_me");
  {
    const auto second = make_sample_class("find_me");
    EXPECT_EQ(class_descriptor::find("find_me"), second.get());
    EXPECT_NE(first->index(), second->index());
  }
  EXPECT_EQ(class_descriptor::find("find_me"), first.get());
  const class_descriptor helper("find_me_t", 64, nullptr, nullptr, nullptr, nullptr,
                                class_descriptor::helper_class);
  EXPECT_EQ(class_descriptor::find("find_me_t"), nullptr);
  const auto no_helper = make_sample_class("find_me_t");
  EXPECT_EQ(class_descriptor::find("find_me_t"), no_helper.get());
  class_descriptor::register_class_alias("find_me_formerly", "find_me");
  EXPECT_EQ(class_descriptor::find("find_me_formerly"), first.get());
}

TEST(ClassDescriptorTest, DropsMembersThatTheBaseDeclaresAlready) {
  const auto base = make_sample_class("repeating_base", [](field_descriptor*& fields) {
    field_descriptor* real = nullptr;
    for_each_field(fields, [&](field_descriptor& field) {
      if (std::string_view(field.name()) == "real") real = &field;
    });
    field_descriptor::remove_from(fields, *real);
    field_descriptor::destroy_list(std::exchange(fields, real));
  });
  field_descriptor* all = nullptr;
  const auto helper = make_sample_class("repeating_t");
  for_each_field(helper->fields(), [&](const field_descriptor& field) {
    (new field_descriptor(field))->append_to(all);
  });
  const class_descriptor derived("repeating", sizeof(sample_object), nullptr, nullptr, all,
                                 base.get());
  std::set<std::string> names;
  for_each_field(derived.fields(),
                 [&](const field_descriptor& field) { names.insert(field.name()); });
  EXPECT_EQ(names.size(), 10U);
  EXPECT_FALSE(names.contains("real"));
  EXPECT_EQ(derived.layout().fields.front().name, "real");  // the base's come first
  EXPECT_EQ(derived.layout().fields.size(), 11U);
}

}  // namespace
}  // namespace goods
