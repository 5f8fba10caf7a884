#include "support/failing_memory.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdlib>

#include "support/replaced_new.h"

namespace {

std::atomic<bool> armed{false}, failed{false}, fails_for_good{false};
std::atomic<std::uint64_t> fails_after{0}, count{0};

bool is_to_fail() {
  if (!armed.load(std::memory_order_relaxed)) return false;
  const std::uint64_t number = count++;
  if (number < fails_after || (number > fails_after && !fails_for_good)) return false;
  failed = true;
  return true;
}

// ---- SQLite's

sqlite3_mem_methods usual;

void* allocate_for_sqlite(int size) { return is_to_fail() ? nullptr : usual.xMalloc(size); }
void* reallocate_for_sqlite(void* memory, int size) {
  return is_to_fail() ? nullptr : usual.xRealloc(memory, size);
}

// Before SQLite is used for the first time.
const bool installed = [] {
  ::sqlite3_config(SQLITE_CONFIG_GETMALLOC, &usual);
  sqlite3_mem_methods failing = usual;
  failing.xMalloc = allocate_for_sqlite;
  failing.xRealloc = reallocate_for_sqlite;
  return ::sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) == SQLITE_OK;
}();

}  // namespace

bool may_allocate() noexcept { return !is_to_fail(); }

failing_memory::failing_memory(std::uint64_t after, bool for_good) {
  if (!installed) std::abort();
  failed = false;
  fails_after = after;
  fails_for_good = for_good;
  count = 0;
  armed = true;
}

failing_memory::~failing_memory() { armed = false; }

bool failing_memory::has_failed() { return failed; }
