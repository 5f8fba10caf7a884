// What a session tells about changes: the part of cache_manager that watches.
#include <algorithm>

#include <goods/String.h>
#include <goods/cache_manager.h>
#include <goods/class_descriptor.h>
#include <goods/database.h>
#include <goods/event.h>
#include <goods/set_member.h>
#include <goods/set_owner.h>

#include "goods/modification_signals.h"
#include "goods/object_cache.h"

namespace goods {

namespace {

bool is_part(const object& target) {
  const class_descriptor& cls = target.cls();
  return &cls == &String::self_class || set_owner::self_class.is_superclass_for(cls) ||
         set_member::self_class.is_superclass_for(cls);
}

// Adds what an object refers to and is part of it.
class part_finder : public ref_visitor {
 public:
  part_finder(reader& in, std::vector<object_id>& parts) : in_(in), parts_(parts) {}

  void visit(ref_word& word, ref_kind) override {
    if (word.is_id()) add(word.id());
  }

 private:
  // A reference may lead to what is gone; that is nothing to watch.
  void add(object_id id) {
    try {
      const object* const target = in_.look(ref_word::of(id), object::self_class);
      if (is_part(*target)) parts_.push_back(id);
    } catch (const error_info& error) {
      if (error.code() != error_code::object_deleted) throw;
    }
  }

  reader& in_;
  std::vector<object_id>& parts_;
};

}  // namespace

commit_version cache_manager::version(storage_number storage) const {
  db_.storage(storage);  // throws when there is none
  cache_->catch_up();
  return cache_->taken_in(storage);
}

std::vector<commit_version> cache_manager::versions() const {
  cache_->catch_up();
  std::vector<commit_version> all;
  for (std::uint32_t s = 0; s < db_.get_number_of_storages(); ++s) {
    all.push_back(cache_->taken_in(static_cast<storage_number>(s)));
  }
  return all;
}

// The object and its parts, as they are committed.
std::vector<object_id> cache_manager::with_parts(object_id id) {
  return outside_transaction([&] {
    return read([&](reader& in) {
      std::vector<object_id> ids{id};
      const guest_scope passing(in);
      // A body that is only visited stays as it is.
      auto* const body =
          const_cast<object*>(in.look(ref_word::of(id), object::self_class));  // NOLINT
      if (is_part(*body)) return ids;  // it has no parts of its own
      part_finder finder(in, ids);
      body->cls().visit_references(*body, finder);
      return ids;
    });
  });
}

void cache_manager::signal_on_modification(object_id id, event* when) {
  modification_signals& signals = cache_->signals();
  const std::vector<commit_version> as_of = versions();
  signals.add(*when, with_parts(id), as_of);
}

bool cache_manager::withdraw_signal(const event* when) { return cache_->signals().withdraw(*when); }

bool cache_manager::may_have_changed(object_id id, commit_version version) {
  db_.storage(storage_of(id));  // throws when there is none
  modification_signals& signals = cache_->signals();
  std::vector<commit_version> as_of = versions();
  as_of.at(storage_of(id)) = std::min(version, as_of.at(storage_of(id)));
  try {
    return signals.have_changed(with_parts(id), as_of);
  } catch (const error_info& error) {
    if (error.code() == error_code::object_deleted) return true;
    throw;
  }
}

void cache_manager::add_feed(commit_feed& feed) { cache_->signals().add_feed(feed); }
void cache_manager::remove_feed(commit_feed& feed) { cache_->signals().remove_feed(feed); }

}  // namespace goods
