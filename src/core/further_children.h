// Children that a node finds as its own although another node's index holds them, and those that
// are the node's own affair.
#pragma once

#include <goods/B_tree.h>
#include <goods/reader.h>
#include <tarns/core/TarnObject.h>
#include <tarns/core/TarnObjects.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace tarns {

// Gives the node whose children are found as children of `node`, too; null for none.
using FurtherHolderFunction = const TarnObject* (*)(goods::reader& reader, const TarnObject& node);

// Says how such nodes are known, for the one class that has them. While the library is loaded; the
// result means nothing.
bool DefineFurtherHolder(FurtherHolderFunction function);

// What hands over, deletes or copies all children of a node goes on with those of this one: null
// for nearly all nodes. The further node has no parent.
TarnRef FurtherHolderOf(const TarnRef& node);
const TarnObject* FurtherHolderOf(goods::reader& reader, const TarnObject& node);

// What lists all children of a node lists those of the further one, too. Its list, also for the
// list of the node; null for nearly all.
const TarnObjects* FurtherListOf(goods::reader& reader, const TarnObject& node);
const TarnObjects* FurtherListOf(goods::reader& reader, const TarnObjects& list);
// Where a listing of both goes on: behind all children of that name.
goods::index_position BehindAllCalled(std::string_view name);
// About `limit` entries of both lists after a position (null: from the first one on), in the order
// of their names; always all of one name, those of `own` first. None are left when it is empty.
std::vector<goods::held_entry> EntriesOfBoth(goods::reader& reader, const TarnObjects& own,
                                             const TarnObjects& further,
                                             const goods::index_position* after, std::size_t limit);

// Whether what is below a node belongs together with members in a way that only its class knows, so
// that it is merged with another one as a whole or not at all.
using IndivisibleFunction = bool (*)(const TarnRef& node);

// As DefineFurtherHolder().
bool DefineIndivisible(IndivisibleFunction function);

bool IsIndivisible(const TarnRef& node);

}  // namespace tarns
