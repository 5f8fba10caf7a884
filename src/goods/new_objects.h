// How much memory new objects take.
#pragma once

#include <cstdint>

namespace goods {

// Bytes of the objects that the calling thread has made, less those of transient objects that have
// gone on it: the difference between two moments tells what was made in between and is still there,
// as long as other threads have no part in it. Texts that grow are not measured.
struct new_object_bytes {
  static std::int64_t count() { return count_; }
  static void add(std::int64_t bytes) { count_ += bytes; }

 private:
  [[gnu::tls_model("initial-exec")]] static inline thread_local std::int64_t count_ = 0;
};

}  // namespace goods
