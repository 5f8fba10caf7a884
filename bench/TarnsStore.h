#pragma once

#include <tarns/session/TarnManager.h>

#include <memory>

#include "BenchStore.h"

namespace tarns::bench {

// tarns, used as an application uses it: one session with the database, which all threads share.
//
// A package is a plain node with a value node per field. Single changes and reads go through the
// session's path interface, without a transaction around them.
class TarnsStore : public BenchStore {
 public:
  explicit TarnsStore(const Options& options);

  std::unique_ptr<StoreSession> session() override;
  std::size_t packagesPerCommit() const override;

  // For what only tarns is measured in.
  TarnManager& manager() { return manager_; }

 private:
  TarnManager manager_;
};

}  // namespace tarns::bench
