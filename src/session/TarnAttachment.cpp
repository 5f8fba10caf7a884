#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

namespace tarns {

TarnAttachment::TarnAttachment(TarnManager& manager) {
  manager.verifyIsInitialized();
  TarnCacheManager& session = manager.db().getCacheManager();
  session.verifyMayAttach();
  goods::cache_manager* const former = goods::cache_manager::current();
  session_ = &session;
  isOwn_ = former != session_;
  if (!isOwn_) return;
  if (former != nullptr) former_ = former->ticket();
  manager.attach();
}

TarnAttachment::~TarnAttachment() {
  if (!isOwn_ || goods::cache_manager::current() != session_) return;
  goods::cache_manager::detach();
  if (const auto former = former_.lock()) former->attach();
}

}  // namespace tarns
