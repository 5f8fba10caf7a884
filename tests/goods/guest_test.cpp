// Objects that are looked at in passing.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <goods/B_tree.h>
#include <goods/String.h>
#include <goods/obj_storage.h>
#include <goods/object_handle.h>

#include "goods/errors_matcher.h"
#include "goods/layout_catalog.h"
#include "support/test_database.h"

namespace goods {
namespace {

// An index that may be a guest.
class passing_index : public B_tree {
 public:
  static class_descriptor self_class;
  passing_index() : B_tree(self_class, nullptr, 2) {}
  passing_index(object_handle* handle, class_descriptor& cls) : B_tree(handle, cls) {}
};

class_descriptor passing_index::self_class("passing_index", sizeof(passing_index),
                                           &pessimistic_scheme, construct_object<passing_index>,
                                           nullptr, &B_tree::self_class, 0, true);

// Stores texts, each under its own name in an index that is the root. Returns where they are.
std::vector<ref_word> store_texts(test_session& session, const std::vector<std::string>& texts) {
  const ref<B_tree> index = B_tree::create(nullptr, 2);
  std::vector<ref<String>> made;
  for (const std::string& text : texts) {
    made.push_back(String::create(text));
    modify(index)->insert(set_member::create(made.back(), std::to_string(made.size())));
  }
  session.db().set_root(index);
  std::vector<ref_word> words;
  for (const ref<String>& text : made) words.push_back(ref_word::of(text.id()));
  return words;
}

std::string_view text_of(reader& in, ref_word word) {
  return static_cast<const String*>(in.look(word, String::self_class))->text();
}

// 5,000 of them, stored by a session that has ended.
struct many_texts {
  test_store store;
  std::vector<std::string> texts;
  std::vector<ref_word> words;

  many_texts() {
    for (int i = 0; i < 5000; ++i) texts.push_back("text " + std::to_string(i));
    test_session session(store);
    words = store_texts(session, texts);
  }
};

TEST(GuestTest, LeavesTheCacheAsItWas) {
  const many_texts stored;
  const auto& texts = stored.texts;
  const auto& words = stored.words;
  test_session session(stored.store);
  const auto wrong_texts = [&](bool in_passing, bool at_once) {
    return session.session().read([&](reader& in) {
      const std::unique_ptr<guest_scope> guests(in_passing ? new guest_scope(in) : nullptr);
      if (at_once) in.prefetch(words);
      std::size_t wrong = 0;
      for (std::size_t i = 0; i < words.size(); ++i) wrong += text_of(in, words[i]) != texts[i];
      return wrong;
    });
  };
  const std::size_t before = session.session().cached_bytes();
  EXPECT_EQ(wrong_texts(true, false), 0U);
  EXPECT_EQ(wrong_texts(true, true), 0U);
  EXPECT_EQ(session.session().cached_bytes(), before);
  EXPECT_EQ(wrong_texts(false, true), 0U);
  const std::size_t full = session.session().cached_bytes();
  EXPECT_GT(full, before + texts.size() * sizeof(String)) << "without guests they stay";
  EXPECT_EQ(wrong_texts(true, true), 0U) << "what is there is used";
  EXPECT_EQ(session.session().cached_bytes(), full);
}

TEST(GuestTest, ARoomTakesItsGuestsWithItAndNoOthers) {
  const many_texts stored;
  const auto& texts = stored.texts;
  const auto& words = stored.words;
  test_session session(stored.store);
  const std::size_t before = session.session().cached_bytes();
  session.session().read([&](reader& in) {
    const guest_scope guests(in);
    const object* const outside = in.look(words[4000], String::self_class);
    for (std::size_t first = 0; first < words.size(); first += 100) {
      const guest_room room(in);
      in.prefetch(std::span(words).subspan(first, 100));
      for (std::size_t i = first; i < first + 100; ++i) ASSERT_EQ(text_of(in, words[i]), texts[i]);
    }
    EXPECT_EQ(static_cast<const String*>(outside)->text(), texts[4000]);
    EXPECT_EQ(in.look(words[4000], String::self_class), outside);
    EXPECT_EQ(text_of(in, words[4001]), texts[4001]);
  });
  EXPECT_EQ(session.session().cached_bytes(), before);
}

TEST(GuestTest, OnlyWhereTheClassAllowsItAndNoTransactionIsOpen) {
  const test_store store;
  object_id text = 0;
  object_id number = 0;
  {
    test_session session(store);
    text = number_of(store_texts(session, {"a"})[0].id());
    const ref<cell> made = new_cell(5);
    object_ref root;
    session.db().get_root(root);
    modify(checked_cast<B_tree>(root))->insert(set_member::create(made, "number"));
    number = made.id();
  }
  test_session session(store);
  const auto has_handle = [&](object_id id, const class_descriptor& cls) {
    return session.session().read([&](reader& in) {
      const guest_scope guests(in);
      return in.look(ref_word::of(id), cls)->handle() != nullptr;
    });
  };
  EXPECT_FALSE(has_handle(text, String::self_class));
  EXPECT_TRUE(has_handle(number, cell::self_class));
  session.session().begin_transaction();
  EXPECT_TRUE(has_handle(text, String::self_class));
  // It is locked: a write of another session waits in vain.
  std::thread([&] {
    test_session other(store);
    other.session().set_lock_timeout(std::chrono::milliseconds(0));
    const auto held = checked_cast<String>(other.session().find(text));
    EXPECT_EQ(code_of([&] { modify(held)->set("b"); }), error_code::lock_timeout);
  }).join();
  session.session().end_transaction();
}

// Searched as it is stored, unpacked when more is wanted.
TEST(GuestTest, AnIndexAnswersAsOneInTheCacheDoes) {
  for (const unsigned size : {0U, 1U, 20U, 3000U}) {  // the last one has pages
    SCOPED_TRACE(size);
    const test_store store;
    {
      test_session session(store);
      const ref<passing_index> index(new passing_index);
      for (unsigned i = 0; i < size; ++i) {
        modify(index)->insert(set_member::create(String::create("x"), std::to_string(i * 2)));
      }
      session.db().set_root(index);
    }
    test_session session(store);
    session.session().read([&](reader& in) {
      const guest_scope guests(in);
      const auto& index = static_cast<const B_tree&>(
          *in.look(ref_word::of(make_object_id(0, root_object_number)), passing_index::self_class));
      ASSERT_EQ(index.handle(), nullptr);
      EXPECT_EQ(index.count(), size);
      for (unsigned i = 0; i < std::min(size * 2, 200U); ++i) {
        const auto entry = index.find(in, std::to_string(i));
        ASSERT_EQ(entry.has_value(), i % 2 == 0) << i;
        if (!entry) continue;
        EXPECT_EQ(entry->name, std::to_string(i));
        EXPECT_EQ(text_of(in, entry->target), "x");
      }
      EXPECT_EQ(index.entries_after(in, nullptr, size + 1).size(), size);
      EXPECT_EQ(index.find(in, "0").has_value(), size > 0) << "unpacked by now";
    });
  }
}

TEST(GuestTest, WhatIsComeToAgainSoonIsKept) {
  const test_store store;
  std::vector<ref_word> words;
  {
    test_session session(store);
    words = store_texts(session, {"a", "b"});
  }
  test_session session(store);
  const auto is_guest = [&](ref_word word) {
    return session.session().read([&](reader& in) {
      const guest_scope guests(in, guest_scope::policy::at_first);
      return in.look(word, String::self_class)->handle() == nullptr;
    });
  };
  EXPECT_TRUE(is_guest(words[0]));
  EXPECT_TRUE(is_guest(words[1]));
  EXPECT_FALSE(is_guest(words[0]));
  EXPECT_FALSE(is_guest(words[1]));
}

TEST(GuestTest, WhatIsMissingOrDamagedIsAnError) {
  const test_store store;
  test_session session(store);
  const ref_word text = store_texts(session, {"whole"})[0];
  dbs_storage& storage = session.db().storage(0).dbs();
  const class_number layout = session.db().storage(0).catalog().number_for(String::self_class);
  const object_number damaged = storage.allocate(1);
  const std::vector<std::byte> bytes(3, std::byte{0xFF});
  const object_change change{damaged, layout, bytes};
  storage.commit({.changes = {&change, 1}, .origin = nullptr, .attachment = nullptr});

  const auto code_for = [&](ref_word word, const class_descriptor& cls) {
    return code_of([&] {
      session.session().read([&](reader& in) {
        const guest_scope guests(in);
        in.look(text, String::self_class);  // there to be freed
        in.look(word, cls);
      });
    });
  };
  const ref_word missing = ref_word::of(make_object_id(0, storage.allocate(1)));
  EXPECT_EQ(code_for(text, String::self_class), std::nullopt);
  EXPECT_EQ(code_for(text, B_tree::self_class), error_code::corrupt_data);
  EXPECT_EQ(code_for(missing, String::self_class), error_code::object_deleted);
  EXPECT_EQ(code_for(ref_word::of(damaged), String::self_class), error_code::corrupt_data);
}

// Two texts that are equal in every committed state, written by two sessions, one of them the
// reader's own. One reader takes both as guests, one with one call, one has one of them in the
// cache.
TEST(GuestTest, IsOfOneStateWithEverythingElseInTheRound) {
  constexpr int commits = 300;
  const test_store store;
  test_session session(store);
  const std::vector<ref_word> words = store_texts(session, {"0", "0"});
  std::atomic<int> writing{2};
  std::atomic<int> torn{0};
  std::atomic<int> stale{0};
  std::atomic<int> newest{0};

  const auto write = [&](cache_manager& in) {
    in.attach();
    const auto a = checked_cast<String>(in.find(words[0].id()));
    const auto b = checked_cast<String>(in.find(words[1].id()));
    for (int i = 0; i < commits; ++i) {
      int written = 0;
      in.atomically([&] {
        const auto first = modify(a);
        written = std::stoi(std::string(first->text())) + 1;
        first->set(std::to_string(written));
        modify(b)->set(std::to_string(written));
      });
      int known = newest;
      while (known < written && !newest.compare_exchange_weak(known, written)) continue;
    }
    --writing;
  };
  const auto read = [&](int how) {
    session.session().attach();
    while (writing > 0) {
      const int least = newest;
      const auto [first, second] = session.session().read([&](reader& in) {
        const auto number = [&](ref_word word) {
          return std::stoi(std::string(text_of(in, word)));
        };
        const int before = how == 0 ? number(words[0]) : 0;
        const guest_scope guests(in);
        if (how == 1) in.prefetch(words);
        return std::pair(how == 0 ? before : number(words[0]), number(words[1]));
      });
      if (first != second) ++torn;
      if (first < least) ++stale;
    }
    cache_manager::detach();
  };
  test_session other(store);
  std::vector<std::thread> threads;
  threads.emplace_back([&] { write(other.session()); });
  threads.emplace_back([&] { write(session.session()); });
  for (int how = 0; how < 3; ++how) threads.emplace_back(read, how);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(stale, 0);
  EXPECT_EQ(newest, 2 * commits);
}

}  // namespace
}  // namespace goods
