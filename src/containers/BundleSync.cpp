// What BundleSync exports, and its partners; importing is in sync_import.cpp.
#include <tarns/containers/BundleExportFilter.h>
#include <tarns/containers/BundleSync.h>
#include <tarns/core/TarnException.h>

#include <algorithm>
#include <iterator>

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

  // `partner`, when not null, is who it is for.
  std::string make(std::uint64_t since, const SyncPartner* partner) {
    if (since < records_.forgotten()) since = 0;
    since = std::min(since, records_.revision());
    since_ = since;
    partner_ = since == 0 || (partner != nullptr && partner->isPartial) ? nullptr : partner;
    records_.mark();
    writeHeader();
    addChanges();
    return file_.write();
  }

 private:
  void writeHeader() {
    file_.className = bundle_.getClassName().view();
    file_.from = records_.replica();
    file_.former = records_.former();
    file_.since = since_;
    file_.revision = records_.revision();
    file_.isPartial = filter_ != nullptr || records_.isPartial();
    file_.known = records_.known();
    file_.marks = records_.marks();
    for (const auto& [replica, partner] : records_.partners()) {
      file_.partners[replica] = {partner.received, partner.marks, partner.lacksExport};
    }
  }

  bool isWanted(const SyncRecord& record) const {
    if (record.revision <= since_ && since_ != 0) return false;
    return partner_ == nullptr || !record.version.isWithin(partner_->knows);
  }

  void addChanges() {
    records_.forEachObject([&](const std::string& name, const SyncRecord& record) {
      if (!isWanted(record)) return;
      TarnRef object = bundle_.getBundledChildWithName(name.c_str());
      if (object.is_null()) return;  // deleted by path since the scan: the next export has it
      if (filter_ != nullptr && !filter_->shouldExport(object)) return;
      file_.changes.push_back(
          {.name = name, .version = record.version, .object = std::move(object), .text = {}});
    });
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
  const SyncPartner* partner_ = nullptr;  // who need not get what it knows; null: nobody
  SyncFile file_;
};

}  // namespace

unsigned long BundleSync::noticeChanges() {
  return WithNoticedChanges(bundle_, [](SyncedBundle&, unsigned long noticed) { return noticed; });
}

std::string BundleSync::exportSince(std::uint64_t revision, BundleExportFilter* filter) {
  return WithNoticedChanges(bundle_, [&](SyncedBundle& bundle, unsigned long) {
    return Exporter(bundle, filter).make(revision, nullptr);
  });
}

std::string BundleSync::exportFor(std::string_view partner, BundleExportFilter* filter) {
  return WithNoticedChanges(bundle_, [&](SyncedBundle& bundle, unsigned long) {
    const SyncRecords records(bundle);
    const SyncPartner found = records.partners().at(PartnerCalled(records, partner));
    return Exporter(bundle, filter).make(found.acknowledged, &found);
  });
}

BundleImport BundleSync::import(std::string_view text) {
  const SyncFile file = SyncFile::Read(text);
  return WithNoticedChanges(
      bundle_, [&](SyncedBundle& bundle, unsigned long) { return SyncImport(bundle, file).run(); });
}

std::vector<BundlePartner> BundleSync::partners() const {
  // Only reads.
  auto& bundle = const_cast<SyncedBundle&>(*bundle_.read());
  std::vector<BundlePartner> all;
  for (const auto& [replica, partner] : SyncRecords(bundle).partners()) {
    if (partner.isReplaced) continue;
    all.push_back(
        {TextOfReplica(replica), partner.received, partner.acknowledged, partner.lacksExport});
  }
  return all;
}

void BundleSync::addPartner(std::string_view replica) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  const auto id = ReplicaFrom(replica);
  if (!id || *id == records.replica()) {
    TarnException error;
    error << "\"" << replica << "\" cannot be a partner of the bundle.";
    throw error;
  }
  if (!records.partners().contains(*id)) records.putPartner(*id, {.marks = {}, .knows = {}});
}

void BundleSync::acknowledge(std::string_view partner, std::uint64_t revision) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  const ReplicaID id = PartnerCalled(records, partner);
  if (revision > records.revision()) {
    TarnException error;
    error << "The bundle has not come to revision " << revision << " yet.";
    throw error;
  }
  SyncPartner found = records.partners().at(id);
  if (found.acknowledged >= revision) return;
  found.acknowledged = revision;
  records.putPartner(id, found);
  records.forgetDeletions();
}

bool BundleSync::dropPartner(std::string_view partner) {
  const auto bundle = modify(bundle_);
  SyncRecords records(*bundle);
  const auto id = ReplicaFrom(partner);
  if (!id || !records.removePartner(*id)) return false;
  records.forgetDeletions();
  return true;
}

}  // namespace tarns
