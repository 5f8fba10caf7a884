// The revisions of a SyncedBundle, where they are kept.
#pragma once

#include <tarns/containers/SyncedBundle.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "containers/SyncedBundleRevision.h"
#include "containers/sync_version.h"

namespace tarns {

// What is known of one name: of an object that is there, or of a deletion.
struct SyncRecord {
  std::uint64_t revision = 0;  // of the bundle, when it came to be so
  SyncVersion version;
  SyncDigest digest{};  // of an object
  bool isDeleted = false;
};

// What comes up to a revision is there, of `...Filtered` without what filters kept back.
struct SyncPartner {
  std::uint64_t received = 0, receivedFiltered = 0;          // of its changes here
  std::uint64_t acknowledged = 0, acknowledgedFiltered = 0;  // of the changes here, there
  SyncVersion knows;  // which changes it had seen when it last said so
  bool lacksExport = false;
  // There is a replica that was made of it: deletions are not remembered for it until it is heard
  // of again.
  bool isReplaced = false;
};

// Of an object's text form.
SyncDigest DigestOf(std::string_view text);

// Reads and changes what a bundle keeps. Made for the body that a write access gave; every new
// revision and every record is written through here. Threads: one.
class SyncRecords {
 public:
  using Visit = std::function<void(const std::string& name, const SyncRecord& record)>;

  explicit SyncRecords(SyncedBundle& bundle) : bundle_(bundle) {}

  // Gives the bundle an identity where it has none, and another one where it is not the bundle that
  // its identity was made for: a copy, or one in a database made from a backup.
  void settleReplica();
  // Makes the bundle, which was set back, another replica. What it has done as the old one is
  // certain up to `revision`; there that one ends, and the rest counts as done by the new one.
  // Partners get everything again, and are asked for everything.
  void becomeAnother(std::uint64_t revision);

  ReplicaID replica() const { return bundle_.replica_; }
  std::uint64_t revision() const { return bundle_.revision_; }
  // Makes later revisions greater than this one, too.
  void advanceTo(std::uint64_t revision);
  std::uint64_t forgotten() const { return bundle_.forgotten_; }
  SyncVersion former() const;  // replicas that the bundle was, each with its last revision
  SyncVersion known() const;   // all changes that have been seen, with its own
  void addKnown(const SyncVersion& version);
  SyncMarks marks() const;
  // Marks the revision, unless nothing has happened since the last mark.
  void mark();

  // Of others, all that have been heard of in exports: every change of them that is here is not
  // later than their last mark.
  std::map<ReplicaID, SyncMarks> heard() const;
  SyncMarks heardOf(ReplicaID replica) const;
  void putHeard(ReplicaID replica, const SyncMarks& marks);
  SyncEnds ended() const;
  // Gives all that others did after their ends its names; see ApplyEnds.
  void applyEnds(SyncEnds& ends);

  // The object of that name, or null. Throws 0 when there are two, 12 when it is of another class
  // than the bundle's: neither can be exchanged.
  TarnRef objectCalled(std::string_view name) const;
  // Of its text form. Throws 0 when that would hold other objects of the bundle, or the bundle.
  SyncDigest digestOf(std::string_view name, const TarnRef& object) const;

  std::optional<SyncRecord> find(std::string_view name) const;
  void forEachObject(const Visit& visit) const;
  void forEachDeletion(const Visit& visit) const;

  // The object of that name has been created or changed here; `digest` as far as it is known.
  void noteChange(std::string_view name, const SyncDigest& digest);
  void noteDeletion(std::string_view name);
  // Looks whether what is there is what was there; whether it has got a new revision.
  bool notice(std::string_view name);

  // Writes a record under a new revision, in place of what there is of that name.
  void putObject(std::string_view name, const SyncVersion& version, const SyncDigest& digest);
  void putDeletion(std::string_view name, const SyncVersion& version);

  std::map<ReplicaID, SyncPartner> partners() const;
  // Whether it is nobody's business any more: ended, and replaced.
  bool isGone(ReplicaID replica, const SyncPartner& partner) const;
  bool hasPartners() const;  // that deletions are remembered for
  void putPartner(ReplicaID replica, const SyncPartner& partner);
  bool removePartner(ReplicaID replica);
  // Drops deletions that all partners have.
  void forgetDeletions();

 private:
  TarnRef childOf(const char* list, std::string_view name) const;
  TarnRef list(const char* name);
  void removeFrom(const char* list, std::string_view name);
  void keep(std::string_view name, const SyncRecord& record);
  void becomeCopy();
  void takeName(ReplicaID name, std::uint64_t revision);
  bool renameAll(ReplicaID replica, std::uint64_t first, ReplicaID name);
  std::uint64_t nextRevision() { return ++bundle_.revision_; }
  std::string homeNow() const;

  SyncedBundle& bundle_;
};

}  // namespace tarns
