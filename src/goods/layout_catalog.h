// The class layouts of one open storage.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <goods/class_descriptor.h>
#include <goods/class_layout.h>
#include <goods/dbs_storage.h>

namespace goods {

class body_arena;
class state_loader;

// Translates between classes of the process and layout numbers of a storage, and makes objects from
// stored states.
//
// Classes and their aliases are complete before the first call.
// Threads: any; what was translated before takes no lock.
class layout_catalog {
 public:
  // `storage` outlives the catalog; `number` is its place in the session.
  layout_catalog(dbs_storage& storage, storage_number number);
  ~layout_catalog();
  layout_catalog(const layout_catalog&) = delete;
  layout_catalog& operator=(const layout_catalog&) = delete;

  // The number under which bodies of `cls` are stored; makes its layout durable when it is new.
  class_number number_for(const class_descriptor& cls);

  // A new body (pinned once) with the content of `state`. Stored members that the class does not
  // have are skipped, its others keep the constructor's value; see state_loader.h for conversions.
  // Throws corrupt_data naming the object.
  object* instantiate(object_handle* handle, const object_state& state);
  // The same without a handle and in an arena (see state_loader::load_guest()); null for a class
  // that may not be a guest.
  object* instantiate_guest(body_arena& arena, const object_state& state);

  // Shows every reference of a stored state without making an object.
  void for_each_reference(const object_state& state, const stored_reference_visitor& visit);

  const class_layout& layout(class_number number);  // throws corrupt_data for an unknown number
  class_descriptor& class_of(class_number number);

 private:
  static constexpr std::size_t chunk = 256;
  template <class T>
  using table = std::array<std::atomic<std::atomic<T>*>, 65536 / chunk>;

  const state_loader& loader(class_number number);
  const state_loader& make_loader(class_number number);
  template <class T>
  static std::atomic<T>* slot(table<T>& of, std::size_t index, bool make);

  dbs_storage& storage_;
  storage_number number_;
  std::mutex lock_;                       // makes entries; held while the storage is asked
  table<const state_loader*> loaders_{};  // by class_number
  table<std::uint32_t> numbers_{};        // by class_descriptor::index(); 0: not yet
};

}  // namespace goods
