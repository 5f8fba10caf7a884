#include "goods/locked_states.h"

#include <utility>

#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/obj_storage.h>
#include <goods/object.h>

#include "goods/layout_catalog.h"
#include "goods/object_cache.h"

namespace goods {

namespace {

object_id place_of(object_id id) { return id / neighbours::most; }

// Passes on the state that is asked for, and keeps its group.
class group_sink : public state_sink {
 public:
  group_sink(object_number wanted, state_sink& into) : wanted_(wanted), into_(into) {}

  void found(const object_state& state) override {
    if (state.number != wanted_) return;
    if (state.group != nullptr) group_ = state.group->shared_from_this();
    into_.found(state);
  }
  void missing(object_number number) override { into_.missing(number); }

  std::shared_ptr<const state_group> take() { return std::move(group_); }

 private:
  const object_number wanted_;
  state_sink& into_;
  std::shared_ptr<const state_group> group_;
};

}  // namespace

bool locked_states::find(object_id id, commit_version newest, object_state& state) const {
  for (const held_group& group : groups_) {
    if (group.place == place_of(id) && group.as_of == newest && group.states != nullptr)
      return group.states->find(number_of(id), state);
  }
  return false;
}

void locked_states::hold(object_id id, std::shared_ptr<const state_group> group,
                         commit_version as_of) {
  held_group* at = nullptr;
  for (held_group& known : groups_) {
    if (known.place == place_of(id)) at = &known;
  }
  if (at == nullptr) at = &groups_[next_group_++ % most_groups];
  *at = {place_of(id), as_of, std::move(group)};
}

commit_version locked_states::load(cache_manager& session, object_id id, commit_version newest,
                                   state_sink& into) {
  object_state known{};
  if (find(id, newest, known)) {
    into.found(known);
    return newest;
  }
  const object_number number = number_of(id);
  group_sink sink(number, into);
  const commit_version as_of = session.cache().load_states(storage_of(id), {&number, 1}, sink);
  if (auto group = sink.take()) hold(id, std::move(group), as_of);
  return as_of;
}

const object* locked_states::guest(cache_manager& session, object_id id, commit_version newest) {
  if (guests_.size() >= most_guests) return nullptr;
  guests_.reserve(guests_.size() + 1);
  obj_storage& storage = session.db().storage(storage_of(id));
  object* made = nullptr;
  acting_sink into([&](const object_state& state) {
    made = storage.catalog().instantiate_guest(arena_, state);
    if (made == nullptr) return;
    storage.count_read(state.body.size());
    guests_.push_back({made, state.group != nullptr ? state.group->shared_from_this() : nullptr});
  });
  load(session, id, newest, into);
  return made;
}

class_descriptor& locked_states::class_of(cache_manager& session, object_id id) {
  obj_storage& storage = session.db().storage(storage_of(id));
  class_number layout = 0;
  acting_sink into([&](const object_state& state) { layout = state.layout; });
  load(session, id, session.cache().taken_in(storage_of(id)), into);
  if (layout == 0) session.cache().throw_missing(id);
  return storage.catalog().class_of(layout);
}

void locked_states::clear_guests() noexcept {
  for (const placed_guest& guest : guests_) guest.body->~object();
  guests_.clear();
  arena_.reset();
}

void locked_states::release_groups() noexcept {
  for (held_group& group : groups_) group = {};
}

}  // namespace goods
