// Children that a node finds as its own although another node's index holds them, and those that
// are the node's own affair.
#pragma once

#include <tarns/core/TarnObject.h>

namespace tarns {

// Gives the node whose children are found as children of `node`, too; null for none.
using FurtherHolderFunction = TarnRef (*)(const TarnRef& node);

// Says how such nodes are known, for the one class that has them. While the library is loaded; the
// result means nothing.
bool DefineFurtherHolder(FurtherHolderFunction function);

// What hands over, deletes or copies all children of a node goes on with those of this one: null
// for nearly all nodes. The further node has no parent.
TarnRef FurtherHolderOf(const TarnRef& node);

// Whether what is below a node belongs together with members in a way that only its class knows, so
// that it is merged with another one as a whole or not at all.
using IndivisibleFunction = bool (*)(const TarnRef& node);

// As DefineFurtherHolder().
bool DefineIndivisible(IndivisibleFunction function);

bool IsIndivisible(const TarnRef& node);

}  // namespace tarns
