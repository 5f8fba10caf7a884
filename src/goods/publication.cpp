#include "goods/publication.h"

#include <utility>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/object_cache.h"

namespace goods {

namespace {

// A committed body holds identifiers only.
class handles_to_identifiers : public ref_visitor {
 public:
  void visit(ref_word& word, ref_kind kind) override {
    if (!word.is_handle()) return;
    object_handle* handle = word.handle();
    const object_id id = handle->id();
    word = id == 0 ? ref_word() : ref_word::of(id);
    if (kind == ref_kind::counted) handle->remove_reference();
  }
};

void use_identifiers(object& body) {
  body.close();
  handles_to_identifiers visitor;
  body.cls().visit_references(body, visitor);
}

// An object that is in no table can be reached through counted references only. False, and nothing
// happened, when there is one beside `created`.
bool drop_unless_referenced(object_ref& created) {
  if (!created.handle()->is_referenced_once()) return false;
  object_handle* const handle = created.detach();
  if (object* const body = handle->exchange_body(nullptr)) body->unpin();
  object_handle::destroy(handle);
  return true;
}

}  // namespace

publication::~publication() {
  for (const copy& c : copies) {
    if (c.body != nullptr) c.body->unpin();
  }
}

void publication::install_created(object_cache& cache) {
  if (installed_ == created.size()) return;
  const std::span fresh(created.begin() + static_cast<std::ptrdiff_t>(installed_), created.end());
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    fetch_ahead(fresh, i);
    use_identifiers(*fresh[i].handle()->body());
  }
  // From here on a new object is counted once by this publication and once by everybody outside.
  for (const copy& c : copies) {
    if (c.body != nullptr) use_identifiers(*c.body);
  }
  const bool drops = cache.is_too_much(created.size());
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    fetch_ahead(fresh, i);
    if (!drops || !drop_unless_referenced(fresh[i])) cache.install(*fresh[i].handle());
    ++installed_;
  }
}

void publication::publish_copies(object_cache& cache) {
  for (copy& c : copies) {
    if (c.body == nullptr) continue;  // of a commit to several storages, published with the first
    use_identifiers(*c.body);
    cache.publish(*c.keeps.handle(), *std::exchange(c.body, nullptr));
  }
}

void publication::withdraw_created() noexcept {
  for (const object_ref& object : created) {
    if (object) object.handle()->become_transient();
  }
  created.clear();
  installed_ = 0;
}

}  // namespace goods
