#include "goods/collector.h"

#include <algorithm>
#include <array>

#include <goods/database.h>
#include <goods/obj_storage.h>

#include "goods/layout_catalog.h"
#include "goods/object_cache.h"
#include "goods/session_registry.h"

namespace goods {

namespace {

constexpr std::size_t objects_per_load = 64;
constexpr std::size_t objects_per_sweep = 4096;

}  // namespace

bool collector::number_set::insert(object_number number) {
  const std::size_t index = number - first_object_number;
  if (index >= bits_.size()) bits_.resize(std::max(index + 1, bits_.size() * 2));
  if (bits_[index]) return false;
  bits_[index] = true;
  return true;
}

bool collector::number_set::contains(object_number number) const {
  const std::size_t index = number - first_object_number;
  return index < bits_.size() && bits_[index];
}

// Pushes what the loaded states refer to.
class collector::reference_sink : public state_sink {
 public:
  reference_sink(collector& owner, obj_storage& from) : owner_(owner), from_(from) {}
  void found(const object_state& state) override {
    from_.catalog().for_each_reference(
        state, [this](const stored_reference& r) { owner_.push(r.target); });
  }
  void missing(object_number) override {}

 private:
  collector& owner_;
  obj_storage& from_;
};

collector::collector(database& db) : db_(db) {
  for (std::uint32_t s = 0; s < db.get_number_of_storages(); ++s) {
    dbs_storage& storage = db.storage(static_cast<storage_number>(s)).dbs();
    // Subscribed before anything is read: no change can fall in between. With an origin of its own:
    // what a commit carries for its session must not outlive that session here.
    storages_.push_back({&storage, storage.subscribe(this), {}, {}});
  }
}

collector::~collector() = default;

std::uint64_t collector::run() {
  list_existing();
  mark_roots();
  mark_pushed();
  // Held objects and changes may each lead to more of the other: what was put below an object that
  // had been looked into could be taken out of it again, into somebody's hands.
  do {
    mark_held();
    mark_pushed();
  } while (mark_changed());
  std::uint64_t removed = 0;
  for (storage_state& state : storages_) removed += sweep(state);
  return removed;
}

void collector::list_existing() {
  for (storage_state& state : storages_) {
    state.storage->for_each([&](const object_state& object) {
      state.existing.push_back(object.number);
      return true;
    });
  }
}

void collector::mark_roots() {
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    push(make_object_id(static_cast<storage_number>(s), root_object_number));
  }
}

void collector::mark_held() {
  std::vector<const dbs_storage*> concerned;
  for (const storage_state& state : storages_) concerned.push_back(state.storage);
  session_registry::get().for_each(concerned, [&](const object_cache& session) {
    session.for_each_held([&](const dbs_storage& storage, object_number number) {
      for (std::size_t s = 0; s < storages_.size(); ++s) {
        if (storages_[s].storage == &storage) {
          push(make_object_id(static_cast<storage_number>(s), number));
        }
      }
    });
  });
}

// Looks again into what commits changed; false when there was nothing.
bool collector::mark_changed() {
  bool changed = false;
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    notice_subscription& changes = *storages_[s].changes;
    for (const auto& news : changes.take(changes.newest())) {
      changed = true;
      for (const object_number number : news->changed) {
        push_again(make_object_id(static_cast<storage_number>(s), number));
      }
    }
  }
  mark_pushed();
  return changed;
}

void collector::push(object_id id) {
  // What refers to a storage that the database does not have, or to a class layout, is damaged and
  // leads nowhere.
  if (storage_of(id) >= storages_.size() || number_of(id) < first_object_number) return;
  if (storages_[storage_of(id)].marked.insert(number_of(id))) pushed_.push_back(id);
}

void collector::push_again(object_id id) {
  // One that is not marked may be garbage that was changed before it was cut off.
  if (storages_[storage_of(id)].marked.contains(number_of(id))) pushed_.push_back(id);
}

void collector::mark_pushed() {
  std::vector<object_number> batch;
  while (!pushed_.empty()) {
    const storage_number from = storage_of(pushed_.back());
    batch.clear();
    while (!pushed_.empty() && batch.size() < objects_per_load &&
           storage_of(pushed_.back()) == from) {
      batch.push_back(number_of(pushed_.back()));
      pushed_.pop_back();
    }
    dbs_storage& storage = *storages_[from].storage;
    reference_sink sink(*this, db_.storage(from));
    storage.load(batch, storage.newest_version(), sink);
  }
}

std::uint64_t collector::sweep(storage_state& state) {
  std::uint64_t removed = 0;
  std::vector<object_change> changes;
  const auto commit = [&] {
    state.storage->commit({.changes = changes, .origin = nullptr, .attachment = nullptr});
    removed += changes.size();
    changes.clear();
  };
  for (const object_number number : state.existing) {
    if (state.marked.contains(number)) continue;
    changes.push_back({.number = number, .layout = 0, .body = {}, .removed = true});
    if (changes.size() == objects_per_sweep) commit();
  }
  if (!changes.empty()) commit();
  return removed;
}

}  // namespace goods
