#include <fmt/format.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnTransaction.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <vector>

#include "Bench.h"
#include "ColdProcess.h"
#include "Machine.h"
#include "TarnsStore.h"

namespace tarns::bench {
namespace {

using Clock = std::chrono::steady_clock;

// One round of one thread.
struct Span {
  Clock::time_point start, end;
  double seconds;  // of the reads alone, by Stopwatch
};

// Reads per second of several threads that start together, the median of some rounds. Every thread
// first reads all values, so that what the peer keeps in memory is there.
double HotReadsPerSecond(BenchStore& store, const std::string& peer, const Reads& all,
                         const std::vector<Reads>& parts, int rounds) {
  const auto threads = static_cast<std::ptrdiff_t>(parts.size());
  std::barrier ready(threads);
  std::vector<std::vector<Span>> spans(parts.size());
  RunThreads(parts.size(), [&](std::size_t i) {
    try {
      const auto session = store.session();
      TimeReads(*session, all, peer);
      for (int round = 0; round < rounds; ++round) {
        ready.arrive_and_wait();
        const auto start = Clock::now();
        const double seconds = TimeReads(*session, parts[i], peer);
        spans[i].push_back({start, Clock::now(), seconds});
      }
    } catch (...) {
      ready.arrive_and_drop();  // or the others would wait for ever
      throw;
    }
  });
  std::size_t reads = 0;
  for (const Reads& part : parts) reads += part.paths.size();
  std::vector<double> figures;
  for (std::size_t round = 0; round < static_cast<std::size_t>(rounds); ++round) {
    Clock::time_point first = Clock::time_point::max(), last = Clock::time_point::min();
    for (std::size_t i = 0; i < parts.size(); ++i) {
      first = std::min(first, spans[i][round].start);
      last = std::max(last, spans[i][round].end);
    }
    const double seconds = parts.size() == 1 ? spans[0][round].seconds
                                             : std::chrono::duration<double>(last - first).count();
    figures.push_back(static_cast<double>(reads) / seconds);
  }
  return Median(std::move(figures));
}

}  // namespace

void Bench::hotReads(std::size_t threads) {
  const std::size_t count = scaled(1'000'000);
  std::vector<Reads> parts;
  for (std::size_t i = 0; i < threads; ++i) {
    parts.push_back(workload_.randomReads(count / threads, 100 + i));
  }
  const Reads all = workload_.allReads();
  Target target = {Target::kAtLeast, 4, "sqlite"};
  if (threads > 1) {
    const double single = report_.figure("hot reads, 1 thread", "tarns").value_or(0);
    target = {Target::kAtLeast, 1.7, "", single, "tarns, 1 thread"};
  }
  measure(fmt::format("hot reads, {} thread{}", threads, threads > 1 ? "s" : ""), "reads/s", target,
          [&](const std::string& peer) {
            return HotReadsPerSecond(*open(peer), peer, all, parts, options_.rounds);
          });
}

// Values of which there are few enough for their nodes, indexes and texts to be in memory; outside
// and within transactions.
void Bench::transactionReads() {
  constexpr std::size_t kPerTransaction = 1000;
  const Reads reads = workload_.randomReads(10'000, 100);
  const std::size_t turns = scaled(100);
  const auto readAll = [&](StoreSession& session, const std::string& peer, std::size_t perBatch) {
    std::uint64_t digests = 0;
    for (std::size_t i = 0; i < reads.paths.size(); ++i) {
      if (perBatch != 0 && i % perBatch == 0) session.begin();
      std::uint64_t digest = 0;
      session.read(reads.paths[i], digest);
      digests += digest;
      if (perBatch != 0 && (i + 1) % perBatch == 0) session.commit();
    }
    Verify(digests == reads.digests, peer, "reads of few values");
  };
  const auto perSecond = [&](const std::string& peer, std::size_t perBatch) {
    const auto store = open(peer);
    const auto session = store->session();
    std::vector<double> figures;
    for (int round = 0; round < options_.rounds; ++round) {
      if (perBatch == 0) session->beginReads();
      readAll(*session, peer, perBatch);
      const Stopwatch watch;
      for (std::size_t turn = 0; turn < turns; ++turn) readAll(*session, peer, perBatch);
      figures.push_back(static_cast<double>(turns * reads.paths.size()) / watch.seconds());
      if (perBatch == 0) session->endReads();
    }
    return Median(std::move(figures));
  };
  const std::string outside = "reads of 10,000 values";
  measure(outside, "reads/s", {}, [&](const std::string& peer) { return perSecond(peer, 0); });
  measure(
      outside + ", 1,000 a transaction", "reads/s",
      Target{Target::kAtLeast, 0.5, "", report_.figure(outside, "tarns").value_or(0), "outside"},
      [&](const std::string& peer) { return perSecond(peer, kPerTransaction); });
}

// What a transaction pays for an object that nobody else uses: a read access to each of some nodes
// that are in memory, less what the same accesses cost outside of one.
void Bench::locks() {
  if (std::ranges::find(options_.peers, "tarns") == options_.peers.end()) return;
  const std::size_t rounds = scaled(2000);
  const auto& packages = workload_.index().packages();
  const std::size_t count = std::min<std::size_t>(packages.size(), 1000);
  const auto store = open("tarns");
  auto& manager = static_cast<TarnsStore&>(*store).manager();
  const TarnAttachment attachment(manager);
  std::vector<xcptref<TarnObject>> nodes;
  for (std::size_t i = 0; i < count; ++i) {
    nodes.push_back(manager.getObject(workload_.pathOf(packages[i])));
  }
  const auto accessAll = [&] {
    for (const auto& node : nodes) Verify(node->getClass().isTarnsBaseClass(), "tarns", "a node");
  };
  const auto seconds = [&](const auto& work) {
    work();
    const Stopwatch watch;
    for (std::size_t round = 0; round < rounds; ++round) work();
    return watch.seconds();
  };
  const double locking = seconds([&] {
    TarnTransaction transaction;
    accessAll();
    transaction.commit();
  });
  const double one = 1e9 / static_cast<double>(rounds * count);
  report_.add({"lock and unlock an object",
               "ns",
               {{"tarns", (locking - seconds(accessAll)) * one}},
               Target{Target::kAtMost, 1, "", 150, "150 ns"}});
}

void Bench::coldReads() {
  const Reads reads = workload_.randomReads(scaled(100'000), 200);
  const auto file = options_.scratch / "paths";
  reads.paths.save(file);
  measure("cold reads", "reads/s", Target{Target::kAtLeast, 1.5, "sqlite"},
          [&](const std::string& peer) {
            std::vector<double> figures;
            for (int round = 0; round < options_.rounds; ++round) {
              options_.dropCaches ? DropPageCache() : WarmPageCache(optionsOf(peer).directory);
              const auto result = RunColdProcess({ColdTask::kRead, peer, optionsOf(peer), file});
              Verify(result.reads == reads.paths.size() && result.digests == reads.digests, peer,
                     "cold reads");
              figures.push_back(static_cast<double>(result.reads) / result.seconds);
            }
            return Median(std::move(figures));
          });
}

void Bench::coldWalk() {
  measure("cold walk", "values/s", Target{Target::kAtLeast, 1, "sqlite"},
          [&](const std::string& peer) {
            std::vector<double> figures;
            for (int round = 0; round < options_.rounds; ++round) {
              options_.dropCaches ? DropPageCache() : WarmPageCache(optionsOf(peer).directory);
              const auto result = RunColdProcess({ColdTask::kWalk, peer, optionsOf(peer)});
              Verify(result.walked == workload_.values() && result.walkSum == workload_.walkSum(),
                     peer, "cold walk");
              figures.push_back(static_cast<double>(result.walked) / result.seconds);
            }
            return Median(std::move(figures));
          });
}

void Bench::memory() {
  constexpr double kMebibyte = 1 << 20;
  const Reads reads = workload_.randomReads(scaled(1'000'000), 300);
  const auto file = options_.scratch / "paths";
  reads.paths.save(file);
  // The paths are memory of the benchmark, not of the peer.
  const double ours = static_cast<double>(std::filesystem::file_size(file)) +
                      static_cast<double>(reads.paths.size() * 2 * sizeof(std::size_t));
  measure("peak memory, cache 64 MiB", "MiB", Target{Target::kAtMost, 1, "", 200, "200 MiB"},
          [&](const std::string& peer) {
            auto options = optionsOf(peer);
            options.cacheBytes = std::size_t{64} << 20;
            const auto result = RunColdProcess({ColdTask::kWalkThenRead, peer, options, file});
            Verify(result.walkSum == workload_.walkSum() && result.digests == reads.digests, peer,
                   "walk and reads within a small cache");
            return (static_cast<double>(result.peakBytes) - ours) / kMebibyte;
          });
}

void Bench::lists() {
  const auto packages = workload_.randomPackages(scaled(100'000), 400);
  PathList paths;
  std::uint64_t expected = 0, all = 0;
  for (const std::size_t i : packages) {
    const auto& package = workload_.index().packages()[i];
    paths.add(workload_.pathOf(package));
    for (const Field& field : workload_.index().fieldsOf(package)) {
      expected += DigestOf(field.name);
    }
  }
  for (const auto& package : workload_.index().packages()) all += DigestOf(package.name);

  // Lists per second of each of the paths in turn, the names compared as a whole.
  const auto listAll = [&](const std::string& peer, const PathList& nodes, std::uint64_t digests) {
    const auto store = open(peer);
    const auto session = store->session();
    std::vector<double> figures;
    for (int round = 0; round < options_.rounds; ++round) {
      std::uint64_t sum = 0;
      const auto sink = [&sum](std::string_view name) { sum += DigestOf(name); };
      session->beginReads();
      const Stopwatch watch;
      for (std::size_t i = 0; i < nodes.size(); ++i) {
        session->list(nodes[i], "", SIZE_MAX / 2, sink);
      }
      figures.push_back(static_cast<double>(nodes.size()) / watch.seconds());
      session->endReads();
      Verify(sum == digests, peer, "names of children");
    }
    return Median(std::move(figures));
  };
  measure("list a package's fields", "lists/s", {},
          [&](const std::string& peer) { return listAll(peer, paths, expected); });
  PathList top;
  top.add(kPackages);
  const auto names = static_cast<double>(workload_.index().packages().size());
  measure("list all packages", "names/s", {},
          [&](const std::string& peer) { return names * listAll(peer, top, all); });
}

}  // namespace tarns::bench
