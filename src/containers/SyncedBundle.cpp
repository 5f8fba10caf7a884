#include <tarns/containers/SyncedBundle.h>
#include <tarns/containers/SyncedBundleDeletion.h>
#include <tarns/core/TarnException.h>
#include <tarns/schema/GOODSinOut.h>
#include <tarns/schema/TarnClassRegistration.h>

#include "containers/sync_records.h"

namespace tarns {

TARN_REGISTER(SyncedBundle, TarnBundle);

namespace {

[[noreturn]] void ThrowNameTaken(const SyncedBundle& bundle, const char* name) {
  TarnException error;
  error << "The bundle \"" << bundle.getName() << "\" has an object \"" << name
        << "\" already; one that is synchronised has one object of each name.";
  throw error;
}

// The record of that name in a list of the bundle's, or null.
TarnRef RecordIn(const SyncedBundle& bundle, const char* list, const char* name) {
  const TarnRef all = bundle.getChildWithName(list);
  return all.is_null() ? TarnRef() : all->getChildWithName(ViewOf(name));
}

}  // namespace

SyncedBundle::SyncedBundle(const char* className) : TarnBundle(className, SelfClass()) {}

SyncedBundle::~SyncedBundle() = default;

bool SyncedBundle::write(const char* name, GOODSinOut& out) {
  TarnBundle::write(name, out);
  out.write("Replica", replica_);
  out.write("Revision", revision_);
  out.write("Forgotten", forgotten_);
  out.write("Home", home_);
  out.write("Former", former_);
  out.write("Ended", ended_);
  out.write("Marks", marks_);
  return out.write("Known", known_);
}

xcptref<TarnObject> SyncedBundle::newChild(const char* name) {
  if (!getBundledChildWithName(name).is_null()) ThrowNameTaken(*this, name);
  xcptref<TarnObject> child = TarnBundle::newChild(name);
  SyncRecords(*this).noteChange(ViewOf(name), {});
  return child;
}

bool SyncedBundle::deleteBundledChild(const char* name) {
  if (!TarnBundle::deleteBundledChild(name)) return false;
  SyncRecords(*this).noteDeletion(ViewOf(name));
  return true;
}

bool SyncedBundle::renameBundledChild(const char* oldName, const char* newName) {
  if (ViewOf(oldName) == ViewOf(newName)) return TarnBundle::renameBundledChild(oldName, newName);
  if (!getBundledChildWithName(newName).is_null()) ThrowNameTaken(*this, newName);
  if (!TarnBundle::renameBundledChild(oldName, newName)) return false;
  SyncRecords records(*this);
  records.noteDeletion(ViewOf(oldName));
  records.noteChange(ViewOf(newName), {});
  return true;
}

bool SyncedBundle::markChanged(const char* name) {
  SyncRecords records(*this);
  const TarnRef child = records.objectCalled(ViewOf(name));
  if (child.is_null()) return false;
  records.noteChange(ViewOf(name), records.digestOf(ViewOf(name), child));
  return true;
}

std::uint64_t SyncedBundle::getRevisionOf(const char* name) const {
  if (const TarnRef kept = RecordIn(*this, kRevisions, name); !kept.is_null()) {
    return xcptref<SyncedBundleRevision>(kept)->getRevision();
  }
  const TarnRef kept = RecordIn(*this, kDeletions, name);
  return kept.is_null() ? 0 : xcptref<SyncedBundleDeletion>(kept)->getRevision();
}

bool SyncedBundle::isDeletionRemembered(const char* name) const {
  return !RecordIn(*this, kDeletions, name).is_null();
}

unsigned long SyncedBundle::getNumDeletions() const {
  const TarnRef all = getChildWithName(kDeletions);
  return all.is_null() ? 0 : all->getNumAbstractChildren();
}

std::string SyncedBundle::getReplica() const {
  return replica_ == 0 ? std::string() : TextOfReplica(replica_);
}

}  // namespace tarns
