// Value indexes whose own objects are damaged: nothing that an application does fails or goes
// wrong, a check tells, and they are made anew in place.
#include <gmock/gmock.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValueIndex.h>
#include <tarns/select/TarnCollector.h>
#include <tarns/select/TarnQuery.h>
#include <tarns/select/TarnSelection.h>

#include <functional>
#include <string>
#include <vector>

#include "support/rewritten_objects.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

using testing::IsEmpty;
using testing::Not;

using goods::object_id;

// Children with the values "v" and "w", both indexed.
class DamagedIndexTest : public session_test {
 protected:
  static constexpr int kChildren = 500;

  static std::string Child(int number) { return "c" + std::to_string(1000 + number).substr(1); }

  DamagedIndexTest() : session_test(1, "?durability=relaxed", scratch_directory::place::in_memory) {
    manager().transaction([&] {
      for (int i = 0; i < kChildren; ++i) {
        manager().set("p~" + Child(i) + "~v", i % 10);
        manager().set("p~" + Child(i) + "~w", i % 3);
      }
    });
    TarnValueIndex::Declare(parent(), "v");
    TarnValueIndex::Declare(parent(), "w");
    {
      const auto list = parent()->getChildren()->getValueIndexes();
      const auto entry = list->find("v");
      const auto tree = goods::checked_cast<goods::B_tree>(entry->target);
      list_ = list.id();
      listEntry_ = entry->member.id();
      tree_ = entry->target.id();
      // Child 5, which is changed.
      for (std::uint64_t at = 0; at < tree->count(); ++at) {
        if (const auto one = tree->at(at); one->name.ends_with(Child(5))) entry_ = one->member.id();
      }
    }
    close();
    goods::rewrite_members(file(), tree_,
                           {.reference =
                                [&](std::string_view member, unsigned, object_id id) {
                                  if (member == "page") pages_.push_back(id);
                                  return id;
                                },
                            .text = {},
                            .number = {}});
    good_ = goods::read_file(file());
    open();
  }

  TarnRef parent() { return manager().getObject("p"); }
  std::string file() const { return directory().file("data0/store.db"); }

  void lose(object_id id) {
    const goods::object_number number = goods::number_of(id);
    goods::rewrite_segment(file(), number, [&](goods::segment_builder& builder, const auto&) {
      builder.remove(goods::slot_of(number));
    });
  }
  void spoil(object_id id) {
    goods::rewrite_object(file(), goods::number_of(id),
                          [](std::vector<std::byte>& body) { body.resize(body.size() / 2); });
  }

  std::vector<std::string> faults() {
    std::vector<std::string> found;
    goods::check_options options;
    options.full = true;
    options.found = [&](const goods::check_finding& finding) {
      found.push_back(finding.path + ": " + finding.text);
    };
    manager().check(options);
    return found;
  }

  // That every way of finding gives what the children say; returns the indexes used.
  std::string compare() {
    std::string used;
    for (const char* below : {"v", "w"}) {
      for (const char* value : {"0", "1", "5", "new"}) {
        const auto query = TarnQuery::Create();
        modify(query)->addElement(TarnQueryElement::Create(below, TarnQueryElement::Equal, value));
        std::string expected, found, collected;
        for (const auto& [name, child] : parent()->children()) {
          if (query->evaluate(child)) expected += name + ' ';
        }
        TarnSelection selection(parent(), query);
        for (const auto& [name, child] : selection) found += name + ' ';
        const auto collector = TarnCollector::CollectChildrenWithValue(parent(), below, value);
        for (const auto& [name, child] : collector->children()) collected += name + ' ';
        EXPECT_EQ(found, expected) << below << " = " << value;
        EXPECT_EQ(collected, expected) << below << " = " << value;
        for (const std::string& each : selection.getIndexesUsed()) used = each + used;
      }
    }
    return used;
  }

  void change() {
    manager().set("p~" + Child(333) + "~v", 0);  // from one page to another
    manager().set("p~" + Child(5) + "~v", "new");
    manager().transaction([&] {
      manager().set("p~added~v", "5");
      manager().set("p~" + Child(15) + "~w", "new");
      auto body = modify(parent());
      body->deleteChild(Child(25).c_str());
    });
    for (int i = 100; i < 140; ++i) manager().set("p~" + Child(i) + "~v", "5");
  }

  object_id list_ = 0, listEntry_ = 0, tree_ = 0, entry_ = 0;
  std::vector<object_id> pages_;
  std::string good_;
};

TEST_F(DamagedIndexTest, ChangesGoOnAndACheckTellsWhatToMakeAnew) {
  ASSERT_GT(pages_.size(), 2U);
  const struct {
    const char* what;
    std::vector<object_id> damaged;
    bool keepsOther;  // the index "w" goes on being used
  } cases[] = {
      {"the list", {list_}, false},          {"its entry", {listEntry_}, true},
      {"the index", {tree_}, true},          {"pages", pages_, true},
      {"the first page", {pages_[0]}, true}, {"an entry", {entry_}, true},
  };
  for (const auto& c : cases) {
    for (const bool isLost : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.what << (isLost ? " lost" : " spoilt"));
      close();
      goods::write_file(file(), good_);
      for (const object_id id : c.damaged) isLost ? lose(id) : spoil(id);
      open();
      compare();
      EXPECT_THAT(faults(), Not(IsEmpty()));
      change();
      if (HasFatalFailure()) return;
      const std::string used = compare();
      EXPECT_EQ(used.find('w') != std::string::npos, c.keepsOther);
      EXPECT_THAT(faults(), Not(IsEmpty()));
      reopen();
      compare();
      change();

      EXPECT_TRUE(TarnValueIndex::Rebuild(parent(), "v"));
      EXPECT_EQ(TarnValueIndex::Declare(parent(), "w"), !c.keepsOther);
      manager().startGarbageCollection();  // of what is damaged
      EXPECT_THAT(faults(), IsEmpty());
      EXPECT_EQ(compare(), "wwwwvvvv");
      change();
      EXPECT_THAT(TarnValueIndex::Check(parent()), IsEmpty());
    }
  }
}

}  // namespace
}  // namespace tarns
