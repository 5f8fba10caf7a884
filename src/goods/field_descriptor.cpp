#include <goods/field_descriptor.h>

#include <algorithm>

namespace goods {
namespace {

field_descriptor* copy_list(field_descriptor* list) {
  field_descriptor* copy = nullptr;
  for_each_field(
      list, [&](const field_descriptor& field) { (new field_descriptor(field))->append_to(copy); });
  return copy;
}

unsigned alignment_of(const field_descriptor& field) {
  if (field.type() != field_type::structure)
    return field.type() == field_type::text ? 1 : field.size();
  unsigned alignment = 1;
  for_each_field(field.components(), [&](const field_descriptor& component) {
    alignment = std::max(alignment, alignment_of(component));
  });
  return alignment;
}

unsigned round_up(unsigned size, unsigned alignment) {
  return (size + alignment - 1) / alignment * alignment;
}

}  // namespace

field_descriptor::field_descriptor(const char* name, unsigned size, unsigned n_items,
                                   unsigned offset, field_descriptor* components)
    : name_(name),
      size_(size),
      n_items_(n_items),
      offset_(offset),
      components_(components),
      next_(this) {}

// Components get the places that a compiler would give them.
field_descriptor::field_descriptor(const field_descriptor* declared,
                                   const dbs_field_descriptor* stored)
    : name_(stored->name),
      size_(stored->size),
      n_items_(stored->n_items),
      offset_(declared == nullptr ? 0 : declared->offset()),
      type_(stored->type),
      kind_(stored->kind),
      components_(nullptr),
      next_(this) {
  unsigned end = 0;
  for (const dbs_field_descriptor& component : stored->components) {
    auto* field = new field_descriptor(nullptr, &component);
    field->set_offset(round_up(end, alignment_of(*field))).append_to(components_);
    end = field->offset() + field->size() * field->n_items();
  }
  if (type_ == field_type::structure) size_ = round_up(end, alignment_of(*this));
}

field_descriptor::field_descriptor(const field_descriptor& other)
    : name_(other.name_),
      size_(other.size_),
      n_items_(other.n_items_),
      offset_(other.offset_),
      type_(other.type_),
      kind_(other.kind_),
      is_boolean_(other.is_boolean_),
      components_(copy_list(other.components_)),
      next_(this) {}

field_descriptor& field_descriptor::operator=(const field_descriptor& other) {
  if (this == &other) return *this;
  field_descriptor* const components = copy_list(other.components_);
  destroy_list(components_);
  components_ = components;
  name_ = other.name_;
  size_ = other.size_;
  n_items_ = other.n_items_;
  offset_ = other.offset_;
  type_ = other.type_;
  kind_ = other.kind_;
  is_boolean_ = other.is_boolean_;
  return *this;
}

field_descriptor::~field_descriptor() { destroy_list(components_); }

void field_descriptor::append_to(field_descriptor*& list) {
  if (list == nullptr) {
    list = this;
    return;
  }
  field_descriptor* last = list;
  while (last->next_ != list) last = last->next_;
  last->next_ = this;
  next_ = list;
}

void field_descriptor::remove_from(field_descriptor*& list, field_descriptor& field) {
  field_descriptor* before = &field;
  while (before->next_ != &field) before = before->next_;
  before->next_ = field.next_;
  if (list == &field) list = before == &field ? nullptr : field.next_;
  field.next_ = &field;
}

void field_descriptor::destroy_list(field_descriptor* list) noexcept {
  while (list != nullptr) {
    field_descriptor* const first = list;
    remove_from(list, *first);
    delete first;
  }
}

dbs_field_descriptor field_descriptor::to_stored() const {
  dbs_field_descriptor stored{name_, type_, kind_, size_, n_items_, {}};
  for_each_field(components_, [&](const field_descriptor& component) {
    stored.components.push_back(component.to_stored());
  });
  return stored;
}

}  // namespace goods
