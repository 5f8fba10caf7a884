// What a library above knows about the contents of its own classes.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include <goods/byte_reader.h>
#include <goods/object_ref.h>

#include "goods/class_layout.h"

namespace goods {

// A stored object while it is checked; valid during the call that passes it.
struct stored_object {
  object_id id;
  const class_layout& layout;
  std::span<const std::byte> state;

  // Whether it is of the class, or of one derived from it.
  bool is_a(std::string_view class_name) const;
  // Shows the top-level members in order, each with a reader at its beginning. Throws corrupt_data.
  void for_each_member(
      const std::function<void(const dbs_field_descriptor&, byte_reader)>& visit) const;
  // A member that is one reference; 0 when it is null, or there is no such member. Throws
  // corrupt_data.
  object_id reference(std::string_view member) const;
};

bool is_class(const class_layout& layout, std::string_view class_name);
std::string text_of(object_id id);  // "0:65536"; "none" for 0

// The check as the rules see it.
class check_desk {
 public:
  // Adds a finding about `id`, which the object that is being checked refers to under `name` (it
  // is the object itself when that is empty).
  virtual void report(object_id id, std::string_view name, std::string text) = 0;
  // Passes the object to `visit`, which only reads it; false when it cannot be read, which is
  // reported elsewhere.
  virtual bool look(object_id id, const std::function<void(const stored_object&)>& visit) = 0;
  // Whether it is a set_member. Of objects that cannot be read, this is true.
  virtual bool is_member(object_id id) const = 0;
  // The object that is being checked says that this entry stands in a set.
  virtual void needs_place(object_id member) = 0;

 protected:
  ~check_desk() = default;
};

// Threads: one. Called for objects that can be read as their layouts say.
class check_rules {
 public:
  virtual ~check_rules() = default;
  // A path does not get a name from passing this member.
  virtual bool is_silent(std::string_view member) const = 0;
  virtual void check(const stored_object& object, check_desk& desk) = 0;
  // An entry of an index.
  virtual void check_entry(const stored_object& index, std::string_view name, object_id target,
                           check_desk& desk) = 0;
  // The root object of the first storage.
  virtual void check_root(const stored_object& root, check_desk& desk) = 0;
  // All objects have been checked. What is reported gets its path from `name` alone.
  virtual void finish(check_desk& /*desk*/) {}
};

}  // namespace goods
