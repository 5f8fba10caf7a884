#include "Bench.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Machine.h"

namespace tarns::bench {

const std::vector<std::string>& Bench::Items() {
  static const std::vector<std::string> items = {
      "load",      "disk",       "hot-1",  "hot-2",       "hot-tx", "lock",   "cold-read",
      "cold-walk", "memory",     "list",   "query",       "export", "import", "update-1",
      "update-8",  "update-100", "delete", "query-index", "wide",   "reopen", "clone",
      "watch",     "vfs",        "bundle", "balance"};
  return items;
}

Bench::Bench(BenchOptions options, Workload& workload, Report& report)
    : options_(std::move(options)), workload_(workload), report_(report) {}

void Bench::run() {
  load();
  if (wants("hot-1") || wants("hot-2")) hotReads(1);
  if (wants("hot-2")) hotReads(2);
  if (wants("hot-tx")) transactionReads();
  if (wants("lock")) locks();
  if (wants("cold-read")) coldReads();
  if (wants("cold-walk")) coldWalk();
  if (wants("memory")) memory();
  if (wants("list")) lists();
  if (wants("query")) queries(false);
  if (wants("export") || wants("import")) text();
  if (wants("update-1") || wants("update-8") || wants("update-100")) {
    report_.note(fmt::format("the disk syncs {:.0f} writes of 4 KiB a second",
                             SyncsPerSecond(options_.scratch)));
  }
  if (wants("update-1")) singleUpdates(1);
  if (wants("update-8")) singleUpdates(8);
  if (wants("update-100")) batchedUpdates();
  if (wants("delete")) deletes();
  if (wants("query-index")) queries(true);
  if (wants("wide")) wide();
  if (wants("reopen")) reopen();
  if (wants("clone") && std::ranges::count(options_.peers, "tarns") > 0) clone();
  if (wants("watch")) watch();
  if (wants("vfs") && std::ranges::count(options_.peers, "tarns") > 0) files();
  if (isNamed("bundle")) bundle();
  if (isNamed("balance")) balance();
}

bool Bench::wants(std::string_view item) const { return options_.items.empty() || isNamed(item); }

bool Bench::isNamed(std::string_view item) const {
  return std::find(options_.items.begin(), options_.items.end(), item) != options_.items.end();
}

BenchStore::Options Bench::optionsOf(const std::string& peer) const {
  return {options_.scratch / peer, options_.cacheBytes};
}

std::unique_ptr<BenchStore> Bench::open(const std::string& peer) const {
  return BenchStore::Open(peer, optionsOf(peer));
}

void Bench::measure(const std::string& item, const std::string& unit, std::optional<Target> target,
                    const PeerWork& work) {
  Row row = {item, unit, {}, std::move(target)};
  for (const std::string& peer : options_.peers) row.figures[peer] = work(peer);
  report_.add(std::move(row));
}

void Bench::checkWholeTree(const std::string& peer, const BenchStore::Options& options) const {
  WalkSum sum;
  const auto store = BenchStore::Open(peer, options);
  const auto session = store->session();
  session->beginReads();
  session->walk(sum);
  session->endReads();
  Verify(sum.values() == workload_.values(), peer,
         fmt::format("{} values instead of {}", sum.values(), workload_.values()));
  Verify(sum.sum() == workload_.walkSum(), peer, "the tree is not what was stored");
}

void Verify(bool holds, std::string_view peer, std::string_view what) {
  if (!holds) throw std::runtime_error(fmt::format("Wrong result of {}: {}", peer, what));
}

void RunThreads(std::size_t threads, const std::function<void(std::size_t)>& work) {
  std::mutex lock;
  std::exception_ptr failure;
  {
    std::vector<std::jthread> running;
    for (std::size_t i = 0; i < threads; ++i) {
      running.emplace_back([&, i] {
        try {
          work(i);
        } catch (...) {
          const std::lock_guard hold(lock);
          if (!failure) failure = std::current_exception();
        }
      });
    }
  }
  if (failure) std::rethrow_exception(failure);
}

double Median(std::vector<double> figures) {
  std::sort(figures.begin(), figures.end());
  return figures.at(figures.size() / 2);
}

double TimeReads(StoreSession& session, const Reads& reads, std::string_view peer) {
  std::uint64_t digests = 0;
  std::size_t found = 0;
  session.beginReads();
  const Stopwatch watch;
  for (std::size_t i = 0; i < reads.paths.size(); ++i) {
    std::uint64_t digest = 0;
    found += session.read(reads.paths[i], digest) ? 1 : 0;
    digests += digest;
  }
  const double seconds = watch.seconds();
  session.endReads();
  Verify(found == reads.paths.size(), peer,
         fmt::format("{} reads found nothing", reads.paths.size() - found));
  Verify(digests == reads.digests, peer, "a read yielded another value than was stored");
  return seconds;
}

}  // namespace tarns::bench
