#pragma once

#include <goods/B_tree.h>
#include <tarns/core/TarnChildren.h>
#include <tarns/core/TarnValueComparator.h>
#include <tarns/select/TarnQuery.h>
#include <tarns/tarns_api.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

class QueryConditions;

// The children of a node for which a query holds, found while one goes through them; nothing is
// copied or stored.
//
//   TarnSelection packages(manager.getObject("packages"), query);
//   packages.limitTo(100);
//   for (const auto& [name, package] : packages) ...
//   if (!packages.isAtEnd()) ...  // next time: startBehind(packages.getLastName())
//
// The children come in the order of their names. The query is read once, when the selection is
// made. Each batch of children is of one state of the database, as with node->children(); for one
// state throughout: a transaction, which then locks every child and value that is looked at.
// Subjects are found by path below each child; children that others find by paths only (those of a
// bundle are below BundledChildren) are not looked for.
// Where the node has value indexes for conditions one of which holds wherever the query does (one
// that And joins, or all that Or joins), only what those lead to is looked at; the result is the
// same. Then a limit spares little unless the conditions are Equal.
// A selection is gone through once. Threads: one at a time. Errors: TarnException.
class TARNS_API TarnSelection {
 public:
  static constexpr std::size_t kBatchSize = 512;  // children looked at in one go
  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

  // Throws 0 when one of them is null. `query` need not be stored.
  TarnSelection(const TarnRef& parent, const xcptref<TarnQuery>& query);
  TarnSelection(const TarnSelection&) = delete;
  TarnSelection& operator=(const TarnSelection&) = delete;
  ~TarnSelection();

  // Before begin(). Children called `name`, and those before them, are left out. A limited
  // selection ends behind all children of one name only, so there may be a few matches more.
  void startBehind(std::string_view name);
  void limitTo(std::size_t matches) { limit_ = matches; }

  class TARNS_API Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = TarnChild;
    using difference_type = std::ptrdiff_t;
    using reference = const TarnChild&;
    using pointer = const TarnChild*;

    Iterator() = default;
    explicit Iterator(TarnSelection& of) : of_(&of) {}
    const TarnChild& operator*() const { return of_->found_[of_->at_]; }
    const TarnChild* operator->() const { return &of_->found_[of_->at_]; }
    Iterator& operator++() {
      of_->next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return of_->at_ == of_->found_.size(); }

   private:
    TarnSelection* of_ = nullptr;
  };

  Iterator begin();
  std::default_sentinel_t end() const { return {}; }

  // The matches that are left, ordered by the value at a path below each as TarnData::compare()
  // says; those without one come first (last when descending). Equal ones stay in the order of
  // their names. A limit counts before the order: limitTo(10) and orderedBy() give the first ten
  // matches by name, ordered by value. For the ten that come first by value: best(10).
  std::vector<TarnChild> orderedBy(std::string_view path, bool isDescending = false);
  // The first `count` in that order, of all matches that are left (within a limit, if there is
  // one). Looks at all of them, and keeps no more than `count` meanwhile.
  std::vector<TarnChild> best(std::size_t count, std::string_view path, bool isDescending = false);
  // The same as a comparator orders them; `target` is the one that it was made with. Values are
  // read again for each comparison.
  std::vector<TarnChild> best(std::size_t count, TarnValueComparator& order, TarnData& target,
                              bool isDescending = false);

  // The paths whose value indexes have been used last (see TarnValueIndex), in order; none when all
  // children were looked at.
  const std::vector<std::string>& getIndexesUsed() const { return indexesUsed_; }
  // How many children, or entries of an index, have been looked at so far.
  std::uint64_t getNumLooked() const { return looked_; }
  // Where the next selection goes on: the match that the loop was left at, or else the last child
  // that has been looked at; empty when there was none. Of equal names the others are left out.
  const std::string& getLastName() const {
    return at_ < found_.size() ? found_[at_].name : lastName_;
  }
  // Whether all children have been looked at and all matches handed out.
  bool isAtEnd() const { return isAtEnd_ && at_ == found_.size(); }

 private:
  struct Batch;
  void next();
  void fetch();
  Batch look(goods::reader& reader) const;
  void lookAtAll(goods::reader& reader, const TarnObjects& children, Batch& batch) const;
  bool lookUp(goods::reader& reader, const TarnObjects& children, Batch& batch) const;

  xcptref<TarnObjects> index_;
  std::unique_ptr<const QueryConditions> conditions_;
  std::size_t limit_ = kNoLimit;
  std::optional<goods::index_position> last_;  // the entry that was looked at last
  bool startsBehindName_ = false;              // last_ stands for all entries of its name
  std::string lastName_;
  std::vector<std::string> indexesUsed_;
  std::vector<TarnChild> found_;  // in the last batch
  std::size_t at_ = 0;
  std::uint64_t looked_ = 0;
  bool isAtEnd_ = false;
};

}  // namespace tarns
