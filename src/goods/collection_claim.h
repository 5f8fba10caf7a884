// Which storages are being collected.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

namespace goods {

class dbs_storage;

// The right to collect some storages, which one collection at a time has, whatever sessions they
// are started from: what one of them removes must not be looked at by the other. While there is a
// claim, handles note that they were counted. Threads: any.
class collection_claim {
 public:
  // Null when one of the storages is being collected already.
  static std::unique_ptr<collection_claim> take(std::vector<const dbs_storage*> storages);
  ~collection_claim();
  collection_claim(const collection_claim&) = delete;
  collection_claim& operator=(const collection_claim&) = delete;

  static bool is_any_taken() { return taken_.load() != 0; }

 private:
  explicit collection_claim(std::vector<const dbs_storage*> storages);
  static std::atomic<int> taken_;

  const std::vector<const dbs_storage*> storages_;
};

}  // namespace goods
