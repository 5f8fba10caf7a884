// What folders keep of real directories, and what may be kept at all.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/vfs/TarnVFSInfo.h>

#include <cstdint>

namespace tarns {

// Throw 111 for permissions beyond 07777 and nanoseconds of a second or more.
void VerifyPermissions(std::uint32_t permissions);
void VerifyTime(TarnVFSTime time);

// Permissions and time of a folder: its child "vfsAttributes".
class TarnVFSAttributes : public TarnObject {
  TARN_CLASS(TarnVFSAttributes, TarnObject)

 public:
  ~TarnVFSAttributes() override;
  bool write(const char* name, GOODSinOut& out) override;

  std::uint32_t getPermissions() const { return permissions_; }
  void setPermissions(std::uint32_t permissions) { permissions_ = permissions; }
  TarnVFSTime getModified() const { return {modified_, modifiedNs_}; }
  void setModified(TarnVFSTime time) {
    modified_ = time.seconds;
    modifiedNs_ = time.nanoseconds;
  }

 private:
  std::int64_t modified_ = 0;
  std::uint32_t modifiedNs_ = 0;
  std::uint32_t permissions_ = TarnVFSInfo::kNoPermissions;
};

}  // namespace tarns
