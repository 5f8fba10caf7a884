#include "storage/local/change_merger.h"

#include <algorithm>

namespace goods {
namespace {

bool holds_apart(const segment* in, unsigned slot) {
  return in != nullptr && in->has(slot) && in->is_apart(slot);
}

bool is_apart(const object_change& change) {
  return !change.removed && change.body.size() > longest_in_segment;
}

void put(segment_builder& into, const object_change& change) {
  const unsigned slot = slot_of(change.number);
  if (change.removed)
    into.remove(slot);
  else if (is_apart(change))
    into.put_apart(slot, change.layout, change.body.size());
  else
    into.put(slot, change.layout, change.body);
}

std::shared_ptr<const byte_block> copy_of(std::span<const std::byte> body) {
  auto block = std::make_shared<byte_block>(byte_block::of_size(body.size()));
  std::ranges::copy(body, block->bytes.get());
  return block;
}

}  // namespace

segment_changes change_merger::merge(std::vector<const object_change*> changes,
                                     commit_version version) {
  result_.version = version;
  const auto by_number = [](const object_change* a, const object_change* b) {
    return a->number < b->number;
  };
  if (!std::is_sorted(changes.begin(), changes.end(), by_number))
    std::stable_sort(changes.begin(), changes.end(), by_number);

  for (std::size_t first = 0; first < changes.size();) {
    const segment_number number = segment_of(changes[first]->number);
    std::size_t end = first + 1;
    while (end < changes.size() && segment_of(changes[end]->number) == number) ++end;
    merge_segment(number, change_list(changes).subspan(first, end - first));
    first = end;
  }
  if (!changes.empty()) result_.next_object = std::uint64_t{changes.back()->number} + 1;
  return std::move(result_);
}

change_merger::old_segment change_merger::look_at(segment_number number, bool needs_content) try {
  if (!needs_content) return {newest_.has(number, as_of_), false, nullptr};
  auto content = newest_.find(number, as_of_);
  return {content != nullptr, false, std::move(content)};
} catch (const error_info& error) {
  if (mode_ != mode::takes_damage || error.code() != error_code::corrupt_data) throw;
  return {true, true, nullptr};
}

void change_merger::merge_segment(segment_number number, change_list changes) {
  const bool removes = std::ranges::any_of(changes, &object_change::removed);
  auto [existed, is_damaged, old] =
      look_at(number, mode_ == mode::keeps_old || removes);  // removed: whether anything is left
  segment_builder changed(number, nullptr);
  std::uint64_t removed = 0;
  for (std::size_t i = 0; i < changes.size(); ++i) {
    // Of several changes of one object in the group, the last.
    if (i + 1 < changes.size() && changes[i + 1]->number == changes[i]->number) continue;
    change_apart(old.get(), *changes[i]);
    put(changed, *changes[i]);
    if (changes[i]->removed) removed |= std::uint64_t{1} << slot_of(changes[i]->number);
  }
  const bool is_left =
      is_damaged || !changed.is_empty() || (old && (old->present() & ~removed) != 0);
  if (!is_left && !existed) return;
  const bool is_whole = !is_left || !existed;
  auto patch = std::make_shared<const segment_patch>(number, result_.version, is_whole,
                                                     is_whole ? 0 : removed, changed.content());
  result_.changed.push_back({number, existed, is_left, std::move(old), std::move(patch)});
}

void change_merger::change_apart(const segment* old, const object_change& change) {
  if (is_apart(change))
    result_.apart.push_back({change.number, copy_of(change.body)});
  else if (holds_apart(old, slot_of(change.number)))
    result_.apart.push_back({change.number, nullptr});
}

commit_overlay::table replaced_states(const segment_changes& changes, newest_states& newest) {
  commit_overlay::table old_states;
  old_states.segments.reserve(changes.changed.size());
  for (const auto& change : changes.changed) {
    bool is_new = false;
    old_states.segments.place(change.number, is_new) =
        segment_patch::whole(change.number, change.before.get());
    for (unsigned slot = 0; change.before && slot < segment_slots; ++slot) {
      if (!holds_apart(change.before.get(), slot)) continue;
      const object_number number = change.before->object(slot);
      const auto is_it = [&](const auto& apart) { return apart.number == number; };
      if (std::ranges::none_of(changes.apart, is_it)) continue;
      old_states.apart[number] = {newest.find_apart(*change.before, slot),
                                  change.before->version()};
    }
  }
  return old_states;
}

}  // namespace goods
