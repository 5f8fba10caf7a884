#include <goods/obj_storage.h>

#include "goods/layout_catalog.h"
#include "goods/number_pool.h"

namespace goods {

obj_storage::obj_storage(std::shared_ptr<dbs_storage> storage, storage_number number)
    : storage_(std::move(storage)),
      catalog_(std::make_unique<layout_catalog>(*storage_, number)),
      numbers_(std::make_unique<number_pool>(*storage_)) {}

obj_storage::~obj_storage() { storage_->suggest_cache(this, 0); }

std::uint64_t obj_storage::get_used_size() const { return storage_->statistics().used_bytes; }

}  // namespace goods
