#include "goods/commit_builder.h"

#include <algorithm>

#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/epoch.h"
#include "goods/layout_catalog.h"
#include "goods/object_cache.h"
#include "goods/publication.h"

namespace goods {

// Puts the transient objects that a body keeps onto the walk's stack, and notes what else it has
// been made to refer to: in a new object everything, in a private copy what is held by handles.
class commit_builder::reference_visitor : public ref_visitor {
 public:
  reference_visitor(commit_builder& into, storage_number storage, bool is_new)
      : into_(into), storage_(storage), is_new_(is_new) {}

  void visit(ref_word& word, ref_kind kind) override {
    if (word.is_handle()) {
      const object_id id = word.handle()->id();
      if (id != 0) return into_.build_on(id, word.handle());
      if (kind == ref_kind::counted) {
        __builtin_prefetch(word.handle()->body());  // walked soon
        into_.open_.push_back({word.handle(), storage_});
      } else {
        found_back_ = true;
      }
    } else if (is_new_ && !word.is_null()) {
      into_.build_on(word.id(), nullptr);
    }
  }
  bool found_back() const { return found_back_; }

 private:
  commit_builder& into_;
  storage_number storage_;
  bool is_new_;
  bool found_back_ = false;
};

commit_builder::share::share(obj_storage& belongs_to, commit_version taken_in)
    : storage(belongs_to), numbers(belongs_to.numbers()), seen_at(taken_in) {}

commit_builder::share& commit_builder::share_of(storage_number storage) {
  if (last_share_ == nullptr || last_storage_ != storage) {
    const auto known = shares_.find(storage);
    last_share_ = known != shares_.end()
                      ? &known->second
                      : &shares_
                             .try_emplace(storage, db_.storage(storage),
                                          db_.session().cache().taken_in(storage))
                             .first->second;
    last_storage_ = storage;
  }
  return *last_share_;
}

void commit_builder::add_root(const object_ref& root, storage_number storage) {
  object_handle& handle = *root.handle();
  changes_.created.push_back(root);
  share_of(storage).makes_root = true;
  handle.become_persistent(db_, make_object_id(storage, root_object_number));
}

void commit_builder::add_loose(const object_ref& object, storage_number storage) {
  open_.push_back({object.handle(), storage});
}

void commit_builder::build() {
  // What is pushed last is walked first: the roots, then the copies in the order of their writing.
  for (auto c = changes_.copies.rbegin(); c != changes_.copies.rend(); ++c) {
    build_on(c->keeps.id(), c->keeps.handle(), c->seen_at);
    push_referenced(*c->body, storage_of(c->keeps.id()), false);
  }
  const std::vector<object_ref> roots = changes_.created;
  for (const object_ref& root : roots) {
    packs_late_ |= push_referenced(*root.handle()->body(), storage_of(root.id()), true);
  }
  packed_ = roots.size();  // they come last: they keep everything that is still open
  std::size_t to_begin_with = open_.size();
  while (!open_.empty()) {
    const found_object next = open_.back();
    open_.pop_back();
    if (open_.size() < to_begin_with) {
      // All that the objects before this one keep is numbered. They are packed now, while the
      // processor's caches still hold them.
      to_begin_with = open_.size();
      if (!packs_late_) pack_numbered();
    }
    if (!next.handle->is_transient()) {
      // Met before, or stored by another transaction since it was put here.
      build_on(next.handle->id(), next.handle);
      continue;
    }
    make_persistent(*next.handle, next.storage);
  }
  pack_numbered();
  for (const object_ref& root : roots) pack(*root.handle()->body(), root.id(), true);
  for (const publication::copy& c : changes_.copies) pack(*c.body, c.keeps.id(), false);
}

// The objects are put onto the stack so that the first one is walked first. Returns whether the
// body refers back to an object that is not numbered yet, and will be by the end if at all.
bool commit_builder::push_referenced(object& body, storage_number storage, bool is_new) {
  const auto before = static_cast<std::ptrdiff_t>(open_.size());
  reference_visitor visitor(*this, storage, is_new);
  body.cls().visit_references(body, visitor);
  std::reverse(open_.begin() + before, open_.end());
  return visitor.found_back();
}

// `handle`: null when it is not known. `seen_at`: when the object was seen, though the session may
// not have it in memory; 0 when it was not.
void commit_builder::build_on(object_id id, const object_handle* handle, commit_version seen_at) {
  share& in = share_of(storage_of(id));
  if (handle != nullptr && handle->is_being_made()) {
    const bool is_root = in.makes_root && number_of(id) == root_object_number;
    if (is_root || in.numbers.has_given(number_of(id))) return;  // by this commit
    throw_error(error_code::deadlock,
                "An object that is to be stored is being stored by another transaction.");
  }
  if (!in.builds_on.empty() && in.builds_on.back() == number_of(id)) return;
  if (handle == nullptr) handle = kept_.emplace_back(db_.session().cache().counted(id)).handle();
  in.builds_on.push_back(number_of(id));
  const reader_section section;
  if (handle->body() == nullptr) in.seen_at = std::min(in.seen_at, seen_at);
}

void commit_builder::build_on_target(object_id id, const object_ref& target) {
  if (target.id() != id)
    throw_error(error_code::deadlock,
                "An object that is referred back to has not been stored after all.");
  build_on(id, target.handle());
}

void commit_builder::make_persistent(object_handle& handle, storage_number storage) {
  if (handle.wanted_storage() != object_handle::no_storage) storage = handle.wanted_storage();
  object* body = handle.body();
  if (body == nullptr) {
    throw_error(error_code::object_deleted,
                "A stored object refers to one that another object took the place of.");
  }
  const object_id id = make_object_id(storage, share_of(storage).numbers.next());
  changes_.created.emplace_back(&handle);
  handle.become_persistent(db_, id);
  packs_late_ |= push_referenced(*body, storage, true);
}

void commit_builder::pack_numbered() {
  for (; packed_ < changes_.created.size(); ++packed_) {
    fetch_ahead(changes_.created, packed_);
    const object_handle& handle = *changes_.created[packed_].handle();
    pack(*handle.body(), handle.id(), true);
  }
}

void commit_builder::pack(object& body, object_id id, bool is_new) {
  share& into = share_of(storage_of(id));
  const class_number layout = into.storage.catalog().number_for(body.cls());
  body.cls().pack(body, into.bytes, id);
  into.changes.push_back({.number = number_of(id), .layout = layout, .body = {}, .is_new = is_new});
  into.ends.push_back(into.bytes.size());
}

std::vector<commit_part> commit_builder::parts(const void* origin,
                                               const std::shared_ptr<publication>& attachment) {
  std::vector<commit_part> result;
  for (auto& [storage, mine] : shares_) {
    if (mine.changes.empty()) continue;
    const std::span<const std::byte> bytes = mine.bytes.bytes();
    std::size_t begin = 0;
    for (std::size_t i = 0; i < mine.changes.size(); ++i) {
      mine.changes[i].body = bytes.subspan(begin, mine.ends[i] - begin);
      begin = mine.ends[i];
    }
    mine.storage.count_written(bytes.size());
    result.push_back({&mine.storage.dbs(),
                      {.changes = mine.changes,
                       .origin = origin,
                       .attachment = attachment,
                       .builds_on = mine.builds_on,
                       .seen_at = mine.seen_at}});
    part_storages_.push_back(storage);
  }
  return result;
}

void commit_builder::check_other_storages() {
  for (const auto& [storage, mine] : shares_) {
    if (!mine.changes.empty() || mine.builds_on.empty()) continue;
    commit_request nothing;
    nothing.builds_on = mine.builds_on;
    nothing.seen_at = mine.seen_at;
    mine.storage.dbs().commit(nothing);
  }
}

void commit_builder::withdraw_numbers() {
  for (auto& [storage, mine] : shares_) mine.numbers.withdraw();
}

}  // namespace goods
