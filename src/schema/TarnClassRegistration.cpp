#include <goods/object.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <exception>
#include <string>
#include <string_view>

#include "schema/RegistrationScope.h"

namespace tarns {

namespace {

// Two classes of one name are most likely a mistake, but may also be two versions of one class,
// while a shared library is being replaced. An exception could not be caught here, before main().
TarnFactory::TypeFunction VerifiedType(TarnFactory::TypeFunction getType) {
  const goods::class_descriptor* other = goods::class_descriptor::find(getType());
  if (other != nullptr && std::string_view(other->name()) == getType()) {
    Log(Log::Error) << "A class is registered under the name \"" << getType()
                    << "\" while another one of that name is: stored objects of both are loaded as "
                       "the class that was registered last. Give one of them another name with "
                       "TARN_CLASS_NAMED.";
  }
  return getType;
}

}  // namespace

TarnClassRegistration::TarnClassRegistration(
    TarnFactory::TypeFunction getType, unsigned size,
    goods::class_descriptor::constructor_function construct, TarnFactory::CreateFunction create,
    goods::class_descriptor& base, const TarnClassOptions& options)
    : helper_((std::string(getType()) + "_t").c_str(), size, options.scheme, construct, nullptr,
              &base, goods::class_descriptor::helper_class, options.isTarnsBaseClass,
              options.pageN) {
  RegistrationScope* const scope = RegistrationScope::Current();
  if (scope != nullptr && scope->hasFailed()) return;
  try {
    factory_.emplace(create, VerifiedType(getType));
    prototype_.emplace(construct(nullptr, helper_, 0));
    descriptor_.emplace(getType(), size, options.scheme, construct,
                        prototype_->getObject()->describe_components(), &base, 0,
                        options.isTarnsBaseClass, options.pageN, options.mayBeGuest);
    for (const char* formerName : options.formerNames) {
      goods::class_descriptor::register_class_alias(formerName, getType());
    }
  } catch (const std::exception& error) {
    if (scope == nullptr) throw;
    scope->note(getType(), error.what());
    descriptor_.reset();
    factory_.reset();
  }
}

}  // namespace tarns
