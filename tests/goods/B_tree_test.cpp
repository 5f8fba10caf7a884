#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <goods/B_tree.h>
#include <goods/cache_manager.h>
#include <goods/object_handle.h>

#include "errors_matcher.h"
#include "goods/B_tree_writer.h"

namespace goods {
namespace {

// An index beside what it must hold: names in order, equal ones as they came.
class B_treeTest : public ::testing::Test {
 protected:
  ref<set_member> add(const std::string& name) {
    ref<set_member> member = set_member::create(nullptr, name);
    modify(tree_)->insert(member);
    model_.emplace(name, member);
    return member;
  }

  void remove(std::multimap<std::string, ref<set_member>>::iterator entry) {
    EXPECT_TRUE(modify(tree_)->remove(entry->second));
    EXPECT_TRUE(entry->second->owner().is_null());
    model_.erase(entry);
  }

  // Where it stands, if its place is there, otherwise by removing and inserting it.
  bool rename(std::multimap<std::string, ref<set_member>>::iterator entry, const std::string& name,
              bool is_unique) {
    const ref<set_member> member = entry->second;
    const bool in_place =
        B_tree_writer(*modify(tree_)).rename(entry->first, member, name, is_unique);
    model_.erase(entry);
    if (in_place) {
      EXPECT_FALSE(is_unique && model_.contains(name));
      modify(member)->set_key(name);
    } else {
      EXPECT_TRUE(modify(tree_)->remove(member));
      modify(member)->set_key(name);
      modify(tree_)->insert(member);
    }
    model_.emplace(name, member);
    return in_place;
  }

  auto any(std::mt19937& random) {
    return std::next(model_.begin(), static_cast<std::ptrdiff_t>(random() % model_.size()));
  }

  void expect_equal_to_model() {
    ASSERT_EQ(tree_->count(), model_.size());
    auto expected = model_.begin();
    B_tree::iterate(tree_, [&](const held_entry& entry) {
      EXPECT_EQ(entry.name, expected->first);
      EXPECT_EQ(entry.member, expected->second);
      ++expected;
      return true;
    });
    EXPECT_EQ(expected, model_.end());
    const std::vector<held_entry> backwards = tree_->entries_before(nullptr, model_.size() + 1);
    ASSERT_EQ(backwards.size(), model_.size());
    EXPECT_TRUE(
        std::equal(backwards.begin(), backwards.end(), model_.rbegin(),
                   [](const held_entry& a, const auto& b) { return a.member == b.second; }));
  }

  // Walks over all pages: their number and largest size, and that each is within bounds.
  struct page_statistics {
    std::size_t pages = 0, entries = 0, largest = 0;
    unsigned levels = 0;
  };
  page_statistics statistics() {
    class page_counter : public ref_visitor {
     public:
      void visit(ref_word& word, ref_kind) override {
        object* const body = word.is_handle() ? word.handle()->body() : nullptr;
        if (body == nullptr || &body->cls() != &B_page::self_class) return;
        const index_page& page = static_cast<B_page*>(body)->page();
        ++found.pages;
        found.levels = std::max(found.levels, page.level() + 1);
        if (page.is_leaf()) found.entries += page.size();
        found.largest = std::max(found.largest, page.size());
        body->cls().visit_references(*body, *this);
      }
      page_statistics found;
    };
    page_counter counter;
    object* const root = tree_.handle()->body();
    root->cls().visit_references(*root, counter);
    return counter.found;
  }

  ref<B_tree> tree_ = B_tree::create(nullptr, 2);
  std::multimap<std::string, ref<set_member>> model_;
};

std::string numbered(unsigned i) {
  std::string digits = std::to_string(i);
  return "element_" + std::string(8 - digits.size(), '0') + digits;
}

TEST_F(B_treeTest, BehavesLikeASortedMultimap) {
  for (unsigned seed = 0; seed < 4; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    // Few different names make equal ones span pages.
    const unsigned names = seed % 2 == 0 ? 40 : 5000;
    for (unsigned step = 0; step < 6000; ++step) {
      const bool shrinks = step % 3000 >= 2000;
      if (!model_.empty() && random() % 10 < (shrinks ? 9 : 2)) {
        remove(any(random));
      } else {
        add("n" + std::to_string(random() % names));
      }
      if (step % 500 == 0) expect_equal_to_model();
      const std::string name = "n" + std::to_string(random() % names);
      const auto lower = model_.lower_bound(name);
      const auto found = tree_->find(name);
      ASSERT_EQ(found.has_value(), lower != model_.end() && lower->first == name);
      if (found) {
        EXPECT_EQ(found->member, lower->second);
      }
      const auto at_least = tree_->lower_bound(name);
      ASSERT_EQ(at_least.has_value(), lower != model_.end());
      if (at_least) {
        EXPECT_EQ(at_least->member, lower->second);
      }
      const auto rank = read_here([&](reader& in) { return in.get(tree_)->rank(in, name); });
      if (step % 50 == 0) {
        EXPECT_EQ(rank, static_cast<std::uint64_t>(std::distance(model_.begin(), lower)));
        const auto at = tree_->at(rank);
        EXPECT_EQ(at.has_value(), lower != model_.end());
        if (at) {
          EXPECT_EQ(at->member, lower->second);
        }
      }
    }
    while (!model_.empty()) remove(any(random));
    expect_equal_to_model();
    EXPECT_EQ(statistics().pages, 0U);
  }
}

TEST_F(B_treeTest, RenamesEntriesWhereTheyStand) {
  for (unsigned seed = 0; seed < 4; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const unsigned names = seed % 2 == 0 ? 40 : 5000;
    for (unsigned i = 0; i < 2000; ++i) add("n" + std::to_string(random() % names));
    unsigned in_place = 0;
    for (unsigned step = 0; step < 4000; ++step) {
      const auto entry = any(random);
      const bool is_near = random() % 2 == 0;
      const std::string name =
          is_near ? entry->first + "!" : "n" + std::to_string(random() % names);
      if (rename(entry, name, random() % 2 == 0)) ++in_place;
      if (step % 500 == 0) expect_equal_to_model();
    }
    EXPECT_GT(in_place, 20U);
    EXPECT_LT(in_place, 3900U);
    while (!model_.empty()) remove(any(random));
  }
}

TEST_F(B_treeTest, AnAscendingLoadFillsPagesThatWidenAsItGrows) {
  for (unsigned i = 0; i < 64; ++i) add(numbered(i));
  EXPECT_EQ(statistics().pages, 0U);  // all inside the index itself
  for (unsigned i = 64; i < 40'000; ++i) add(numbered(i));
  const page_statistics found = statistics();
  EXPECT_EQ(found.entries, 40'000U);
  EXPECT_EQ(found.largest, B_tree::max_page_entries);
  EXPECT_LE(found.pages, 40'000U / 200);
  for (unsigned i = 0; i < 40'000; i += 997) {
    EXPECT_EQ(tree_->at(i)->name, numbered(i));
    EXPECT_EQ(tree_->find(numbered(i))->member, model_.find(numbered(i))->second);
  }
  EXPECT_FALSE(tree_->find("element_0000000"));
  EXPECT_FALSE(tree_->at(40'000));
}

TEST_F(B_treeTest, ALargePageNumberMakesWidePagesAtOnce) {
  tree_ = B_tree::create(nullptr, 146);
  for (unsigned i = 0; i < 292; ++i) add(numbered(i));
  EXPECT_EQ(statistics().pages, 0U);
  add(numbered(292));
  EXPECT_EQ(statistics().pages, 2U);
  expect_equal_to_model();
}

TEST_F(B_treeTest, TakesNamesOfEveryLengthInAnyOrder) {
  std::mt19937 random(7);
  for (const std::size_t length : {0U, 1U, 65'534U, 65'535U}) {
    for (unsigned i = 0; i < 60; ++i) {
      std::string name(length, 'x');
      for (std::size_t k = length < 4 ? 0 : length - 4; k < length; ++k) {
        name[k] = static_cast<char>(random());
      }
      add(name);
    }
  }
  expect_equal_to_model();
  EXPECT_EQ(statistics().entries, 240U);
  EXPECT_LE(statistics().levels, 12U);
  EXPECT_EQ(code_of([] { set_member::create(nullptr, std::string(65'536, 'x')); }),
            error_code::usage);
  while (!model_.empty()) remove(any(random));
  EXPECT_EQ(statistics().pages, 0U);
}

TEST_F(B_treeTest, EqualNamesKeepTheOrderOfTheirInsertionAcrossPages) {
  for (unsigned i = 0; i < 500; ++i) add("same");
  add("samd");
  add("samf");
  expect_equal_to_model();
  const auto batch = tree_->entries_after(nullptr, 300);
  const index_position position(batch[250]);
  const auto rest = tree_->entries_after(&position, 1);
  EXPECT_EQ(rest.at(0).member, batch[251].member);
  const auto before = tree_->entries_before(&position, 1);
  EXPECT_EQ(before.at(0).member, batch[249].member);
}

TEST_F(B_treeTest, AWalkGoesOnWhereItsEntryWas) {
  for (unsigned i = 0; i < 1000; ++i) add(numbered(i));
  std::vector<std::string> seen;
  B_tree::iterate(tree_, [&](const held_entry& entry) {
    seen.push_back(entry.name);
    remove(model_.find(entry.name));
    if (seen.size() == 500) add(numbered(2000));
    return seen.size() < 1001;
  });
  ASSERT_EQ(seen.size(), 1001U);
  EXPECT_TRUE(std::ranges::is_sorted(seen));
  EXPECT_EQ(tree_->count(), 0U);

  for (unsigned i = 0; i < 10; ++i) add(numbered(i));
  const index_position missing(numbered(4) + "x");
  EXPECT_EQ(tree_->entries_after(&missing, 1).at(0).name, numbered(5));
  EXPECT_EQ(tree_->entries_before(&missing, 1).at(0).name, numbered(4));
  const index_position exact(numbered(4));
  EXPECT_EQ(tree_->entries_after(&exact, 1).at(0).name, numbered(4));
  EXPECT_EQ(tree_->entries_before(&exact, 1).at(0).name, numbered(4));
  const index_position first(numbered(0), model_.begin()->second);
  EXPECT_TRUE(tree_->entries_before(&first, 5).empty());
}

TEST_F(B_treeTest, ReplacesAndUpdatesInPlace) {
  for (unsigned i = 0; i < 300; ++i) add("same");
  const auto middle = std::next(model_.begin(), 150);
  const ref<set_member> next = set_member::create(tree_, "same");
  const ref<set_member> old = middle->second;
  EXPECT_TRUE(modify(tree_)->replace(old, next));
  middle->second = next;
  expect_equal_to_model();
  EXPECT_TRUE(old->owner().is_null());
  EXPECT_EQ(next->owner(), tree_);
  EXPECT_EQ(tree_->at(150)->target, tree_);
  modify(next)->set_target(nullptr);
  EXPECT_TRUE(modify(tree_)->update(next));
  EXPECT_TRUE(tree_->at(150)->target.is_null());

  const ref<set_member> renamed = set_member::create(nullptr, "zebra");
  EXPECT_TRUE(modify(tree_)->replace(next, renamed));
  EXPECT_EQ(tree_->at(299)->member, renamed);
  EXPECT_FALSE(modify(tree_)->replace(next, set_member::create(nullptr, "same")));
  EXPECT_FALSE(modify(tree_)->remove(next));
  EXPECT_FALSE(modify(tree_)->update(old));
  EXPECT_EQ(code_of([&] { modify(tree_)->insert(renamed); }), error_code::usage);
  EXPECT_EQ(tree_->count(), 300U);
}

TEST_F(B_treeTest, MembersForgetAnIndexThatIsGone) {
  std::vector<ref<set_member>> members;
  for (unsigned i = 0; i < 500; ++i) members.push_back(add(numbered(i)));
  EXPECT_EQ(members[300]->owner(), tree_);
  model_.clear();
  modify(tree_)->remove_all();
  EXPECT_TRUE(members[300]->owner().is_null());
  EXPECT_EQ(statistics().pages, 0U);
  for (const ref<set_member>& member : members) modify(tree_)->insert(member);
  tree_ = nullptr;
  for (const ref<set_member>& member : members) EXPECT_TRUE(member->owner_word().is_null());
}

}  // namespace
}  // namespace goods
