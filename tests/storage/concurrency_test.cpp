// Many threads on one store: what they see, and what they are told.

#include <atomic>
#include <random>
#include <thread>

#include "storage/multi_commit.h"
#include "storage/storage_fixture.h"

namespace goods {
namespace {

// Two small ones in different segments and one that is stored by itself; every commit writes all of
// them with its own mark.
constexpr object_number objects[] = {0x10100, 0x20100, 0x10102};

std::string text_for(const std::string& mark, object_number number) {
  // Some are too much for the smallest log.
  const std::size_t size = mark.ends_with('7') ? 40'000 : 2000;
  return mark + "|" + std::string(number == objects[2] ? size : 10, 'x');
}

change_list changes_for(const std::string& mark) {
  change_list changes(1);
  for (object_number number : objects) changes.put(number, text_for(mark, number));
  return changes;
}

std::string mark_of(const std::string& text) { return text.substr(0, text.find('|')); }

// Which mark each version has, as the committers know and as readers saw; compared in the end.
class version_marks {
 public:
  void note(commit_version version, const std::string& mark) {
    const std::lock_guard guard(lock_);
    const auto [known, is_new] = marks_.emplace(version, mark);
    EXPECT_EQ(known->second, mark) << "version " << version;
  }
  std::size_t count() const { return marks_.size(); }

 private:
  std::mutex lock_;
  std::map<commit_version, std::string> marks_;
};

class ConcurrencyTest : public storage_test, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int commits_each = 400;

  void prepare(dbs_storage& storage, version_marks& marks) {
    some_layout(storage);
    marks.note(storage.commit(changes_for("start").request()), "start");
  }

  // Loads some of the objects: all must be as of the version that is named.
  static commit_version read_once(dbs_storage& storage, unsigned choice, commit_version at_least,
                                  version_marks& marks) {
    std::vector<object_number> numbers;
    for (unsigned i = 0; i < 3; ++i)
      if ((choice >> i & 1) != 0) numbers.push_back(objects[i]);
    collecting_sink sink;
    const commit_version as_of = storage.load(numbers, at_least, sink);
    EXPECT_GE(as_of, at_least);
    EXPECT_EQ(sink.found().size(), numbers.size());
    for (const auto& [number, text] : sink.found()) {
      marks.note(as_of, mark_of(text));
      EXPECT_EQ(text, text_for(mark_of(text), number));
    }
    return as_of;
  }
};

INSTANTIATE_TEST_SUITE_P(Options, ConcurrencyTest,
                         testing::Values("", "?cache=0", "?mmap=off", "?log=64K",
                                         "?log=64K&cache=0"),
                         [](const auto& row) { return "options" + std::to_string(row.index); });

TEST_P(ConcurrencyTest, EveryLoadIsAsOfTheVersionItNames) {
  const auto storage = open("store", GetParam());
  version_marks marks;
  prepare(*storage, marks);
  std::atomic<int> writers{2};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([&, w] {
      for (int i = 0; i < commits_each; ++i) {
        const std::string mark = std::to_string(w) + "." + std::to_string(i);
        marks.note(storage->commit(changes_for(mark).request()), mark);
      }
      --writers;
    });
  for (unsigned seed = 1; seed <= 2; ++seed)
    threads.emplace_back([&, seed] {
      std::minstd_rand random(seed);
      commit_version newest = 0;
      while (writers != 0) {
        // Sometimes more is asked for than is surely visible, as a session that was told more does.
        const commit_version at_least = random() % 2 == 0 ? newest : 0;
        if (random() % 4 == 0) storage->expect(objects);
        newest = std::max(newest, read_once(*storage, 1 + random() % 7, at_least, marks));
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(marks.count(), 2U * commits_each + 1);
}

TEST_P(ConcurrencyTest, NoticesComeInOrderAndBeforeTheyAreMissed) {
  const auto storage = open("store", GetParam());
  version_marks marks;
  prepare(*storage, marks);
  std::atomic<int> writers{2};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([&, w] {
      int self = 0;
      const auto own = storage->subscribe(&self);
      for (int i = 0; i < commits_each; ++i) {
        const auto attachment = std::make_shared<int>(i);
        const commit_version version =
            storage->commit(changes_for(std::to_string(w)).request(&self, attachment));
        bool told = false;
        for (const auto& n : own->take(version)) {
          if (n->version == version)
            told = n->attachment == attachment && n->origin == &self;
          else
            EXPECT_NE(n->origin, &self);
        }
        EXPECT_TRUE(told);
      }
      --writers;
    });
  threads.emplace_back([&] {
    const auto all = storage->subscribe(nullptr);
    commit_version last = all->newest();
    const commit_version start = last;
    while (writers != 0 || last != storage->newest_version()) {
      collecting_sink sink;
      const commit_version as_of = storage->load(objects, 0, sink);
      for (const auto& n : all->take(as_of)) EXPECT_EQ(n->version, ++last);
      EXPECT_GE(last, std::max(as_of, start));
    }
  });
  for (std::thread& thread : threads) thread.join();
}

// Commits over two storages, and some over one, while readers look at both.
TEST_P(ConcurrencyTest, CommitsOverSeveralBecomeVisibleInAllAtOnce) {
  const auto one = open("one", GetParam()), two = open("two", GetParam());
  version_marks marks_one, marks_two;
  prepare(*one, marks_one);
  prepare(*two, marks_two);
  std::atomic<int> writers{2};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int w = 0; w < 2; ++w)
    threads.emplace_back([&, w] {
      for (int i = 0; i < commits_each / 3; ++i) {
        // In either order, so that the two would wait for each other if that mattered.
        const std::string mark = std::to_string(w) + "." + std::to_string(i);
        const change_list changes = changes_for(mark);
        commit_part parts[] = {{one.get(), changes.request()}, {two.get(), changes.request()}};
        if (w == 1) std::swap(parts[0], parts[1]);
        const auto versions = commit_several(parts);
        marks_one.note(versions[static_cast<std::size_t>(w)], mark);
        marks_two.note(versions[static_cast<std::size_t>(1 - w)], mark);
      }
      --writers;
    });
  for (unsigned seed = 1; seed <= 2; ++seed)
    threads.emplace_back([&, seed] {
      std::minstd_rand random(seed);
      unsigned compared = 0;
      while (writers != 0 || compared == 0) {
        read_once(*one, 1 + random() % 7, 0, marks_one);
        read_once(*two, 1 + random() % 7, 0, marks_two);
        const std::uint64_t before = several_published();
        const auto in_one = load_text(*one, objects[random() % 3]);
        const auto in_two = load_text(*two, objects[random() % 3]);
        if (before % 2 != 0 || several_published() != before) continue;
        ++compared;
        EXPECT_EQ(mark_of(in_one.value_or("")), mark_of(in_two.value_or("")));
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(marks_one.count(), marks_two.count());
}

// Groups that are taken apart because one member cannot be written: the others go through.
TEST_P(ConcurrencyTest, AMemberThatFailsDoesNotTakeItsGroupWithIt) {
  auto storage = open("store", GetParam());
  version_marks marks;
  prepare(*storage, marks);
  std::atomic<bool> stop{false};
  std::thread failing([&] {
    while (!stop) {
      disk_.arm({faulty_vfs::bit(faulty_vfs::operation::write), 3, faulty_vfs::fault::full, false});
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  threads.reserve(4);
  std::atomic<unsigned> refused{0};
  std::map<object_number, std::string> expected[3];
  for (object_number w = 0; w < 3; ++w)
    threads.emplace_back([&, w] {
      for (int i = 0; i < commits_each; ++i) {
        change_list changes(1);
        const object_number number = 0x30000 + w * 1000 + static_cast<object_number>(i);
        try {
          storage->commit(changes.put(number, std::to_string(i)).request());
          expected[w][number] = std::to_string(i);
        } catch (const database_error& error) {
          EXPECT_EQ(error.code(), error_code::storage_full) << error.what();
          ++refused;
        }
      }
    });
  for (std::thread& thread : threads) thread.join();
  stop = true;
  failing.join();
  disk_.disarm();
  storage.reset();
  std::map<object_number, std::string> all = load_all(*open("store", GetParam()));
  for (object_number number : objects) all.erase(number);
  expected[0].merge(expected[1]);
  expected[0].merge(expected[2]);
  EXPECT_EQ(all, expected[0]);
}

}  // namespace
}  // namespace goods
