// Nodes of classes that this program does not have: their stored members can be listed and read and
// are kept when the node is written again.
#include <goods/class_descriptor.h>
#include <tarns/core/TarnObject.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnFieldDescriptor.h>

#include "goods/class_layout.h"

namespace tarns {

namespace {

goods::field_descriptor* MakeNodeField(const goods::field_descriptor* declared,
                                       const goods::dbs_field_descriptor* stored) {
  return new TarnFieldDescriptor(declared, stored);
}

goods::field_descriptor* MakeOtherField(const goods::field_descriptor* declared,
                                        const goods::dbs_field_descriptor* stored) {
  return new goods::field_descriptor(declared, stored);
}

goods::class_descriptor& NearestKnownBase(const goods::class_layout& layout) {
  for (const std::string& base : layout.bases) {
    if (goods::class_descriptor* known = goods::class_descriptor::find(base)) return *known;
  }
  return goods::object::self_class;
}

goods::class_descriptor* MakeUnknownClass(std::shared_ptr<const goods::class_layout> layout) {
  goods::class_descriptor& base = NearestKnownBase(*layout);
  const TarnClassDescriptor* nodeBase = TarnClassDescriptor::From(&base);
  const goods::unknown_fields made =
      make_unknown_fields(*layout, base, nodeBase != nullptr ? MakeNodeField : MakeOtherField);
  goods::class_descriptor* cls =
      nodeBase != nullptr
          ? new TarnClassDescriptor(layout->name.c_str(), base.instance_size(), base.scheme(),
                                    base.constructor(), made.fields, &base, base.flags(), false,
                                    nodeBase->getPageN())
          : new goods::class_descriptor(layout->name.c_str(), base.instance_size(), base.scheme(),
                                        base.constructor(), made.fields, &base, base.flags());
  cls->adopt_layout(std::move(layout));
  return cls;
}

[[maybe_unused]] const bool installed = [] {
  goods::set_unknown_class_factory(MakeUnknownClass);
  return true;
}();

}  // namespace

}  // namespace tarns
