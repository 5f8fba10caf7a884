#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "Bench.h"
#include "Machine.h"

namespace tarns::bench {
namespace {

constexpr std::size_t kBatch = 100;  // changes per commit
constexpr std::size_t kSlices = 5;

void LoadIndex(BenchStore& store, const PackageIndex& index) {
  const auto session = store.session();
  const std::size_t perCommit = store.packagesPerCommit();
  std::size_t pending = 0;
  for (const auto& package : index.packages()) {
    if (pending == 0) session->begin();
    session->addNode(kPackages, package.name, index.fieldsOf(package));
    if (++pending < perCommit) continue;
    session->commit();
    pending = 0;
  }
  if (pending > 0) session->commit();
}

void Change(BenchStore& store, std::span<const Update> updates, std::size_t perCommit) {
  const auto session = store.session();
  for (std::size_t i = 0; i < updates.size(); ++i) {
    const Value value = Value::Text(updates[i].text);
    if (perCommit == 1) {
      session->updateDurably(updates[i].path, value);
      continue;
    }
    if (i % perCommit == 0) session->begin();
    session->update(updates[i].path, value);
    if (i % perCommit == perCommit - 1 || i + 1 == updates.size()) session->commit();
  }
}

}  // namespace

void Bench::load() {
  std::map<std::string, double> durable, closed, bytes;
  const auto values = static_cast<double>(workload_.values());
  for (const std::string& peer : options_.peers) {
    const Stopwatch watch;
    auto store = open(peer);
    LoadIndex(*store, workload_.index());
    durable[peer] = values / watch.seconds();
    if (peer == "tarns") loaded_ = durable[peer];
    store.reset();
    closed[peer] = values / watch.seconds();
    bytes[peer] = static_cast<double>(BytesBelow(optionsOf(peer).directory)) / (1 << 20);
    checkWholeTree(peer);
  }
  if (wants("load")) {
    report_.add({"load", "values/s", durable, Target{Target::kAtLeast, 0.7, "sqlite"}});
    report_.add({"load and close", "values/s", closed});
  }
  if (wants("disk")) {
    report_.add({"disk after load", "MiB", bytes, Target{Target::kAtMost, 1.2, "sqlite"}});
  }
}

void Bench::singleUpdates(std::size_t threads) {
  const Target target = {Target::kAtLeast, threads > 1 ? 4.0 : 1.3, "sqlite"};
  updates(fmt::format("durable updates, {} thread{}", threads, threads > 1 ? "s" : ""), target,
          workload_.randomUpdates(scaled(20'000), 500 + threads), threads, 1);
}

void Bench::batchedUpdates() {
  updates("updates, 100 a commit", Target{Target::kAtLeast, 5, "sqlite"},
          workload_.randomUpdates(scaled(100'000), 600), 1, kBatch);
}

// The peers take turns, a slice of the updates each, and the median slice counts: how fast a disk
// syncs changes from one second to the next where others use it too.
void Bench::updates(const std::string& item, std::optional<Target> target,
                    const std::vector<Update>& updates, std::size_t threads,
                    std::size_t perCommit) {
  std::map<std::string, std::unique_ptr<BenchStore>> stores;
  for (const std::string& peer : options_.peers) stores[peer] = open(peer);
  std::map<std::string, std::vector<double>> figures;
  const std::size_t sliceSize = std::max<std::size_t>(1, updates.size() / kSlices);
  for (std::size_t from = 0; from < updates.size(); from += sliceSize) {
    const auto slice = std::span(updates).subspan(from, std::min(sliceSize, updates.size() - from));
    for (const std::string& peer : options_.peers) {
      const Stopwatch watch = Stopwatch::Wall();
      RunThreads(threads, [&](std::size_t i) {
        const std::size_t first = slice.size() * i / threads;
        const std::size_t end = slice.size() * (i + 1) / threads;
        Change(*stores[peer], slice.subspan(first, end - first), perCommit);
      });
      figures[peer].push_back(static_cast<double>(slice.size()) / watch.seconds());
    }
  }
  stores.clear();
  for (const std::string& peer : options_.peers) checkUpdates(peer, updates);
  measure(item, "updates/s", std::move(target),
          [&](const std::string& peer) { return Median(figures[peer]); });
  workload_.apply(updates);
}

void Bench::checkUpdates(const std::string& peer, const std::vector<Update>& updates) const {
  Reads reads;
  for (const Update& update : updates) {
    reads.paths.add(update.path);
    reads.digests += DigestOf(Value::Text(update.text));
  }
  const auto store = open(peer);
  TimeReads(*store->session(), reads, peer);
}

void Bench::deletes() {
  const auto erase = [&](const std::string& item, std::size_t count, std::size_t perCommit,
                         std::uint64_t seed) {
    const auto packages = workload_.randomPackages(count, seed);
    measure(item, "packages/s", {}, [&](const std::string& peer) {
      const auto store = open(peer);
      const auto session = store->session();
      const Stopwatch watch;
      for (std::size_t i = 0; i < packages.size(); ++i) {
        const std::string path = workload_.pathOf(workload_.index().packages()[packages[i]]);
        if (perCommit == 1) {
          session->eraseDurably(path);
          continue;
        }
        if (i % perCommit == 0) session->begin();
        Verify(session->erase(path), peer, "nothing to delete");
        if (i % perCommit == perCommit - 1 || i + 1 == packages.size()) session->commit();
      }
      return static_cast<double>(packages.size()) / watch.seconds();
    });
    workload_.applyErase(packages);
    for (const std::string& peer : options_.peers) checkWholeTree(peer);
  };
  erase("deletes, 1 a commit", scaled(5'000), 1, 700);
  erase("deletes, 100 a commit", scaled(20'000), kBatch, 800);
}

}  // namespace tarns::bench
