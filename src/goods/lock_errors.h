// What the application is told when it does not get a lock.
#pragma once

#include <string>

#include <goods/errors.h>
#include <goods/object_ref.h>

#include "storage/lock_conflict.h"

namespace goods {

class cache_manager;

// Names the objects (cache_manager::name_of), who holds them and for how long. `code` is deadlock
// or lock_timeout; `wanted` is what was to be locked, in `mode`. Reads the objects to name them,
// without locking anything; objects of storages that are not the session's go by number.
std::string describe_conflict(cache_manager& session, error_code code, object_id wanted,
                              lock_mode mode, const lock_conflict& conflict);

}  // namespace goods
