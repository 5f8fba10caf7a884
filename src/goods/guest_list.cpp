#include "goods/guest_list.h"

#include <algorithm>
#include <array>

#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/layout_catalog.h"
#include "goods/object_cache.h"

namespace goods {
namespace {

constexpr std::size_t first_size = 16;
constexpr std::size_t most_at_once = 256;  // numbers in one call to the storage
constexpr std::size_t most_kept = 8192;    // places that a thread keeps
constexpr std::size_t most_groups = 64;    // held at a time: of some kilobytes each

// What the thread keeps for its next reads, one within the other; destructors of other thread_local
// objects may still read when it is gone.
struct spare_lists {
  std::array<std::unique_ptr<guest_list>, 2> lists;
  ~spare_lists();
};
thread_local bool spare_is_gone = false;
thread_local spare_lists spare;

spare_lists::~spare_lists() { spare_is_gone = true; }

std::size_t hash_of(object_id id) {
  return static_cast<std::size_t>((id * 0x9E3779B97F4A7C15U) >> 32);
}

// The same for objects that are probably in one group.
object_id place_of_group(object_id id) { return id / neighbours::most; }

// Calls act(storage, numbers) for those that follow each other in one storage, some at a time.
template <class Act>
void for_each_storage(std::span<const object_id> ids, const Act& act) {
  std::array<object_number, most_at_once> numbers;
  while (!ids.empty()) {
    const storage_number storage = storage_of(ids.front());
    std::size_t count = 0;
    while (count < std::min(ids.size(), most_at_once) && storage_of(ids[count]) == storage) {
      numbers[count] = number_of(ids[count]);
      ++count;
    }
    act(storage, std::span<const object_number>(numbers.data(), count));
    ids = ids.subspan(count);
  }
}

}  // namespace

class guest_list::sink : public state_sink {
 public:
  sink(guest_list& list, obj_storage& storage, storage_number number)
      : list_(list), storage_(storage), number_(number) {}

  bool is_passing() const override { return list_.are_passing_; }

  void found(const object_state& state) override {
    const object_id id = make_object_id(number_, state.number);
    last_ = list_.find(id);
    if (last_ != nullptr) return;
    object_state taken = state;
    if (!list_.hold(id, state.group)) taken.group = nullptr;
    last_ = list_.take_in(storage_, id, taken);
  }
  void missing(object_number) override {}

  const object* last() const { return last_; }  // null for one that may not be a guest

 private:
  guest_list& list_;
  obj_storage& storage_;
  storage_number number_;
  const object* last_ = nullptr;
};

std::unique_ptr<guest_list> guest_list::take() {
  if (!spare_is_gone) {
    for (auto& list : spare.lists) {
      if (list != nullptr) return std::move(list);
    }
  }
  return std::unique_ptr<guest_list>(new guest_list);
}

void guest_list::give_back(std::unique_ptr<guest_list> list) noexcept {
  list->clear();
  if (spare_is_gone || std::max(list->places_.size(), list->wanted_.capacity()) > most_kept) return;
  const auto place = std::find(spare.lists.begin(), spare.lists.end(), nullptr);
  if (place != spare.lists.end()) *place = std::move(list);
}

// Where it is, or may be put.
std::size_t guest_list::place_of(object_id id) const {
  const std::size_t mask = places_.size() - 1;
  std::size_t at = hash_of(id) & mask;
  while (places_[at].filling == filling_ && places_[at].id != id) at = (at + 1) & mask;
  return at;
}

const object* guest_list::find(object_id id) const {
  if (bodies_.empty()) return nullptr;
  const place& found = places_[place_of(id)];
  return found.filling == filling_ ? bodies_[found.body] : nullptr;
}

const object* guest_list::load(cache_manager& session, object_id id) {
  const storage_number storage = storage_of(id);
  const object_number number = number_of(id);
  sink into(*this, session.db().storage(storage), storage);
  session.cache().load_states(storage, {&number, 1}, into);
  return into.last();
}

const object* guest_list::find_nearby(cache_manager& session, object_id id) {
  if (const object* known = find(id)) return known;
  if (groups_.empty()) return nullptr;
  const std::uint8_t at = group_at(place_of_group(id));
  if (at == 0) return nullptr;
  object_state state{};
  if (!groups_[at - 1U].states->find(number_of(id), state)) return nullptr;
  return take_in(session.db().storage(storage_of(id)), id, state);
}

// The one of the group that is there, or may be put there.
std::uint8_t& guest_list::group_at(object_id where) {
  static_assert(most_groups * 2 <= std::tuple_size_v<decltype(group_places_)>);
  const std::size_t mask = group_places_.size() - 1;
  std::size_t at = hash_of(where) & mask;
  while (group_places_[at] != 0 && groups_[group_places_[at] - 1U].place != where) {
    at = (at + 1) & mask;
  }
  return group_places_[at];
}

// Whether the group stays as long as the list. A long walk does without most of its groups.
bool guest_list::hold(object_id id, const state_group* group) {
  if (group == nullptr) return false;
  if (!groups_.empty() && groups_.back().states.get() == group) return true;
  const object_id where = place_of_group(id);
  std::uint8_t& at = group_at(where);
  if (at != 0) return groups_[at - 1U].states.get() == group;
  if (groups_.size() == most_groups) return false;
  groups_.push_back({where, group->shared_from_this()});
  at = static_cast<std::uint8_t>(groups_.size());
  return true;
}

// Null for a class that may not be a guest.
const object* guest_list::take_in(obj_storage& storage, object_id id, const object_state& state) {
  object* const body = storage.catalog().instantiate_guest(arena_, state);
  if (body == nullptr) return nullptr;
  storage.count_read(state.body.size());
  add(id, *body);
  return body;
}

void guest_list::add(object_id id, object& body) {
  try {
    if (places_.size() <= bodies_.size() * 2) grow();
    bodies_.push_back(&body);
  } catch (...) {
    body.~object();
    throw;
  }
  places_[place_of(id)] = {id, static_cast<std::uint32_t>(bodies_.size() - 1), filling_};
}

void guest_list::grow() {
  std::vector<place> larger(std::max(first_size, places_.size() * 2));
  larger.swap(places_);
  for (const place& one : larger) {
    if (one.filling == filling_) places_[place_of(one.id)] = one;
  }
}

void guest_list::load(cache_manager& session, std::span<object_id> ids) {
  std::ranges::sort(ids);  // neighbours are stored together
  for_each_storage(ids, [&](storage_number storage, std::span<const object_number> numbers) {
    sink into(*this, session.db().storage(storage), storage);
    session.cache().load_states(storage, numbers, into);
  });
}

void guest_list::expect(cache_manager& session, std::span<const ref_word> words) {
  absent_.clear();
  for (const ref_word word : words) {
    const object_id id = word.is_handle() ? word.handle()->id() : word.id();
    if (id != 0) absent_.push_back(id);
  }
  for_each_storage(absent_, [&](storage_number storage, std::span<const object_number> numbers) {
    if (storage < session.db().get_number_of_storages()) {
      session.db().storage(storage).dbs().expect(numbers);
    }
  });
}

// In three steps, so that the processor waits for many objects at a time: where the handles are
// found, the handles, the bodies.
void guest_list::prefetch(cache_manager& session, std::span<const ref_word> words) {
  wanted_.clear();
  absent_.clear();
  object_cache& cache = session.cache();
  for (const ref_word word : words) {
    if (word.is_null() || (word.is_handle() && word.handle()->is_transient())) continue;
    object_handle* const handle = word.is_handle() ? word.handle() : nullptr;
    const object_id id = handle != nullptr ? handle->id() : word.id();
    if (find_nearby(session, id) != nullptr) continue;
    if (handle == nullptr) cache.prefetch(id);
    wanted_.push_back({id, handle});
  }
  for (wanted_object& one : wanted_) {
    if (one.handle == nullptr) one.handle = cache.find(one.id);
    if (one.handle != nullptr) __builtin_prefetch(one.handle);
  }
  for (const wanted_object& one : wanted_) {
    const object* const body = one.handle != nullptr ? one.handle->body() : nullptr;
    if (body == nullptr) {
      absent_.push_back(one.id);
    } else {
      __builtin_prefetch(body);
    }
  }
  load(session, absent_);
}

void guest_list::clear() noexcept {
  for (object* const body : bodies_) body->~object();
  bodies_.clear();
  if (!groups_.empty()) group_places_.fill(0);
  groups_.clear();
  arena_.reset();
  if (++filling_ == 0) {  // what was filled that often ago would seem to be there
    places_.clear();
    filling_ = 1;
  }
}

}  // namespace goods
