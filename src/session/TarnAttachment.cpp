#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

namespace tarns {

TarnAttachment::TarnAttachment(TarnManager& manager) : former_(goods::cache_manager::current()) {
  manager.verifyIsInitialized();
  TarnCacheManager& session = manager.db().getCacheManager();
  session.verifyMayAttach();
  session_ = &session;
  if (former_ != session_) manager.attach();
}

TarnAttachment::~TarnAttachment() {
  if (former_ == session_ || goods::cache_manager::current() != session_) return;
  goods::cache_manager::detach();
  if (former_ != nullptr) former_->attach();
}

}  // namespace tarns
