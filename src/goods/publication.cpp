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
  handles_to_identifiers visitor;
  body.cls().visit_references(body, visitor);
}

}  // namespace

publication::~publication() {
  for (const copy& c : copies) {
    if (c.body != nullptr) c.body->unpin();
  }
}

void publication::install_created(object_cache& cache) {
  for (const object_ref& object : created) {
    use_identifiers(*object.handle()->body());
    cache.install(*object.handle());
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
  for (const object_ref& object : created) object.handle()->become_transient();
  created.clear();
}

}  // namespace goods
