// Noticing what has changed in a synchronised bundle.
#pragma once

#include <goods/cache_manager.h>
#include <tarns/containers/SyncedBundle.h>

#include <string>
#include <type_traits>
#include <vector>

#include "containers/sync_records.h"

namespace tarns {

// The names whose objects are not what their records say, as far as can be told without locks:
// what is changed meanwhile may be missing.
std::vector<std::string> FindUnnoticed(const xcptref<SyncedBundle>& bundle);

// Gives revisions to what has changed, then calls work(bundle, how many there were), all in one
// transaction, and returns the result. Objects are compared before the transaction begins.
template <class Work>
auto WithNoticedChanges(const xcptref<SyncedBundle>& bundle, const Work& work) {
  const std::vector<std::string> suspects = FindUnnoticed(bundle);
  const auto all = [&] {
    const auto body = modify(bundle);
    SyncRecords records(*body);
    records.settleReplica();
    unsigned long noticed = 0;
    for (const std::string& name : suspects) noticed += records.notice(name) ? 1 : 0;
    return work(*body, noticed);
  };
  goods::cache_manager* const session = goods::cache_manager::current();
  return session != nullptr && bundle.id() != 0 ? session->atomically(all) : all();
}

}  // namespace tarns
