// Where a walk through an index has come to.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <goods/B_tree.h>
#include <goods/index_page.h>

#include "goods/prototype.h"

namespace goods {

// Notes the entries that a walk passes in one round of a reader, as far as they are needed to go on
// behind the last of them in a later round. Counts no handle before it is asked for a position.
// Valid as long as the reader. Threads: one.
class index_trail {
 public:
  // Entries of one name that a position remembers.
  static constexpr std::size_t most_before = 256;

  void clear() {
    last_.reset();
    before_.clear();
  }
  // From a position, which outlives this.
  void resume(const index_position& from) {
    last_ = {from.name, from.member.word(), {}};
    before_.clear();
    for (const auto& member : from.before) before_.push_back(member.word());
  }

  void pass(const index_entry& entry) {
    if (!last_ || last_->name != entry.name) {
      before_.clear();
    } else {
      if (before_.size() == most_before) before_.erase(before_.begin());
      before_.push_back(last_->member);
    }
    last_ = entry;
  }

  const std::optional<index_entry>& last() const { return last_; }

  // Nothing when nothing was passed.
  std::optional<index_position> position() const {
    if (!last_) return std::nullopt;
    index_position found(last_->name, counted(last_->member));
    for (const ref_word member : before_) found.before.push_back(counted(member));
    return found;
  }

 private:
  static ref<set_member> counted(ref_word member) {
    return ref<set_member>::trusted(keep_word(member));
  }

  std::optional<index_entry> last_;
  std::vector<ref_word> before_;  // members of the same name, the nearest one last
};

}  // namespace goods
