// Copies all storages of a database.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <goods/database.h>
#include <goods/dbs_storage.h>

namespace goods {

// One copy; database::copy_to() says what it is. Used once.
class database_copier {
 public:
  // The storages and `addresses` outlive it.
  database_copier(std::vector<dbs_storage*> storages, const std::vector<std::string>& addresses,
                  const copy_options& options);

  // False when options.progress has ended it.
  bool run(const std::string& directory);

 private:
  void fix_all();
  bool write_all(const std::string& into);
  bool write(std::size_t storage, const std::string& into);
  void write_configuration(const std::string& into) const;
  std::string directory_of(std::size_t storage) const;
  bool tell() const;

  const std::vector<dbs_storage*> storages_;
  const std::vector<std::string>& addresses_;
  const copy_options& options_;
  std::vector<std::unique_ptr<storage_copier>> copiers_;  // in the order of storages_
  copy_progress reached_;
};

}  // namespace goods
