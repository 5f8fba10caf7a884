#include "goods/known_objects.h"

#include <goods/class_descriptor.h>
#include <goods/object_handle.h>

namespace goods {

void known_objects::keep(object_ref handle, const object* body) {
  displaced fresh{std::move(handle), std::unique_ptr<const object, unpinner>(body)};
  if (places_ == nullptr) {
    used_.reserve(places);
    places_ = std::make_unique<std::array<known, places>>();
  }
  const object_id id = fresh.keeps.handle()->id();
  const std::size_t bytes = body->cls().body_bytes(*body);
  if (bytes_ + bytes > most_bytes) displace_all();
  known& at = (*places_)[place_of(id)];
  if (at.owned.body != nullptr) {
    displaced_.push_back(std::move(at.owned));
    bytes_ -= at.bytes;
  } else {
    used_.push_back(static_cast<std::uint16_t>(place_of(id)));
  }
  bytes_ += bytes;
  at.id = id;
  at.body = body;
  at.bytes = bytes;
  at.owned = std::move(fresh);
}

void known_objects::displace_all() {
  displaced_.reserve(displaced_.size() + used_.size());
  for (const std::uint16_t place : used_) {
    known& at = (*places_)[place];
    displaced_.push_back(std::move(at.owned));
    at = {};
  }
  used_.clear();
  bytes_ = 0;
}

void known_objects::forget(object_id id) noexcept {
  if (places_ == nullptr) return;
  known& at = (*places_)[place_of(id)];
  if (at.id == id) at.id = 0;
}

void known_objects::clear() noexcept {
  for (const std::uint16_t place : used_) {
    known& at = (*places_)[place];
    at.owned.body.reset();
    at = {};
  }
  used_.clear();
  bytes_ = 0;
  release_displaced();
}

}  // namespace goods
