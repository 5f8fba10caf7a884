#include "goods/commit_builder.h"

#include <algorithm>

#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/errors.h>
#include <goods/obj_storage.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/layout_catalog.h"
#include "goods/publication.h"

namespace goods {

namespace {

// Collects the transient objects that a body keeps.
class transient_collector : public ref_visitor {
 public:
  explicit transient_collector(std::vector<object_handle*>& into) : into_(into) {}
  void visit(ref_word& word, ref_kind kind) override {
    if (kind == ref_kind::counted && word.is_handle() && word.handle()->is_transient()) {
      into_.push_back(word.handle());
    }
  }

 private:
  std::vector<object_handle*>& into_;
};

}  // namespace

commit_builder::share& commit_builder::share_of(storage_number storage) {
  const auto known = shares_.find(storage);
  if (known != shares_.end()) return known->second;
  return shares_.try_emplace(storage, db_.storage(storage).numbers()).first->second;
}

void commit_builder::add_root(const object_ref& root, storage_number storage) {
  object_handle& handle = *root.handle();
  changes_.created.push_back(root);
  handle.become_persistent(db_, make_object_id(storage, root_object_number));
}

void commit_builder::build() {
  // What is pushed last is walked first: the roots, then the copies in the order of their writing.
  for (auto c = changes_.copies.rbegin(); c != changes_.copies.rend(); ++c) {
    push_referenced(*c->body, storage_of(c->keeps.id()));
  }
  const std::vector<object_ref> roots = changes_.created;
  for (const object_ref& root : roots) {
    push_referenced(*root.handle()->body(), storage_of(root.id()));
  }
  while (!open_.empty()) {
    const found_object next = open_.back();
    open_.pop_back();
    if (!next.handle->is_transient()) continue;  // met before
    make_persistent(*next.handle, next.storage);
  }
  for (const publication::copy& c : changes_.copies) pack(*c.body, c.keeps.id(), false);
  for (std::size_t i = 0; i < changes_.created.size(); ++i) {
    const object_ref& object = changes_.created[i];
    pack(*object.handle()->body(), object.id(), true);
  }
}

void commit_builder::push_referenced(object& body, storage_number storage) {
  std::vector<object_handle*> found;
  transient_collector collector(found);
  body.cls().visit_references(body, collector);
  for (auto handle = found.rbegin(); handle != found.rend(); ++handle) {
    open_.push_back({*handle, storage});
  }
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
  push_referenced(*body, storage);
}

void commit_builder::pack(object& body, object_id id, bool is_new) {
  share& into = share_of(storage_of(id));
  const class_number layout = db_.storage(storage_of(id)).catalog().number_for(body.cls());
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
    obj_storage& to = db_.storage(storage);
    to.count_written(bytes.size());
    result.push_back(
        {&to.dbs(), {.changes = mine.changes, .origin = origin, .attachment = attachment}});
    part_storages_.push_back(storage);
  }
  return result;
}

}  // namespace goods
