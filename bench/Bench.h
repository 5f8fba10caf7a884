#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "BenchStore.h"
#include "Report.h"
#include "Workload.h"

namespace tarns::bench {

struct BenchOptions {
  std::vector<std::string> items = {};              // empty: all of Bench::Items()
  std::vector<std::string> peers = {};              // in the order in which they run
  std::filesystem::path scratch = {};               // a directory of our own
  bool quick = false;                               // a tenth of the reads, writes and children
  bool dropCaches = false;                          // empty the page cache before each cold process
  std::size_t cacheBytes = std::size_t{256} << 20;  // for each peer, but where an item says its own
  int rounds = 3;                                   // of what only reads; the median counts
  std::filesystem::path tree = "/usr/share/doc";    // files for the item "vfs"
};

// The run: fills a store of each peer with the index, then lets all of them do each item in turn
// and adds what it found to the report. Items that change values come last, in the order of
// Items().
//
// Errors: std::runtime_error as soon as a store yields, lists or keeps anything else than it
// should.
class Bench {
 public:
  static const std::vector<std::string>& Items();

  // The workload and the report outlive this object.
  Bench(BenchOptions options, Workload& workload, Report& report);

  void run();

 private:
  using PeerWork = std::function<double(const std::string& peer)>;  // returns the figure

  // Bench.cpp
  bool wants(std::string_view item) const;
  bool isNamed(std::string_view item) const;  // among the items asked for
  std::size_t scaled(std::size_t count) const { return options_.quick ? count / 10 : count; }
  BenchStore::Options optionsOf(const std::string& peer) const;
  std::unique_ptr<BenchStore> open(const std::string& peer) const;
  // A row in which each peer's figure comes from `work`.
  void measure(const std::string& item, const std::string& unit, std::optional<Target> target,
               const PeerWork& work);

  // ReadItems.cpp
  void hotReads(std::size_t threads);
  void transactionReads();
  void locks();
  void coldReads();
  void coldWalk();
  void memory();
  void lists();

  // QueryItems.cpp
  void queries(bool isIndexed);

  // TextItems.cpp
  void text();

  // WriteItems.cpp
  void load();
  void singleUpdates(std::size_t threads);
  void batchedUpdates();
  void updates(const std::string& item, std::optional<Target> target,
               const std::vector<Update>& updates, std::size_t threads, std::size_t perCommit);
  void deletes();

  // WideItems.cpp
  void wide();

  // ReopenItem.cpp
  void reopen();

  // CloneItem.cpp
  void clone();
  // WatchItem.cpp
  void watch();
  // FilesItem.cpp
  void files();

  // ContainerItems.cpp
  void bundle();
  void balance();

  void checkWholeTree(const std::string& peer) const { checkWholeTree(peer, optionsOf(peer)); }
  void checkWholeTree(const std::string& peer, const BenchStore::Options& options) const;
  void checkUpdates(const std::string& peer, const std::vector<Update>& updates) const;

  const BenchOptions options_;
  Workload& workload_;
  Report& report_;
  double loaded_ = 0;  // values per second that tarns has loaded
};

// Throws std::runtime_error naming the peer unless `holds`.
void Verify(bool holds, std::string_view peer, std::string_view what);

// Runs work(0) to work(threads - 1), each in a thread of its own, and rethrows what one of them
// threw.
void RunThreads(std::size_t threads, const std::function<void(std::size_t)>& work);

// The one in the middle.
double Median(std::vector<double> figures);

// Seconds that `session` takes for the reads, within its read transaction; checks what they yield.
double TimeReads(StoreSession& session, const Reads& reads, std::string_view peer);

}  // namespace tarns::bench
