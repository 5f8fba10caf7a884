// Why a lock was not given.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// Whom an owner waits for, as of the last change to the object that it wants.
struct lock_edge {
  lock_owner* to;
  lock_mode mode;  // in which `to` holds the object, or wants it
  bool is_held;    // otherwise `to` waits in front
  // When it was given the lock, or before that one like it on a neighbour of the object: coarse
  // monotonic clock, nanoseconds.
  std::int64_t since;
};

// One owner that waits for another one, in words.
struct lock_wait {
  const lock_table* table;
  object_number number;
  std::string storage;  // its name
  std::string waiting;  // the owners' descriptions
  std::string in_the_way;
  lock_mode wanted;
  lock_mode held;
  bool is_held;               // otherwise `in_the_way` waits for it longer
  std::int64_t milliseconds;  // since it is held
};

// All that were in the way, of a lock that was not given in time; or the circle of owners that a
// wait would have closed, beginning with the one that was refused.
struct lock_conflict {
  std::vector<lock_wait> waits;
};

// "thread 17 has held OBJECT exclusively for 12 ms", or "thread 17 waits for OBJECT longer".
std::string describe_in_the_way(const lock_wait& wait, std::string_view object);

}  // namespace goods
