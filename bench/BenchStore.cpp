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

void StoreSession::findByValue(std::string_view, std::string_view, std::string_view,
                               const NameSink&) {
  throw std::logic_error("This peer has no queries.");
}

void StoreSession::addIndex(std::string_view, std::string_view) {
  throw std::logic_error("This peer has no indexes of values.");
}

const std::vector<std::string>& BenchStore::Peers() {
  static const std::vector<std::string> peers = {"tarns", "sqlite", "lmdb"};
  return peers;
}

}  // namespace tarns::bench
