#include <goods/object_handle.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/schema/TarnFactory.h>

#include <cstring>

#include "core/node_access.h"

namespace tarns {

TarnClassDescriptor& TarnObject::SelfClass() {
  static TarnClassRegistration registration(
      GetType, sizeof(TarnObject), goods::construct_object<TarnObject>, Constructor,
      goods::object::self_class, {.isTarnsBaseClass = true, .mayBeGuest = true});
  return registration.getDescriptor();
}

TarnClassDescriptor& TarnObject::self_class = TarnObject::SelfClass();

namespace {

// getClass() relies on it.
goods::class_descriptor& VerifiedNodeClass(goods::class_descriptor& cls) {
  if ((cls.flags() & TarnClassDescriptor::kNodeClass) == 0) {
    TarnException::ThrowMissingDescriptor(cls.name());
  }
  return cls;
}

}  // namespace

TarnObject::TarnObject(goods::class_descriptor& cls) : goods::object(VerifiedNodeClass(cls)) {}

TarnObject::TarnObject(goods::object_handle* handle, goods::class_descriptor& cls)
    : goods::object(handle, VerifiedNodeClass(cls)) {}

TarnObject::~TarnObject() = default;

TarnClassDescriptor& TarnObject::getClass() const {
  return static_cast<TarnClassDescriptor&>(cls());
}

xcptref<TarnObject> TarnObject::CreateOfType(const char* typeName) {
  return TarnFactory::GetHead().createOfType(typeName);
}

xcptref<TarnObject> TarnObject::constructor() const {
  goods::object_ref reference(new goods::object_handle(nullptr));
  reference.handle()->set_body(cls().create(reference.handle()));
  return xcptref<TarnObject>::Trusted(std::move(reference));
}

bool TarnObject::IsTarnObject(const goods::object_ref& reference) {
  return !reference.is_null() && self_class.is_superclass_for(goods::class_of(reference));
}

bool TarnObject::isDerivedFrom(const char* typeName) const {
  if (typeName == nullptr) return false;
  for (const goods::class_descriptor* cls = &this->cls(); cls != nullptr; cls = cls->base()) {
    if (std::strcmp(cls->name(), typeName) == 0) return true;
  }
  return false;
}

bool TarnObject::isOfType(const char* typeName) const {
  return typeName != nullptr && std::strcmp(getType(), typeName) == 0;
}

unsigned char TarnObject::getPageN() const { return getClass().getPageN(); }

goods::field_descriptor* TarnObject::describe_components() {
  GOODSinOut out(*this);
  write("", out);
  return out.takeFieldDescriptors();
}

bool TarnObject::write(const char*, GOODSinOut& out) {
  out.write("Children", children_);
  return out.write("ParentLink", parentLink_);
}

std::uint64_t TarnObject::GetObjectID(const xcptref<TarnObject>& node) { return node.id(); }

xcptref<TarnObject> TarnObject::getSelf() const {
  return xcptref<TarnObject>::Trusted(goods::object_ref(handle()));
}

xcptref<TarnObjects> TarnObject::getChildren() const { return TarnNodeAccess::IndexNow(*this); }

}  // namespace tarns
