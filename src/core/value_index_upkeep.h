// Value indexes follow what transactions change.
#pragma once

namespace goods {
class cache_manager;
class transaction;
}  // namespace goods

namespace tarns {

// Does what value indexes need when `ending` is about to be committed, see goods::commit_upkeep.
// What is damaged in an index, or beside a change, keeps nobody from making it.
void KeepValueIndexes(goods::cache_manager& session, goods::transaction& ending);

}  // namespace tarns
