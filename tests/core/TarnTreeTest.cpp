// Trees that are deep, large, or change while others look on.
#include <gmock/gmock.h>
#include <goods/cache_manager.h>
#include <goods/database.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <rapidcheck.h>
#include <tarns/core/TarnObject.h>

#include <atomic>
#include <barrier>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/node_access.h"
#include "support/node_test.h"
#include "support/scratch_directory.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::HasSubstr;

class TarnTreeTest : public node_test {};
INSTANTIATE_NODE_TEST(TarnTreeTest);

// Runs `work` on a thread with the smallest stack that callbacks get.
void RunOnSmallStack(const std::function<void()>& work) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 256 * 1024);
  pthread_t thread{};
  const auto start = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, start,
                           const_cast<void*>(static_cast<const void*>(&work))),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

TEST_P(TarnTreeTest, GoesAHundredThousandLevelsDown) {
  constexpr std::size_t kLevels = 100'000;
  std::string path;
  for (std::size_t i = 0; i < kLevels; ++i) path += "d~";
  path += "value";
  RunOnSmallStack([&] {
    if (is_stored()) stored().database().attach();
    modify(root())->setValue(path.c_str(), TarnData("deep"));
  });
  reload();
  RunOnSmallStack([&] {
    if (is_stored()) stored().database().attach();
    EXPECT_EQ(root()->getXString(path.c_str()), "deep");
    const TarnRef leaf = root()->getChildWithName(path.c_str());
    EXPECT_EQ(path_of(leaf), path);
    EXPECT_EQ(leaf->getRootParent(), root());
    root()->set(path.c_str(), TarnData("deeper"));
    const TarnRef copy = root()->getChildWithName("d")->deepClone();
    modify(root())->addChild("copy", copy);
    EXPECT_EQ(root()->getXString(("copy" + path.substr(1)).c_str()), "deeper");
    EXPECT_TRUE(modify(root())->deleteChild("d"));
    TarnValue::ClearValuesIn(copy);
    EXPECT_EQ(root()->getXString(("copy" + path.substr(1)).c_str()), "");
    modify(copy)->shatter();
    EXPECT_EQ(copy->getNumChildren(), 0U);
  });
}

TEST_P(TarnTreeTest, FollowsCirclesOnce) {
  const TarnRef a = add("a");
  modify(root())->setValue("a~b~v", TarnData(1));
  const TarnRef b = root()->getChildWithName("a~b");
  modify(b)->addChild("a", a);
  modify(b)->addChild("b", b);
  EXPECT_EQ(root()->getSint32("a~b~a~b~b~v"), 1);
  const TarnRef copy = a->deepClone();
  EXPECT_EQ(copy->getChildWithName("b~a"), copy);
  EXPECT_EQ(copy->getChildWithName("b~b~b"), copy->getChildWithName("b"));
  TarnValue::ClearValuesIn(a);
  EXPECT_EQ(root()->getSint32("a~b~v"), 0);
  EXPECT_EQ(copy->getSint32("b~v"), 1);
  modify(a)->shatter();
  modify(copy)->shatter();
}

TEST_P(TarnTreeTest, FindsUniqueNamesByTheirTwoRules) {
  struct Case {
    std::vector<const char*> present;
    const char *base, *unique;
  };
  const Case cases[] = {
      {{}, "log", "log"},
      {{"log"}, "log", "log_0"},
      {{"log", "log_0"}, "log", "log_1"},
      {{"log", "log_0", "log_1"}, "log", "log_2"},
      {{"log", "log_1"}, "log", "log_2"},  // doubling passes the gap at 0
      {{"log", "log_0", "log_1", "log_2", "log_4"}, "log", "log_5"},
      {{"log", "log_0", "log_1", "log_5"}, "log", "log_2"},
      {{"longname"}, "longname", "longname_0"},
      {{"longname", "longname_0", "longname_5"}, "longname", "longname_6"},
      {{"longname", "longname_x", "longname_07", "longname_2_9"}, "longname", "longname_10"},
      {{"longname", "longname_2_x", "longname_1,000", "longname_-5", "longname_-0"},
       "longname",
       "longname_1"},
      {{"longname", "longnameX", "longname_10", "longname_9"}, "longname", "longname_11"},
      {{"sixsix", "sixsix_7"}, "sixsix", "sixsix_0"},
      {{"sevenam", "sevenam_7"}, "sevenam", "sevenam_8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.unique);
    const TarnRef node = TarnObject::Create();
    for (const char* name : c.present) modify(node)->addChild(name, TarnObject::Create());
    EXPECT_EQ(node->getUniqueChildName(c.base), c.unique);
    EXPECT_EQ(modify(node)->addUniqueChild(c.base, TarnObject::Create()), c.unique);
  }
}

// The tree as a map from path to value; "" for a plain node.
using Model = std::map<std::string, std::optional<std::int64_t>>;

std::vector<std::string> Below(const Model& model, const std::string& path) {
  std::vector<std::string> found;
  for (const auto& [name, value] : model) {
    if (name == path || name.starts_with(path + "~")) found.push_back(name);
  }
  return found;
}

// Applies one random command to both and compares the outcome.
void ApplyRandomCommand(const TarnRef& root, Model& model) {
  const auto name = rc::gen::elementOf(std::string("abc"));
  std::string path(1, *name);
  for (int depth = *rc::gen::inRange(0, 3); depth > 0; --depth) path += std::string("~") + *name;
  const std::string parent(path, 0, path.size() == 1 ? 0 : path.size() - 2);
  switch (*rc::gen::inRange(0, 4)) {
    case 0: {
      const std::int64_t value = *rc::gen::inRange(0, 100);
      const auto found = model.find(path);
      if (found != model.end() && !found->second) {
        RC_ASSERT_THROWS_AS(modify(root)->setValue(path.c_str(), TarnData(value)), TarnException);
        break;
      }
      modify(root)->setValue(path.c_str(), TarnData(value));
      for (std::size_t at = 1; at < path.size(); at += 2) model.try_emplace(path.substr(0, at));
      model[path] = value;
      break;
    }
    case 1: {
      const bool deleted = path.size() == 1 ? modify(root)->deleteChild(path.c_str())
                                            : root->deleteBranch(path.c_str());
      RC_ASSERT(deleted == model.contains(path));
      for (const std::string& gone : Below(model, path)) model.erase(gone);
      break;
    }
    case 2: {
      if (!model.contains(path)) break;
      const TarnRef copy = root->getChildWithName(path.c_str())->deepClone();
      const std::string to(1, *name);
      if (Below(model, to).empty()) {
        modify(root)->setNode(to.c_str(), copy);
        Model copies;
        for (const std::string& from : Below(model, path))
          copies[to + from.substr(path.size())] = model[from];
        model.merge(copies);
      }
      break;
    }
    default: {
      TarnData value;
      const auto found = model.find(path);
      const bool has = found != model.end() && found->second;
      RC_ASSERT(root->get(path.c_str(), value) == has);
      if (has) RC_ASSERT(value.getSint64() == *found->second);
    }
  }
}

Model ModelOf(const TarnRef& root) {
  Model model;
  std::vector<std::pair<std::string, TarnRef>> open{{"", root}};
  while (!open.empty()) {
    const auto [path, node] = open.back();
    open.pop_back();
    for (const auto& [name, child] : node->children()) {
      const std::string at = joined(path, name);
      const auto value = child->valueAt("");
      model[at] = value ? std::optional(value->getSint64()) : std::nullopt;
      RC_ASSERT(path_of(child) == "top~" + at);
      open.emplace_back(at, child);
    }
  }
  return model;
}

TEST_P(TarnTreeTest, AgreesWithAMapOfPaths) {
  const bool held = rc::check([&] {
    const TarnRef top = TarnObject::Create();
    modify(root())->setNode("top", top);
    Model model;
    for (int left = *rc::gen::inRange(1, is_stored() ? 15 : 60); left > 0; --left) {
      ApplyRandomCommand(top, model);
    }
    RC_ASSERT(ModelOf(top) == model);
  });
  EXPECT_TRUE(held);
}

// --- Stored trees only
// ----------------------------------------------------------------------------

TEST(StoredTreeTest, WritesOfOneCallAreOneTransaction) {
  stored_tree tree;
  auto other = tree.open_another();
  std::jthread writer([&] {
    tree.database().attach();
    for (int i = 0; i < 100; ++i) {
      modify(tree.root())->setValue(("p" + std::to_string(i) + "~x~y").c_str(), TarnData(i));
    }
    tree.database().detach();
  });
  other->attach();
  goods::object_ref root;
  other->get_root(root);
  const TarnRef seen(root);
  while (true) {
    // Where the outermost node of a branch is seen, the value below it is, too.
    std::vector<std::string> names = names_of(seen);
    for (const std::string& name : names) {
      ASSERT_TRUE(seen->valueAt(name + "~x~y").has_value()) << name;
    }
    if (names.size() == 100) break;
  }
  writer.join();
  tree.database().attach();
}

TEST(StoredTreeTest, MakesOneChildOfOneNameWhereManyThreadsSetIt) {
  stored_tree tree;
  constexpr int kThreads = 4;
  constexpr int kPaths = 25;
  {
    std::vector<std::jthread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        tree.database().attach();
        for (int i = 0; i < kPaths; ++i) {
          const std::string path = "n" + std::to_string(i) + "~shared~t" + std::to_string(t);
          goods::cache_manager::require().atomically(
              [&] { modify(tree.root())->setValue(path.c_str(), TarnData(t)); });
        }
        tree.database().detach();
      });
    }
  }
  tree.reopen();
  EXPECT_EQ(tree.root()->getNumAbstractChildren(), std::size_t{kPaths});
  for (const auto& [name, child] : tree.root()->children()) {
    EXPECT_EQ(child->getNumAbstractChildren(), 1U);
    EXPECT_EQ(child->getChildWithName("shared")->getNumAbstractChildren(), std::size_t{kThreads});
  }
}

TEST(StoredTreeTest, FindsAncestorsWhileOthersCommit) {
  stored_tree tree;
  constexpr unsigned long kLevels = 500;
  std::string path;
  for (unsigned long i = 0; i < kLevels; ++i) path += "d~";
  modify(tree.root())->setValue((path + "v").c_str(), TarnData(0));
  std::atomic<bool> done = false;
  std::jthread writer([&] {
    tree.database().attach();
    for (int i = 0; !done; ++i) tree.root()->set((path + "v").c_str(), TarnData(i));
    tree.database().detach();
  });
  const TarnRef root = tree.root();
  const TarnRef value = root->getChildWithName((path + "v").c_str());
  int wrong = 0;
  for (int i = 0; i < 2000; ++i) {
    // The walk starts again whenever a commit comes in between.
    if (value->getParent(kLevels + 1) != root || !value->getParent(kLevels + 2).is_null()) ++wrong;
  }
  done = true;
  EXPECT_EQ(wrong, 0);
}

TEST(StoredTreeTest, AddsUpWhatManyThreadsAddToOneNewChild) {
  stored_tree tree;
  constexpr int kThreads = 4;
  constexpr int kNames = 25;
  {
    std::barrier start(kThreads);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        tree.database().attach();
        for (int i = 0; i < kNames; ++i) {
          start.arrive_and_wait();
          TarnValue::AddToChild(tree.root(), std::to_string(i).c_str(), TarnData(1));
        }
        tree.database().detach();
      });
    }
  }
  for (int i = 0; i < kNames; ++i) {
    EXPECT_EQ(tree.root()->getSint32(std::to_string(i).c_str()), kThreads) << i;
  }
}

TEST(StoredTreeTest, AnErrorInsideACallLeavesNothingBehind) {
  stored_tree tree;
  modify(tree.root())->setValue("a~v", TarnData(1));
  const auto before = picture_of(tree.root());
  EXPECT_THAT(
      [&] {
        auto root = modify(tree.root());
        root->setValue("b~v", TarnData(1));
        root->setValue("a", TarnData(1));
      },
      ThrowsTarn(11, HasSubstr("do not have values")));
  EXPECT_EQ(picture_of(tree.root()), before);
  tree.reopen();
  EXPECT_EQ(picture_of(tree.root()), before);
}

TEST(StoredTreeTest, SaysThatAThreadIsNotAttached) {
  stored_tree tree;
  modify(tree.root())->setValue("a", TarnData(1));
  const TarnRef root = tree.root();
  std::jthread([&] {
    EXPECT_THAT([&] { root->getSint32("a"); }, ThrowsTarn(110, HasSubstr("attached")));
    EXPECT_THAT([&] { modify(root)->setValue("a", TarnData(1)); },
                ThrowsTarn(110, HasSubstr("attached")));
    EXPECT_EQ(TarnValue::CreateValue(TarnData(3))->getSint32(""), 3) << "needs no session";
  });
}

TEST(ClusteringTest, StoresNewChildrenWithTheirParent) {
  const scratch_directory directory;
  const std::string configuration = directory.file("database.cfg");
  std::ofstream(configuration) << "2\n0: file:first\n1: file:second\n";
  goods::database database;
  ASSERT_TRUE(database.open(configuration.c_str())) << database.get_open_problem();
  database.attach();
  goods::object_ref stored(TarnObject::Create());
  database.set_root(stored);
  database.get_root(stored);
  const TarnRef root(stored);
  const TarnRef other = TarnObject::Create();
  modify(other)->attach_to_storage(&database, 1);
  modify(root)->addChild("other", other);
  modify(root)->setValue("other~a~b", TarnData("text"));
  modify(root)->setValue("here~b", TarnData("text"));
  const auto storageOf = [](const goods::object_ref& object) {
    EXPECT_NE(object.id(), 0U);
    return goods::storage_of(object.id());
  };
  EXPECT_EQ(storageOf(other), 1);
  EXPECT_EQ(storageOf(other->getChildren()), 1);
  EXPECT_EQ(storageOf(root->getChildWithName("other~a")), 1);
  const xcptref<TarnStringValue> text = root->getChildWithName("other~a~b");
  EXPECT_EQ(storageOf(text), 1);
  EXPECT_EQ(storageOf(text->getTarnString().getReference()), 1);
  EXPECT_EQ(storageOf(root->getChildWithName("here~b")), 0);
  database.detach();
  database.close();
}

TEST(XcptrefTest, ChecksNullAndClass) {
  stored_tree tree;
  const TarnRef null;
  EXPECT_THAT([&] { null->getName(); }, ThrowsTarn(0, "NULL TarnRef read dereference"));
  EXPECT_THAT([&] { modify(null)->setName("a"); }, ThrowsTarn(0, "NULL TarnRef write dereference"));
  EXPECT_TRUE(xcptref<TarnValue>(null).is_null());
  modify(tree.root())->setValue("a~b", TarnData(1));
  const TarnRef b = tree.root()->getChildWithName("a~b");
  EXPECT_EQ(xcptref<TarnSint32Value>(b), b);
  EXPECT_TRUE(b.isA<TarnValue>() && !b.isA<TarnStringValue>() && !null.isA<TarnValue>());
  EXPECT_THAT([&] { xcptref<TarnStringValue> wrong = b; },
              ThrowsTarn(12,
                         "Bad TarnRef typecast: casting a \"TarnSint32Value\" at \"a~b\" to a "
                         "\"TarnStringValue\"."));
  const goods::object_ref text(goods::String::create("x"));
  EXPECT_THAT([&] { TarnRef wrong(text); },
              ThrowsTarn(12,
                         "Bad TarnRef typecast: casting a \"String\" at \"<not a TarnObject>\" to "
                         "a \"TarnObject\"."));
}

}  // namespace
}  // namespace tarns
