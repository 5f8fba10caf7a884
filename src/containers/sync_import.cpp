#include "containers/sync_import.h"

#include <tarns/core/TarnException.h>

#include <unordered_set>
#include <utility>
#include <vector>

namespace tarns {

namespace {

using Kind = BundleConflict::Kind;
using Outcome = BundleImport::Outcome;
using Relation = SyncMarks::Relation;

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
  if (bundle_.getClassName().isEmpty()) bundle_.initClassName(file_.className.c_str());
  if (bundle_.getClassName().view() != file_.className) ThrowOtherClass(bundle_, file_.className);
  if (file_.from == records_.replica()) {
    return end(isOwn() ? Outcome::kOwn : Outcome::kSetBack);
  }
  const auto partners = records_.partners();
  const auto found = partners.find(file_.from);
  const bool isNew = found == partners.end();
  if (!isNew) partner_ = found->second;
  if (!takeAcknowledgement()) {
    records_.putPartner(file_.from, {.marks = {}, .knows = {}, .lacksExport = true});
    return end(Outcome::kSetBack);
  }
  const Outcome outcome = relate();
  if (outcome == Outcome::kPartnerSetBack) return end(outcome);
  if (outcome != Outcome::kAlreadyKnown) partner_.isReplaced = false;
  if (outcome == Outcome::kMissingExport) partner_.lacksExport = true;
  if (outcome == Outcome::kImported) takeAll();
  records_.putPartner(file_.from, partner_);
  if (isNew) markReplaced();
  records_.forgetDeletions();
  return end(outcome);
}

// What the sender was before does not come back, unless as the original of a copy.
void SyncImport::markReplaced() {
  for (auto& [replica, partner] : records_.partners()) {
    if (file_.former.of(replica) == 0) continue;
    partner.isReplaced = true;
    records_.putPartner(replica, partner);
  }
}

BundleImport SyncImport::end(Outcome outcome) {
  result_.outcome = outcome;
  return std::move(result_);
}

// --- How the export stands to what is known -----------------------------------------------------

// Of an export of this replica: false when it tells of a life that this bundle knows nothing of. It
// has become another one then.
bool SyncImport::isOwn() {
  const SyncMarks marks = records_.marks();
  const Relation relation = file_.marks.compare(marks);
  if (relation == Relation::kSame || relation == Relation::kEarlier) return true;
  records_.becomeAnother(file_.marks.lastCommon(marks));
  return false;
}

// The sender says what has arrived there. False when that has never been exported here.
bool SyncImport::takeAcknowledgement() {
  const auto said = file_.partners.find(records_.replica());
  if (said == file_.partners.end()) return true;
  const SyncFile::Arrived& arrived = said->second;
  const SyncMarks marks = records_.marks();
  const Relation relation = arrived.marks.compare(marks);
  if (relation == Relation::kLater || relation == Relation::kApart) {
    records_.becomeAnother(arrived.marks.lastCommon(marks));
    return false;
  }
  partner_.acknowledged =
      arrived.lacksExport ? 0 : std::max(partner_.acknowledged, arrived.received);
  return true;
}

Outcome SyncImport::relate() const {
  switch (file_.marks.compare(partner_.marks)) {
    case Relation::kSame:
    case Relation::kEarlier:
      return Outcome::kAlreadyKnown;
    case Relation::kApart:
      return Outcome::kPartnerSetBack;
    case Relation::kLater:
      break;
  }
  return file_.since > partner_.received ? Outcome::kMissingExport : Outcome::kImported;
}

// --- Taking over --------------------------------------------------------------------------------

void SyncImport::takeAll() {
  known_ = records_.known();
  records_.advanceTo(file_.revision);
  for (const SyncChange& change : file_.changes) take(change);
  if (file_.since == 0 && !file_.isPartial) deleteWhatIsMissing();
  if (file_.isPartial) records_.setPartial();
  records_.addKnown(file_.known);
  partner_.received = file_.revision;
  partner_.marks = file_.marks;
  partner_.knows = file_.known;
  partner_.isPartial = file_.isPartial;
  partner_.lacksExport = false;
}

void SyncImport::take(const SyncChange& change) {
  records_.notice(change.name);
  const auto ours = records_.find(change.name);
  if (!ours) return takeNew(change);
  switch (change.version.compare(ours->version)) {
    case SyncVersion::Order::kEqual:
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
  } else if (wasSeen && !records_.isPartial()) {
    SyncVersion version = change.version;
    version.add(records_.replica(), records_.revision() + 1);
    records_.putDeletion(change.name, version);
    ++result_.unchanged;
  } else {
    takeOver(change, change.version, true);
  }
}

// Neither side knows of the other's change.
void SyncImport::settle(const SyncChange& change, const SyncRecord& ours) {
  SyncVersion both = ours.version;
  both.join(change.version);
  const std::string text = ours.isDeleted ? std::string() : textOfOurs(change.name);
  if (ours.isDeleted == change.isDeleted && text == change.text) {
    if (ours.isDeleted) {
      records_.putDeletion(change.name, both);
    } else {
      records_.putObject(change.name, both, ours.digest);
    }
    ++result_.unchanged;
    return;
  }
  const bool isTheirsKept = change.version.stamp() > ours.version.stamp();
  result_.conflicts.push_back(
      {change.name, KindOf(change, ours), isTheirsKept, isTheirsKept ? text : change.text});
  if (isTheirsKept) {
    takeOver(change, both, ours.isDeleted);
  } else if (ours.isDeleted) {
    records_.putDeletion(change.name, both);
  } else {
    records_.putObject(change.name, both, ours.digest);
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
