#include <goods/B_page.h>

#include <goods/metaobject.h>

#include "goods/prototype.h"

namespace goods {

class_descriptor B_page::self_class("B_page", sizeof(B_page), &pessimistic_scheme,
                                    construct_object<B_page>, prototype_fields<B_page>(),
                                    &object::self_class);

B_page::B_page(index_page page) : object(self_class), page_(std::move(page)) {}

B_page::~B_page() { page_.forget_members(); }

field_descriptor* B_page::describe_components() {
  field_descriptor* list = nullptr;
  page_.describe(list, *this);
  return list;
}

void B_page::pack_varying(byte_writer& out, object_id self) const { page_.pack(out, self); }
void B_page::unpack_varying(byte_reader& in, object_id) { page_.unpack(in); }
void B_page::copy_varying(const object& from) { page_ = static_cast<const B_page&>(from).page_; }
void B_page::visit_varying(ref_visitor& visitor) { page_.visit(visitor); }

}  // namespace goods
