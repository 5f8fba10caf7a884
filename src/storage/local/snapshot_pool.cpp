#include "storage/local/snapshot_pool.h"

#include <sqlite3.h>

namespace goods {

std::unique_ptr<sqlite_connection> connect(const connection_settings& settings) {
  auto connection =
      std::make_unique<sqlite_connection>(settings.file, sqlite_connection::access::read_write);
  // Log pages are written back by the checkpointer only. Freed pages need not be overwritten with
  // zeros, which is what Debian's SQLite does unless told otherwise.
  connection->execute(
      "PRAGMA wal_autocheckpoint=0; PRAGMA secure_delete=OFF; PRAGMA temp_store=MEMORY");
  connection->execute(settings.mapped ? "PRAGMA mmap_size=2147418112" : "PRAGMA mmap_size=0");
  return connection;
}

snapshot::snapshot(const connection_settings& settings)
    : connection_(connect(settings)),
      reader_(*connection_, settings.store),
      begin_(*connection_, "BEGIN"),
      commit_(*connection_, "COMMIT") {}

void snapshot::refresh() {
  end();
  if (::sqlite3_get_autocommit(connection_->handle()) == 0) connection_->execute("ROLLBACK");
  begin_.run();
  open_ = true;
  try {
    state_ = reader_.state();
  } catch (...) {
    end();
    throw;
  }
}

void snapshot::end() noexcept {
  if (!open_) return;
  open_ = false;
  state_ = {};
  // Cannot fail: a read transaction has nothing to write. If it does, the next begin tells.
  try {
    commit_.run();
  } catch (...) {  // NOLINT(bugprone-empty-catch)
    connection_->try_execute("ROLLBACK");
  }
}

snapshot_pool::lease snapshot_pool::take(commit_version at_least) {
  lease taken(*this, take_any());
  if (!taken->is_open() || taken->state().version < at_least) taken->refresh();
  return taken;
}

std::unique_ptr<snapshot> snapshot_pool::take_any() {
  {
    guarded_scope scope(lock_);
    while (idle_.empty() && made_ == most) returned_.wait(lock_);
    if (!idle_.empty()) {
      auto taken = std::move(idle_.back());
      idle_.pop_back();
      return taken;
    }
    ++made_;
  }
  try {
    return std::make_unique<snapshot>(settings_);
  } catch (...) {
    guarded_scope scope(lock_);
    --made_;
    returned_.notify_one();
    throw;
  }
}

void snapshot_pool::give_back(std::unique_ptr<snapshot> returned) noexcept {
  guarded_scope scope(lock_);
  idle_.push_back(std::move(returned));
  returned_.notify_one();
}

void snapshot_pool::end_idle() {
  guarded_scope scope(lock_);
  for (auto& idle : idle_) idle->end();
}

}  // namespace goods
