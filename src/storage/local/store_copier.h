// Copies a store while it is in use.
#pragma once

#include <memory>
#include <string>

#include <goods/dbs_storage.h>

#include "storage/local/snapshot_pool.h"
#include "storage/local/store_directory.h"

namespace goods {

struct open_store;

// Has what was committed merged into the database, keeps a read transaction open there, and copies
// what that sees, page by page. Meanwhile SQLite's log of the store does not start over.
class store_copier : public storage_copier {
 public:
  explicit store_copier(open_store& from);

  // Merges until little is left, or what is left does not become less.
  void prepare() override;
  void fix() override;
  std::uint64_t bytes() const override { return bytes_; }
  bool write(const std::string& directory, const progress& told) override;

 private:
  bool copy_pages(const std::string& file, const progress& told);
  bool verify(const store_files& files, const storage_identity& identity, const store_state& state,
              const progress& told) const;

  open_store& from_;
  snapshot source_;
  std::uint64_t bytes_ = 0;
};

}  // namespace goods
