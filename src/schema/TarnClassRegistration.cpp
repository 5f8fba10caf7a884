#include <goods/object.h>
#include <tarns/logging/Log.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <string>
#include <string_view>

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
    : factory_(create, VerifiedType(getType)),
      helper_((std::string(getType()) + "_t").c_str(), size, options.scheme, construct, nullptr,
              &base, goods::class_descriptor::helper_class, options.isTarnsBaseClass,
              options.pageN),
      prototype_(construct(nullptr, helper_, 0)),
      descriptor_(getType(), size, options.scheme, construct,
                  prototype_.getObject()->describe_components(), &base, 0, options.isTarnsBaseClass,
                  options.pageN, options.mayBeGuest) {
  for (const char* formerName : options.formerNames) {
    goods::class_descriptor::register_class_alias(formerName, getType());
  }
}

}  // namespace tarns
