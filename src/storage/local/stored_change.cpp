#include "storage/local/stored_change.h"

#include <limits>

namespace goods {
namespace {

enum : std::uint8_t { removed_flag = 1, new_flag = 2 };

}  // namespace

std::size_t stored_size(const object_change& change) {
  const std::size_t fixed = sizeof change.number + 1;
  if (change.removed) return fixed;
  return fixed + varint_size(change.layout) + varint_size(change.body.size()) + change.body.size();
}

std::byte* store_change(std::byte* at, const object_change& change) {
  store_number(at, change.number);
  at += sizeof change.number;
  *at++ =
      static_cast<std::byte>((change.removed ? removed_flag : 0) | (change.is_new ? new_flag : 0));
  if (change.removed) return at;
  at = store_varint(at, change.layout);
  at = store_varint(at, change.body.size());
  if (!change.body.empty()) std::memcpy(at, change.body.data(), change.body.size());
  return at + change.body.size();
}

object_change read_change(row_reader& reader) {
  object_change change{};
  change.number = reader.number<std::uint32_t>();
  const auto flags = reader.number<std::uint8_t>();
  if (change.number < first_object_number || flags > (removed_flag | new_flag))
    throw damaged_bytes("a change is out of range");
  change.removed = (flags & removed_flag) != 0;
  change.is_new = (flags & new_flag) != 0;
  if (change.removed) return change;
  const std::uint64_t layout = reader.varint();
  const std::uint64_t length = reader.varint();
  if (layout == 0 || layout > std::numeric_limits<class_number>::max() || length > max_state_size)
    throw damaged_bytes("a change is out of range");
  change.layout = static_cast<class_number>(layout);
  change.body = reader.take(length);
  return change;
}

}  // namespace goods
