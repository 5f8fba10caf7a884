// Loads objects as of one version, without keeping commits from coming.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/local/newest_states.h"

namespace goods {

// Everything is looked for where it is newest, and counts when nothing newer than the version that
// was visible at the beginning turns up; otherwise the load begins again. One that is disturbed too
// often keeps commits from being published until it is done.
// Threads: any.
class object_loader {
 public:
  object_loader(const newest_states::sources& from, store_versions& versions)
      : from_(from), versions_(versions) {}

  // dbs_storage::load().
  commit_version load(std::span<const object_number> numbers, commit_version at_least,
                      state_sink& into);

 private:
  struct located {
    std::shared_ptr<const segment> in;       // null: there is no such object
    std::shared_ptr<const byte_block> body;  // of an object apart
  };
  using located_list = std::vector<located>;

  bool load_from_cache(std::span<const object_number> numbers, commit_version at_least,
                       state_sink& into, commit_version& as_of);
  bool locate(std::span<const object_number> numbers, commit_version at_least,
              newest_states::reading how, located_list& all, commit_version& as_of);
  void locate_undisturbed(std::span<const object_number> numbers, commit_version at_least,
                          newest_states::reading how, located_list& all, commit_version& as_of);
  bool find_all(std::span<const object_number> numbers, newest_states& newest, located_list& all,
                commit_version as_of) const;

  const newest_states::sources& from_;
  store_versions& versions_;
};

}  // namespace goods
