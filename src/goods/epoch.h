// When memory that readers look at without locks may be freed.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace goods {

// While one lives, nothing that was reachable when it was made is freed by retire(). Nests. Costs
// one ordered store to memory of the calling thread; keep it short, memory waits for it.
class reader_section {
 public:
  reader_section() { enter(); }
  ~reader_section() { leave(); }
  reader_section(const reader_section&) = delete;
  reader_section& operator=(const reader_section&) = delete;

  static void enter();
  static void leave();
  static bool is_inside();  // whether the calling thread is in one
};

// Calls `release(what)` once no reader section is left that began before this call. `what` must no
// longer be reachable for new readers. The call may happen on any thread, now or later, but never
// inside of a reader section of its thread's caller that could still look at `what`. `bytes`: what
// it takes, roughly; a few megabytes are waited for before anything is freed. Without memory to
// remember it, `what` is never freed.
void retire(void* what, void (*release)(void*), std::size_t bytes = 0) noexcept;

// Frees what has become free; retire() does so now and then by itself.
void collect_retired() noexcept;

// Now, for wait_for_sections().
std::uint64_t moment_of_sections();

// Returns when no section is left that began before that moment, and everything has been released
// that was retired before it. False when `limit` passes first; waiting for the same moment again
// ends, however many sections begin meanwhile. Not within a section: it would wait for itself.
bool wait_for_sections(std::uint64_t moment, std::chrono::milliseconds limit);

}  // namespace goods
