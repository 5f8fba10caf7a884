#pragma once

#include <tarns/core/TarnValues.h>
#include <tarns/tarns_api.h>

#include <cstdint>

namespace tarns {

// That an object of a SyncedBundle has been deleted: a child of the bundle's child Deletions, under
// the object's name, for as long as a partner may not know of it. The value is the deletion's
// version as text (docs/sync.md). Made and removed by the bundle only.
class TARNS_API SyncedBundleDeletion : public TarnStringValue {
  TARN_CLASS(SyncedBundleDeletion, TarnStringValue)

 public:
  ~SyncedBundleDeletion() override;
  bool write(const char* name, GOODSinOut& out) override;

  // The bundle's revision that the deletion made.
  std::uint64_t getRevision() const { return revision_; }
  void setRevision(std::uint64_t revision) { revision_ = revision; }

 private:
  std::uint64_t revision_ = 0;  // stored as "Revision"
};

}  // namespace tarns
