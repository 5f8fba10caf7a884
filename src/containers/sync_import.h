// Taking over what a partner has exported.
#pragma once

#include <tarns/containers/BundleSync.h>

#include <string>
#include <string_view>

#include "containers/sync_file.h"
#include "containers/sync_records.h"

namespace tarns {

// One import into a bundle, whose own changes have been noticed: within a transaction.
class SyncImport {
 public:
  // Changes names of replicas in `file`.
  SyncImport(SyncedBundle& bundle, SyncFile& file)
      : bundle_(bundle), records_(bundle), file_(file) {}

  BundleImport run();

 private:
  void verify();
  bool wasSetBack();
  void agreeOnEnds();
  void findEnds(SyncEnds& ends) const;
  void markReplaced();
  void takeAcknowledgement();
  BundleImport::Outcome relate() const;
  BundleImport end(BundleImport::Outcome outcome);

  void takeAll();
  void take(const SyncChange& change);
  void takeNew(const SyncChange& change);
  void settle(const SyncChange& change, const SyncRecord& ours);
  void settleEqual(const SyncChange& change, const SyncRecord& ours);
  void keepOurs(const SyncChange& change, const SyncRecord& ours, const SyncVersion& version);
  void takeOver(const SyncChange& change, const SyncVersion& version, bool wasDeleted);
  void deleteObject(const std::string& name, const SyncVersion& version);
  void deleteWhatIsMissing();
  std::string textOfOurs(const std::string& name) const;

  SyncedBundle& bundle_;
  SyncRecords records_;
  SyncFile& file_;
  SyncPartner partner_;  // the sender
  SyncVersion known_;    // what had been seen before
  BundleImport result_;
};

}  // namespace tarns
