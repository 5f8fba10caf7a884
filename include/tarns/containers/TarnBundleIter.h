#pragma once

#include <tarns/containers/TarnBundleBlock.h>
#include <tarns/core/TarnIterator.h>
#include <tarns/tarns_api.h>

#include <vector>

namespace tarns {

// A place among the objects of a bundle: block by block, in the order that the blocks had when the
// iterator was made, and within a block in the order of the slots; or null, behind the last.
//
//   for (TarnBundleIter at = bundle->first(); !at.isNull();) {
//     XString name;
//     const xcptref<TarnObject> object = at.next(&name);
//   }
//
// Objects may be created and deleted meanwhile, also the current one: what is used when the
// iterator comes to its slot is met, once. Blocks that are added later are not. A block's objects
// are loaded together. Memory: a reference for each block. Threads: one at a time.
class TARNS_API TarnBundleIter {
 public:
  TarnBundleIter() = default;  // null
  // At the first object of the blocks from the iterator's on. `names` lists the objects under the
  // names that are told; null: each object's name where it has its parent.
  explicit TarnBundleIter(TarnIterator blocks, xcptref<TarnObject> names = nullptr);

  // The current object, and the name that it bears in the bundle when `name` is not null: the empty
  // one when it has been deleted since the iterator came to it. A null reference, and `name`
  // without text, when the iterator is null.
  xcptref<TarnObject> get(XString* name) const;
  // As get(), then moves to the next object.
  xcptref<TarnObject> next(XString* name);

  void copyName(XString& name) const;
  bool isNull() const { return current_.is_null(); }
  void nullify() { *this = TarnBundleIter(); }

  // Whether both stand at the same object, or both at none.
  friend bool operator==(const TarnBundleIter& left, const TarnBundleIter& right) {
    return left.current_ == right.current_;
  }

 private:
  void moveFrom(unsigned short slot);

  std::vector<xcptref<TarnBundleBlock>> blocks_;
  xcptref<TarnObject> names_;
  std::size_t block_ = 0;
  unsigned short slot_ = 0;
  xcptref<TarnObject> current_;
};

}  // namespace tarns
