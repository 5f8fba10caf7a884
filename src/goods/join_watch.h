// Whether transactions may write past cache_manager::joins_transaction().
#pragma once

#include <atomic>

namespace goods {

// Set while somebody wants to be told of every object that is about to be locked for writing, the
// ones included that are locked for what belongs to them and stay as they are.
inline std::atomic<bool> joins_are_watched{false};

}  // namespace goods
