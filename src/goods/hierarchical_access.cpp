#include <goods/cache_manager.h>
#include <goods/hierarchical_access.h>
#include <goods/object_handle.h>

#include "goods/thread_attachment.h"
#include "goods/transaction.h"

namespace goods {

hierarchical_access_metaobject hierarchical_access_scheme;

const object* hierarchical_access_metaobject::begin_read_access(object_handle& handle) {
  transaction* const open = cache_manager::require().attachment()->open();
  if (open != nullptr && transaction::copy_of(handle) == nullptr) {
    open->write(handle);
    open->touched(handle);
  }
  return pessimistic_metaobject::begin_read_access(handle);
}

}  // namespace goods
