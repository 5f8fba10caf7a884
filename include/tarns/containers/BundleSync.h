#pragma once

#include <tarns/containers/SyncedBundle.h>
#include <tarns/tarns_api.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarns {

class BundleExportFilter;

// An object that was changed on both sides, neither knowing of the other's change.
struct BundleConflict {
  enum class Kind {
    kBothChanged,
    kBothCreated,
    kChangedHereDeletedThere,
    kDeletedHereChangedThere
  };
  std::string name;
  Kind kind;
  bool isTheirsKept;  // otherwise ours
  std::string lost;   // the text form of the object that is not kept; empty for a deletion
};

// What an import has done.
struct BundleImport {
  enum class Outcome {
    kImported,
    // It held nothing that the bundle has not seen: delivered twice, or later than one that has
    // more. Only what it says about exports that have arrived there has been taken in.
    kAlreadyKnown,
    // It is the bundle's own export. Ignored.
    kOwn,
    // An earlier export is missing. Nothing has been taken over; the next export to that partner
    // asks it for everything. (The missing one may also be imported first, then this one again.)
    kMissingExport,
    // The partner's database has been set back, to a backup for one, and does not know it yet.
    // Nothing has been taken over; the next export to it makes it notice. (Or it is late mail of
    // before it did, or of what it had been before.)
    kPartnerSetBack,
    // This database has been set back, or another one has its files, too. Nothing has been taken
    // over, but the bundle has become a new replica, whose next exports hold everything and ask for
    // everything.
    kSetBack,
    // It was made by exportFor() for another partner, or for what this bundle was before it was set
    // back. Nothing has been taken over: it lacks what that one has.
    kNotForUs
  };
  Outcome outcome = Outcome::kImported;
  std::string partner;                                  // who it is from
  unsigned long created = 0, changed = 0, deleted = 0;  // objects here
  unsigned long unchanged = 0;                          // that were here as they came, or later
  std::vector<BundleConflict> conflicts;                // in the order of names
};

// A bundle that this one exchanges changes with.
struct BundlePartner {
  std::string replica;
  // What filters kept back does not count in these two.
  std::uint64_t received = 0;      // its revision up to which all its changes are here
  std::uint64_t acknowledged = 0;  // revision here up to which it has said to have everything
  bool lacksExport = false;        // everything has been asked for
  // There is another one that began as its copy, or was restored from its backup. No deletions are
  // remembered for it until it is heard of again; dropPartner() when it is not there any more.
  bool isReplaced = false;
};

// Exchanges the changes of a SyncedBundle with partners: bundles in other databases.
//
//   BundleSync sync(bundle);                            BundleSync sync(otherBundle);
//   send(sync.exportSince(0));                  ->      sync.import(text);
//   sync.import(answer);                        <-      send(sync.exportFor(partner));
//
// An export is a text (docs/sync.md); how it gets to the other side is the application's affair. It
// may be lost, late, delivered several times and in any order. Each export to a partner holds what
// that one has not acknowledged, and every export acknowledges what has been imported. When all
// exports have been imported on both sides and nothing changes any more, both bundles are equal,
// unless filters keep something back. There may be any number of partners, also some that never
// meet and know of each other through a third only.
//
// Conflicts: of two changes of one name of which neither builds on the other, the one with the
// greater revision is kept, of equal revisions that of the greater replica (as numbers); deletions
// are changes like any other. So all sides keep the same, in whatever order they come to know.
//
// Exporting and importing are one transaction each (or part of the one that is open), and change
// nothing when they throw. Each looks at all objects of the bundle; outside a transaction most of
// that is done before the transaction begins, and without locks. A transaction that is rolled back
// after its export has been sent has set the bundle back.
//
// Content of objects: as the text form has it. What an object's members refer to outside of it
// comes along as a copy, and becomes one here, too, when a partner's change is imported. So objects
// of the bundle must not refer to each other, nor to a branch that has the bundle in it. All
// classes must be known, with the same members, on both sides. Threads: one at a time; any
// number of sessions may exchange at once.
class TARNS_API BundleSync {
 public:
  explicit BundleSync(xcptref<SyncedBundle> bundle) : bundle_(std::move(bundle)) {}

  // Gives revisions to what has been created, changed and deleted without one; how many there were.
  // Throws 0 when there are several objects of one name, or one that leads to others, or to the
  // bundle; 12 when there is one of another class.
  unsigned long noticeChanges();

  // Everything that has a later revision than `revision`; 0, and every revision of before a
  // deletion that has been forgotten: the whole bundle. Of objects those that the filter takes;
  // null takes all. Anybody may import it.
  std::string exportSince(std::uint64_t revision, BundleExportFilter* filter = nullptr);
  // What a partner has not acknowledged, for that one only. With a filter: what it has not got in
  // filtered exports either, so a filter that takes more than the one before needs exportSince(0)
  // once. Without one: also all that filters have kept back so far. Throws 0 when there is no such
  // partner.
  std::string exportFor(std::string_view partner, BundleExportFilter* filter = nullptr);

  // Takes over what an export says, and makes its sender a partner. Throws 15 for what is no export
  // or a damaged one, and when an object has a member that is not known here; 3 for a class that is
  // not known; 109 for an export of a newer version, and 12 when it is of another class of objects.
  BundleImport import(std::string_view text);

  // In the order of replicas.
  std::vector<BundlePartner> partners() const;
  // Makes a bundle a partner of which nothing has arrived yet: deletions are remembered for it.
  // Throws 0 for what is no replica, for this one, and for one that was set back and so has become
  // another one.
  void addPartner(std::string_view replica);
  // That a partner has everything up to that revision here; exports of the partner say so, too.
  // Throws 0 when there is no such partner or revision.
  void acknowledge(std::string_view partner, std::uint64_t revision);
  // Forgets a partner, so that deletions need not be remembered for it. When it comes back, what
  // was deleted meanwhile is deleted there as well. False when there was none.
  bool dropPartner(std::string_view partner);

 private:
  xcptref<SyncedBundle> bundle_;
};

}  // namespace tarns
