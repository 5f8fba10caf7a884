// What threads that count leave in a database, and what may be found after they were killed.
#pragma once

#include <tarns/session/TarnManager.h>

#include <algorithm>
#include <string>

namespace tarns {

inline constexpr int kCountingThreads = 3;
// So many of a thread's last numbers have traces.
inline constexpr int kTraces = 12;

inline std::string Place(const char* branch, int thread, int number) {
  return std::string(branch) + "~" + std::to_string(thread) + "~" + std::to_string(number);
}

inline int LastNumber(TarnManager& manager, int thread) {
  return manager.getSint32("last~" + std::to_string(thread), 0);
}

// The branch "far" lies in the second storage, all else in the first.
inline void MakePlaces(TarnManager& manager) {
  const TarnRef far = TarnObject::Create();
  manager.attachToStorage(far, 1);
  manager.set("far", far);
}

// The first two belong together, the third is a call of its own that makes and removes branches.
inline void PutNear(TarnManager& manager, int thread, int number) {
  manager.set("last~" + std::to_string(thread), number);
  manager.set(Place("near", thread, number) + "~half", number);
  manager.deleteBranch(Place("near", thread, number - kTraces));
}

inline void PutFar(TarnManager& manager, int thread, int number) {
  manager.set(Place("far", thread, number) + "~half", -number);
  manager.deleteBranch(Place("far", thread, number - kTraces));
}

inline void PutTree(TarnManager& manager, int thread, int number) {
  manager.set(Place("tree", thread, number) + "~leaf", number);
  manager.deleteBranch(Place("tree", thread, number - kTraces));
}

// What is wrong with a thread's traces when all up to `acknowledged` must be there; empty for
// nothing. Of a number that was on its way the first two are there or neither is, and the third may
// be there after them.
inline std::string FaultOf(TarnManager& manager, int thread, int acknowledged) {
  const int last = LastNumber(manager, thread);
  const auto fault = [&](int number, const char* what) {
    return "thread " + std::to_string(thread) + ", number " + std::to_string(number) + " of " +
           std::to_string(last) + ", " + std::to_string(acknowledged) + " acknowledged: " + what;
  };
  const auto has = [&](const char* branch, int number) {
    return !manager.getObject(Place(branch, thread, number)).is_null();
  };
  if (last < acknowledged) return fault(acknowledged, "is lost");
  for (int number = std::max(1, last - kTraces); number <= last + 1; ++number) {
    const bool near = manager.getSint32(Place("near", thread, number) + "~half", 0) == number;
    const bool far = manager.getSint32(Place("far", thread, number) + "~half", 0) == -number;
    const bool leaf = manager.getSint32(Place("tree", thread, number) + "~leaf", 0) == number;
    const bool expected = number > last - kTraces && number <= last;
    if (near != expected || has("near", number) != expected) return fault(number, "near");
    if (far != expected || has("far", number) != expected) return fault(number, "far");
    if (leaf != has("tree", number)) return fault(number, "half a branch");
    // The last call may be missing, of it the second half as well.
    const bool isCertain = last == acknowledged || (number < last && number > last - kTraces);
    if (isCertain && number > last - kTraces && leaf != expected) return fault(number, "tree");
  }
  return {};
}

}  // namespace tarns
