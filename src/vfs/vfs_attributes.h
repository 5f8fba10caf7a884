// What folders keep of real directories, and what may be kept at all.
#pragma once

#include <tarns/core/TarnObject.h>
#include <tarns/vfs/TarnVFSInfo.h>

#include <cstdint>

namespace tarns {

// Throw 111 for permissions beyond 07777 and nanoseconds of a second or more.
void VerifyPermissions(std::uint32_t permissions);
void VerifyTime(TarnVFSTime time);

// Times are stored as seconds and nanoseconds and whether they were told. Items that were stored
// before there was the latter have zeros for what was never told, and for 1970-01-01 00:00:00.
inline TarnVFSTime TimeToStore(TarnVFSTime time) {
  return time == TarnVFSInfo::kNoTime ? TarnVFSTime{} : time;
}
inline TarnVFSTime TimeFromStored(TarnVFSTime stored, bool isTold) {
  return isTold || stored != TarnVFSTime{} ? stored : TarnVFSInfo::kNoTime;
}

// Permissions and time of a folder: its child "vfsAttributes".
class TarnVFSAttributes : public TarnObject {
  TARN_CLASS(TarnVFSAttributes, TarnObject)

 public:
  ~TarnVFSAttributes() override;
  bool write(const char* name, GOODSinOut& out) override;

  std::uint32_t getPermissions() const { return permissions_; }
  void setPermissions(std::uint32_t permissions) { permissions_ = permissions; }
  TarnVFSTime getModified() const { return TimeFromStored({modified_, modifiedNs_}, isTold_); }
  void setModified(TarnVFSTime time) {
    const TarnVFSTime stored = TimeToStore(time);
    modified_ = stored.seconds;
    modifiedNs_ = stored.nanoseconds;
    isTold_ = time != TarnVFSInfo::kNoTime;
  }

 private:
  std::int64_t modified_ = 0;
  std::uint32_t modifiedNs_ = 0;
  bool isTold_ = false;  // the time
  std::uint32_t permissions_ = TarnVFSInfo::kNoPermissions;
};

}  // namespace tarns
