#include "storage/local/store_walk.h"

#include <fmt/format.h>

namespace goods {

// A merge may come in between; what it puts into the database is in `unmerged` as well, and laid
// over it once more.
store_walk::store_walk(const connection_settings& settings, commit_overlay::table unmerged)
    : settings_(settings), merged_(settings), apart_(std::move(unmerged.apart)) {
  unmerged.segments.for_each([this](segment_number number, const patch_table::patch& patch) {
    unmerged_.emplace(number, patch);
  });
  merged_.refresh();
}

void store_walk::visit(const std::function<bool(const object_state&)>& visitor) {
  visitor_ = &visitor;
  const std::uint64_t count =
      merged_.reader().for_each_segment([this](const std::shared_ptr<const segment>& next) {
        visit_unmerged(next->number());
        // The same segment, changed or removed?
        const auto newer = unmerged_.find(next->number());
        if (newer == unmerged_.end()) {
          visit_segment(*next);
        } else {
          visit_segment(*patched(*newer->second, next.get()));
          unmerged_.erase(newer);
        }
        return !stopped_;
      });
  if (stopped_) return;
  visit_unmerged(~segment_number{0});
  if (count != merged_.state().segments)
    throw_damaged_row(
        settings_.store, "segments", 0,
        fmt::format("there are {} rows instead of {}", count, merged_.state().segments));
}

void store_walk::visit_unmerged(segment_number before) {
  while (!stopped_ && !unmerged_.empty() && unmerged_.begin()->first < before) {
    const auto next = unmerged_.extract(unmerged_.begin());
    if (!next.mapped()->is_whole())
      throw_damaged_segment(settings_.store, next.key(), "their row is missing");
    visit_segment(next.mapped()->objects());
  }
}

void store_walk::visit_segment(const segment_view& in) {
  for (unsigned slot = 0; slot < segment_slots && !stopped_; ++slot) {
    if (!in.has(slot)) continue;
    object_state state{in.object(slot), in.layout(slot), {}};
    byte_block read;
    if (!in.is_apart(slot)) {
      state.body = in.body(slot);
    } else if (const auto found = apart_.find(state.number); found != apart_.end()) {
      if (!found->second.body || found->second.body->size != in.length(slot))
        throw_damaged_object(settings_.store, state.number,
                             "its body does not belong to its segment");
      state.body = found->second.body->view();
    } else {
      read = merged_.reader().read_apart(state.number, in.length(slot), in.version());
      state.body = read.view();
    }
    stopped_ = !(*visitor_)(state);
  }
}

}  // namespace goods
