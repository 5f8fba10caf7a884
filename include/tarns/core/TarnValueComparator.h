#pragma once

#include <tarns/core/TarnData.h>
#include <tarns/core/xcptref.h>
#include <tarns/tarns_api.h>

namespace tarns {

class TarnObject;

// Compares nodes by the value at a path below each of them, for sorting and searching.
//
// Ownership: refers to the path and the target that it is made with, which outlive it.
// Threads: one at a time.
class TARNS_API TarnValueComparator {
 public:
  // `target`: receives the value that was read last, when not null.
  TarnValueComparator(const char* path, TarnData* target) : path_(path), target_(target) {}
  TarnValueComparator(const TarnValueComparator&) = default;
  TarnValueComparator& operator=(const TarnValueComparator&) = default;
  virtual ~TarnValueComparator();

  // `key`: a TarnData, or null for the target as it stands before the call. Negative when the
  // node's value is less than the key, 0 when they are equal, positive when it is greater; values
  // compare as TarnData::compare() says. A node without a value at the path, and a null node, is
  // less than every key. Throws nothing that reading the value may throw: such a node has no value
  // either.
  int compare(const xcptref<TarnObject>& node, const void* key) { return compareValue(node, key); }

 protected:
  virtual int compareValue(const xcptref<TarnObject>& node, const void* key);

 private:
  const char* path_;
  TarnData* target_;
};

}  // namespace tarns
