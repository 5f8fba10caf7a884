// For whoever remembers objects by their identifiers alone.
#pragma once

#include <goods/goods_api.h>

namespace goods {

// While one lives, no new object gets the number of one that has been removed since it was made: an
// identifier that was an object's is no other object's. For tables of identifiers that outlive a
// read; a reference to an object keeps its number anyway.
// Process-wide. New objects take numbers that were never used meanwhile. Threads: any.
class GOODS_API kept_numbers {
 public:
  kept_numbers();
  ~kept_numbers();
  kept_numbers(const kept_numbers&) : kept_numbers() {}
  kept_numbers& operator=(const kept_numbers&) = default;

  static bool is_any();
};

}  // namespace goods
