// What a transaction notes of its changes for the value indexes.
#pragma once

#include <goods/cache_manager.h>
#include <tarns/core/TarnObjects.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace tarns {

// What the thread's transaction has changed about the entries of indexed children. All else that
// matters to value indexes is found among its private copies when it is committed.
//
// Threads: the transaction's.
class ValueIndexChanges : public goods::transaction_companion {
 public:
  // An entry as it was before the transaction, if it was there, and whether it is there now.
  struct Change {
    goods::ref<goods::set_member> entry;
    std::optional<std::pair<std::string, goods::object_ref>> before;  // name and child
    bool isThere = false;
  };
  struct Children {
    goods::ref<TarnObjects> index;
    std::map<const goods::object_handle*, Change> entries;
  };

  // `entry` was added to `children`; was removed, and still has its name and child. In a
  // transaction.
  static void NoteAdded(const TarnObjects& children, const goods::ref<goods::set_member>& entry);
  static void NoteRemoved(const TarnObjects& children, const goods::ref<goods::set_member>& entry);
  // Has the commit look at the children's indexes: new ones are filled then.
  static void NoteDeclared(const goods::ref<TarnObjects>& children);
  // Of the open transaction; null when it has changed none.
  static const ValueIndexChanges* OfTransaction(const goods::transaction& open);

  const std::map<const goods::object_handle*, Children>& all() const { return children_; }

 private:
  static ValueIndexChanges& Here();
  Children& of(goods::ref<TarnObjects> children);

  std::map<const goods::object_handle*, Children> children_;
};

// Whether a storage of the session's database may hold value indexes: as long as nobody has ever
// declared one there, commits look no further.
bool MayHaveValueIndexes(goods::cache_manager& session);
// Before the transaction that declares one in this database is committed: makes the above true for
// all sessions.
void AnnounceValueIndexes(goods::cache_manager& session);

// A counted reference to what an entry says.
inline goods::object_ref HeldTo(goods::ref_word word) {
  return word.is_null() ? goods::object_ref() : goods::to_reference(word);
}

// Whether the thread has an open transaction that has changed anything: value indexes do not know
// of that before it is committed.
bool HasChangesOfItsOwn();

}  // namespace tarns
