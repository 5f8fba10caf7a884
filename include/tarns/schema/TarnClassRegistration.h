#pragma once

#include <goods/class_descriptor.h>
#include <goods/metaobject.h>
#include <tarns/schema/TarnClassDescriptor.h>
#include <tarns/schema/TarnClassPrototype.h>
#include <tarns/schema/TarnFactory.h>
#include <tarns/tarns_api.h>

#include <optional>
#include <vector>

namespace tarns {

// What TARN_REGISTER_WITH may say about a class.
struct TarnClassOptions {
  // Sizes the children index: pages start at twice as many entries. 2 suits most nodes, 146 nodes
  // with very many children.
  unsigned char pageN = 2;
  // Names under which objects of the class were stored by earlier versions of the program.
  std::vector<const char*> formerNames = {};
  // The members are not reflected: neither are those of its bases through it.
  bool isTarnsBaseClass = false;
  // The class has no findChild() of its own, and its readValue() uses no reference to the node
  // itself (getSelf() and what needs it): so its nodes may be looked at without being kept.
  bool mayBeGuest = false;
  goods::metaobject* scheme = &goods::pessimistic_scheme;
};

// Makes a class known, in five steps: its factory, a helper descriptor without members named with
// the suffix "_t", a prototype instance made with that, the class's own descriptor with the members
// that the prototype describes, and the destruction of all these when the shared library is
// unloaded. A class of a name that another live class has is reported as an error in the log, and
// takes that one's place in look-ups by name while it lives. Threads: as function-local statics
// are, see TARN_REGISTER.
// Errors: what the members' description throws; where TarnLibraries loads the class, it is noted,
// and neither this class nor others that the library registers afterwards become known.
class TARNS_API TarnClassRegistration {
 public:
  TarnClassRegistration(TarnFactory::TypeFunction getType, unsigned size,
                        goods::class_descriptor::constructor_function construct,
                        TarnFactory::CreateFunction create, goods::class_descriptor& base,
                        const TarnClassOptions& options);

  // The helper's where the class did not become known.
  TarnClassDescriptor& getDescriptor() { return descriptor_ ? *descriptor_ : helper_; }

 private:
  std::optional<TarnFactory> factory_;
  TarnClassDescriptor helper_;
  std::optional<TarnClassPrototype> prototype_;
  std::optional<TarnClassDescriptor> descriptor_;
};

}  // namespace tarns
