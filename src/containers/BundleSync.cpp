// What BundleSync exports, and its partners; importing is in sync_import.cpp.
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/BundleSync.h>
#include <tarns/core/TarnException.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "containers/sync_file.h"
#include "containers/sync_import.h"
#include "containers/sync_records.h"
#include "containers/sync_scan.h"

namespace tarns {

namespace {

[[noreturn]] void ThrowNoPartner(std::string_view partner) {
  TarnException error;
  error << "\"" << partner << "\" is no partner of the bundle.";
  throw error;
}

ReplicaID PartnerCalled(const SyncRecords& records, std::string_view text) {
  const auto replica = ReplicaFrom(text);
  if (!replica || !records.partners().contains(*replica)) ThrowNoPartner(text);
  return *replica;
}

// Puts one export together.
class Exporter {
 public:
  Exporter(SyncedBundle& bundle, BundleExportFilter* filter)
      : bundle_(bundle), records_(bundle), filter_(filter) {}

  // For a partner, or for whoever has everything up to `since`.
  std::string makeFor(ReplicaID id, const SyncPartner& partner) {
    addressee_ = id;
    partner_ = &partner;
    return make(filter_ == nullptr ? partner.acknowledged : partner.acknowledgedFiltered);
  }
  std::string make(std::uint64_t since) {
    if (since < records_.forgotten()) since = 0;
    since_ = std::min(since, records_.revision());
    if (since_ == 0) partner_ = nullptr;
    const std::vector<std::string> names = wantedObjects();
    // They may have changed since they were compared without locks: what is written under a version
    // is what that version stands for.
    for (const std::string& name : names) records_.notice(name);
    records_.mark();
    writeHeader();
    addObjects(names);
    addDeletions();
    return file_.write();
  }

 private:
  void writeHeader() {
    file_.className = bundle_.getClassName().view();
    file_.from = records_.replica();
    if (partner_ != nullptr) file_.addressee = addressee_;
    file_.ended = records_.ended();
    file_.former = records_.former();
    file_.since = since_;
    file_.revision = records_.revision();
    // Up to `since_` filters may have kept something back, too.
    if (filter_ != nullptr && since_ != 0) file_.isPartial = true;
    file_.known = records_.known();
    file_.marks = records_.heard();
    for (const auto& [replica, partner] : records_.partners()) {
      file_.marks[replica];
      file_.partners[replica] = {partner.received, partner.receivedFiltered, partner.lacksExport};
    }
    file_.marks[file_.from] = records_.marks();
  }

  bool isWanted(const SyncRecord& record) const {
    if (record.revision <= since_ && since_ != 0) return false;
    return partner_ == nullptr || !record.version.isWithin(partner_->knows);
  }

  // Their names, in order; without those that the filter keeps back.
  std::vector<std::string> wantedObjects() {
    std::vector<std::string> names;
    records_.forEachObject([&](const std::string& name, const SyncRecord& record) {
      if (!isWanted(record)) return;
      const TarnRef object = bundle_.getBundledChildWithName(name.c_str());
      if (object.is_null()) return;  // deleted by path since the scan: the next export has it
      if (filter_ == nullptr || filter_->shouldExport(object)) {
        names.push_back(name);
      } else {
        file_.isPartial = true;
      }
    });
    return names;
  }

  void addObjects(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      file_.changes.push_back({.name = name,
                               .version = records_.find(name)->version,
                               .object = bundle_.getBundledChildWithName(name.c_str()),
                               .text = {}});
    }
  }

  void addDeletions() {
    records_.forEachDeletion([&](const std::string& name, const SyncRecord& record) {
      if (!isWanted(record)) return;
      file_.changes.push_back(
          {.name = name, .version = record.version, .isDeleted = true, .object = {}, .text = {}});
    });
    std::sort(
        file_.changes.begin(), file_.changes.end(),
        [](const SyncChange& left, const SyncChange& right) { return left.name < right.name; });
  }

  SyncedBundle& bundle_;
  SyncRecords records_;
  BundleExportFilter* const filter_;
  std::uint64_t since_ = 0;
  ReplicaID addressee_ = 0;
  const SyncPartner* partner_ = nullptr;  // who need not get what it knows; null: nobody
  SyncFile file_;
};

}  // namespace

unsigned long BundleSync::noticeChanges() {
  return WithNoticedChanges(bundle_, [](SyncedBundle&, unsigned long noticed) { return noticed; });
}

std::string BundleSync::exportSince(std::uint64_t revision, BundleExportFilter* filter) {
  return WithNoticedChanges(bundle_, [&](SyncedBundle& bundle, unsigned long) {
    return Exporter(bundle, filter).make(revision);
  });
}

std::string BundleSync::exportFor(std::string_view partner, BundleExportFilter* filter) {
  return WithNoticedChanges(bundle_, [&](SyncedBundle& bundle, unsigned long) {
    const SyncRecords records(bundle);
    const ReplicaID id = PartnerCalled(records, partner);
    const SyncPartner found = records.partners().at(id);
    return Exporter(bundle, filter).makeFor(id, found);
  });
}

BundleImport BundleSync::import(std::string_view text) {
  std::optional<SyncFile> read = SyncFile::Read(text);
  return WithNoticedChanges(bundle_, [&](SyncedBundle& bundle, unsigned long) {
    // An attempt changes it; one that is repeated after a deadlock begins with what was sent.
    SyncFile file = read ? std::move(*read) : SyncFile::Read(text);
    read.reset();
    return SyncImport(bundle, file).run();
  });
}

std::vector<BundlePartner> BundleSync::partners() const {
  // Only reads.
  auto& bundle = const_cast<SyncedBundle&>(*bundle_.read());
  std::vector<BundlePartner> all;
  const SyncRecords records(bundle);
  for (const auto& [replica, partner] : records.partners()) {
    if (records.isGone(replica, partner)) continue;
    all.push_back({TextOfReplica(replica), partner.received, partner.acknowledged,
                   partner.lacksExport, partner.isReplaced});
  }
  return all;
}

void BundleSync::addPartner(std::string_view replica) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  records.settleReplica();
  const auto id = ReplicaFrom(replica);
  if (!id || *id == records.replica() || records.ended().contains(*id)) {
    TarnException error;
    error << "\"" << replica << "\" cannot be a partner of the bundle.";
    throw error;
  }
  const auto all = records.partners();
  const auto found = all.find(*id);
  if (found != all.end() && !found->second.isReplaced) return;
  SyncPartner partner = found == all.end() ? SyncPartner() : found->second;
  partner.isReplaced = false;
  records.putPartner(*id, partner);
}

void BundleSync::acknowledge(std::string_view partner, std::uint64_t revision) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  records.settleReplica();
  const ReplicaID id = PartnerCalled(records, partner);
  if (revision > records.revision()) {
    TarnException error;
    error << "The bundle has not come to revision " << revision << " yet.";
    throw error;
  }
  SyncPartner found = records.partners().at(id);
  if (found.acknowledged >= revision) return;
  found.acknowledged = revision;
  found.acknowledgedFiltered = std::max(found.acknowledgedFiltered, revision);
  records.putPartner(id, found);
  records.forgetDeletions();
}

bool BundleSync::dropPartner(std::string_view partner) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  records.settleReplica();
  const auto id = ReplicaFrom(partner);
  if (!id || !records.removePartner(*id)) return false;
  records.forgetDeletions();
  return true;
}

}  // namespace tarns
