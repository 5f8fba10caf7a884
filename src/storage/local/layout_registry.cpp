#include "storage/local/layout_registry.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace goods {
namespace {

std::string key_of(std::span<const std::byte> layout) {
  return {reinterpret_cast<const char*>(layout.data()), layout.size()};
}

}  // namespace

void layout_registry::load(store_reader& reader, const store_state& state) {
  const std::uint64_t count = reader.for_each_row(
      "layouts", row_kind::layout, [&](std::int64_t key, const byte_block& content) {
        if (key != next_number()) throw damaged_bytes("the layout before it is missing");
        add(prepare(content.view()));
      });
  guarded_scope scope(lock_);
  if (count != state.layouts || numbers_.size() != count)
    throw_damaged_row(store_, "layouts", 0, "layouts are missing");
}

class_number layout_registry::find(std::span<const std::byte> layout) const {
  guarded_scope scope(lock_);
  const auto found = numbers_.find(key_of(layout));
  return found == numbers_.end() ? class_number{0} : found->second;
}

class_number layout_registry::next_number() const {
  guarded_scope scope(lock_);
  if (numbers_.size() == std::numeric_limits<class_number>::max())
    throw_error(
        error_code::storage_full,
        fmt::format("The storage \"{}\" has 65535 class layouts, which is as many as it can "
                    "number.",
                    store_));
  return static_cast<class_number>(numbers_.size() + 1);
}

layout_registry::entry layout_registry::prepare(std::span<const std::byte> layout) {
  std::unordered_map<std::string, class_number> one{{key_of(layout), next_number()}};
  guarded_scope scope(lock_);
  if (numbers_.size() + 1 >= numbers_.bucket_count()) numbers_.reserve(2 * numbers_.size() + 16);
  return one.extract(one.begin());
}

void layout_registry::add(entry&& prepared) noexcept {
  guarded_scope scope(lock_);
  numbers_.insert(std::move(prepared));
}

std::size_t layout_registry::count() const {
  guarded_scope scope(lock_);
  return numbers_.size();
}

std::vector<layout_record> layout_registry::all() const {
  std::vector<layout_record> result;
  guarded_scope scope(lock_);
  for (const auto& [bytes, number] : numbers_) {
    const auto view = std::as_bytes(std::span(bytes));
    result.push_back({number, {view.begin(), view.end()}});
  }
  std::ranges::sort(result, {}, &layout_record::number);
  return result;
}

}  // namespace goods
