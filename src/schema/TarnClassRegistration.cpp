#include <goods/object.h>
#include <tarns/schema/TarnClassRegistration.h>

#include <string>

namespace tarns {

TarnClassRegistration::TarnClassRegistration(
    TarnFactory::TypeFunction getType, unsigned size,
    goods::class_descriptor::constructor_function construct, TarnFactory::CreateFunction create,
    goods::class_descriptor& base, const TarnClassOptions& options)
    : factory_(create, getType),
      helper_((std::string(getType()) + "_t").c_str(), size, options.scheme, construct, nullptr,
              &base, 0, options.isTarnsBaseClass, options.pageN),
      prototype_(construct(nullptr, helper_, 0)),
      descriptor_(getType(), size, options.scheme, construct,
                  prototype_.getObject()->describe_components(), &base, 0, options.isTarnsBaseClass,
                  options.pageN, options.mayBeGuest) {
  for (const char* formerName : options.formerNames) {
    goods::class_descriptor::register_class_alias(formerName, getType());
  }
}

}  // namespace tarns
