// A delegate that counts its runs in the tree.
#pragma once

#include <tarns/services/TarnTaskDelegate.h>

#include <string>

// Adds 1 to done~KEY, of the run.
class CountingDelegate : public tarns::TarnTaskDelegate {
 public:
  static void Count(const tarns::TarnTaskRun& run) { CountBelow("done", run); }
  static void CountBelow(const std::string& branch, const tarns::TarnTaskRun& run) {
    const std::string path = branch + '~' + run.getKey();
    run.getManager().set(path, run.getManager().getUint32(path, 0) + 1);
  }
  void run(tarns::TarnTaskRun& run) override { Count(run); }
};
