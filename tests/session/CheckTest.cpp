// Checking a database: what is planted is named by path and identifier, and nothing else is.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/TarnObjects.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/rewritten_objects.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

using goods::object_id;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int kMany = 1000;  // children, so that their index has pages

std::string Name(int number) {
  std::string digits = std::to_string(number);
  return "n" + std::string(4 - digits.size(), '0') + digits;
}

class CheckTest : public session_test {
 protected:
  using session_test::session_test;

  // "ID CLASS PATH: TEXT" of all that is found.
  std::vector<std::string> findings(bool isFull = true) {
    std::vector<std::string> all;
    goods::check_options options;
    options.full = isFull;
    options.found = [&](const goods::check_finding& finding) {
      all.push_back(std::to_string(goods::number_of(finding.id)) + ' ' + finding.class_name + ' ' +
                    finding.path + ": " + finding.text);
    };
    result_ = manager().check(options);
    EXPECT_EQ(result_.faults, all.size());
    return all;
  }

  void setMany() {
    manager().transaction([&] {
      for (int i = 0; i < kMany; ++i) manager().set("many~" + Name(i), i);
    });
  }

  goods::check_result result_;
};

TEST_F(CheckTest, WhatIsInUseAndWhatWasDeletedIsNoFault) {
  EXPECT_THAT(findings(), IsEmpty()) << "a database that was just made";
  manager().set("machines~press~speed", 41);
  manager().set("machines~press~label", std::string(5000, 'x'));
  setMany();
  modify(manager().getObject("machines"))->addChild("same", manager().getObject("many"));
  modify(manager().getObject("many~n0001"))->addChild("circle", manager().getObject("many"));
  for (int i = 0; i < 10; ++i)
    modify(manager().getObject("many"))->addChild("twice", TarnObject::Create());
  EXPECT_THAT(findings(false), IsEmpty());
  EXPECT_EQ(result_.objects, 0U);
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_GT(result_.objects, 2U * kMany);
  EXPECT_EQ(result_.unreachable, 0U);

  manager().deleteBranch("machines~press");
  modify(manager().getObject("many"))->deleteChildrenWithNames([] {
    XStringList names;
    for (int i = 100; i < 900; ++i) names.addLast(Name(i).c_str());
    return names;
  }());
  modify(manager().getObject("many~n0050"))->setName("renamed");
  manager().moveBranch("many~n0051", "machines~moved");
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_GT(result_.unreachable, 800U);
  manager().startGarbageCollection();
  reopen();
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_EQ(result_.unreachable, 0U);
}

// A chain of very many levels neither overflows a stack nor loses its path.
TEST_F(CheckTest, DeepBranchesAreFollowedAndNamed) {
  constexpr int kLevels = 100'000;
  manager().transaction([&] {
    TarnRef node = manager().getRoot();
    for (int i = 0; i < kLevels; ++i) {
      const TarnRef child = TarnObject::Create();
      modify(node)->addChild("d", child);
      node = child;
    }
    modify(node)->addChild("last", TarnObject::Create());
    return true;
  });
  EXPECT_THAT(findings(), IsEmpty());
  EXPECT_GT(result_.objects, 3U * kLevels);
}

TEST_F(CheckTest, ItEndsWhenItIsTold) {
  setMany();
  for (const std::uint64_t after : {0, 1, 5}) {
    std::uint64_t calls = 0;
    goods::check_options options;
    options.full = true;
    options.progress = [&](const goods::check_progress&) { return calls++ < after; };
    EXPECT_FALSE(manager().check(options).has_ended);
    EXPECT_EQ(calls, after + 1);
  }
  const auto refused = [&] {
    goods::check_options options;
    goods::cache_manager::current()->read(
        [&](goods::reader&) { return manager().check(options).faults; });
  };
  EXPECT_THROW(refused(), TarnException);
}

TEST_F(CheckTest, ADatabaseUnderLoadHasNoFaults) {
  std::atomic<bool> ended{false};
  std::atomic<int> rounds{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      const TarnAttachment attachment(manager());
      const std::string mine = "t" + std::to_string(t);
      for (int i = 0; !ended; ++i) {
        const std::string branch = mine + '~' + Name(i % 300);
        if (i % 3 == 2) {
          manager().deleteBranch(branch);
        } else {
          manager().set(branch + "~value", i);
          manager().set(branch + "~text", "a text");
        }
        if (i % 51 == 0) manager().moveBranch(branch, mine + "~moved" + std::to_string(i));
        ++rounds;
      }
    });
  }
  while (rounds < 2000 && !HasFailure()) EXPECT_THAT(findings(), IsEmpty());
  ended = true;
  for (std::thread& thread : threads) thread.join();
}

// --- Planted faults

class PlantedFaultTest : public CheckTest {
 protected:
  PlantedFaultTest() {
    manager().set("machines~press~speed", 41);
    manager().set("machines~press~label", "text");
    manager().set("machines~saw~speed", 5);
    setMany();
    manager().set("other~many", 1);
    const auto note = [&](const std::string& path) {
      const TarnRef node = manager().getObject(path);
      ids_[path] = node.id();
      ids_[path + " index"] = node->getChildren().id();
    };
    for (const char* path : {"", "machines", "machines~press", "machines~press~speed",
                             "machines~saw", "machines~saw~speed", "many", "many~n0500", "other"})
      note(path);
    const auto noteEntry = [&](const char* parent, const char* name) {
      const TarnIterator place = manager().getObject(parent)->getIterTo(name);
      ids_[std::string(parent) + "~" + name + " entry"] = place.getEntry().id();
    };
    noteEntry("machines", "press");
    noteEntry("machines", "saw");
    noteEntry("machines~press", "speed");
    noteEntry("many", "n0500");
    close();
    good_ = goods::read_file(file_);
    open();
  }

  object_id id(const std::string& what) const {
    EXPECT_TRUE(ids_.contains(what)) << what;
    return ids_.at(what);
  }
  void change(const std::string& what, const goods::member_changes& changes) {
    goods::rewrite_members(file_, id(what), changes);
  }
  void redirect(const std::string& what, const std::string& member, object_id target,
                unsigned at = ~0U) {
    change(what, {.reference =
                      [&](std::string_view name, unsigned n, object_id old) {
                        return name == member && (at == ~0U || at == n) ? target : old;
                      },
                  .text = {},
                  .number = {}});
  }
  void renumber(const std::string& what, const std::string& member, std::uint64_t number) {
    change(what, {.reference = {},
                  .text = {},
                  .number = [&](std::string_view name, unsigned, std::uint64_t old) {
                    return name == member ? number : old;
                  }});
  }
  void rename(const std::string& what, unsigned entry, const std::string& name) {
    change(what, {.reference = {},
                  .text = [&](std::string_view, unsigned at,
                              const std::string& old) { return at == entry ? name : old; },
                  .number = {}});
  }
  void remove(const std::string& what) {
    const goods::object_number number = goods::number_of(id(what));
    goods::rewrite_segment(file_, number, [&](goods::segment_builder& builder, const auto&) {
      builder.remove(goods::slot_of(number));
    });
  }
  // The pages of "many", in order.
  std::vector<object_id> pages() {
    std::vector<object_id> found;
    change("many index", {.reference =
                              [&](std::string_view, unsigned, object_id target) {
                                if (target != 0 && target != id("many")) found.push_back(target);
                                return target;
                              },
                          .text = {},
                          .number = {}});
    return found;
  }

  const std::string file_ = directory().file("data0/store.db");
  std::string good_;
  std::map<std::string, object_id> ids_;
};

TEST_F(PlantedFaultTest, EachIsNamedByPathAndIdentifier) {
  struct Case {
    const char* what;
    std::function<void()> plant;
    std::function<object_id()> object;
    std::string rest;  // behind the number: " CLASS PATH: TEXT"
  };
  const auto of = [&](const char* what) { return [this, what] { return id(what); }; };
  const auto page = [&](std::size_t n) { return [this, n] { return pages().at(n); }; };
  const Case cases[] = {
      {"lost value", [&] { remove("machines~press~speed"); }, of("machines~press~speed"),
       "  machines~press~speed: is not there; object 0:"},
      {"lost entry", [&] { remove("machines~press entry"); }, of("machines~press entry"),
       "  machines~press: is not there"},
      {"lost index", [&] { remove("machines index"); }, of("machines index"),
       "  machines: is not there"},
      {"lost root", [&] { remove(""); }, of(""), "  : is the root, which is not there"},
      {"reference to another storage",
       [&] { redirect("machines", "Children", goods::make_object_id(9, 70000)); }, of("machines"),
       " TarnObject machines: refers to object 9:70000"},
      {"node in place of an index", [&] { redirect("machines", "Children", id("machines~saw")); },
       of("machines~saw"), " TarnObject machines: is no TarnObjects"},
      {"index of another node",
       [&] { redirect("machines~press index", "mParent", id("machines~saw")); },
       of("machines~press index"), " TarnObjects machines~press: has the children of node"},
      {"index in place of a child",
       [&] { redirect("machines index", "object", id("machines index")); }, of("machines index"),
       " TarnObjects machines~press: is no node, although it is a child"},
      {"child in place of an entry",
       [&] { redirect("machines index", "member", id("machines~saw")); }, of("machines~saw"),
       " TarnObject machines~press: is no set_member"},
      {"an entry twice", [&] { redirect("machines index", "member", id("machines~press entry")); },
       of("machines~press entry"), " set_member machines~saw: stands in an index twice"},
      {"an entry of two minds",
       [&] { redirect("machines~press entry", "object", id("machines~saw")); },
       of("machines~press entry"), " set_member machines~press: stands for object 0:"},
      {"an entry of another index",
       [&] { redirect("machines~press entry", "owner", id("machines~saw index")); },
       of("machines~press entry"), " set_member machines~press: stands in the index 0:"},
      {"wrong number of entries", [&] { renumber("machines index", "count", 7); },
       of("machines index"), " TarnObjects machines: is an index that has 2 entries and says 7"},
      {"another name", [&] { rename("machines index", 0, "pr"); }, of("machines~press entry"),
       " set_member machines~pr: has another name than its entry: \"press\""},
      {"out of order", [&] { rename("machines index", 0, "z"); }, of("machines index"),
       " TarnObjects machines~saw: is a page of an index that is out of order here"},
      {"impossible name", [&] { rename("machines index", 0, "pr~ess"); }, of("machines index"),
       " TarnObjects machines~pr~ess: has a child under a name that nodes may not have"},
      {"parent link elsewhere",
       [&] { redirect("machines~press", "ParentLink", id("machines~saw entry")); },
       of("machines~press"), " TarnObject machines~press: has the entry 0:"},
      {"parent link to a node",
       [&] { redirect("machines~press", "ParentLink", id("machines~saw")); }, of("machines~press"),
       " TarnObject machines~press: has object 0:"},
      {"lost page",
       [&] {
         ids_["page"] = pages().at(1);
         remove("page");
       },
       page(1), "  many: is not there"},
      {"a page twice",
       [&] {
         const object_id first = pages().at(0), second = pages().at(1);
         change("many index",
                {.reference = [&](auto, unsigned,
                                  object_id target) { return target == second ? first : target; },
                 .text = {},
                 .number = {}});
       },
       page(0), " B_page many"},
      {"wrong count of a page",
       [&] {
         ids_["page"] = pages().at(0);
         change("many index", {.reference = {},
                               .text = {},
                               .number = [](std::string_view, unsigned at, std::uint64_t old) {
                                 return at == 4 ? old + 1 : old;
                               }});
       },
       page(1), " B_page many~n0064: is an index page with 64 entries"},
      {"level of a page",
       [&] {
         ids_["page"] = pages().at(2);
         renumber("page", "level", 1);
       },
       page(2), " B_page many~"},
      {"a page in itself",
       [&] {
         ids_["page"] = pages().at(0);
         redirect("many index", "page", id("many index"));
       },
       of("many index"), " TarnObjects many: is no index page"},
      {"bytes behind the end",
       [&] {
         goods::rewrite_object(file_, goods::number_of(id("machines~saw")),
                               [](auto& state) { state.push_back(std::byte{0}); });
       },
       of("machines~saw"), " TarnObject machines~saw: The stored object 0:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    close();
    goods::write_file(file_, good_);
    const std::string expected = std::to_string(goods::number_of(c.object())) + c.rest;
    c.plant();
    open();
    const std::vector<std::string> found = findings();
    EXPECT_THAT(found, Contains(testing::StartsWith(expected)));
    EXPECT_LT(found.size(), 20U) << "one fault is not told of everything around it: "
                                 << testing::PrintToString(found);
  }
}

TEST_F(PlantedFaultTest, AQuickCheckLooksForTheRoot) {
  EXPECT_THAT(findings(false), IsEmpty());
  close();
  remove("");
  open();
  EXPECT_THAT(findings(false), Contains(HasSubstr("is the root, which is not there")));
  close();
  goods::write_file(file_, good_);
  goods::execute(file_, "UPDATE segments SET body=zeroblob(40)||substr(body,41) WHERE id=1024");
  open();
  EXPECT_THAT(findings(false), Contains(HasSubstr("the checksum does not match")));
}

// Only what may stand in a page that cannot be read is passed over.
TEST_F(PlantedFaultTest, ALostPageHidesNothingInOtherIndexes) {
  close();
  ids_["page"] = pages().at(1);
  remove("page");
  redirect("machines index", "member", id("machines~saw entry"));
  open();
  const std::vector<std::string> found = findings();
  const std::string number = std::to_string(goods::number_of(id("machines~press entry")));
  EXPECT_THAT(found,
              Contains(testing::StartsWith(
                  number + " set_member : is a node's link to its parent, but stands in no")));
  EXPECT_LT(found.size(), 10U) << testing::PrintToString(found);
}

// What a damaged segment takes with it is told object by object, as far as anything refers to it.
TEST_F(PlantedFaultTest, ObjectsOfADamagedSegmentAreNamed) {
  close();
  const auto segment = goods::segment_of(goods::number_of(id("many~n0500")));
  goods::execute(file_, ("UPDATE segments SET body=zeroblob(40)||substr(body,41) WHERE id=" +
                         std::to_string(segment))
                            .c_str());
  open();
  const std::vector<std::string> found = findings();
  EXPECT_THAT(found, Contains(HasSubstr("the checksum does not match")));
  EXPECT_THAT(found, Contains(HasSubstr("many~n0500: cannot be read")));
}

// A layout that nobody can read takes its objects with it.
TEST_F(PlantedFaultTest, ADamagedLayoutIsNamedAndSoAreItsObjects) {
  close();
  goods::rewrite_row(file_, "layouts", goods::row_kind::layout, 1,
                     [](std::vector<std::byte>& layout) { layout[0] = std::byte{9}; });
  open();
  const std::vector<std::string> found = findings();
  EXPECT_THAT(found, Contains(HasSubstr("its class layout 1: ")));
  EXPECT_THAT(found, Contains(HasSubstr("is stored under a class layout that there is not")));
}

}  // namespace
}  // namespace tarns
