// A locking scheme for objects that somebody takes for himself.
#pragma once

#include <goods/goods_api.h>
#include <goods/metaobject.h>

namespace goods {

// As the pessimistic scheme, but a transaction that reads such an object through a reference locks
// it exclusively at once: who has looked at it has it, with all that hangs below it, to the end of
// the transaction, and two who look never end in a deadlock when both go on to write. The object is
// not written by that. Look-ups by path lock shared, as in every object; reads outside of
// transactions lock nothing.
class GOODS_API hierarchical_access_metaobject : public pessimistic_metaobject {
 public:
  const object* begin_read_access(object_handle& handle) override;
};

extern GOODS_API hierarchical_access_metaobject hierarchical_access_scheme;

}  // namespace goods
