// A real store, with valid checksums, whose objects are not what anybody wrote: each input puts
// other states in the place of some objects; then everything that an application does with a
// database is done with it. Afterwards the store is put in order again.
//
// The input is a list of objects: a byte that chooses the number (one of those in the store, from
// 200 on a new one), a byte that chooses the layout (one of those in the store; 250 and 251: the
// object is removed; from 252 on the state begins with a layout of its own and its length), two
// bytes of length, the state.
//
// With TARNS_WRITE_SEEDS=DIRECTORY in the environment it writes the good store's objects as inputs.
#include <goods/dbs_storage.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzzer.h"
#include "tests/support/scratch_directory.h"

namespace {

using namespace tarns;

constexpr const char* kAddress = "file:./data?durability=relaxed&log=256K";
constexpr std::size_t kMostSteps = 2'000;     // of one walk: circles by way of copies have no end
constexpr std::size_t kMostOwnLayouts = 500;  // they are kept for good
constexpr unsigned kFirstNew = 200, kRemove = 250, kOwnLayout = 252;
constexpr goods::object_number kNewNumbers = 0x90000;

using Bytes = std::span<const std::byte>;

struct State {
  goods::class_number layout = 0;
  std::vector<std::byte> body;
};
using States = std::map<goods::object_number, State>;

States StatesIn(goods::dbs_storage& storage) {
  States all;
  storage.for_each([&](const goods::object_state& state) {
    all[state.number] = {state.layout, {state.body.begin(), state.body.end()}};
    return true;
  });
  return all;
}

class HostileStore {
 public:
  HostileStore() {
    std::ofstream(configuration()) << "1\n0: " << kAddress << '\n';
    TarnManager::Initialize();
    makeGoodStore();
    storage_ = goods::open_storage(kAddress, directory_.path());
    good_ = StatesIn(*storage_);
    for (const auto& [number, state] : good_) {
      numbers_.push_back(number);
      if (std::ranges::find(layouts_, state.layout) == layouts_.end()) {
        layouts_.push_back(state.layout);
      }
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
    if (const char* seeds = std::getenv("TARNS_WRITE_SEEDS")) writeSeeds(seeds);
  }

  std::string configuration() const { return directory_.file("tarns.conf"); }
  const std::vector<goods::object_number>& numbers() const { return numbers_; }

  void put(Bytes input) {
    States hostile;
    while (input.size() >= 4) {
      const auto choice = static_cast<unsigned>(input[0]), kind = static_cast<unsigned>(input[1]);
      const std::size_t length = std::min<std::size_t>(
          static_cast<unsigned>(input[2]) | static_cast<unsigned>(input[3]) << 8, input.size() - 4);
      put(hostile, choice, kind, input.subspan(4, length));
      input = input.subspan(4 + length);
    }
    commit(hostile);
  }

  void putInOrder() {
    States changes = good_;
    for (const auto& [number, state] : StatesIn(*storage_)) {
      const auto known = good_.find(number);
      if (known == good_.end()) {
        changes[number] = {};
      } else if (known->second.layout == state.layout && known->second.body == state.body) {
        changes.erase(number);
      }
    }
    commit(changes);
  }

 private:
  void makeGoodStore() {
    TarnManager manager;
    manager.connect(configuration().c_str());
    const TarnAttachment attachment(manager);
    manager.set("a~text", "some text");
    manager.set("a~number", 7);
    manager.set("a~b~c~d", 0.5);
    manager.set("a~b~e", true);
    for (int i = 0; i < 12; ++i) manager.set("many~" + std::to_string(i), i);
    manager.getObject("a")->addChildrenTo(manager.getNoFail("same"));
  }

  void put(States& hostile, unsigned choice, unsigned kind, Bytes body) {
    const goods::object_number number = choice < kFirstNew ? numbers_[choice % numbers_.size()]
                                                           : kNewNumbers + (choice - kFirstNew);
    State& state = hostile[number];
    if (kind < kRemove) state.layout = layouts_[kind % layouts_.size()];
    if (kind < kOwnLayout) {
      if (kind >= kRemove) state.layout = 0;
    } else if (!body.empty() && ownLayouts_ < kMostOwnLayouts) {
      const auto length = std::min<std::size_t>(static_cast<std::size_t>(body[0]), body.size() - 1);
      state.layout = storage_->intern_layout(body.subspan(1, length));
      body = body.subspan(1 + length);
      ++ownLayouts_;
    }
    state.body.assign(body.begin(), body.end());
  }

  void commit(const States& states) {
    std::vector<goods::object_change> changes;
    for (const auto& [number, state] : states) {
      const bool isThere = good_.contains(number);
      changes.push_back({number, state.layout, state.body, state.layout == 0, !isThere});
    }
    // What is removed must be there, and what is new must not.
    States now = StatesIn(*storage_);
    std::erase_if(changes, [&](const goods::object_change& change) {
      return change.removed && !now.contains(change.number);
    });
    for (goods::object_change& change : changes) change.is_new = !now.contains(change.number);
    if (!changes.empty()) storage_->commit({changes, nullptr, {}});
  }

  void writeSeeds(const std::string& directory) const {
    std::ofstream all(directory + "/all", std::ios::binary);
    for (std::size_t i = 0; i < numbers_.size(); ++i) {
      const State& state = good_.at(numbers_[i]);
      const auto layout = std::ranges::find(layouts_, state.layout) - layouts_.begin();
      std::string record{static_cast<char>(i), static_cast<char>(layout),
                         static_cast<char>(state.body.size() & 0xFF),
                         static_cast<char>(state.body.size() >> 8)};
      for (const std::byte byte : state.body) record += static_cast<char>(byte);
      all << record;
      std::ofstream(directory + "/object" + std::to_string(i), std::ios::binary) << record;
    }
  }

  scratch_directory directory_{scratch_directory::place::in_memory};
  std::shared_ptr<goods::dbs_storage> storage_;
  States good_;
  std::vector<goods::object_number> numbers_;
  std::vector<goods::class_number> layouts_;
  std::size_t ownLayouts_ = 0;
};

// Whatever is said in the library's way is an answer.
template <class Work>
void attempt(const Work& work) {
  try {
    work();
  } catch (const TarnException&) {
    fuzz::refused();
  }
}

void LookAt(const TarnRef& node) {
  if (!TarnObject::IsTarnObject(node)) return;
  attempt([&] { fuzz::use(node->getXString("", "").getLength()); });
  attempt([&] { fuzz::use(node->getName().getLength()); });
  attempt([&] {
    TarnPath path;
    TarnObject::GetPath(node, path);
  });
  attempt([&] { fuzz::use(node->getRootParent().isNull()); });
  attempt([&] {
    XStringList names;
    node->getChildNames(names);
  });
  attempt([&] {
    std::size_t steps = 0;
    for (const auto& [name, child] : node->children()) {
      fuzz::use(child->isTarnObject());
      if (++steps > kMostSteps) break;
    }
  });
  attempt([&] {
    std::size_t steps = 0;
    XString name;
    for (TarnIterator at = node->getIterToLastAbstractChild(); !at.isNull(); at.back(&name)) {
      if (++steps > kMostSteps) break;
    }
  });
}

void Walk(const TarnRef& from) {
  std::size_t steps = 0;
  for (const TarnBranchWalk::Step& step : TarnBranchWalk(from)) {
    fuzz::use(step.value.getText().size());
    if (++steps > kMostSteps) break;
  }
}

constexpr const char* kPaths[] = {"",    "a",     "a~text", "a~number", "a~b~c~d",
                                  "a~b", "many~", "many~7", "same~b~e", "none"};

void Read(TarnManager& manager, const HostileStore& store) {
  for (const char* path : kPaths) {
    attempt([&] { fuzz::use(manager.valueAt(path).has_value()); });
    attempt([&] { LookAt(manager.getObject(path)); });
  }
  for (const goods::object_number number : store.numbers()) {
    attempt([&] { LookAt(manager.getObject(std::uint64_t{number})); });
  }
  attempt([&] { Walk(manager.getRoot()); });
  attempt([&] { manager.transaction([&] { Walk(manager.getRoot()); }); });
}

void Write(TarnManager& manager) {
  for (const char* path : kPaths) {
    attempt([&] { manager.set(path, 5); });
    attempt([&] { manager.set(std::string(path) + "~new~text", "text"); });
  }
  attempt([&] { manager.copyBranch("a", "copy"); });
  attempt([&] { manager.moveBranch("many", "a~b~many"); });
  attempt([&] { manager.mergeBranch("same", "a", true); });
  attempt([&] { modify(manager.getObject("copy"))->shatter(); });
  for (const char* path : {"a~text", "a~b~c", "many~3", "a", "many"}) {
    attempt([&] { manager.deleteBranch(path); });
  }
  attempt([&] { manager.startGarbageCollection(); });
  attempt([&] { Walk(manager.getRoot()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static HostileStore store;
  store.put(std::as_bytes(std::span(data, size)));
  {
    TarnManager manager;
    manager.connect(store.configuration().c_str());
    const TarnAttachment attachment(manager);
    Read(manager, store);
    Write(manager);
  }
  store.putInOrder();
  return 0;
}
