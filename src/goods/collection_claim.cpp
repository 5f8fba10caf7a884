#include "goods/collection_claim.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace goods {

namespace {

// Never destroyed: sessions may outlive static objects.
struct claimed_storages {
  std::mutex lock;
  std::vector<const dbs_storage*> list;  // under lock

  static claimed_storages& get() {
    static auto* claimed = new claimed_storages;
    return *claimed;
  }
};

}  // namespace

std::atomic<int> collection_claim::taken_{0};

std::unique_ptr<collection_claim> collection_claim::take(std::vector<const dbs_storage*> storages) {
  claimed_storages& claimed = claimed_storages::get();
  const std::lock_guard guard(claimed.lock);
  if (std::ranges::find_first_of(claimed.list, storages) != claimed.list.end()) return nullptr;
  claimed.list.reserve(claimed.list.size() + storages.size());
  std::unique_ptr<collection_claim> claim(new collection_claim(std::move(storages)));
  claimed.list.insert(claimed.list.end(), claim->storages_.begin(), claim->storages_.end());
  return claim;
}

collection_claim::collection_claim(std::vector<const dbs_storage*> storages)
    : storages_(std::move(storages)) {
  ++taken_;
}

collection_claim::~collection_claim() {
  --taken_;
  claimed_storages& claimed = claimed_storages::get();
  const std::lock_guard guard(claimed.lock);
  std::erase_if(claimed.list, [&](const dbs_storage* storage) {
    return std::ranges::find(storages_, storage) != storages_.end();
  });
}

}  // namespace goods
