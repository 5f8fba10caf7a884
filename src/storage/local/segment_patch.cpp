#include "storage/local/segment_patch.h"

#include <bit>

namespace goods {

std::shared_ptr<const segment_patch> segment_patch::whole(segment_number number,
                                                          const segment_view* content) {
  const segment_builder builder(number, content);
  return std::make_shared<const segment_patch>(number, content != nullptr ? content->version() : 0,
                                               true, 0, builder.content());
}

std::size_t segment_patch::memory() const {
  constexpr std::size_t overheads = 48;  // reference counts and the allocator's headers
  return sizeof(segment_patch) + overheads + objects_.size;
}

void segment_patch::lay_over(segment_builder& below) const {
  if (is_whole_) below.remove_all();
  for (std::uint64_t rest = removed_; rest != 0; rest &= rest - 1)
    below.remove(static_cast<unsigned>(std::countr_zero(rest)));
  below.put_all(objects());
}

std::shared_ptr<const segment_patch> segment_patch::combine(
    const std::shared_ptr<const segment_patch>& older,
    const std::shared_ptr<const segment_patch>& newer) {
  if (!older || newer->is_whole_) return newer;
  segment_builder builder(newer->number_, nullptr);
  older->lay_over(builder);
  newer->lay_over(builder);
  const std::uint64_t removed =
      older->is_whole_ ? 0 : (older->removed_ & ~newer->objects().present()) | newer->removed_;
  return std::make_shared<const segment_patch>(newer->number_, newer->version_, older->is_whole_,
                                               removed, builder.content());
}

const segment_view* layered_segment::holder_of(unsigned slot) const {
  if (objects_.has(slot)) return &objects_;
  if (patch_->is_whole() || (patch_->removed() >> slot & 1) != 0) return nullptr;
  return below_->has(slot) ? below_.get() : nullptr;
}

bool layered_segment::find(object_number number, object_state& found) const {
  if (segment_of(number) != patch_->number()) return false;
  const unsigned slot = slot_of(number);
  const segment_view* const in = holder_of(slot);
  if (in == nullptr || in->is_apart(slot)) return false;
  found = {number, in->layout(slot), in->body(slot), this};
  return true;
}

std::shared_ptr<const segment> patched(const segment_patch& patch, const segment_view* below) {
  segment_builder builder(patch.number(), below);
  patch.lay_over(builder);
  return builder.build(patch.version());
}

}  // namespace goods
