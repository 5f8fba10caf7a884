#include <tarns/schema/TarnClassRegistration.h>
#include <tarns/vfs/TarnVFSItem.h>

#include <time.h>

namespace tarns {

TARN_REGISTER_WITH(TarnVFSItem, TarnObject, .mayBeGuest = true);

TarnVFSItem::~TarnVFSItem() = default;

TarnVFSTime TarnVFSTime::Now() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<std::uint32_t>(now.tv_nsec)};
}

XString TarnVFSItem::getItemName() const {
  XString name = getXString(kItemName, "");
  return name.isEmpty() ? getName() : name;
}

void TarnVFSItem::setItemName(const char* name) { setValue(kItemName, TarnData(name)); }

XString TarnVFSItem::getOriginalPath() const { return getXString(kOriginalPath, ""); }

void TarnVFSItem::setOriginalPath(const char* path) { setValue(kOriginalPath, TarnData(path)); }

std::uint32_t TarnVFSItem::getRefCount() const { return getUint32(kRefCount, hasParent() ? 1 : 0); }

void TarnVFSItem::setRefCount(std::uint32_t count) { setValue(kRefCount, TarnData(count)); }

TarnVFSInfo TarnVFSItem::getInfo() const {
  TarnVFSInfo info;
  info.references = getRefCount();
  return info;
}

}  // namespace tarns
