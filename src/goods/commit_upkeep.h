// What a library above does as part of every commit.
#pragma once

namespace goods {

class cache_manager;
class transaction;

// Is called when a transaction that has private copies is about to be committed: on its thread,
// while it is still open, so that what is written in there belongs to the same commit. What it
// throws rolls the transaction back.
using commit_upkeep = void (*)(cache_manager& session, transaction& ending);

// There is one such function. While the library is loaded; the result means nothing.
bool define_commit_upkeep(commit_upkeep upkeep);
commit_upkeep defined_commit_upkeep();  // null for none

}  // namespace goods
