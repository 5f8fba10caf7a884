// Measures a storage by itself: storage_figures [DIRECTORY [OPTIONS]].
//
// Prints what single steps cost, so that a change of page size, cache or format can be judged.
// Everything that is read is checked.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include <goods/dbs_storage.h>

#include "storage/lock_owner.h"
#include "support/scratch_directory.h"

namespace goods {
namespace {

constexpr object_number segments = 60'000;
constexpr std::size_t object_bytes = 32;  // 64 of them: 2 KB
constexpr object_number first = first_object_number;

class stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void print(const char* what, double count, const stopwatch& watch) {
  const double seconds = watch.seconds();
  std::printf("%-44s %12.0f /s %10.0f ns\n", what, count / seconds, seconds / count * 1e9);
  std::fflush(stdout);
}

std::string text_of(object_number number) {
  std::string text(object_bytes, ' ');
  std::snprintf(text.data(), text.size(), "object %u of the benchmark %x", number,
                number * 2654435761U);
  return text;
}

std::span<const std::byte> bytes_of(const std::string& text) {
  return std::as_bytes(std::span(text));
}

class checking_sink : public state_sink {
 public:
  void found(const object_state& state) override {
    ++count_;
    if (state.body.size() < object_bytes - 1 && !state.body.empty()) wrong();
    sum_ += static_cast<unsigned char>(state.body.empty() ? std::byte{} : state.body[0]);
  }
  void missing(object_number) override { wrong(); }
  std::uint64_t count() const { return count_; }

 private:
  [[noreturn]] static void wrong() {
    std::puts("a wrong object was loaded");
    std::_Exit(1);
  }
  std::uint64_t count_ = 0, sum_ = 0;
};

void fill(dbs_storage& storage, class_number layout) {
  const stopwatch watch;
  std::vector<std::string> texts;
  std::vector<object_change> changes;
  for (object_number i = 0; i < segments * 64; ++i) texts.push_back(text_of(first + i));
  for (object_number i = 0; i < segments * 64; ++i)
    changes.push_back({first + i, layout, bytes_of(texts[i]), false, true});
  print("make objects in memory", segments * 64.0, watch);
  const stopwatch commit;
  storage.commit({changes, nullptr, {}});
  print("one commit of all objects", segments * 64.0, commit);
}

void load_random(dbs_storage& storage, const char* what, object_number range, unsigned loads) {
  std::minstd_rand random(7);
  checking_sink sink;
  const stopwatch watch;
  for (unsigned i = 0; i < loads; ++i) {
    const object_number number = first + static_cast<object_number>(random() % range);
    storage.load({&number, 1}, 0, sink);
  }
  print(what, loads, watch);
}

void load_in_order(dbs_storage& storage) {
  checking_sink sink;
  const stopwatch watch;
  for (object_number i = 0; i < segments * 64; ++i) {
    const object_number number = first + i;
    storage.load({&number, 1}, 0, sink);
  }
  print("load all one by one in order", segments * 64.0, watch);
  std::uint64_t visited = 0;
  const stopwatch visit;
  storage.for_each([&](const object_state&) { return ++visited != 0; });
  print("for_each", static_cast<double>(visited), visit);
}

void commit_some(dbs_storage& storage, class_number layout, unsigned thread, unsigned commits,
                 unsigned changes_each) {
  std::minstd_rand random(thread + 1);
  std::vector<std::string> texts(changes_each);
  for (unsigned i = 0; i < commits; ++i) {
    std::vector<object_change> changes;
    for (std::string& text : texts) {
      const object_number number = first + static_cast<object_number>(random() % (segments * 64));
      text = text_of(number + i);
      changes.push_back({number, layout, bytes_of(text), false, false});
    }
    storage.commit({changes, nullptr, {}});
  }
}

void commit_from(dbs_storage& storage, class_number layout, unsigned threads, unsigned commits,
                 unsigned changes_each, const char* what) {
  const storage_statistics before = storage.statistics();
  const stopwatch watch;
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t)
    workers.emplace_back([&, t] { commit_some(storage, layout, t, commits, changes_each); });
  for (std::thread& worker : workers) worker.join();
  print(what, double{1} * threads * commits * changes_each, watch);
  const storage_statistics after = storage.statistics();
  std::printf("    %.1f commits a group\n",
              static_cast<double>(after.commits - before.commits) /
                  static_cast<double>(after.commit_groups - before.commit_groups));
}

// What a commit pays for each object that it refers to: nearly always it is certain that it is
// there.
void look_for_foundations(dbs_storage& storage) {
  constexpr unsigned rounds = 2000, each = 100;
  std::minstd_rand random(9);
  std::vector<object_number> numbers(each);
  for (const bool is_certain : {true, false}) {
    commit_request nothing;
    nothing.builds_on = numbers;
    nothing.seen_at = is_certain ? storage.newest_version() : 0;
    const stopwatch watch;
    for (unsigned i = 0; i < rounds; ++i) {
      for (object_number& number : numbers)
        number = first + static_cast<object_number>(random() % (segments * 64));
      storage.commit(nothing);
    }
    print(is_certain ? "foundations that are certain" : "foundations that are looked for",
          rounds * each, watch);
  }
}

// How long commits are held when a copy begins, while eight threads keep the log busy.
void fix_copies(dbs_storage& storage, class_number layout) {
  constexpr unsigned copies = 20;
  std::atomic<bool> is_done{false};
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < 8; ++t) {
    workers.emplace_back([&, t] {
      while (!is_done) commit_some(storage, layout, t, 1, 10);
    });
  }
  double longest = 0, all = 0;
  for (unsigned i = 0; i < copies; ++i) {
    const auto copier = storage.copier();
    copier->prepare();
    auto pause = storage.pause_commits();
    const stopwatch held;
    copier->fix();
    pause.reset();
    const double seconds = held.seconds();
    longest = std::max(longest, seconds);
    all += seconds;
  }
  is_done = true;
  for (std::thread& worker : workers) worker.join();
  std::printf("%-44s %12.1f ms, at most %.1f ms\n", "commits held to fix a copy",
              all * 1e3 / copies, longest * 1e3);
}

void lock_and_unlock(dbs_storage& storage) {
  lock_owner owner;
  lock_table& locks = storage.locks();
  constexpr unsigned rounds = 200'000, each = 10;
  const auto limit = std::chrono::milliseconds(0);
  const stopwatch watch;
  for (unsigned i = 0; i < rounds; ++i) {
    for (object_number n = 0; n < each; ++n)
      locks.lock(owner, first + i % 1000 * each + n, lock_mode::exclusive, limit);
    locks.unlock_all(owner);
  }
  print("lock and unlock", rounds * each, watch);
  locks.lock(owner, first, lock_mode::exclusive, limit);
  const stopwatch again;
  for (unsigned i = 0; i < rounds * each; ++i) locks.lock(owner, first, lock_mode::shared, limit);
  print("lock what is held", rounds * each, again);
}

void measure(const std::string& directory, const std::string& options) {
  const std::string address = "file:store" + options;
  auto storage = open_storage(address, directory);
  const class_number layout = storage->intern_layout({});
  fill(*storage, layout);
  const stopwatch closing;
  storage.reset();
  print("close", 1, closing);
  const stopwatch opening;
  storage = open_storage(address, directory);
  print("open", 1, opening);
  std::printf("    %.1f MB on disk\n", static_cast<double>(storage->statistics().used_bytes) / 1e6);

  load_random(*storage, "random loads, cold", segments * 64, 300'000);
  load_random(*storage, "random loads, cold, again", segments * 64, 300'000);
  load_random(*storage, "random loads, 1000 segments", 1000 * 64, 1'000'000);
  load_in_order(*storage);
  lock_and_unlock(*storage);
  look_for_foundations(*storage);
  commit_from(*storage, layout, 1, 10'000, 1, "durable commits, 1 thread");
  commit_from(*storage, layout, 8, 5'000, 1, "durable commits, 8 threads");
  commit_from(*storage, layout, 1, 1'000, 100, "updates, 100 a commit, 1 thread");
  load_random(*storage, "random loads, log in use", segments * 64, 300'000);
  fix_copies(*storage, layout);
}

}  // namespace
}  // namespace goods

int main(int count, char** arguments) {
  const scratch_directory scratch;
  const std::string directory = count > 1 ? arguments[1] : scratch.path().string();
  goods::measure(directory, count > 2 ? arguments[2] : "");
  return 0;
}
