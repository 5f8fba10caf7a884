#include <goods/dbs_storage.h>

#include "storage/local/local_storage.h"
#include "storage/local/store_directory.h"
#include "storage/storage_address.h"

namespace goods {

std::shared_ptr<dbs_storage> open_storage(const std::string& address,
                                          const std::string& base_directory) {
  return open_local_storage(parse_storage_address(address, base_directory));
}

bool has_storage(const std::string& address, const std::string& base_directory) {
  return store_files(parse_storage_address(address, base_directory).directory).exist();
}

}  // namespace goods
