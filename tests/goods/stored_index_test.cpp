#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <goods/B_tree.h>
#include <goods/byte_writer.h>
#include <goods/database.h>
#include <goods/obj_storage.h>

#include "errors_matcher.h"
#include "goods/layout_catalog.h"
#include "support/test_database.h"

namespace goods {
namespace {

// The index that the root of a database leads to. (A cell refers to whatever it is given: classes
// are checked when something is looked at.)
ref<B_tree> stored_index(test_session& session) {
  const ref<cell> root = session.root();
  if (!root->next.is_null()) return checked_cast<B_tree>(object_ref(root->next));
  ref<B_tree> index = B_tree::create(root, 2);
  modify(root)->next = ref<cell>::trusted(index);
  return index;
}

using model = std::multimap<std::string, std::int64_t>;

void insert(const ref<B_tree>& index, const std::string& name, std::int64_t value) {
  modify(index)->insert(set_member::create(new_cell(value), name));
}

model content(const ref<B_tree>& index) {
  model found;
  B_tree::iterate(index, [&](const held_entry& entry) {
    found.emplace(entry.name, checked_cast<cell>(object_ref(entry.target))->value);
    return true;
  });
  EXPECT_EQ(found.size(), index->count());
  return found;
}

TEST(StoredIndexTest, IsAfterReopeningWhatWasCommitted) {
  const test_store store(1, "?durability=relaxed");
  model committed;
  std::mt19937 random(3);
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    test_session session(store);
    const ref<B_tree> index = stored_index(session);
    ASSERT_EQ(content(index), committed);
    for (int change = 0; change < 4; ++change) {
      model next = committed;
      session.session().begin_transaction();
      for (int i = 0; i < 300; ++i) {
        const std::string name = "name " + std::to_string(random() % 2000);
        const auto entry = index->find(name);
        if (entry && random() % 3 == 0) {
          ASSERT_TRUE(modify(index)->remove(entry->member));
          next.erase(next.find(name));
        } else {
          insert(index, name, i);
          next.emplace(name, i);
        }
      }
      EXPECT_EQ(content(index), next);
      if (change == 3) {
        session.session().abort_transaction();
      } else {
        session.session().end_transaction();
        committed = next;
      }
      ASSERT_EQ(content(index), committed);
    }
  }
}

TEST(StoredIndexTest, ReadersSeeWholeStatesWhileItChanges) {
  const test_store store(1, "?durability=relaxed");
  test_session session(store);
  const ref<B_tree> index = stored_index(session);
  // Every state holds, for each i below 500, exactly one of "i" and "i'".
  session.session().atomically([&] {
    for (int i = 0; i < 500; ++i) insert(index, std::to_string(i), i);
  });
  std::atomic<bool> stop = false;
  std::atomic<int> reads = 0;
  const auto check = [&](reader& in) {
    const B_tree* const tree = in.get(index);
    int right = 0;
    for (int i = 0; i < 500; i += 7) {
      const std::string name = std::to_string(i);
      right += tree->find(in, name).has_value() != tree->find(in, name + "'").has_value() ? 1 : 0;
    }
    return right + (tree->count() == 500 ? 0 : 1000);
  };
  std::vector<std::jthread> readers;
  readers.reserve(2);
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      session.db().attach();
      while (!stop) {
        EXPECT_EQ(session.session().read(check), 72);
        ++reads;
      }
      session.db().detach();
    });
  }
  std::mt19937 random(1);
  for (int i = 0; i < 300 || reads < 20; ++i) {
    session.session().atomically([&] {
      const std::string name = std::to_string(random() % 500);
      const std::string other = name + "'";
      const auto entry = index->find(name);
      const auto member = entry ? entry->member : index->find(other)->member;
      ASSERT_TRUE(modify(index)->remove(member));
      insert(index, entry ? other : name, i);
    });
  }
  stop = true;
}

TEST(StoredIndexTest, RefusesPagesThatContradictEachOther) {
  struct test_case {
    const char* what;
    class_descriptor* cls;
    std::function<void(byte_writer&, object_id self)> write;
  };
  const test_case cases[] = {
      {"a page that refers to itself", &B_page::self_class,
       [](byte_writer& out, object_id self) {
         out.put_byte(1), out.put_byte(0), out.put_unsigned(1), out.put_text("");
         out.put_reference(self, self), out.put_unsigned(64);
       }},
      {"a leaf with another number of entries", &B_page::self_class,
       [](byte_writer& out, object_id self) {
         out.put_byte(0), out.put_unsigned(1), out.put_text("a"), out.put_reference(self, self);
         out.put_byte(0), out.put_byte(0);
       }},
      {"an empty leaf", &B_page::self_class,
       [](byte_writer& out, object_id) { out.put_byte(0), out.put_byte(0), out.put_byte(0); }},
      {"another class", &set_member::self_class,
       [](byte_writer& out, object_id) { out.put_byte(0), out.put_byte(0), out.put_text("x"); }},
  };
  for (const test_case& c : cases) {
    SCOPED_TRACE(c.what);
    const test_store store(1, "?durability=relaxed");
    object_id page = 0;
    {
      test_session session(store);
      const ref<B_tree> index = stored_index(session);
      session.session().atomically([&] {
        for (int i = 0; i < 100; ++i) insert(index, std::to_string(1000 + i), i);
      });
      obj_storage& storage = session.db().storage(0);
      const class_number number = storage.catalog().number_for(B_page::self_class);
      storage.dbs().for_each([&](const object_state& state) {
        if (state.layout != number) return true;
        page = make_object_id(0, state.number);  // the first leaf
        return false;
      });
      ASSERT_NE(page, 0U);
      byte_writer out;
      c.write(out, page);
      const object_change change{.number = number_of(page),
                                 .layout = storage.catalog().number_for(*c.cls),
                                 .body = out.bytes()};
      storage.dbs().commit({.changes = {&change, 1}, .origin = nullptr, .attachment = nullptr});
    }
    test_session session(store);
    const ref<B_tree> index = stored_index(session);
    int refused = 0;
    const auto expect_refusal = [&](const auto& work) {
      if (code_of(work) == error_code::corrupt_data) ++refused;
    };
    expect_refusal([&] { content(index); });
    expect_refusal([&] { index->entries_before(nullptr, 200); });
    const std::string first = "1000", last = "1099";
    expect_refusal([&] {
      index->find(first);
      index->find(last);
    });
    expect_refusal([&] {
      insert(index, first, 1);
      insert(index, last, 1);
    });
    EXPECT_EQ(refused, 4);
    EXPECT_EQ(index->count(), 100U);  // what failed was rolled back
  }
}

}  // namespace
}  // namespace goods
