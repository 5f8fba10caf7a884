// What a SyncedBundle keeps of an object that is there.
#pragma once

#include <tarns/core/TarnValues.h>

#include <array>
#include <cstdint>

namespace tarns {

// A digest of an object's text form; all zeros: not taken yet.
using SyncDigest = std::array<std::uint64_t, 2>;

// A child of the bundle's child Revisions, under the object's name. The value is the version of the
// object as text.
class SyncedBundleRevision : public TarnStringValue {
  TARN_CLASS(SyncedBundleRevision, TarnStringValue)

 public:
  ~SyncedBundleRevision() override;
  bool write(const char* name, GOODSinOut& out) override;

  // The bundle's revision in which the object came to be as it is.
  std::uint64_t getRevision() const { return revision_; }
  void setRevision(std::uint64_t revision) { revision_ = revision; }
  // Of the object as it was then.
  const SyncDigest& getDigest() const { return digest_; }
  void setDigest(const SyncDigest& digest) { digest_ = digest; }

 private:
  std::uint64_t revision_ = 0;  // stored as "Revision"
  SyncDigest digest_{};         // stored as "Digest"
};

}  // namespace tarns
