// Replaced bodies that somebody still reads.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <vector>

#include <goods/object_ref.h>

namespace goods {

class database;
class object;

// An access pins the version that was current when it began. References may be copied out of that
// one long after it has been replaced, so a collection has to know it.
//
// Process-wide. Ownership: has a pin of each body; when that is the last one the body goes with the
// next call. Threads: any.
class outlived_bodies {
 public:
  static outlived_bodies& get();

  // Takes over a pin of a body that nobody can pin any more.
  void add(object& body) noexcept;

  // Shows what the bodies of a database's session refer to. The session must not end meanwhile.
  void for_each_reference(const database& session, const std::function<void(object_id)>& visit);

  // Lets go of those that nobody reads any more.
  void tidy() noexcept;

 private:
  static constexpr std::size_t fewest_to_tidy = 16;

  std::mutex lock_;
  std::vector<object*> bodies_;             // under lock_
  std::size_t tidied_at_ = fewest_to_tidy;  // under lock_: so many are looked through next
};

}  // namespace goods
