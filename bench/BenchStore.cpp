#include "BenchStore.h"

#include <stdexcept>

#include "LmdbStore.h"
#include "SqliteStore.h"
#include "TarnsStore.h"

namespace tarns::bench {

std::unique_ptr<BenchStore> BenchStore::Open(std::string_view peer, const Options& options) {
  if (peer == "tarns") return std::make_unique<TarnsStore>(options);
  if (peer == "sqlite") return std::make_unique<SqliteStore>(options);
  if (peer == "lmdb") return std::make_unique<LmdbStore>(options);
  throw std::invalid_argument("There is no peer \"" + std::string(peer) + "\".");
}

const std::vector<std::string>& BenchStore::Peers() {
  static const std::vector<std::string> peers = {"tarns", "sqlite", "lmdb"};
  return peers;
}

}  // namespace tarns::bench
