#include "goods/collector.h"

#include <algorithm>
#include <map>

#include <goods/database.h>
#include <goods/obj_storage.h>

#include "goods/class_layout.h"
#include "goods/epoch.h"
#include "goods/layout_catalog.h"
#include "goods/object_cache.h"
#include "goods/session_registry.h"

namespace goods {

namespace {

constexpr std::size_t objects_per_load = 64;
constexpr std::size_t objects_per_sweep = 4096;
// How long commits may have to wait for readers; longer each time that it was not enough.
constexpr std::chrono::milliseconds shortest_pause{50};
constexpr std::chrono::milliseconds longest_pause{2000};
constexpr std::size_t most_marked_in_pause = 2048;  // before each scan; doubles likewise
constexpr int most_scans_in_pause = 4;

}  // namespace

bool collector::number_set::insert(object_number number) {
  if (number / chunk >= bits_.size()) bits_.resize(number / chunk + 1);
  auto& bits = bits_[number / chunk];
  if (bits == nullptr) bits = std::make_unique<std::bitset<chunk>>();
  const auto bit = (*bits)[number % chunk];
  if (bit) return false;
  bits->set(number % chunk);
  return true;
}

bool collector::number_set::contains(object_number number) const {
  const auto* const bits = number / chunk < bits_.size() ? bits_[number / chunk].get() : nullptr;
  return bits != nullptr && (*bits)[number % chunk];
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

collector::collector(database& db, const gc_options& options) : db_(db), options_(options) {
  for (std::uint32_t s = 0; s < db.get_number_of_storages(); ++s) {
    dbs_storage& storage = db.storage(static_cast<storage_number>(s)).dbs();
    // Subscribed before anything is read: no change can fall in between. With an origin of its own:
    // what a commit carries for its session must not outlive that session here.
    storages_.push_back({&storage, storage.subscribe(this), {}, {}});
    contracts_.push_back(&storage);
    in_pausing_order_.push_back(&storage);
  }
  std::ranges::sort(in_pausing_order_, {}, &dbs_storage::identity);
  in_pausing_order_.erase(std::unique(in_pausing_order_.begin(), in_pausing_order_.end()),
                          in_pausing_order_.end());
}

collector::~collector() = default;

bool collector::run() {
  try {
    forget_notes();
    list_existing();
    scan_held();
    mark_pushed();
    mark_roots();
    mark_pushed();
    settle();
    if (!options_.dry_run) make_durable();
    reached_.is_removing = true;
    for (std::size_t s = 0; s < storages_.size(); ++s) sweep(static_cast<storage_number>(s));
    condemned_.clear();  // before any of the numbers is another object's
    if (!options_.dry_run) give_back();
    if (options_.progress) options_.progress(reached_);  // there is nothing left to stop
  } catch (const stopped&) {
    return false;
  }
  return true;
}

void collector::report() {
  if (options_.progress && !options_.progress(reached_)) throw stopped();
}

// Those of a former collection would keep garbage.
void collector::forget_notes() {
  session_registry::get().for_each(contracts_, [](object_cache& session) {
    session.for_each_held([](const dbs_storage&, object_number) {});
  });
}

void collector::list_existing() {
  for (storage_state& state : storages_) {
    state.storage->for_each([&](const object_state& object) {
      state.existing.push_back(object.number);
      return true;
    });
    reached_.stored += state.existing.size();
    report();
  }
}

void collector::mark_roots() {
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    push(make_object_id(static_cast<storage_number>(s), root_object_number));
  }
}

// Looks at all handles of all sessions once. One that is counted before its turn, and not any more
// when it comes, has noted that.
void collector::scan_held() {
  session_registry::get().for_each(contracts_, [&](object_cache& session) {
    session.for_each_held([&](const dbs_storage& storage, object_number number) {
      for (std::size_t s = 0; s < storages_.size(); ++s) {
        if (storages_[s].storage == &storage) {
          push(make_object_id(static_cast<storage_number>(s), number));
        }
      }
    });
  });
}

// Returns after a moment as the class comment describes.
void collector::settle() {
  std::chrono::milliseconds longest_wait = shortest_pause;
  std::size_t most_marked = most_marked_in_pause;
  while (true) {
    // As much as possible while commits go on: what remains for the pause is little then.
    push_changed();
    mark_pushed();
    scan_held();
    mark_pushed();
    const std::uint64_t moment = moment_of_sections();
    while (!wait_for_sections(moment, longest_wait)) report();
    push_changed();
    mark_pushed();
    if (try_settle(longest_wait, most_marked)) return;
    longest_wait = std::min(longest_wait * 2, longest_pause);
    most_marked *= 2;
  }
}

// False when readers, or much that turns up, would keep the commits waiting for long. A reader may
// wait for a commit itself.
bool collector::try_settle(std::chrono::milliseconds longest_wait, std::size_t most_marked) {
  std::vector<std::unique_ptr<commit_pause>> pauses;
  for (dbs_storage* const storage : in_pausing_order_) pauses.push_back(storage->pause_commits());
  session_registry::get().for_each(contracts_, [](object_cache& session) {
    session.catch_up();
    session.stable_publish_count();
  });
  if (!wait_for_sections(moment_of_sections(), longest_wait)) return false;
  push_changed();
  for (int scans = 0; scans < most_scans_in_pause; ++scans) {
    if (!mark_pushed(most_marked)) return false;
    scan_held();
    if (!pushed_.empty()) continue;
    if (!options_.dry_run) condemn_unmarked(pauses);
    return true;
  }
  return false;
}

// `pauses` are of the storages in their order.
void collector::condemn_unmarked(std::span<const std::unique_ptr<commit_pause>> pauses) {
  // What has been condemned takes the storage's turn when it goes, which `pauses` hold.
  condemned_.reserve(pauses.size());
  for (std::size_t i = 0; i < pauses.size(); ++i) {
    dbs_storage& storage = *in_pausing_order_[i];
    const storage_state& state = *std::ranges::find(storages_, &storage, &storage_state::storage);
    condemned_.push_back(storage.condemn(
        [&state](object_number number) {
          return !state.marked.contains(number) &&
                 std::ranges::binary_search(state.existing, number);
        },
        *pauses[i]));
  }
}

// What a storage has cut off from its objects in another one must not come back after a loss of
// power that the removal there survives. Within one storage the order of its commits sees to that.
void collector::make_durable() {
  if (in_pausing_order_.size() == 1) return;
  for (dbs_storage* const storage : in_pausing_order_) storage->make_durable();
}

// What commits have changed is to be looked into again.
void collector::push_changed() {
  for (std::size_t s = 0; s < storages_.size(); ++s) {
    notice_subscription& changes = *storages_[s].changes;
    for (const auto& news : changes.take(changes.newest())) {
      for (const object_number number : news->changed) {
        push_again(make_object_id(static_cast<storage_number>(s), number));
      }
    }
  }
}

void collector::push(object_id id) {
  // What refers to a storage that the database does not have, or to a class layout, is damaged and
  // leads nowhere.
  if (storage_of(id) >= storages_.size() || number_of(id) < first_object_number) return;
  if (!storages_[storage_of(id)].marked.insert(number_of(id))) return;
  pushed_.push_back(id);
  ++reached_.marked;
}

void collector::push_again(object_id id) {
  // One that is not marked may be garbage that was changed before it was cut off.
  if (storages_[storage_of(id)].marked.contains(number_of(id))) pushed_.push_back(id);
}

// False when some are left after `most`: commits are held, so nothing is reported.
bool collector::mark_pushed(std::size_t most) {
  std::vector<object_number> batch;
  for (std::size_t looked_into = 0; !pushed_.empty(); looked_into += batch.size()) {
    if (looked_into >= most) return false;
    if (most == unlimited) report();
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
  return true;
}

void collector::sweep(storage_number storage) {
  const storage_state& state = storages_[storage];
  std::vector<object_number> unmarked;
  const auto remove_them = [&] {
    if (unmarked.empty()) return;
    report();
    show(storage, unmarked);
    if (!options_.dry_run) remove(storage, unmarked);
    reached_.removed += unmarked.size();
    unmarked.clear();
  };
  for (const object_number number : state.existing) {
    if (state.marked.contains(number)) continue;
    unmarked.push_back(number);
    if (unmarked.size() == objects_per_sweep) remove_them();
  }
  remove_them();
}

void collector::remove(storage_number storage, std::span<const object_number> numbers) {
  std::vector<object_change> changes;
  changes.reserve(numbers.size());
  for (const object_number number : numbers) {
    changes.push_back({.number = number, .layout = 0, .body = {}, .removed = true});
  }
  storages_[storage].storage->commit(
      {.changes = changes, .origin = nullptr, .attachment = nullptr});
}

// Numbers and room.
void collector::give_back() {
  reclaim_numbers();
  if (reached_.removed == 0) return;
  for (dbs_storage* const storage : in_pausing_order_) storage->give_back_room();
}

// Of groups of neighbours of which nothing is left. What marked objects refer to is none of theirs,
// unless the database is damaged, or what refers to it was found again by its identifier after a
// collection that did not end.
void collector::reclaim_numbers() {
  for (storage_state& state : storages_) {
    state.storage->reclaim([&](object_number first) {
      for (object_number i = 0; i < neighbours::most; ++i) {
        if (state.marked.contains(first + i)) return false;
      }
      bool is_used = false;
      session_registry::get().for_each(contracts_, [&](object_cache& session) {
        is_used |= session.uses_any(*state.storage, first);
      });
      return !is_used;
    });
  }
}

void collector::show(storage_number storage, std::span<const object_number> numbers) {
  if (!options_.removes) return;
  class layout_sink : public state_sink {
   public:
    void found(const object_state& state) override { layouts[state.number] = state.layout; }
    void missing(object_number) override {}
    std::map<object_number, class_number> layouts;
  } sink;
  dbs_storage& from = *storages_[storage].storage;
  from.load(numbers, from.newest_version(), sink);
  for (const auto& [number, layout] : sink.layouts) {
    options_.removes(make_object_id(storage, number),
                     db_.storage(storage).catalog().layout(layout).name);
  }
}

}  // namespace goods
