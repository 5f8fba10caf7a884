// Bundles and collections against plain nodes: tarns alone, through its own interface.
#include <fmt/format.h>
#include <tarns/containers/TarnBundle.h>
#include <tarns/containers/TarnCollection.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnTransaction.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include "Bench.h"
#include "Machine.h"
#include "TarnsStore.h"

namespace tarns::bench {

// Ends a balance when it is told to, and counts its steps.
class BalanceStep : public TarnObject {
  TARN_CLASS(BalanceStep, TarnObject)

 public:
  static inline std::atomic<bool> mayGoOn{true};
  static inline std::atomic<std::size_t> steps{0};

  void touch() override {
    if (!mayGoOn) throw TarnException("The balance is to end here.", ErrorID::Unspecified);
    ++steps;
  }
};
TARN_REGISTER(BalanceStep, TarnObject);

namespace {

constexpr const char* kNode = "node";
constexpr const char* kClass = "TarnSint64Value";
constexpr std::size_t kBatch = 1000;  // children in a commit
constexpr std::size_t kPage = 10'000;
constexpr std::size_t kReplacedStep = 10;  // each so many-th child is deleted and made again

std::string NameOf(std::size_t i) { return fmt::format("entry-{:08}", i); }

// A node whose children come and go.
class Children {
 public:
  virtual ~Children() = default;
  virtual std::string path() const = 0;  // of the node that lists them
  virtual void create(const char* name) = 0;
  virtual bool erase(const char* name) = 0;
  // Around all calls of a transaction.
  virtual void inBatch(const std::function<void()>& work) { work(); }
};

class PlainChildren : public Children {
 public:
  explicit PlainChildren(TarnManager& manager) : node_(manager.getNoFail(kNode)) {}
  std::string path() const override { return kNode; }
  void create(const char* name) override {
    const TarnRef child = TarnObject::CreateOfType(kClass);
    modify(child)->initialize();
    modify(node_)->addChild(name, child);
  }
  bool erase(const char* name) override { return modify(node_)->deleteChild(name); }

 private:
  const TarnRef node_;
};

class BundledChildren : public Children {
 public:
  explicit BundledChildren(TarnManager& manager)
      : bundle_(manager.getNoFail(kNode, TarnBundle::GetType())) {
    modify(bundle_)->initClassName(kClass);
  }
  std::string path() const override {
    return std::string(kNode) + "~" + TarnBundle::kBundledChildren;
  }
  void create(const char* name) override { modify(bundle_)->newChild(name); }
  bool erase(const char* name) override { return modify(bundle_)->deleteBundledChild(name); }

 protected:
  const xcptref<TarnBundle> bundle_;
};

// The same with what a block's name costs put off to the end of each batch.
class BatchedChildren : public BundledChildren {
 public:
  using BundledChildren::BundledChildren;
  void inBatch(const std::function<void()>& work) override { modify(bundle_)->together(work); }
};

// Calls work(i) for 0, 1, ... below `count`, each kBatch of them in a transaction.
template <class Work>
void InBatches(TarnManager& manager, std::size_t count, const Work& work) {
  for (std::size_t i = 0; i < count;) {
    TarnTransaction transaction(manager);
    for (const std::size_t end = std::min(i + kBatch, count); i < end; ++i) work(i);
    transaction.commit();
  }
}

template <class Work>
void InBatches(TarnManager& manager, Children& children, std::size_t count, const Work& work) {
  for (std::size_t begin = 0; begin < count; begin += kBatch) {
    TarnTransaction transaction(manager);
    children.inBatch([&] {
      for (std::size_t i = begin; i < std::min(begin + kBatch, count); ++i) work(i);
    });
    transaction.commit();
  }
}

double SecondsToCreate(TarnManager& manager, Children& children, std::size_t count) {
  const Stopwatch watch;
  InBatches(manager, children, count, [&](std::size_t i) { children.create(NameOf(i).c_str()); });
  return watch.seconds();
}

// First all of them are deleted, then all made again.
double SecondsToReplace(TarnManager& manager, Children& children, std::size_t count) {
  const Stopwatch watch;
  InBatches(manager, children, count, [&](std::size_t i) {
    Verify(children.erase(NameOf(kReplacedStep * i).c_str()), kPeer, "a child is gone");
  });
  InBatches(manager, children, count,
            [&](std::size_t i) { children.create(NameOf(kReplacedStep * i).c_str()); });
  return watch.seconds();
}

void CheckNames(const TarnManager& manager, const std::string& path, std::size_t count) {
  std::size_t i = 0;
  std::vector<std::string> names;
  do {
    names = manager.getChildNames(path, names.empty() ? std::string() : names.back(), kPage);
    for (const std::string& name : names) {
      Verify(name == NameOf(i++), kPeer, fmt::format("\"{}\" among the children", name));
    }
  } while (names.size() == kPage);
  Verify(i == count, kPeer, fmt::format("{} children", i));
}

struct ChildrenFigures {
  double created, replaced;  // children a second
};

template <class Kind>
ChildrenFigures MeasureChildren(const TarnsStore::Options& options, std::size_t count) {
  ChildrenFigures figures{};
  {
    TarnsStore store(options);
    const TarnAttachment attachment(store.manager());
    Kind children(store.manager());
    figures.created =
        static_cast<double>(count) / SecondsToCreate(store.manager(), children, count);
    const std::size_t replaced = count / kReplacedStep;
    figures.replaced =
        static_cast<double>(replaced) / SecondsToReplace(store.manager(), children, replaced);
  }
  TarnsStore store(options);
  const TarnAttachment attachment(store.manager());
  CheckNames(store.manager(), Kind(store.manager()).path(), count);
  return figures;
}

// Reads random children by path for as long as it takes, and checks what it gets.
double ReadsPerSecond(TarnManager& manager, std::size_t children, std::size_t reads) {
  std::mt19937_64 random(77);
  std::string path;
  const Stopwatch watch;
  for (std::size_t n = 0; n < reads; ++n) {
    const std::size_t i = RandomBelow(random, children);
    path.assign(kNode).append("~").append(NameOf(i));
    Verify(manager.getSint64(path, -1) == static_cast<std::int64_t>(i), kPeer,
           fmt::format("\"{}\" read", path));
  }
  return static_cast<double>(reads) / watch.seconds();
}

// Balances until it is told to end; whatever else goes wrong is thrown.
void BalanceUntilTold(TarnManager& manager) {
  const TarnAttachment attachment(manager);
  try {
    TarnCollection::Balance(manager, manager.getRoot(), kNode, BalanceStep::Create());
  } catch (const TarnException&) {
    if (BalanceStep::mayGoOn) throw;
  }
}

}  // namespace

void Bench::bundle() {
  const std::size_t count = scaled(1'000'000);
  const auto options = [&](const char* directory) {
    return TarnsStore::Options{options_.scratch / directory, options_.cacheBytes};
  };
  const auto plain = MeasureChildren<PlainChildren>(options("plain"), count);
  const auto bundled = MeasureChildren<BundledChildren>(options("bundle"), count);
  const auto batched = MeasureChildren<BatchedChildren>(options("batched"), count);
  report_.add({"bundle: create, 1,000 a commit",
               "children/s",
               {{kPeer, bundled.created}},
               Target{Target::kAtLeast, 3, "", plain.created, "plain children"}});
  report_.add({"bundle: delete and create again",
               "children/s",
               {{kPeer, bundled.replaced}},
               Target{Target::kAtLeast, 2, "", plain.replaced, "plain children"}});
  report_.add({"bundle: create together",
               "children/s",
               {{kPeer, batched.created}},
               Target{Target::kAtLeast, 3, "", plain.created, "plain children"}});
  report_.add({"bundle: delete and create together",
               "children/s",
               {{kPeer, batched.replaced}},
               Target{Target::kAtLeast, 2, "", plain.replaced, "plain children"}});
}

void Bench::balance() {
  const std::size_t count = scaled(1'000'000), reads = scaled(2'000'000);
  TarnsStore store({options_.scratch / "balance", options_.cacheBytes});
  TarnManager& manager = store.manager();
  const TarnAttachment attachment(manager);
  const TarnRef node = manager.getNoFail(kNode, TarnCollection::GetType());
  InBatches(manager, count, [&](std::size_t i) {
    modify(node)->addChild(NameOf(i).c_str(),
                           TarnValue::CreateValue(TarnData(static_cast<std::int64_t>(i))));
  });
  ReadsPerSecond(manager, count, count);
  const double quiet = ReadsPerSecond(manager, count, reads);
  double busy = 0;
  RunThreads(2, [&](std::size_t thread) {
    if (thread == 0) return BalanceUntilTold(manager);
    const TarnAttachment reader(manager);
    while (BalanceStep::steps < kBatch) std::this_thread::yield();
    const std::size_t before = BalanceStep::steps;
    busy = ReadsPerSecond(manager, count, reads);
    Verify(BalanceStep::steps > before, kPeer, "the balance stands still");
    BalanceStep::mayGoOn = false;
  });
  report_.note(fmt::format("{} of {} children were moved", BalanceStep::steps - 1, count));
  const xcptref<TarnCollection> collection(manager.getObject(kNode));
  Verify(collection->getNumChildren() == count, kPeer, "children after the balance");
  CheckNames(manager, kNode, count);
  report_.add({"balance: random look-up meanwhile",
               "reads/s",
               {{kPeer, busy}},
               Target{Target::kAtLeast, 0.7, "", quiet, "collection at rest"}});
}

}  // namespace tarns::bench
