// Finding packages by one of their fields: by looking at all of them, and by an index.
#include <fmt/format.h>
#include <tarns/util/Stringer.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Bench.h"
#include "Machine.h"

namespace tarns::bench {
namespace {

constexpr const char* kField = "Section";

// The names of the packages with each text, in capitals, of the field.
using Expected = std::map<std::string, std::vector<std::string>>;

Expected PackagesByText(const Workload& workload) {
  Expected expected;
  const auto& packages = workload.index().packages();
  for (std::size_t i = 0; i < packages.size(); ++i) {
    std::string text = workload.textOf(i, kField);
    if (text.empty()) continue;
    std::transform(text.begin(), text.end(), text.begin(), Stringer::ToUpper);
    expected[text].emplace_back(packages[i].name);
  }
  for (auto& [text, names] : expected) std::sort(names.begin(), names.end());
  return expected;
}

// Seconds for all the queries; checks what they find.
double TimeQueries(StoreSession& session, const Expected& expected, std::size_t count,
                   const std::string& peer) {
  std::vector<std::string> found;
  const Stopwatch watch;
  std::size_t i = 0;
  for (auto query = expected.begin(); i < count; ++i, ++query) {
    if (query == expected.end()) query = expected.begin();
    found.clear();
    session.findByValue(kPackages, kField, query->first,
                        [&](std::string_view name) { found.emplace_back(name); });
    Verify(found == query->second, peer,
           fmt::format("{} packages of section {}", found.size(), query->first));
  }
  return watch.seconds();
}

}  // namespace

// Of the peers that have queries.
void Bench::queries(bool isIndexed) {
  const Expected expected = PackagesByText(workload_);
  const std::size_t count =
      isIndexed ? expected.size() * 10 : std::min<std::size_t>(10, expected.size());
  Row row = {isIndexed ? "query by a field, index" : "query by a field, no index",
             "queries/s",
             {},
             Target{Target::kAtLeast, 1, "sqlite"}};
  for (const std::string& peer : options_.peers) {
    if (peer == "lmdb") continue;
    const auto store = open(peer);
    const auto session = store->session();
    if (isIndexed) session->addIndex(kPackages, kField);
    session->beginReads();
    TimeQueries(*session, expected, count, peer);
    std::vector<double> figures;
    figures.reserve(static_cast<std::size_t>(options_.rounds));
    for (int round = 0; round < options_.rounds; ++round) {
      figures.push_back(static_cast<double>(count) / TimeQueries(*session, expected, count, peer));
    }
    session->endReads();
    row.figures[peer] = Median(std::move(figures));
  }
  report_.add(std::move(row));
}

}  // namespace tarns::bench
