// One commit over several storages: in all of them or in none, also after a crash.
//
// The participant with the smallest identity coordinates. The others prepare (one flush each); then
// the coordinator commits its own part together with the decision (one flush, the point of no
// return); then the others finish (one flush each), and all show their new versions at once. A
// crash before the decision leaves prepared parts that recovery discards, one after it leaves parts
// that recovery finishes.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <goods/dbs_storage.h>

namespace goods {

// One storage's share. A storage takes part at most once.
struct commit_part {
  dbs_storage* storage;
  commit_request request;
};

// Commits all parts and returns their versions in the order given; a single part is an ordinary
// commit. Throws what commit() throws. After outcome_unknown the storages that it concerns refuse
// commits until they are opened again and recovered.
// Threads: any; commits over several storages may run at the same time. No lock table is touched:
// the caller's transaction holds its objects' locks.
std::vector<commit_version> commit_several(std::span<const commit_part> parts);

// Settles what a crash left undecided or unfinished between these storages: call it when all
// storages of a configuration have been opened, before anything is read from them. Safe to call
// again. Throws usage naming both storages when the coordinator of a prepared commit is not among
// them.
void recover_several(std::span<dbs_storage* const> storages);

// Even and unchanged: between two calls no commit over several storages of this process has become
// visible. A reader that wants several storages' newest versions to belong together reads this
// before and after (an odd number: wait for the next even one).
std::uint64_t several_published() noexcept;

}  // namespace goods
