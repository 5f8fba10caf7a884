#pragma once

#include <tarns/core/TarnValues.h>
#include <tarns/tarns_api.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarns {

class TarnManager;

// A node for very many children whose index can be made anew while they are used.
//
//   TarnCollection::Balance(manager, machines, "spares", nullptr);
//
// Balance() puts a new collection in the place of a node and moves the children over one by one.
// Meanwhile the collection refers to the old node (member Old), and finds and deletes there what it
// does not have itself; new children go into the collection. So every child is found by the path
// that it always had, and is in exactly one of the two nodes. children() and getChildNames() list
// the children of both in the order of their names, each once also while they are moved; a range
// that was begun before the collection came goes on with the old node, where children that have
// been moved meanwhile are missing. Iterators, iterateChildren(), walks (TarnBranchWalk),
// selections and counts of abstract children see those of the node that they are used on: go
// through the collection and then through what Old refers to, in one transaction. What deletes
// children, hands all of them over (bequeathChildren(), merging) or copies the branch takes those
// of both. A child that has not been moved yet has the old node for its parent, which has none.
// Other entries that list the node itself (below other nodes) go on leading to the old node, which
// is empty in the end: they are not followed, since a node does not know who lists it.
//
// Threads and transactions: as every node. Readers do not wait; transactions that read in the
// collection wait for the one child that is on its way.
class TARNS_API TarnCollection : public TarnUint32Value {
  TARN_CLASS(TarnCollection, TarnUint32Value)

 public:
  static constexpr const char* kOld = "Old";
  static constexpr unsigned long kFanOut = 292;

  explicit TarnCollection(xcptref<TarnObject> old);
  ~TarnCollection() override;

  // The node's own child or, while there is an old node, that one's.
  const TarnObject* findChild(goods::reader& reader, std::string_view name) const override;
  bool deleteChild(const char* name) override;
  // A node that takes the place of a child takes it in the old node, too.
  void setNode(const char* path, xcptref<TarnObject> node) override;
  using TarnUint32Value::deleteChild;
  // Neither takes over an old node: like children, it stays with the node that has it.
  xcptref<TarnObject> clone() const override;
  void copyFrom(xcptref<TarnObject> other) override;

  // Children, not members: the node's own and the old node's getNumChildren().
  unsigned long getNumChildren() const override;
  // getChildNames(after, limit), all of it as of one moment.
  std::vector<std::string> getAllChildNames(std::string_view after, std::size_t limit) const;

  // Levels of the node's own index; 0 before it has one.
  unsigned long getHeight() const;
  // Levels that an index of so many children is to have: 0 for none, 1 up to 292, then the least h
  // from 2 on for which they are not more than 292, squared h times as a 32-bit number. That is
  // 2,974,982,400 for h = 2, less for 3 and 0 for all others, so more children than that give 4.
  unsigned long getOptimalHeight() const;
  static unsigned long GetOptimalHeightFor(unsigned long numChildren);

  // Whether a balance is under way, or was interrupted.
  bool isBalancing() const { return !old_.is_null(); }
  xcptref<TarnObject> getOld() const { return old_; }
  const TarnObject* lookAtOld(goods::reader& reader) const;  // null for none
  void discardOld();

  bool write(const char* name, GOODSinOut& out) override;

  // Gives the child `name` of `parent` a new index: makes a new collection, whose own value is that
  // of the child, and moves the child's children into it, each in a transaction of its own. Then
  // the child is given up. What is a collection with an old node already goes on from where an
  // earlier call was interrupted; any number of calls may do so at a time. Nothing happens when
  // there is no such child.
  //
  // Throws 0, and has changed nothing, for a child that would lose something: one that is neither a
  // plain node nor a TarnCollection nor a value that a Uint32 writes in the same way; one that has
  // its parent elsewhere, so that another path would be left with the emptied node; and for what a
  // bundle keeps. A child that cannot be read stays in the old node, and what reading it threw is
  // thrown when all others have been moved; the collection goes on balancing then.
  //
  // `progress`, which may be null, is touched in every transaction: by touch() of its class, as
  // part of the change. Attaches the thread. Within a transaction of the caller's all of it joins
  // that one, which then has to take all moves at once. An error, touch()'s included, undoes the
  // step that it met, and leaves those before: the next call goes on.
  static void Balance(TarnManager& manager, xcptref<TarnObject> parent, const char* name,
                      xcptref<TarnObject> progress);

 private:
  xcptref<TarnObject> old_;  // stored as "Old"; null but while a balance is under way
};

}  // namespace tarns
