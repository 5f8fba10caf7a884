// What was lately read of value nodes.
#pragma once

#include <goods/object_ref.h>
#include <goods/reader.h>
#include <tarns/core/TarnData.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

#include "session/mapped_words.h"

namespace tarns {

// Copies of values with the identifiers of their nodes, in a ring of memory: the newest takes the
// place of the oldest.
//
// A copy knows the counters of changes (cache_manager::changes()) of the objects that it was made
// from, and whoever finds it compares them.
// Threads: any. Readers take no lock and write nothing; of several writers one gets through, the
// others need not remember what they have read.
class ValueRing {
 public:
  using Position = std::uint64_t;  // never given twice; 0: none

  // The objects that a value is made of: a value node, and the text that it refers to.
  struct Origin {
    goods::object_id node = 0;  // 0: nothing is known
    std::uint16_t nodeCounter = 0;
    std::uint16_t textCounter = 0;  // the node's when there is no text
    std::uint32_t changes = 0;      // of both counters together
  };

  // What a transaction has to lock before it may use a value, and the sum of these objects' changes
  // (cache_manager::changes_of_locked()).
  struct Locks {
    std::span<const goods::stored_neighbours> objects;  // at most goods::passed_objects::most
    std::uint32_t changes;
  };

  // Values that take more are not copied, only where they are.
  static constexpr std::size_t kLongestText = 1000;  // bytes

  explicit ValueRing(std::size_t bytes);

  // What stands at `at`; `origin` stays as it was when that has been overwritten. Whether there is
  // a value and `holds(origin)`; `out` then is the value, and stays as it was otherwise.
  template <class Holds>
  bool read(Position at, Origin& origin, TarnData& out, const Holds& holds) const {
    Record record;
    if (!fetch(at, record)) return false;
    origin = record.origin;
    if (record.type == TarnData::None || !holds(origin)) return false;
    record.copyTo(out);
    return true;
  }

  // The same in a transaction: whether there are a value and locks and `holds(locks)`.
  template <class Holds>
  bool readLocking(Position at, TarnData& out, const Holds& holds) const {
    Record record;
    if (!fetch(at, record) || record.locks == 0 || record.type == TarnData::None) return false;
    if (!holds(Locks{std::span(record.objects).first(record.locks), record.lockChanges})) {
      return false;
    }
    record.copyTo(out);
    return true;
  }

  // Adds a copy; `value` null for a node whose value is not to be kept. 0 when another thread is
  // adding one.
  Position add(const Origin& origin, const TarnData* value, const Locks& locks = {});

  // Bytes of memory in use: what was filled once stays.
  std::size_t memory() const;

 private:
  // A record: node and what follows, the counters; if there are locks, the number of groups with
  // the sum, and each group in two words; then a number in a word or the bytes of a text.
  static constexpr std::size_t kHeadWords = 2;
  static constexpr std::size_t kMostLocks = goods::passed_objects::most;
  static constexpr std::size_t kMostContent = (kLongestText + 7) / 8;
  static constexpr std::size_t kMostWords = kHeadWords + 1 + 2 * kMostLocks + kMostContent;
  struct Record {
    Origin origin;
    TarnData::Type type;
    std::size_t length;  // of a text
    std::size_t locks;   // how many groups
    std::uint32_t lockChanges;
    std::array<goods::stored_neighbours, kMostLocks> objects;
    std::array<std::uint64_t, kMostContent> content;
    void copyTo(TarnData& out) const;
  };

  bool fetch(Position at, Record& record) const;  // false when it has been overwritten
  Position addWords(std::span<const std::uint64_t> words);

  MappedWords words_;
  // What position the next record gets, counted in words from the beginning of time. It grows
  // before a record is overwritten, so that a reader who has met a new word sees that its record is
  // gone.
  std::atomic<Position> end_;
  std::mutex adding_;
};

}  // namespace tarns
