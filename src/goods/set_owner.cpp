#include <goods/set_owner.h>

#include <goods/metaobject.h>

#include "goods/prototype.h"

namespace goods {

// Nothing is just a set_owner; its descriptor only serves the classes derived from it.
class_descriptor set_owner::self_class(
    "set_owner", sizeof(set_owner), &pessimistic_scheme, nullptr,
    [] {
      set_owner prototype(nullptr, prototype_class());
      return prototype.describe_components();
    }(),
    &object::self_class);

set_owner::set_owner(class_descriptor& cls, const object_ref& owner) : object(cls) {
  cluster_with(owner);
  owner_.set(ref<object>::trusted(owner));
}

field_descriptor* set_owner::describe_components() {
  field_descriptor* list = nullptr;
  describe_member(list, "owner", *this, owner_, ref_kind::back);
  describe_member(list, "count", *this, count_);
  return list;
}

}  // namespace goods
