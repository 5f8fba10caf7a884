#include <goods/class_descriptor.h>
#include <tarns/core/SrefCounter.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnPath.h>
#include <tarns/core/xcptref.h>

namespace tarns {

SrefCounter::~SrefCounter() = default;

void ThrowBadXcptRefTypecast(goods::object_handle* handle, const goods::class_descriptor& target) {
  const goods::object_ref reference(handle);
  const goods::class_descriptor& actual = goods::class_of(reference);
  TarnPath path;
  if (TarnObject::self_class.is_superclass_for(actual)) {
    TarnObject::GetPath(TarnRef::Trusted(reference), path);
  } else {
    path = "<not a TarnObject>";
  }
  TarnException error;
  error << "Bad TarnRef typecast: casting a \"" << actual.name() << "\" at \"" << path.view()
        << "\" to a \"" << target.name() << "\".";
  error.setErrorID(ErrorID::BadTypecast);
  throw error;
}

void VerifyRefClass(const goods::object_ref& reference, const goods::class_descriptor& target) {
  if (reference.is_null()) return;
  const goods::object_ref counted(reference);
  if (target.is_superclass_for(goods::class_of(counted))) return;
  ThrowBadXcptRefTypecast(counted.handle(), target);
}

}  // namespace tarns
