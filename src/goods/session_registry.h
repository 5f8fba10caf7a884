// Which sessions of the process work on which storages.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

namespace goods {

class dbs_storage;
class object_cache;

// Lets a collection find out what other sessions hold. Process-wide; sessions on storages that
// other processes have open would be entered here as well. Threads: any.
class session_registry {
 public:
  static session_registry& get();

  void add(const dbs_storage& storage, object_cache& session);
  void remove(const object_cache& session);

  // Calls `visit` for each session on any of `storages`, once; none can leave meanwhile.
  void for_each(const std::vector<const dbs_storage*>& storages,
                const std::function<void(object_cache&)>& visit);

 private:
  struct entry {
    const dbs_storage* storage;
    object_cache* session;
  };
  std::mutex lock_;
  std::vector<entry> entries_;  // under lock_
};

}  // namespace goods
