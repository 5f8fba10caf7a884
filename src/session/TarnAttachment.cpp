#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

namespace tarns {

TarnAttachment::TarnAttachment(TarnManager& manager) {
  manager.verifyIsInitialized();
  isOwner_ = goods::cache_manager::current() != &manager.db().getCacheManager();
  if (isOwner_) manager.attach();
}

TarnAttachment::~TarnAttachment() {
  if (isOwner_) goods::cache_manager::detach();
}

}  // namespace tarns
