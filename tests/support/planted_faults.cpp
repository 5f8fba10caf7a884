#include "support/planted_faults.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "support/forwarding_storage.h"

namespace {

planted_faults* the_current = nullptr;

class faulty_locks : public goods::lock_table {
 public:
  faulty_locks(goods::dbs_storage& storage, planted_faults& faults)
      : storage_(storage), faults_(faults) {}

  goods::commit_version lock(goods::lock_owner& owner, goods::object_number number,
                             goods::lock_mode mode, std::chrono::milliseconds limit) override {
    if (faults_.strikes()) return storage_.newest_version();
    return storage_.locks().lock(owner, number, mode, limit);
  }
  void unlock_all(goods::lock_owner& owner) noexcept override {
    storage_.locks().unlock_all(owner);
  }

 private:
  goods::dbs_storage& storage_;
  planted_faults& faults_;
};

// What objects were before their last commit.
class former_states {
 public:
  void note(const goods::commit_request& request) {
    const std::lock_guard guard(lock_);
    for (const goods::object_change& change : request.changes) {
      states& known = states_[change.number];
      known.former = std::move(known.last);
      known.last = {change.layout, {change.body.begin(), change.body.end()}};
    }
  }

  struct state {
    goods::class_number layout = 0;
    std::vector<std::byte> body;
  };
  std::optional<state> find(goods::object_number number) {
    const std::lock_guard guard(lock_);
    const auto found = states_.find(number);
    if (found == states_.end() || found->second.former.layout == 0) return std::nullopt;
    return found->second.former;
  }

 private:
  struct states {
    state last, former;
  };
  std::mutex lock_;
  std::map<goods::object_number, states> states_;
};

class stale_sink : public goods::state_sink {
 public:
  stale_sink(goods::state_sink& to, former_states& former, planted_faults& faults)
      : to_(to), former_(former), faults_(faults) {}

  void found(const goods::object_state& state) override {
    const auto former = former_.find(state.number);
    if (!former || !faults_.strikes()) return to_.found(state);
    to_.found({state.number, former->layout, former->body});
  }
  void missing(goods::object_number number) override { to_.missing(number); }

 private:
  goods::state_sink& to_;
  former_states& former_;
  planted_faults& faults_;
};

class late_notices : public goods::notice_subscription {
 public:
  late_notices(std::unique_ptr<goods::notice_subscription> to, const void* origin,
               planted_faults& faults)
      : to_(std::move(to)), origin_(origin), faults_(faults) {}

  goods::commit_version newest() const override { return to_->newest(); }
  void set_listener(goods::commit_listener* listener) override { to_->set_listener(listener); }

  std::vector<std::shared_ptr<const goods::notice>> take(goods::commit_version through) override {
    auto notices = to_->take(through);
    for (auto& one : notices) {
      if (one->origin == origin_) continue;
      auto late = std::make_shared<goods::notice>(*one);
      late->changed.swap(held_back_);
      if (faults_.strikes()) {
        held_back_.insert(held_back_.end(), late->changed.begin(), late->changed.end());
        late->changed.clear();
      } else {
        late->changed.insert(late->changed.end(), held_back_.begin(), held_back_.end());
        held_back_.clear();
      }
      one = std::move(late);
    }
    return notices;
  }

 private:
  const std::unique_ptr<goods::notice_subscription> to_;
  const void* const origin_;
  planted_faults& faults_;
  std::vector<goods::object_number> held_back_;
};

class faulty_storage : public forwarding_storage {
 public:
  faulty_storage(std::shared_ptr<goods::dbs_storage> to, planted_faults& faults)
      : forwarding_storage(std::move(to)),
        faults_(faults),
        locks_(forwarding_storage::to(), faults) {}

  goods::lock_table& locks() override {
    return is(planted_faults::fault::skipped_lock) ? locks_ : to().locks();
  }

  goods::commit_version commit(const goods::commit_request& request) override {
    if (is(planted_faults::fault::stale_state)) former_.note(request);
    return to().commit(request);
  }

  goods::commit_version load(std::span<const goods::object_number> numbers,
                             goods::commit_version at_least, goods::state_sink& into) override {
    if (!is(planted_faults::fault::stale_state)) return to().load(numbers, at_least, into);
    stale_sink sink(into, former_, faults_);
    return to().load(numbers, at_least, sink);
  }

  void prepare(const goods::global_transaction& id, const goods::storage_identity& coordinator,
               const std::string& coordinator_name, const goods::commit_request& request) override {
    to().prepare(id, coordinator, coordinator_name, request);
    if (is(planted_faults::fault::late_decision) && faults_.strikes()) faults_.meanwhile();
  }

  std::unique_ptr<goods::notice_subscription> subscribe(const void* origin) override {
    auto subscription = to().subscribe(origin);
    if (!is(planted_faults::fault::late_notice)) return subscription;
    return std::make_unique<late_notices>(std::move(subscription), origin, faults_);
  }

 private:
  bool is(planted_faults::fault fault) const { return faults_.what() == fault; }

  planted_faults& faults_;
  faulty_locks locks_;
  former_states former_;
};

// All sessions on a storage share what stands in front of it, as they share the storage.
std::shared_ptr<goods::dbs_storage> in_front_of(const std::shared_ptr<goods::dbs_storage>& real,
                                                planted_faults& faults) {
  static std::mutex lock;
  static std::map<goods::storage_identity, std::weak_ptr<goods::dbs_storage>> known;
  const std::lock_guard guard(lock);
  auto& place = known[real->identity()];
  auto storage = place.lock();
  if (storage == nullptr) place = storage = std::make_shared<faulty_storage>(real, faults);
  return storage;
}

}  // namespace

planted_faults::planted_faults(fault what, unsigned every) : what_(what), every_(every) {
  the_current = this;
}

planted_faults::~planted_faults() { the_current = nullptr; }

bool planted_faults::strikes() {
  if (++occasions_ % every_ != 0) return false;
  ++count_;
  return true;
}

planted_faults* planted_faults::current() { return the_current; }

// What the linker does with these two names: the first is what everybody's open_storage() becomes,
// the second is the library's own.
extern "C++" {
std::shared_ptr<goods::dbs_storage> wrapped_open_storage(
    const std::string& address, const std::string& base_directory) asm("__wrap_" OPEN_STORAGE);
std::shared_ptr<goods::dbs_storage> real_open_storage(
    const std::string& address, const std::string& base_directory) asm("__real_" OPEN_STORAGE);
}

std::shared_ptr<goods::dbs_storage> wrapped_open_storage(const std::string& address,
                                                         const std::string& base_directory) {
  auto storage = real_open_storage(address, base_directory);
  planted_faults* const faults = planted_faults::current();
  return faults == nullptr ? storage : in_front_of(storage, *faults);
}
