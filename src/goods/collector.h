// Finds and removes stored objects that nothing leads to.
#pragma once

#include <bitset>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include <goods/database.h>
#include <goods/dbs_storage.h>
#include <goods/object_ref.h>

namespace goods {

// One collection over all storages of a database, while sessions go on reading and committing.
//
// Marks what the root objects and the references held by any session lead to, reading current
// states; whatever was changed meanwhile is looked at again. Objects made after the beginning are
// left alone. Back references count like others.
//
// Why nobody can reach an unmarked object in the end: settle() holds the commits for a moment, and
// when it begins its last scan of the handles
// - all that marked objects refer to is marked: what commits changed has been looked at again;
// - no older version of an object is to be seen: all sessions have taken in all commits, readers
//   that had found an older one have left, and those that accesses go on reading are
//   outlived_bodies by then, which count as held;
// - all that is held is marked: it was held throughout the first scan, or has noted since that it
//   was counted; and the last scan finds nothing unmarked.
// From there on, following and storing references leads to marked and to newer objects only.
//
// What is unmarked in the end is condemned: who finds such an object all the same, by an identifier
// that was kept in another form than a reference, can look at it while it is there, but cannot
// commit what refers to it.
//
// Numbers: a group of neighbours that has lost its last object is used again when the collection
// has ended and no session has a reference to any of them, nor numbers of them in its stock. From
// there on a reference can only be made from an identifier that was kept in another form, and is to
// whatever has that number then. What sessions remember of the removed objects has gone by then,
// since they took in the removal before.
//
// Interrupted at any point (also by a crash), nothing but garbage is missing; run it again.
// Errors: those of loading and committing; nothing has been removed before sweeping begins.
// Threads: needs the collection_claim for the storages, and is not run in a reader_section.
class collector {
 public:
  collector(database& db, const gc_options& options);  // `options` outlive it
  ~collector();

  // False when options.progress ended it.
  bool run();
  std::uint64_t removed() const { return reached_.removed; }

 private:
  // One bit for each object number in the neighbourhood of one that is in it: a wild number, which
  // only a damaged object refers to, takes no more memory than any other.
  class number_set {
   public:
    bool insert(object_number number);  // whether it was not yet there
    bool contains(object_number number) const;

   private:
    static constexpr std::size_t chunk = 32768;
    std::vector<std::unique_ptr<std::bitset<chunk>>> bits_;
  };
  struct storage_state {
    dbs_storage* storage;
    std::unique_ptr<notice_subscription> changes;
    number_set marked;
    std::vector<object_number> existing;  // at the beginning, ascending
  };
  class reference_sink;
  struct stopped {};

  static constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

  void forget_notes();
  void list_existing();
  void mark_roots();
  void scan_held();
  void settle();
  bool try_settle(std::chrono::milliseconds longest_wait, std::size_t most_marked);
  void condemn_unmarked(std::span<const std::unique_ptr<commit_pause>> pauses);
  void make_durable();
  void push_changed();
  void push(object_id id);
  void push_again(object_id id);
  bool mark_pushed(std::size_t most = unlimited);
  void sweep(storage_number storage);
  void remove(storage_number storage, std::span<const object_number> numbers);
  void give_back();
  void reclaim_numbers();
  void show(storage_number storage, std::span<const object_number> numbers);
  void report();

  database& db_;
  const gc_options& options_;
  gc_progress reached_;
  std::vector<storage_state> storages_;
  std::vector<const dbs_storage*> contracts_;
  std::vector<dbs_storage*> in_pausing_order_;
  std::vector<object_id> pushed_;                         // marked, not looked into yet
  std::vector<std::unique_ptr<condemnation>> condemned_;  // refers to all of the above
};

}  // namespace goods
