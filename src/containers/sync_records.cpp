#include "containers/sync_records.h"

#include <fmt/format.h>
#include <goods/cache_manager.h>
#include <goods/database.h>
#include <goods/obj_storage.h>
#include <tarns/containers/SyncedBundleDeletion.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnIterator.h>
#include <xxhash.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "containers/sync_file.h"

namespace tarns {

namespace {

constexpr const char* kReceived = "Received";
constexpr const char* kReceivedFiltered = "ReceivedFiltered";
constexpr const char* kAcknowledged = "Acknowledged";
constexpr const char* kAcknowledgedFiltered = "AcknowledgedFiltered";
constexpr const char* kKnows = "Knows";
constexpr const char* kLacksExport = "LacksExport";
constexpr const char* kReplaced = "Replaced";

[[noreturn]] void ThrowDamaged(const char* what, std::string_view text) {
  TarnException error;
  error << "A synchronised bundle keeps \"" << text << "\", which is no " << what << ".";
  error.setErrorID(ErrorID::CorruptData);
  throw error;
}

[[noreturn]] void ThrowTwoOfOneName(const SyncedBundle& bundle, std::string_view name) {
  TarnException error;
  error << "The bundle \"" << bundle.getName() << "\" has several objects called \"" << name
        << "\"; one that is synchronised has one object of each name.";
  throw error;
}

[[noreturn]] void ThrowOtherClass(const SyncedBundle& bundle, std::string_view name,
                                  const TarnRef& object) {
  TarnException error;
  error << "In the bundle \"" << bundle.getName() << "\", which is synchronised, the object \""
        << name << "\" is of the class \"" << object->getType() << "\", not \""
        << bundle.getClassName() << "\".";
  error.setErrorID(ErrorID::BadTypecast);
  throw error;
}

[[noreturn]] void ThrowNotApart(const SyncedBundle& bundle, std::string_view name,
                                const TarnRef& node) {
  TarnException error;
  error << "The object \"" << name << "\" of the bundle \"" << bundle.getName()
        << "\" cannot be exchanged: it leads to \"" << node->getName()
        << "\", and so into the bundle, of which there would be a copy in it.";
  throw error;
}

SyncVersion VersionFrom(std::string_view text) {
  auto version = SyncVersion::Parse(text);
  if (!version) ThrowDamaged("version", text);
  return *std::move(version);
}

SyncMarks MarksFrom(std::string_view text) {
  auto marks = SyncMarks::Parse(text);
  if (!marks) ThrowDamaged("list of marks", text);
  return *std::move(marks);
}

std::string ValueOf(const TarnRef& node) {
  TarnData value;
  node->get(nullptr, value);
  return std::string(value.getText());
}

SyncRecord RecordOf(const TarnRef& node) {
  SyncRecord record;
  record.version = VersionFrom(ValueOf(node));
  if (node.isA<SyncedBundleDeletion>()) {
    record.isDeleted = true;
    record.revision = xcptref<SyncedBundleDeletion>(node)->getRevision();
    return record;
  }
  const xcptref<SyncedBundleRevision> kept(node);
  record.revision = kept->getRevision();
  record.digest = kept->getDigest();
  return record;
}

SyncPartner PartnerOf(const TarnRef& node) {
  SyncPartner partner;
  partner.received = node->getUint64(kReceived, std::uint64_t{0});
  partner.acknowledged = node->getUint64(kAcknowledged, std::uint64_t{0});
  partner.receivedFiltered = node->getUint64(kReceivedFiltered, std::uint64_t{0});
  partner.acknowledgedFiltered = node->getUint64(kAcknowledgedFiltered, std::uint64_t{0});
  partner.knows = VersionFrom(node->getXString(kKnows, "").view());
  partner.lacksExport = node->getBoolean(kLacksExport, false);
  partner.isReplaced = node->getBoolean(kReplaced, false);
  return partner;
}

}  // namespace

SyncDigest DigestOf(std::string_view text) {
  const XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
  return {hash.low64, hash.high64};
}

// --- Who the bundle is --------------------------------------------------------------------------

// Empty as long as it is not stored. A copy of a bundle is another object, and a database made from
// a backup has storages with identities of their own.
std::string SyncRecords::homeNow() const {
  const goods::object_id id = bundle_.getSelf().id();
  const goods::cache_manager* const session = goods::cache_manager::current();
  if (id == 0 || session == nullptr) return {};
  const auto identity = session->db().storage(goods::storage_of(id)).dbs().identity();
  return fmt::format("{:016x}{:016x}:{:x}", identity.high, identity.low, id);
}

void SyncRecords::settleReplica() {
  const std::string now = homeNow(), before = bundle_.home_.str();
  if (bundle_.replica_ == 0) bundle_.replica_ = NewReplicaID();
  if (now == before || now.empty()) return;
  if (!before.empty()) becomeCopy();
  bundle_.home_ = TarnString(std::string_view(now));
}

// The original may go on: what it has done so far may come from it, and it has not ended.
void SyncRecords::becomeCopy() {
  const ReplicaID original = replica();
  const SyncMarks its = marks();
  SyncPartner partner{.knows = known(), .isReplaced = true};
  if (!its.empty()) partner.received = partner.receivedFiltered = its.newest().revision;
  takeName(NewReplicaID(), revision());
  bundle_.marks_.clear();
  putHeard(original, its);
  putPartner(original, partner);
}

void SyncRecords::becomeAnother(std::uint64_t revision) {
  const ReplicaID old = replica();
  SyncMarks before = marks();
  const SyncMarks since = before.splitFrom(revision + 1);
  takeName(since.empty() ? NewReplicaID() : since.nameFrom(0, old), revision);
  bundle_.marks_ = TarnString(std::string_view(since.str()));
  putHeard(old, before);
  SyncEnds ends = ended();
  AddEnd(ends, old, revision + 1);
  bundle_.ended_ = TarnString(std::string_view(TextOfEnds(ends)));
  renameAll(old, revision + 1, replica());
  putPartner(old, {.knows = {}, .isReplaced = true});
}

// From now on; it has the old one's changes up to `revision`.
void SyncRecords::takeName(ReplicaID name, std::uint64_t revision) {
  const ReplicaID old = replica();
  SyncVersion formerly = former();
  formerly.add(old, std::max<std::uint64_t>(revision, 1));
  bundle_.former_ = TarnString(std::string_view(formerly.str()));
  bundle_.replica_ = name;
  SyncVersion seen(old, revision);
  addKnown(seen);
  for (const auto& [replica, partner] : partners()) {
    if (!partner.isReplaced) putPartner(replica, {.knows = {}, .lacksExport = true});
  }
}

// What a replica did from a revision on gets its other name, wherever it is mentioned; whether it
// was mentioned anywhere.
bool SyncRecords::renameAll(ReplicaID replica, std::uint64_t first, ReplicaID name) {
  SyncVersion seen = VersionFrom(bundle_.known_.str());
  bool isNamed = seen.rename(replica, first, name);
  seen.cutBack(bundle_.replica_, 0);
  bundle_.known_ = TarnString(std::string_view(seen.str()));
  std::map<std::string, SyncRecord> named;
  const auto collect = [&](const std::string& object, const SyncRecord& record) {
    if (record.version.of(replica) >= first) named.emplace(object, record);
  };
  forEachObject(collect);
  forEachDeletion(collect);
  isNamed |= !named.empty();
  for (auto& [object, record] : named) {
    record.version.rename(replica, first, name);
    keep(object, record);
  }
  for (auto& [id, partner] : partners()) {
    if (partner.knows.of(replica) < first) continue;
    partner.knows.rename(replica, first, name);
    putPartner(id, partner);
  }
  return isNamed;
}

void SyncRecords::advanceTo(std::uint64_t revision) {
  bundle_.revision_ = std::max(bundle_.revision_, revision);
}

SyncVersion SyncRecords::former() const { return VersionFrom(bundle_.former_.str()); }

SyncVersion SyncRecords::known() const {
  SyncVersion known = VersionFrom(bundle_.known_.str());
  if (bundle_.replica_ != 0) known.add(bundle_.replica_, bundle_.revision_);
  return known;
}

void SyncRecords::addKnown(const SyncVersion& version) {
  SyncVersion known = VersionFrom(bundle_.known_.str());
  known.join(version);
  known.cutBack(bundle_.replica_, 0);
  bundle_.known_ = TarnString(std::string_view(known.str()));
}

SyncMarks SyncRecords::marks() const { return MarksFrom(bundle_.marks_.str()); }

void SyncRecords::mark() {
  SyncMarks all = marks();
  if (!all.empty() && all.newest().revision == bundle_.revision_) return;
  all.add({NewReplicaID(), bundle_.revision_});
  bundle_.marks_ = TarnString(std::string_view(all.str()));
}

std::map<ReplicaID, SyncMarks> SyncRecords::heard() const {
  std::map<ReplicaID, SyncMarks> found;
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kReplicas);
  if (all.is_null()) return found;
  for (const auto& [name, node] : all->children()) {
    const auto replica = ReplicaFrom(name);
    if (!replica) ThrowDamaged("replica", name);
    found.emplace(*replica, MarksFrom(ValueOf(node)));
  }
  return found;
}

SyncMarks SyncRecords::heardOf(ReplicaID replica) const {
  const TarnRef node = childOf(SyncedBundle::kReplicas, TextOfReplica(replica));
  return node.is_null() ? SyncMarks() : MarksFrom(ValueOf(node));
}

void SyncRecords::putHeard(ReplicaID replica, const SyncMarks& marks) {
  if (replica == bundle_.replica_) return;
  const TarnRef all = list(SyncedBundle::kReplicas);
  const TarnRef node = modify(all)->getChildWithNameNoFail(TextOfReplica(replica).c_str(),
                                                           TarnStringValue::GetType());
  modify(node)->setValue(nullptr, TarnData(marks.str()));
}

SyncEnds SyncRecords::ended() const {
  auto ends = EndsFrom(bundle_.ended_.str());
  if (!ends) ThrowDamaged("list of ends", bundle_.ended_.str());
  return *std::move(ends);
}

void SyncRecords::applyEnds(SyncEnds& ends) {
  const auto before = heard();
  auto now = before;
  ApplyEnds(ends, ended(), now, [&](ReplicaID replica, std::uint64_t first, ReplicaID name) {
    return renameAll(replica, first, name);
  });
  for (const auto& [replica, marks] : now) {
    const auto found = before.find(replica);
    if (found == before.end() || found->second.str() != marks.str()) putHeard(replica, marks);
  }
  const std::string text = TextOfEnds(ends);
  if (bundle_.ended_.str() == text) return;
  bundle_.ended_ = TarnString(std::string_view(text));
  for (auto& [replica, partner] : partners()) {
    const auto end = ends.find(replica);
    if (end == ends.end()) continue;
    partner.received = std::min(partner.received, end->second - 1);
    partner.receivedFiltered = std::min(partner.receivedFiltered, end->second - 1);
    putPartner(replica, partner);
  }
}

// --- Records ------------------------------------------------------------------------------------

TarnRef SyncRecords::childOf(const char* list, std::string_view name) const {
  const TarnRef all = bundle_.getChildWithName(list);
  return all.is_null() ? TarnRef() : all->getChildWithName(name);
}

TarnRef SyncRecords::list(const char* name) {
  return bundle_.getChildWithNameNoFail(name, TarnObject::GetType());
}

void SyncRecords::removeFrom(const char* list, std::string_view name) {
  const TarnRef all = bundle_.getChildWithName(list);
  if (!all.is_null()) modify(all)->deleteChild(std::string(name).c_str());
}

std::optional<SyncRecord> SyncRecords::find(std::string_view name) const {
  for (const char* list : {SyncedBundle::kRevisions, SyncedBundle::kDeletions}) {
    if (const TarnRef node = childOf(list, name); !node.is_null()) return RecordOf(node);
  }
  return std::nullopt;
}

void SyncRecords::forEachObject(const Visit& visit) const {
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kRevisions);
  if (all.is_null()) return;
  for (const auto& [name, node] : all->children()) visit(name, RecordOf(node));
}

void SyncRecords::forEachDeletion(const Visit& visit) const {
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kDeletions);
  if (all.is_null()) return;
  for (const auto& [name, node] : all->children()) visit(name, RecordOf(node));
}

void SyncRecords::keep(std::string_view name, const SyncRecord& record) {
  const char* const list = record.isDeleted ? SyncedBundle::kDeletions : SyncedBundle::kRevisions;
  TarnRef node = childOf(list, name);
  const bool isNew = node.is_null();
  if (isNew) {
    node = record.isDeleted ? TarnRef(SyncedBundleDeletion::Create())
                            : TarnRef(SyncedBundleRevision::Create());
  }
  {
    const auto body = modify(node);
    body->setValue(nullptr, TarnData(record.version.str()));
    if (record.isDeleted) {
      static_cast<SyncedBundleDeletion&>(*body).setRevision(record.revision);
    } else {
      auto& kept = static_cast<SyncedBundleRevision&>(*body);
      kept.setRevision(record.revision);
      kept.setDigest(record.digest);
    }
  }
  if (isNew) modify(this->list(list))->addChild(std::string(name).c_str(), node);
}

void SyncRecords::putObject(std::string_view name, const SyncVersion& version,
                            const SyncDigest& digest) {
  removeFrom(SyncedBundle::kDeletions, name);
  keep(name, {.revision = nextRevision(), .version = version, .digest = digest});
}

void SyncRecords::putDeletion(std::string_view name, const SyncVersion& version) {
  removeFrom(SyncedBundle::kRevisions, name);
  keep(name, {.revision = nextRevision(), .version = version, .isDeleted = true});
}

void SyncRecords::noteChange(std::string_view name, const SyncDigest& digest) {
  settleReplica();
  const auto before = find(name);
  SyncVersion version = before ? before->version : SyncVersion();
  version.add(replica(), revision() + 1);
  putObject(name, version, digest);
}

// Where nobody else can have it, nothing needs to be remembered.
void SyncRecords::noteDeletion(std::string_view name) {
  settleReplica();
  const auto before = find(name);
  if (!hasPartners()) {
    removeFrom(SyncedBundle::kRevisions, name);
    bundle_.forgotten_ = nextRevision();
    return;
  }
  SyncVersion version = before ? before->version : SyncVersion();
  version.add(replica(), revision() + 1);
  putDeletion(name, version);
}

TarnRef SyncRecords::objectCalled(std::string_view name) const {
  const TarnRef all = bundle_.getChildWithName(TarnBundle::kBundledChildren);
  if (all.is_null()) return nullptr;
  TarnIterator place = all->getIterTo(std::string(name).c_str());
  if (place.isNull()) return nullptr;
  TarnRef object = place.next(nullptr);
  if (place.getEntryName() == name) ThrowTwoOfOneName(bundle_, name);
  if (!object->isOfType(bundle_.getClassName())) ThrowOtherClass(bundle_, name, object);
  return object;
}

SyncDigest SyncRecords::digestOf(std::string_view name, const TarnRef& object) const {
  const TarnRef bundle = bundle_.getSelf();
  const auto isOfOthers = [&](TarnRef node) {
    while (!node.is_null() && node != object && node != bundle) node = node->getParent();
    return node == bundle;
  };
  return DigestOf(TextOf(name, object, [&](const TarnRef& node, bool isHome) {
    if (isHome ? node == bundle : isOfOthers(node)) ThrowNotApart(bundle_, name, node);
  }));
}

bool SyncRecords::notice(std::string_view name) {
  const TarnRef object = objectCalled(name);
  const auto before = find(name);
  const bool wasThere = before && !before->isDeleted;
  if (object.is_null()) {
    if (wasThere) noteDeletion(name);
    return wasThere;
  }
  const SyncDigest digest = digestOf(name, object);
  if (wasThere && before->digest == digest) return false;
  noteChange(name, digest);
  return true;
}

// --- Partners -----------------------------------------------------------------------------------

bool SyncRecords::isGone(ReplicaID replica, const SyncPartner& partner) const {
  return partner.isReplaced && ended().contains(replica);
}

bool SyncRecords::hasPartners() const {
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kPartners);
  if (all.is_null() || all->getNumAbstractChildren() == 0) return false;
  const auto found = partners();
  return std::any_of(found.begin(), found.end(),
                     [](const auto& entry) { return !entry.second.isReplaced; });
}

std::map<ReplicaID, SyncPartner> SyncRecords::partners() const {
  std::map<ReplicaID, SyncPartner> found;
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kPartners);
  if (all.is_null()) return found;
  for (const auto& [name, node] : all->children()) {
    const auto replica = ReplicaFrom(name);
    if (!replica) ThrowDamaged("partner", name);
    found.emplace(*replica, PartnerOf(node));
  }
  return found;
}

void SyncRecords::putPartner(ReplicaID replica, const SyncPartner& partner) {
  const TarnRef all = list(SyncedBundle::kPartners);
  const TarnRef node =
      modify(all)->getChildWithNameNoFail(TextOfReplica(replica).c_str(), TarnObject::GetType());
  const auto body = modify(node);
  body->setValue(kReceived, TarnData(partner.received));
  body->setValue(kReceivedFiltered, TarnData(partner.receivedFiltered));
  body->setValue(kAcknowledged, TarnData(partner.acknowledged));
  body->setValue(kAcknowledgedFiltered, TarnData(partner.acknowledgedFiltered));
  body->setValue(kKnows, TarnData(partner.knows.str()));
  body->setValue(kLacksExport, TarnData(partner.lacksExport));
  body->setValue(kReplaced, TarnData(partner.isReplaced));
}

bool SyncRecords::removePartner(ReplicaID replica) {
  const TarnRef all = bundle_.getChildWithName(SyncedBundle::kPartners);
  return !all.is_null() && modify(all)->deleteChild(TextOfReplica(replica).c_str());
}

void SyncRecords::forgetDeletions() {
  std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
  for (const auto& [replica, partner] : partners()) {
    if (!partner.isReplaced) least = std::min(least, partner.acknowledgedFiltered);
  }
  std::vector<std::string> known;
  forEachDeletion([&](const std::string& name, const SyncRecord& record) {
    if (record.revision > least) return;
    known.push_back(name);
    bundle_.forgotten_ = std::max(bundle_.forgotten_, record.revision);
  });
  for (const std::string& name : known) removeFrom(SyncedBundle::kDeletions, name);
}

}  // namespace tarns
