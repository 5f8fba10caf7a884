#include "containers/sync_import.h"

#include <tarns/core/TarnException.h>

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

namespace tarns {

namespace {

using Kind = BundleConflict::Kind;
using Outcome = BundleImport::Outcome;
using Relation = SyncMarks::Relation;

// How much further than the bundle's own revision an export may be: a damaged one must not use the
// numbers up.
constexpr std::uint64_t kMaxAdvance = std::uint64_t{1} << 40;

[[noreturn]] void ThrowTooFar(std::uint64_t revision) {
  TarnException error;
  error << "This is no export of a bundle that can be imported: its revision " << revision
        << " is too far from the bundle's own.";
  error.setErrorID(ErrorID::BadExportFile);
  throw error;
}

[[noreturn]] void ThrowOtherClass(const SyncedBundle& bundle, const std::string& className) {
  TarnException error;
  error << "The bundle \"" << bundle.getName() << "\" holds objects of the class \""
        << bundle.getClassName() << "\"; the export has some of the class \"" << className << "\".";
  error.setErrorID(ErrorID::BadTypecast);
  throw error;
}

// Of two sides that do not know of each other's last change.
Kind KindOf(const SyncChange& theirs, const SyncRecord& ours) {
  if (ours.isDeleted) return Kind::kDeletedHereChangedThere;
  if (theirs.isDeleted) return Kind::kChangedHereDeletedThere;
  return ours.version.sharesReplicaWith(theirs.version) ? Kind::kBothChanged : Kind::kBothCreated;
}

}  // namespace

BundleImport SyncImport::run() {
  result_.partner = TextOfReplica(file_.from);
  verify();
  if (wasSetBack()) return end(Outcome::kSetBack);
  if (file_.from == records_.replica()) return end(Outcome::kOwn);
  agreeOnEnds();
  if (wasSetBack()) return end(Outcome::kSetBack);  // told under a name of before
  const auto partners = records_.partners();
  const auto found = partners.find(file_.from);
  const bool isNew = found == partners.end();
  if (!isNew) partner_ = found->second;
  if (records_.ended().contains(file_.from)) {
    if (isNew) records_.putPartner(file_.from, partner_);
    return end(Outcome::kPartnerSetBack);
  }
  if (file_.addressee != 0 && file_.addressee != records_.replica()) {
    return end(Outcome::kNotForUs);
  }
  takeAcknowledgement();
  partner_.isReplaced = false;
  const Outcome outcome = relate();
  if (outcome == Outcome::kMissingExport) partner_.lacksExport = true;
  if (outcome == Outcome::kImported) bundle_.together([&] { takeAll(); });
  records_.putPartner(file_.from, partner_);
  if (isNew) markReplaced();
  records_.forgetDeletions();
  return end(outcome);
}

void SyncImport::verify() {
  if (bundle_.getClassName().isEmpty()) bundle_.initClassName(file_.className.c_str());
  if (bundle_.getClassName().view() != file_.className) ThrowOtherClass(bundle_, file_.className);
  if (file_.revision > records_.revision() + kMaxAdvance) ThrowTooFar(file_.revision);
}

BundleImport SyncImport::end(Outcome outcome) {
  result_.outcome = outcome;
  return std::move(result_);
}

// --- How the export stands to what is known -----------------------------------------------------

// Whether the export tells of a life of this replica that the bundle knows nothing of, or of its
// end. It has become another one then.
bool SyncImport::wasSetBack() {
  const ReplicaID self = records_.replica();
  std::uint64_t certain = kMaxRevision;
  if (const auto ended = file_.ended.find(self); ended != file_.ended.end()) {
    certain = ended->second - 1;
  }
  if (const auto said = file_.marks.find(self); said != file_.marks.end()) {
    const SyncMarks marks = records_.marks();
    const Relation relation = said->second.compare(marks);
    if (relation == Relation::kLater || relation == Relation::kApart) {
      certain = std::min(certain, said->second.lastCommon(marks));
    }
  }
  if (certain == kMaxRevision) return false;
  records_.becomeAnother(certain);
  if (file_.from != self && records_.former().of(file_.from) == 0) {
    records_.putPartner(file_.from, {.knows = {}, .lacksExport = true});
  }
  return true;
}

// Replicas that one side knows to have ended, or of which the sides know different lives: from here
// on both call what those did by the same names.
void SyncImport::agreeOnEnds() {
  SyncEnds ends = records_.ended();
  for (const auto& [replica, first] : file_.ended) AddEnd(ends, replica, first);
  SyncEnds before;
  do {
    before = ends;
    records_.applyEnds(ends);
    file_.applyEnds(ends);
    findEnds(ends);
  } while (ends != before);
  const auto heard = records_.heard();
  for (const auto& [replica, told] : file_.marks) {
    const auto ours = heard.find(replica);
    if (ours == heard.end() || told.compare(ours->second) == Relation::kLater) {
      records_.putHeard(replica, told);
    }
  }
}

// Adds those that show where both sides' marks are not of one life.
void SyncImport::findEnds(SyncEnds& ends) const {
  const auto heard = records_.heard();
  for (const auto& [replica, told] : file_.marks) {
    const auto ours = heard.find(replica);
    if (ours == heard.end() || told.compare(ours->second) != Relation::kApart) continue;
    AddEnd(ends, replica, told.lastCommon(ours->second) + 1);
  }
}

// What the sender was before: it does not come back where it has ended, and may where a copy of it
// was made.
void SyncImport::markReplaced() {
  auto partners = records_.partners();
  const SyncEnds ended = records_.ended();
  for (const auto& [replica, revision] : file_.former.entries()) {
    if (replica == records_.replica()) continue;
    if (!partners.contains(replica) && !ended.contains(replica)) continue;
    partners[replica].isReplaced = true;
    records_.putPartner(replica, partners[replica]);
  }
}

// The sender says what has arrived there.
void SyncImport::takeAcknowledgement() {
  const auto said = file_.partners.find(records_.replica());
  if (said == file_.partners.end()) return;
  const auto acknowledge = [&](std::uint64_t& revision, std::uint64_t arrived) {
    arrived = std::min(arrived, records_.revision());
    revision = said->second.lacksExport ? 0 : std::max(revision, arrived);
  };
  acknowledge(partner_.acknowledged, said->second.received);
  acknowledge(partner_.acknowledgedFiltered, said->second.receivedFiltered);
}

// One that filters have kept something from is never too late for a revision that only another
// such one has told of: it may have been another filter.
Outcome SyncImport::relate() const {
  if (file_.revision <= partner_.received) return Outcome::kAlreadyKnown;
  if (file_.isPartial && file_.revision < partner_.receivedFiltered) return Outcome::kAlreadyKnown;
  const std::uint64_t arrived = file_.isPartial ? partner_.receivedFiltered : partner_.received;
  return file_.since > arrived ? Outcome::kMissingExport : Outcome::kImported;
}

// --- Taking over --------------------------------------------------------------------------------

void SyncImport::takeAll() {
  known_ = records_.known();
  records_.advanceTo(file_.revision);
  for (const SyncChange& change : file_.changes) take(change);
  partner_.knows = file_.known;
  partner_.lacksExport = false;
  partner_.receivedFiltered = std::max(partner_.receivedFiltered, file_.revision);
  // What has been kept back may come later: nothing is concluded from what is known now.
  if (file_.isPartial) return;
  if (file_.since == 0) deleteWhatIsMissing();
  records_.addKnown(file_.known);
  partner_.received = file_.revision;
}

void SyncImport::take(const SyncChange& change) {
  records_.notice(change.name);
  const auto ours = records_.find(change.name);
  if (!ours) return takeNew(change);
  switch (change.version.compare(ours->version)) {
    case SyncVersion::Order::kEqual:
      settleEqual(change, *ours);
      break;
    case SyncVersion::Order::kBefore:
      ++result_.unchanged;
      break;
    case SyncVersion::Order::kAfter:
      takeOver(change, change.version, ours->isDeleted);
      break;
    case SyncVersion::Order::kConcurrent:
      settle(change, *ours);
      break;
  }
}

// What has been seen before and is not there any more has been deleted, and the deletion forgotten.
void SyncImport::takeNew(const SyncChange& change) {
  const bool wasSeen = change.version.isWithin(known_);
  if (wasSeen && change.isDeleted) {
    ++result_.unchanged;
  } else if (wasSeen) {
    SyncVersion version = change.version;
    version.add(records_.replica(), records_.revision() + 1);
    records_.putDeletion(change.name, version);
    ++result_.unchanged;
  } else {
    takeOver(change, change.version, true);
  }
}

// Neither version contains the other. That is no conflict where both sides are equal, and where the
// later change was made on a side that had seen the other one: the object was created anew, after a
// deletion that has been forgotten.
void SyncImport::settle(const SyncChange& change, const SyncRecord& ours) {
  SyncVersion both = ours.version;
  both.join(change.version);
  const std::string text = ours.isDeleted ? std::string() : textOfOurs(change.name);
  if (ours.isDeleted == change.isDeleted && text == change.text) {
    ++result_.unchanged;
    return keepOurs(change, ours, both);
  }
  const bool isTheirsKept = change.version.stamp() > ours.version.stamp();
  const bool wasSeen =
      isTheirsKept ? ours.version.isWithin(file_.known) : change.version.isWithin(known_);
  if (!wasSeen) {
    result_.conflicts.push_back(
        {change.name, KindOf(change, ours), isTheirsKept, isTheirsKept ? text : change.text});
  }
  if (isTheirsKept) return takeOver(change, both, ours.isDeleted);
  if (wasSeen) ++result_.unchanged;
  keepOurs(change, ours, both);
}

// One version should stand for one content. It does not where two sides settled a conflict by the
// names of replicas of which one has got another name since (agreeOnEnds). All who see that choose
// alike, and make of it a change that everybody gets.
void SyncImport::settleEqual(const SyncChange& change, const SyncRecord& ours) {
  const bool isSame = ours.isDeleted == change.isDeleted &&
                      (ours.isDeleted || ours.digest == DigestOf(change.text));
  const std::string text = isSame || ours.isDeleted ? std::string() : textOfOurs(change.name);
  if (isSame || (ours.isDeleted == change.isDeleted && text == change.text)) {
    ++result_.unchanged;
    return;
  }
  const bool isTheirsKept = change.isDeleted ? false : ours.isDeleted || text < change.text;
  SyncVersion version = ours.version;
  version.add(records_.replica(), records_.revision() + 1);
  result_.conflicts.push_back(
      {change.name, KindOf(change, ours), isTheirsKept, isTheirsKept ? text : change.text});
  if (isTheirsKept) return takeOver(change, version, ours.isDeleted);
  keepOurs(change, ours, version);
}

void SyncImport::keepOurs(const SyncChange& change, const SyncRecord& ours,
                          const SyncVersion& version) {
  if (ours.isDeleted) {
    records_.putDeletion(change.name, version);
  } else {
    records_.putObject(change.name, version, ours.digest);
  }
}

void SyncImport::takeOver(const SyncChange& change, const SyncVersion& version, bool wasDeleted) {
  if (change.isDeleted) return deleteObject(change.name, version);
  const TarnRef object = wasDeleted ? bundle_.TarnBundle::newChild(change.name.c_str())
                                    : bundle_.getBundledChildWithName(change.name.c_str());
  ReplaceContent(object, change.text);
  records_.putObject(change.name, version, DigestOf(TextOf(change.name, object)));
  ++(wasDeleted ? result_.created : result_.changed);
}

void SyncImport::deleteObject(const std::string& name, const SyncVersion& version) {
  if (bundle_.TarnBundle::deleteBundledChild(name.c_str())) ++result_.deleted;
  records_.putDeletion(name, version);
}

// The export has everything that the sender has: what it has seen and does not have any more, it
// has deleted.
void SyncImport::deleteWhatIsMissing() {
  std::unordered_set<std::string_view> named;
  for (const SyncChange& change : file_.changes) named.insert(change.name);
  std::vector<std::string> missing;
  records_.forEachObject([&](const std::string& name, const SyncRecord& record) {
    if (!named.contains(name) && record.version.isWithin(file_.known)) missing.push_back(name);
  });
  for (const std::string& name : missing) {
    if (records_.notice(name)) continue;
    SyncVersion version = records_.find(name)->version;
    version.add(records_.replica(), records_.revision() + 1);
    deleteObject(name, version);
  }
}

std::string SyncImport::textOfOurs(const std::string& name) const {
  return TextOf(name, bundle_.getBundledChildWithName(name.c_str()));
}

}  // namespace tarns
