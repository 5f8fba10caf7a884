// Bringing what can be read of a damaged database into a new one.
#include <gmock/gmock.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/core/TarnValueIndex.h>
#include <tarns/session/TarnSalvage.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "support/damage.h"
#include "support/rewritten_objects.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

using goods::object_id;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

using Values = std::map<std::string, std::string>;  // by path

// A database on a disk of memory, its files, and what is in it.
class SalvageTest : public testing::Test {
 protected:
  SalvageTest() : directory_(scratch_directory::place::in_memory) {
    TarnManager::Initialize();
    inDamaged([&](TarnManager& manager) {
      manager.transaction([&] { fill(manager); });
      for (const auto& [path, value] : values_) note(manager, path);
      for (const char* path : {"", "machines", "machines~press", "many", "many~n150"})
        note(manager, path);
    });
    file_ = directory_.file("old/data/store.db");
    good_ = goods::read_file(file_);
  }

  void fill(TarnManager& manager) {
    const auto set = [&](const std::string& path, const std::string& value) {
      manager.set(path, value);
      values_[path] = value;
    };
    set("machines~press~speed", "41");
    set("machines~press~label", std::string(3000, 'l'));
    set("machines~saw~speed", "5");
    for (int i = 0; i < 300; ++i)
      set("many~n" + std::to_string(1000 + i).substr(1), "value " + std::to_string(i));
  }

  void note(TarnManager& manager, const std::string& path) {
    const TarnRef node = manager.getObject(path);
    ids_[path] = node.id();
    if (const auto index = node->getChildren(); !index.is_null())
      ids_[path + " index"] = index.id();
    const std::size_t last = path.rfind('~');
    if (last == std::string::npos) return;
    ids_[path + " entry"] = manager.getObject(path.substr(0, last))
                                ->getIterTo(path.substr(last + 1).c_str())
                                .getEntry()
                                .id();
  }

  template <class Work>
  void in(const std::string& place, Work&& work) {
    fs::create_directories(directory_.file(place));
    const std::string configuration = directory_.file(place + "/tarns.conf");
    std::ofstream(configuration) << "1\n0: file:./data?durability=relaxed\n";
    TarnManager manager;
    manager.connect(configuration.c_str());
    const TarnAttachment attachment(manager);
    work(manager);
  }
  template <class Work>
  void inDamaged(Work&& work) {
    in("old", work);
  }

  // Salvages, checks what comes out, and gives all its values.
  Values salvage() {
    fs::remove_all(directory_.file("new"));
    Values found;
    in("new", [&](TarnManager& manager) {
      result_ = Salvage(directory_.file("old/tarns.conf"), manager);
      EXPECT_EQ(damage_of(manager), "");
      found = PictureOf(manager);
    });
    return found;
  }

  static Values PictureOf(TarnManager& manager) {
    Values found;
    std::vector<std::string> open{""};
    while (!open.empty()) {
      const std::string path = std::move(open.back());
      open.pop_back();
      for (const auto& [name, child] : manager.children(path)) {
        const std::string below = path.empty() ? name : path + "~" + name;
        if (const auto value = manager.valueAt(below)) found[below] = std::string(value->getText());
        open.push_back(below);
      }
    }
    return found;
  }

  object_id id(const std::string& what) const { return ids_.at(what); }
  void remove(const std::string& what) {
    const goods::object_number number = goods::number_of(id(what));
    goods::rewrite_segment(file_, number, [&](goods::segment_builder& builder, const auto&) {
      builder.remove(goods::slot_of(number));
    });
  }
  std::string numberOf(const std::string& what) const {
    return std::to_string(goods::number_of(id(what)));
  }

  scratch_directory directory_;
  std::string file_, good_;
  Values values_;
  std::map<std::string, object_id> ids_;
  TarnSalvageResult result_;
};

TEST_F(SalvageTest, AGoodDatabaseComesOverAsItIs) {
  EXPECT_EQ(salvage(), values_);
  EXPECT_THAT(result_.missing, IsEmpty());
  EXPECT_EQ(result_.lostBranches, 0U);
  EXPECT_EQ(goods::read_file(file_), good_) << "nothing is written";
  in("new", [&](TarnManager& manager) {
    EXPECT_EQ(manager.getObject("machines~press").id(), id("machines~press"));
    EXPECT_STREQ(manager.getObject("machines~press~speed")->getType(), "TarnStringValue");
    manager.set("machines~press~speed", "42");
    EXPECT_EQ(manager.getXString("machines~press~speed", ""), XString("42"));
  });
}

TEST_F(SalvageTest, WhatIsMissingIsToldAndEverythingElseKeepsItsPlace) {
  const struct {
    const char* what;
    const char* lost;  // object
    const char* gone;  // values below this are missing; none when it is empty
    const char* told;  // in a line about it
  } cases[] = {
      {"a value", "machines~press~speed", "machines~press~speed",
       "machines~press~speed (object 0:"},
      {"a node between", "machines~press", "", "machines~press (object 0:"},
      {"its index", "machines~press index", "", nullptr},
      {"an entry", "machines~press~speed entry", "", nullptr},
      {"a large index", "many index", "", nullptr},
      {"the root", "", "", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    goods::write_file(file_, good_);
    remove(c.lost);
    Values expected = values_;
    std::erase_if(expected, [&](const auto& value) { return *c.gone && value.first == c.gone; });
    EXPECT_EQ(salvage(), expected);
    if (c.told != nullptr) {
      EXPECT_THAT(result_.missing, Contains(HasSubstr(c.told)));
    }
    EXPECT_EQ(result_.lostBranches, 0U);
  }
}

// Value indexes are made anew; what stood in them is no branch.
TEST_F(SalvageTest, ValueIndexesAreMadeAnew) {
  inDamaged([&](TarnManager& manager) {
    manager.transaction([&] {
      for (int i = 0; i < 300; ++i) {
        const std::string path = "many~n" + std::to_string(1000 + i).substr(1) + "~kind";
        manager.set(path, values_[path] = "kind " + std::to_string(i % 7));
      }
    });
    const TarnRef many = manager.getObject("many");
    TarnValueIndex::Declare(many, "kind");
    TarnValueIndex::Declare(many, "kind~none");
    const auto list = many->getChildren()->getValueIndexes();
    ids_["list"] = list.id();
    const auto entry = list->find("kind");
    ids_["list entry"] = entry->member.id();
    ids_["index"] = entry->target.id();
    const auto tree = goods::checked_cast<goods::B_tree>(entry->target);
    ids_["index entry"] = tree->at(20)->member.id();
  });
  const std::string good = goods::read_file(file_);
  const std::vector<std::string> losses[] = {
      {},
      {"list"},
      {"list entry"},
      {"index"},
      {"index entry"},
      {"list", "index"},
      {"list", "list entry"},
      {"list", "index", "list entry"},
      {"many index", "list", "index"},
      {"many", "many index", "list", "index"},
  };
  const auto has = [](const std::vector<std::string>& all, const char* one) {
    return std::ranges::find(all, one) != all.end();
  };
  for (const auto& lost : losses) {
    SCOPED_TRACE(testing::PrintToString(lost));
    goods::write_file(file_, good);
    for (const std::string& each : lost) remove(each);
    const std::string place = has(lost, "many") ? "lost~" + numberOf("many index") : "many";
    Values expected;
    for (const auto& [path, value] : values_) {
      expected[path.starts_with("many~") ? place + path.substr(4) : path] = value;
    }
    EXPECT_EQ(salvage(), expected);
    EXPECT_EQ(result_.lostBranches, has(lost, "many") ? 1U : 0U);
    in("new", [&](TarnManager& manager) {
      const TarnRef many = manager.getObject(place.c_str());
      EXPECT_THAT(TarnValueIndex::Check(many), IsEmpty());
      if (!has(lost, "list entry") && !has(lost, "many index")) {
        EXPECT_THAT(TarnValueIndex::List(many), Contains("kind"));
      }
    });
    for (const std::string& line : result_.missing) {
      EXPECT_TRUE(std::ranges::all_of(line, [](unsigned char c) { return c >= ' '; })) << line;
    }
  }
}

// What no path leads to any more is below "lost".
TEST_F(SalvageTest, BranchesWithoutAPathAreKept) {
  goods::rewrite_members(file_, id("machines~press entry"),
                         {.reference = [](auto, unsigned, object_id) { return object_id{0}; },
                          .text = {},
                          .number = {}});
  remove("machines index");
  remove("machines");
  const Values found = salvage();
  EXPECT_EQ(result_.lostName, "lost");
  EXPECT_EQ(found.at("lost~" + numberOf("machines~press") + "~speed"), "41");
  EXPECT_EQ(found.at("many~n007"), "value 7");
}

// Commits that were only in the log when the process ended.
TEST_F(SalvageTest, TheLogCountsAndDamageToItTakesOnlyWhatIsThere) {
  inDamaged([&](TarnManager& manager) {
    manager.set("machines~press~speed", "100");
    manager.set("new", "1");
    fs::copy(directory_.file("old"), directory_.file("open"), fs::copy_options::recursive);
  });
  fs::remove_all(directory_.file("old"));
  fs::rename(directory_.file("open"), directory_.file("old"));
  values_["machines~press~speed"] = "100";
  values_["new"] = "1";
  EXPECT_EQ(salvage(), values_);
}

// SQLite has no checksums, and does not look at every byte of its own: what it reads in spite of
// damage is salvaged, too.
TEST_F(SalvageTest, WhatSQLiteReadsOverIsRead) {
  const auto number = [](const std::string& in, std::size_t at, int bytes) {
    std::size_t read = 0;
    for (int i = 0; i < bytes; ++i) read = read << 8 | static_cast<unsigned char>(in.at(at++));
    return read;
  };
  // Pages that are free afterwards, and the list of them.
  inDamaged([&](TarnManager& manager) {
    std::string large(200'000, '\0');
    std::minstd_rand random;
    for (char& c : large) c = static_cast<char>('A' + random() % 26);
    manager.set("machines~saw~speed", large);
  });
  inDamaged([&](TarnManager& manager) { manager.set("machines~saw~speed", "5"); });
  const std::string good = goods::read_file(file_);
  constexpr std::size_t page = 4096;
  const std::size_t list = (number(good, 32, 4) - 1) * page, listed = number(good, list + 4, 4);
  ASSERT_GT(listed, 8U);
  const auto isLast = [&](std::size_t at) { return number(good, at, 1) < 0x80; };
  std::string cells = good, types = good, free = good;
  for (std::size_t at = page; at < good.size(); at += page) {
    const bool isLeaf = good[at] == 0x0d;
    const std::size_t next = at / page + 1;
    if (isLeaf && next <= listed) free.at(list + 8 + 4 * (next - 2) + 3) = static_cast<char>(next);
    for (std::size_t i = 0; isLeaf && i < number(good, at + 3, 2); ++i) {
      const std::size_t place = at + 8 + 2 * i;
      cells.at(place) |= '\xf0';
      std::size_t in = at + number(good, place, 2);
      for (int skipped = 0; skipped < 2; ++in) skipped += isLast(in) ? 1 : 0;  // length and key
      ++in;              // the length of the types
      types.at(in) = 8;  // a number stands in the place of the key
      while (!isLast(++in)) continue;
      types.at(in) |= 1;  // and a text in that of the body
    }
  }
  const std::pair<const char*, const std::string*> damages[] = {
      {"places of cells", &cells}, {"types of values", &types}, {"the list of free pages", &free}};
  for (const auto& [what, content] : damages) {
    SCOPED_TRACE(what);
    ASSERT_NE(*content, good);
    goods::write_file(file_, *content);
    EXPECT_EQ(salvage(), values_);
    inDamaged([&](TarnManager& manager) { EXPECT_EQ(PictureOf(manager), values_); });
    fs::remove_all(directory_.file("old/data"));
    fs::create_directory(directory_.file("old/data"));
  }
}

// The database under any damage: what could be read is there, and nothing else is.
// TARNS_SALVAGE_SEED says where chance begins.
TEST_F(SalvageTest, WhatCouldBeReadIsThereAndNothingIsWrong) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody sets any
  const char* const wanted = std::getenv("TARNS_SALVAGE_SEED");
  const auto seed = static_cast<unsigned>(wanted == nullptr ? std::random_device{}()
                                                            : std::strtoul(wanted, nullptr, 10));
  SCOPED_TRACE(testing::Message() << "TARNS_SALVAGE_SEED=" << seed);
  std::minstd_rand random(seed);
  std::set<std::string> known;
  for (const auto& [path, value] : values_) known.insert(value);
  unsigned complete = 0;
  for (int damage = 0; damage < 500 && !HasFailure(); ++damage) {
    SCOPED_TRACE(testing::Message() << "damage " << damage);
    std::string content = good_;
    const auto at = [&] {
      return static_cast<std::ptrdiff_t>(random() % (content.size() / 512) * 512);
    };
    switch (damage % 5) {
      case 0:
        content.resize(random() % content.size());
        break;
      case 1:
        std::fill_n(content.begin() + at(), 512, '\0');
        break;
      case 2: {
        const auto one = content.begin() + at();
        std::swap_ranges(one, one + 512, content.begin() + at());
        break;
      }
      default: {
        const std::size_t bit = random() % (content.size() * 8);
        content[bit / 8] = static_cast<char>(content[bit / 8] ^ 1 << bit % 8);
      }
    }
    goods::write_file(file_, content);
    const Values found = salvage();
    for (const auto& [path, value] : found) {
      const auto should = values_.find(path);
      if (path.starts_with("lost~"))
        EXPECT_TRUE(known.contains(value)) << path;
      else
        EXPECT_TRUE(should != values_.end() && should->second == value) << path;
    }
    complete += found == values_ ? 1 : 0;
    try {
      inDamaged([&](TarnManager& manager) {
        for (const auto& [path, value] : values_) {
          try {
            if (!manager.valueAt(path)) continue;
          } catch (const TarnException&) {
            continue;
          }
          EXPECT_TRUE(found.contains(path)) << path << " could be read";
        }
      });
    } catch (const TarnException&) {  // NOLINT(bugprone-empty-catch): it cannot be opened
    }
    fs::remove_all(directory_.file("old/data"));
    fs::create_directory(directory_.file("old/data"));
  }
  EXPECT_GT(complete, 50U);
}

}  // namespace
}  // namespace tarns
