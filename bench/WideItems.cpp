#include <fmt/format.h>

#include <algorithm>

#include "Bench.h"
#include "Machine.h"

namespace tarns::bench {
namespace {

constexpr const char* kNode = "wide";
constexpr std::size_t kPerCommit = 50'000;  // children
constexpr std::size_t kPage = 100;          // names

// Many values of one node, in the order of their names.
class Children {
 public:
  explicit Children(std::size_t count) {
    names_.reserve(count * kNameLength);
    fields_.reserve(count);
    // Each of one length, so that no name moves while others are added.
    for (std::size_t i = 0; i < count; ++i) names_.append(fmt::format("entry-{:08}", i));
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view name(names_.data() + i * kNameLength, kNameLength);
      fields_.push_back({name, Value::Integer(static_cast<std::int64_t>(i * 7))});
    }
  }

  std::span<const Field> fields() const { return fields_; }

  Reads reads(std::size_t count, std::uint64_t seed) const {
    std::mt19937_64 random(seed);
    Reads reads;
    for (std::size_t i = 0; i < count; ++i) {
      const Field& field = fields_[RandomBelow(random, fields_.size())];
      reads.paths.add(std::string(kNode).append("~").append(field.name));
      reads.digests += DigestOf(field.value);
    }
    return reads;
  }

  std::uint64_t nameDigests() const {
    std::uint64_t sum = 0;
    for (const Field& field : fields_) sum += DigestOf(field.name);
    return sum;
  }

 private:
  static constexpr std::size_t kNameLength = 14;

  std::string names_;
  std::vector<Field> fields_;
};

double SecondsToLoad(BenchStore& store, const Children& children) {
  const auto session = store.session();
  const Stopwatch watch;
  auto rest = children.fields();
  while (!rest.empty()) {
    const std::size_t count = std::min(kPerCommit, rest.size());
    session->begin();
    session->addValues(kNode, rest.first(count));
    session->commit();
    rest = rest.subspan(count);
  }
  return watch.seconds();
}

// Goes through all names, a page at a time, each page found by the last name of the one before.
double SecondsToPage(StoreSession& session, const Children& children, const std::string& peer) {
  std::string last;
  std::uint64_t sum = 0;
  std::size_t seen = 0, got = 0;
  session.beginReads();
  const Stopwatch watch;
  do {
    got = 0;
    std::string next;
    session.list(kNode, last, kPage, [&](std::string_view name) {
      sum += DigestOf(name);
      if (++got == kPage) next = name;
    });
    seen += got;
    last = std::move(next);
  } while (got == kPage);
  const double seconds = watch.seconds();
  session.endReads();
  Verify(seen == children.fields().size() && sum == children.nameDigests(), peer,
         fmt::format("{} names paged through", seen));
  return seconds;
}

}  // namespace

void Bench::wide() {
  const Children children(scaled(1'000'000));
  const auto count = static_cast<double>(children.fields().size());
  const auto openWide = [&](const std::string& peer) {
    return BenchStore::Open(peer, {options_.scratch / (peer + "-wide"), options_.cacheBytes});
  };
  measure("wide node: load", "values/s", {}, [&](const std::string& peer) {
    return count / SecondsToLoad(*openWide(peer), children);
  });
  const Reads reads = children.reads(scaled(1'000'000), 900);
  measure("wide node: random look-up", "reads/s", Target{Target::kAtLeast, 3, "sqlite"},
          [&](const std::string& peer) {
            const auto store = openWide(peer);
            const auto session = store->session();
            TimeReads(*session, children.reads(children.fields().size(), 901), peer);
            std::vector<double> figures;
            figures.reserve(static_cast<std::size_t>(options_.rounds));
            for (int round = 0; round < options_.rounds; ++round) {
              figures.push_back(static_cast<double>(reads.paths.size()) /
                                TimeReads(*session, reads, peer));
            }
            return Median(std::move(figures));
          });
  measure("wide node: paging through", "names/s", {}, [&](const std::string& peer) {
    const auto store = openWide(peer);
    const auto session = store->session();
    std::vector<double> figures;
    figures.reserve(static_cast<std::size_t>(options_.rounds));
    for (int round = 0; round < options_.rounds; ++round) {
      figures.push_back(count / SecondsToPage(*session, children, peer));
    }
    return Median(std::move(figures));
  });
}

}  // namespace tarns::bench
