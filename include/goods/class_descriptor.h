// What the client knows about a persistent class.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <goods/field_descriptor.h>
#include <goods/goods_api.h>
#include <goods/object.h>

namespace goods {

class byte_reader;
class byte_writer;
class metaobject;
class pack_program;
struct class_layout;
struct unknown_class_data;

// Name, base, locking scheme and persistent members of a class, and what follows from the members:
// packing, unpacking, copying and visiting references run a program compiled from them once.
//
// A class's descriptor is usually a static object. Descriptors may be made in any order, a derived
// class's before its base's too; the base is looked at when the descriptor is first used, which
// must be after static initialisation. Names: of several live descriptors of one name the newest is
// the one that find() answers. A helper, which only serves to make a prototype, is one that find()
// does not know. Ownership: owns its field list. Nobody owns
// descriptors: they outlive every object of their class and every open storage. Threads: any, once
// made.
class GOODS_API class_descriptor {
 public:
  // Makes a body of the class. The body gets `extra` bytes beyond its C++ class, zeroed; use
  // construct_object<T>() below. `handle` is null for prototypes.
  using constructor_function = object* (*)(object_handle* handle, class_descriptor& cls,
                                           unsigned extra);

  // Flags, to be combined.
  static constexpr int helper_class = 1;  // see above
  static constexpr int first_free = 2;    // from here on up for the library above

  // Takes over `fields` (null for none): the class's own persistent members. Members of the base
  // may be among them; those that the base has under the same name and offset are dropped.
  // `may_be_guest`: no function that is called on a body while it is read through a reader needs
  // the body's handle; see guest_scope in reader.h. A derived class has to say so for itself.
  class_descriptor(const char* name, unsigned instance_size, metaobject* scheme,
                   constructor_function make_body, field_descriptor* fields,
                   class_descriptor* base = nullptr, int flags = 0, bool may_be_guest = false);
  virtual ~class_descriptor();
  class_descriptor(const class_descriptor&) = delete;
  class_descriptor& operator=(const class_descriptor&) = delete;

  const char* name() const { return name_.c_str(); }
  unsigned instance_size() const { return instance_size_; }  // bytes of the C++ class
  class_descriptor* base() const { return base_; }           // null for none
  metaobject* scheme() const { return scheme_; }
  constructor_function constructor() const {
    return constructor_;
  }  // null: no bodies of this class
  int flags() const { return flags_; }
  bool may_be_guest() const { return may_be_guest_; }
  // Different for every descriptor of the process, small, never used again.
  std::uint32_t index() const { return index_; }

  // The class's own members, without those of its bases; null for none.
  field_descriptor* fields() const { return resolved().own_fields_; }

  // A new body; `varying` is how many bytes its varying part may take (a hint, see String).
  object* create(object_handle* handle, unsigned varying = 0) {
    return constructor_(handle, *this, extra_room_ + varying);
  }

  // Whether an object of class `other` is one of this class: the same or derived from it.
  bool is_superclass_for(const class_descriptor& other) const {
    if (&other == this) return true;
    const auto& ancestors = other.resolved().ancestors_;
    return depth() < ancestors.size() && ancestors[depth()] == this;
  }

  // The class of this name in the process, or null; see above. Resolves class aliases.
  static class_descriptor* find(std::string_view name);

  // --- The bodies of the class
  // ---------------------------------------------------------------------

  // Appends the packed state. `self`: the object's identifier. Every handle met must have one.
  void pack(const object& body, byte_writer& out, object_id self) const;
  // Fills a fresh body from a state packed by the same layout; throws corrupt_data.
  void unpack(object& body, byte_reader& in) const;
  // Makes `to`, of the same class, a copy of `from`: words are copied as they are, counted handles
  // among them are counted.
  void copy_state(const object& from, object& to) const;
  // In the order of the stored form, the varying part last.
  void visit_references(object& body, ref_visitor& visitor) const;
  // Memory of the body: instance and heap; without an instance that lies with a handle, which
  // counts it (see object_handle::memory()).
  std::size_t body_bytes(const object& body) const {
    const std::size_t instance = body.lies_with_handle() ? 0 : sizeof(void*) * 2 + instance_size_;
    return instance + body.varying_bytes() + extra_bytes(body);
  }

  // --- Evolution
  // -----------------------------------------------------------------------------------

  // States stored when a member was still called `old_name` fill the member now called `new_name`.
  // Before the first object is loaded.
  class_descriptor& add_alias(const char* old_name, const char* new_name);
  std::string_view current_name_of(std::string_view stored_name) const;
  // Objects stored as class `old_name` are ones of class `new_name` now.
  static void register_class_alias(const char* old_name, const char* new_name);

  // The layout under which bodies of this class are stored.
  const class_layout& layout() const;

  // --- Classes that the process does not know
  // ------------------------------------------------------

  // Makes this the class of the objects stored under `layout`: its bodies are ones of base(),
  // followed by the room for members that only the layout has. find() does not answer it any more.
  // Called once by whoever made the descriptor with make_unknown_fields(); see class_layout.h.
  void adopt_layout(std::shared_ptr<const class_layout> layout);
  bool is_unknown_class() const { return unknown_ != nullptr; }

  // Releases the references in the room beyond the C++ class; ~object() calls it.
  void release_extra(object& body) const noexcept {
    if (extra_room_ != 0) release_extra_room(body);
  }

 private:
  std::size_t depth() const { return resolved().ancestors_.size() - 1; }
  // Completes what needs the base: own members and ancestors, then layout and program.
  const class_descriptor& resolved() const {
    if (!is_resolved_.load(std::memory_order_acquire)) resolve();
    return *this;
  }
  void resolve() const;
  void drop_inherited_fields() const;
  const pack_program& program() const {
    const pack_program* const program = program_.load(std::memory_order_acquire);
    return program != nullptr ? *program : complete();
  }
  const pack_program& complete() const;
  std::unique_ptr<pack_program> make_program() const;
  std::size_t extra_bytes(const object& body) const {
    return unknown_ == nullptr ? 0 : unknown_bytes(body);
  }
  std::size_t unknown_bytes(const object& body) const;
  void release_extra_room(object& body) const noexcept;

  // Fixed after construction.
  std::string name_;
  unsigned instance_size_;
  unsigned extra_room_ = 0;
  metaobject* scheme_;
  constructor_function constructor_;
  class_descriptor* base_;
  int flags_;
  bool may_be_guest_;
  std::uint32_t index_;
  std::unique_ptr<unknown_class_data> unknown_;
  std::vector<std::pair<std::string, std::string>> aliases_;
  // Completed by resolve().
  mutable field_descriptor* own_fields_;
  mutable std::vector<const class_descriptor*> ancestors_;  // outermost base first, itself last
  mutable std::atomic<bool> is_resolved_{false};
  // Completed by complete().
  mutable std::shared_ptr<const class_layout> layout_;
  mutable bool has_varying_ = false;  // whether bodies have ..._varying() functions to be called
  mutable std::atomic<const pack_program*> program_{nullptr};  // owned
};

// The constructor function of a class T with a constructor T(object_handle*, class_descriptor&).
template <class T>
object* construct_object(object_handle* handle, class_descriptor& cls, unsigned extra) {
  return new (extra_room{extra}) T(handle, cls);
}

}  // namespace goods
