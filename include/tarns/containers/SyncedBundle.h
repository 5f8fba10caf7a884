#pragma once

#include <tarns/containers/TarnBundle.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <string>

namespace tarns {

// A bundle that keeps revisions, so that it can be kept equal with bundles in other databases: see
// BundleSync, which exchanges them, and docs/sync.md.
//
// The bundle's revision is a number that grows with every creation, change and deletion of an
// object and never goes back. What is done through the functions below gets its revision at once.
// Changes to an object's own values and children, and what is done to BundledChildren by path, are
// noticed by BundleSync::noticeChanges(), with which every exchange begins, since it compares each
// object with a digest of what it was: nobody can forget to say that something has changed, and
// nothing is written beside the change. markChanged() gives an object a revision without waiting
// for that.
//
// Names: the name is what an object is known by in all databases, so there is one object of each
// name, and giving an object another one counts as deleting it and creating another.
//
// Beside BundledChildren and Blocks the bundle has the children Revisions (of the objects that are
// there), Deletions (SyncedBundleDeletion, by name), Partners and Replicas; all are the bundle's
// own affair. Threads and transactions: as TarnBundle.
class TARNS_API SyncedBundle : public TarnBundle {
  TARN_CLASS(SyncedBundle, TarnBundle)

 public:
  static constexpr const char* kRevisions = "Revisions";
  static constexpr const char* kDeletions = "Deletions";
  static constexpr const char* kPartners = "Partners";
  static constexpr const char* kReplicas = "Replicas";

  explicit SyncedBundle(const char* className);
  static xcptref<SyncedBundle> Create(const char* className) {
    return {new SyncedBundle(className)};
  }
  ~SyncedBundle() override;

  // As in TarnBundle; throws 0 also when there is an object of that name.
  xcptref<TarnObject> newChild(const char* name) override;
  bool deleteBundledChild(const char* name) override;
  // Throws 0 also when there is another object of the new name.
  bool renameBundledChild(const char* oldName, const char* newName);
  // Gives the object of that name a new revision; false when there is none. Throws 0 when there are
  // two, and 12 when it is of another class than the bundle's.
  bool markChanged(const char* name);

  std::uint64_t getRevision() const { return revision_; }
  // The revision of the last thing that happened to that name, as far as it has been noticed: also
  // of a deletion that is remembered. 0 when there is none.
  std::uint64_t getRevisionOf(const char* name) const;
  bool isDeletionRemembered(const char* name) const;
  unsigned long getNumDeletions() const;
  // Who the bundle is for its partners: 16 hexadecimal digits; "" before its first exchange, or the
  // first change.
  std::string getReplica() const;

  bool write(const char* name, GOODSinOut& out) override;

 private:
  friend class SyncRecords;  // keeps these, and what the children hold

  std::uint64_t replica_ = 0;    // stored as "Replica"; 0: none yet
  std::uint64_t revision_ = 0;   // stored as "Revision"
  std::uint64_t forgotten_ = 0;  // stored as "Forgotten": deletions up to this one may be forgotten
  TarnString home_;              // stored as "Home": where it was when it became `replica_`
  TarnString former_;            // stored as "Former": what it was before that
  TarnString ended_;             // stored as "Ended": replicas that were set back, as it knows
  TarnString marks_;             // stored as "Marks"
  TarnString known_;             // stored as "Known": changes of others that it has seen
};

}  // namespace tarns
