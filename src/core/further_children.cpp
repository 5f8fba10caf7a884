#include "core/further_children.h"

#include <goods/cache_manager.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

#include "core/node_access.h"

namespace tarns {

namespace {

FurtherHolderFunction& Function() {
  static FurtherHolderFunction function = nullptr;
  return function;
}

IndivisibleFunction& IndivisibleTest() {
  static IndivisibleFunction function = nullptr;
  return function;
}

}  // namespace

bool DefineFurtherHolder(FurtherHolderFunction function) {
  Function() = function;
  return true;
}

const TarnObject* FurtherHolderOf(goods::reader& reader, const TarnObject& node) {
  const FurtherHolderFunction function = Function();
  return function != nullptr ? function(reader, node) : nullptr;
}

TarnRef FurtherHolderOf(const TarnRef& node) {
  return goods::read_here([&](goods::reader& reader) {
    const TarnObject* const body = reader.get(node);
    const TarnObject* const further = body != nullptr ? FurtherHolderOf(reader, *body) : nullptr;
    return further != nullptr ? further->getSelf() : TarnRef();
  });
}

const TarnObjects* FurtherListOf(goods::reader& reader, const TarnObject& node) {
  const TarnObject* const further = FurtherHolderOf(reader, node);
  return further != nullptr ? TarnNodeAccess::IndexOf(reader, *further) : nullptr;
}

const TarnObjects* FurtherListOf(goods::reader& reader, const TarnObjects& list) {
  const auto* const node =
      static_cast<const TarnObject*>(reader.look(list.getParentWord(), TarnObject::self_class));
  return node != nullptr ? FurtherListOf(reader, *node) : nullptr;
}

// No name has a NUL, so nothing is between the two.
goods::index_position BehindAllCalled(std::string_view name) {
  return goods::index_position(std::string(name) + '\1');
}

std::vector<goods::held_entry> EntriesOfBoth(goods::reader& reader, const TarnObjects& own,
                                             const TarnObjects& further,
                                             const goods::index_position* after,
                                             std::size_t limit) {
  for (std::size_t wanted = limit;; wanted *= 2) {
    auto left = own.entries_after(reader, after, wanted);
    auto right = further.entries_after(reader, after, wanted);
    // Of the last name of a list that has more, others may follow.
    std::optional<std::string> before;
    for (const auto* some : {&left, &right}) {
      if (some->size() < wanted) continue;
      if (!before || some->back().name < *before) before = some->back().name;
    }
    std::vector<goods::held_entry> all;
    all.reserve(left.size() + right.size());
    std::merge(std::make_move_iterator(left.begin()), std::make_move_iterator(left.end()),
               std::make_move_iterator(right.begin()), std::make_move_iterator(right.end()),
               std::back_inserter(all),
               [](const auto& one, const auto& other) { return one.name < other.name; });
    if (!before) return all;
    std::erase_if(all, [&](const goods::held_entry& each) { return each.name >= *before; });
    if (!all.empty()) return all;
  }
}

bool DefineIndivisible(IndivisibleFunction function) {
  IndivisibleTest() = function;
  return true;
}

bool IsIndivisible(const TarnRef& node) {
  const IndivisibleFunction function = IndivisibleTest();
  return function != nullptr && function(node);
}

}  // namespace tarns
