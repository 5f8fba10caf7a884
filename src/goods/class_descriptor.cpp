#include <goods/class_descriptor.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include <goods/errors.h>
#include <goods/metaobject.h>

#include "goods/class_layout.h"
#include "goods/pack_program.h"
#include "goods/unknown_class.h"

namespace goods {
namespace {

// Lives as long as the process: descriptors are static objects of any file.
struct class_registry {
  std::mutex lock;
  std::uint32_t next_index = 0;
  std::map<std::string, std::vector<class_descriptor*>, std::less<>> classes;  // the newest last
  std::map<std::string, std::string, std::less<>> aliases;
};

class_registry& registry() {
  static auto* const instance = new class_registry;
  return *instance;
}

// Resolving happens once per class and may need the bases resolved, so one lock serves all.
std::recursive_mutex& resolve_lock() {
  static auto* const instance = new std::recursive_mutex;
  return *instance;
}

class_layout layout_of(const class_descriptor& cls) {
  std::vector<std::string> bases;
  for (const class_descriptor* one = cls.base(); one != nullptr; one = one->base()) {
    bases.emplace_back(one->name());
  }
  std::vector<dbs_field_descriptor> fields;
  for (const field_descriptor* field : all_fields(cls)) fields.push_back(field->to_stored());
  return class_layout::make(cls.name(), std::move(bases), std::move(fields));
}

}  // namespace

struct unknown_class_data {
  unknown_class_data(std::shared_ptr<const class_layout> stored, const class_descriptor& base)
      : layout(std::move(stored)), placement(*layout, base) {}

  std::shared_ptr<const class_layout> layout;
  layout_placement placement;
  pack_program room;  // the members behind the instance

  unknown_part*& part(object& body) const {
    return *reinterpret_cast<unknown_part**>(reinterpret_cast<char*>(&body) +
                                             placement.kept_offset);
  }
  const unknown_part* part(const object& body) const { return part(const_cast<object&>(body)); }
};

class_descriptor object::self_class("object", sizeof(object), &pessimistic_scheme,
                                    construct_object<object>, nullptr);

class_descriptor::class_descriptor(const char* name, unsigned instance_size, metaobject* scheme,
                                   constructor_function make_body, field_descriptor* fields,
                                   class_descriptor* base, int flags, bool may_be_guest)
    : name_(name),
      instance_size_(instance_size),
      scheme_(scheme),
      constructor_(make_body),
      base_(base),
      flags_(flags),
      may_be_guest_(may_be_guest),
      own_fields_(fields) {
  class_registry& all = registry();
  const std::lock_guard guard(all.lock);
  index_ = all.next_index++;
  if ((flags_ & helper_class) == 0) all.classes[name_].push_back(this);
}

class_descriptor::~class_descriptor() {
  class_registry& all = registry();
  const std::lock_guard guard(all.lock);
  if (const auto found = all.classes.find(name_); found != all.classes.end()) {
    std::erase(found->second, this);
  }
  field_descriptor::destroy_list(own_fields_);
  delete program_.load();
}

class_descriptor* class_descriptor::find(std::string_view name) {
  class_registry& all = registry();
  const std::lock_guard guard(all.lock);
  const auto alias = all.aliases.find(name);
  if (alias != all.aliases.end()) name = alias->second;
  const auto found = all.classes.find(name);
  if (found == all.classes.end() || found->second.empty()) return nullptr;
  return found->second.back();
}

void class_descriptor::register_class_alias(const char* old_name, const char* new_name) {
  class_registry& all = registry();
  const std::lock_guard guard(all.lock);
  all.aliases.insert_or_assign(old_name, new_name);
}

class_descriptor& class_descriptor::add_alias(const char* old_name, const char* new_name) {
  aliases_.emplace_back(old_name, new_name);
  return *this;
}

std::string_view class_descriptor::current_name_of(std::string_view stored_name) const {
  for (const class_descriptor* one = this; one != nullptr; one = one->base_) {
    for (const auto& [old_name, new_name] : one->aliases_) {
      if (old_name == stored_name) return new_name;
    }
  }
  return stored_name;
}

void class_descriptor::resolve() const {
  const std::lock_guard guard(resolve_lock());
  if (is_resolved_.load(std::memory_order_relaxed)) return;
  drop_inherited_fields();
  ancestors_.clear();
  if (base_ != nullptr) ancestors_ = base_->resolved().ancestors_;
  ancestors_.push_back(this);
  is_resolved_.store(true, std::memory_order_release);
}

void class_descriptor::drop_inherited_fields() const {
  for (const class_descriptor* base = base_; base != nullptr; base = base->base_) {
    for_each_field(base->fields(), [&](const field_descriptor& inherited) {
      field_descriptor* repeated = nullptr;
      for_each_field(own_fields_, [&](field_descriptor& own) {
        if (own.offset() == inherited.offset() && std::strcmp(own.name(), inherited.name()) == 0) {
          repeated = &own;
        }
      });
      if (repeated == nullptr) return;
      field_descriptor::remove_from(own_fields_, *repeated);
      delete repeated;
    });
  }
}

const pack_program& class_descriptor::complete() const {
  resolved();
  const std::lock_guard guard(resolve_lock());
  const pack_program* program = program_.load(std::memory_order_relaxed);
  if (program == nullptr) {
    program = make_program().release();
    program_.store(program, std::memory_order_release);
  }
  return *program;
}

std::unique_ptr<pack_program> class_descriptor::make_program() const {
  auto program = std::make_unique<pack_program>();
  if (unknown_ == nullptr) {
    layout_ = std::make_shared<const class_layout>(layout_of(*this));
    for (const field_descriptor* field : all_fields(*this)) program->add(*field);
    has_varying_ = !layout_->fields.empty() && layout_->fields.back().is_varying();
    return program;
  }
  layout_ = unknown_->layout;
  has_varying_ = unknown_->placement.base_has_varying;
  for (const layout_placement::member& member : unknown_->placement.members) {
    if (member.declared != nullptr) {
      program->add(*member.declared);
    } else {
      const field_descriptor field(nullptr, member.stored);
      program->add(field, member.offset);
      unknown_->room.add(field, member.offset);
    }
  }
  return program;
}

const class_layout& class_descriptor::layout() const {
  program();
  return *layout_;
}

void class_descriptor::adopt_layout(std::shared_ptr<const class_layout> layout) {
  class_registry& all = registry();
  const std::lock_guard guard(all.lock);
  std::erase(all.classes[name_], this);
  unknown_ = std::make_unique<unknown_class_data>(std::move(layout), *base_);
  extra_room_ = unknown_->placement.extra_room;
}

// --- Bodies
// ----------------------------------------------------------------------------------------

void class_descriptor::pack(const object& body, byte_writer& out, object_id self) const {
  program().pack(body, out, self);
  if (has_varying_) body.pack_varying(out, self);
  if (unknown_ == nullptr) return;
  if (const unknown_part* const part = unknown_->part(body); part != nullptr) {
    part->write(out, self);
  } else {  // a body that was not loaded: its varying parts are empty
    for (std::size_t i = 0; i < unknown_->placement.kept.size(); ++i) out.put_byte(0);
  }
}

void class_descriptor::unpack(object& body, byte_reader& in) const {
  program().unpack(body, in);
  if (has_varying_) body.unpack_varying(in, in.self());
  if (unknown_ != nullptr && !unknown_->placement.kept.empty()) {
    unknown_part*& part = unknown_->part(body);
    if (part == nullptr) part = new unknown_part;
    part->read(unknown_->placement.kept, in);
  }
  if (!in.at_end()) in.fail("has bytes behind its end");
}

void class_descriptor::copy_state(const object& from, object& to) const {
  program().copy(from, to);
  if (has_varying_) to.copy_varying(from);
  if (unknown_ == nullptr) return;
  const unknown_part* const part = unknown_->part(from);
  delete std::exchange(unknown_->part(to), part == nullptr ? nullptr : new unknown_part(*part));
}

void class_descriptor::visit_references(object& body, ref_visitor& visitor) const {
  program().visit(body, visitor);
  if (has_varying_) body.visit_varying(visitor);
  if (unknown_ == nullptr) return;
  if (unknown_part* const part = unknown_->part(body); part != nullptr) part->visit(visitor);
}

std::size_t class_descriptor::unknown_bytes(const object& body) const {
  const unknown_part* const part = unknown_->part(body);
  return extra_room_ + (part == nullptr ? 0 : part->heap_bytes());
}

void class_descriptor::release_extra_room(object& body) const noexcept {
  program();
  unknown_->room.release(body);
  delete std::exchange(unknown_->part(body), nullptr);
}

}  // namespace goods
