#include "goods/outlived_bodies.h"

#include <algorithm>
#include <new>

#include <goods/class_descriptor.h>
#include <goods/object.h>
#include <goods/object_handle.h>

#include "goods/epoch.h"

namespace goods {

namespace {

class identifier_visitor : public ref_visitor {
 public:
  explicit identifier_visitor(const std::function<void(object_id)>& visit) : visit_(visit) {}
  void visit(ref_word& word, ref_kind) override {
    if (word.is_id()) visit_(word.id());
  }

 private:
  const std::function<void(object_id)>& visit_;
};

}  // namespace

outlived_bodies& outlived_bodies::get() {
  static auto* bodies = new outlived_bodies;  // sessions may outlive static objects
  return *bodies;
}

void outlived_bodies::add(object& body) noexcept {
  bool is_long = false;
  try {
    const std::lock_guard guard(lock_);
    bodies_.push_back(&body);
    is_long = bodies_.size() >= tidied_at_;
  } catch (const std::bad_alloc&) {
    return;  // is never freed, as what retire() cannot remember
  }
  if (is_long) tidy();
}

void outlived_bodies::for_each_reference(const database& session,
                                         const std::function<void(object_id)>& visit) {
  const std::lock_guard guard(lock_);
  identifier_visitor visitor(visit);
  for (object* const body : bodies_) {
    // While an access pins the body, it counts the handle; the section keeps that after its end.
    const reader_section section;
    if (body->is_pinned_once() || body->handle()->owner() != &session) continue;
    body->cls().visit_references(*body, visitor);
  }
}

void outlived_bodies::tidy() noexcept {
  while (true) {
    object* unread = nullptr;
    {
      const std::lock_guard guard(lock_);
      const auto found =
          std::ranges::find_if(bodies_, [](const object* body) { return body->is_pinned_once(); });
      if (found != bodies_.end()) {
        unread = *found;
        *found = bodies_.back();
        bodies_.pop_back();
      } else {
        tidied_at_ = std::max(fewest_to_tidy, bodies_.size() * 2);
      }
    }
    if (unread == nullptr) return;
    unread->unpin();
  }
}

}  // namespace goods
