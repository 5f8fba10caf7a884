#pragma once

#include <goods/database.h>
#include <tarns/tarns_api.h>

#include <memory>

namespace tarns {

class TarnCacheManager;
class TarnManager;

// The database of a session, which it knows.
//
// Ownership: the session's, which outlives it. The database in turn owns the session's one
// TarnCacheManager from open() to close(): made before the first attach(), so that threads may
// attach at the same time.
// Threads: see goods::database.
class TARNS_API TarnDatabase : public goods::database {
 public:
  explicit TarnDatabase(TarnManager& manager);
  ~TarnDatabase() override;

  TarnManager& getManager() const { return manager_; }
  // Throws 4 (not connected) while the database is not open.
  TarnCacheManager& getCacheManager() const;

  // Attaches the calling thread to the cache manager, which all attached threads share.
  void attach() override;

 protected:
  std::unique_ptr<goods::cache_manager> create_session() override;
  std::unique_ptr<goods::check_rules> create_check_rules() override;

 private:
  TarnManager& manager_;
};

}  // namespace tarns
