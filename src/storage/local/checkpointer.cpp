#include "storage/local/checkpointer.h"

#include <sqlite3.h>

namespace goods {
namespace {

// Reads that find their page in the log cost more than those from the file, and opening after a
// crash reads the whole log; but pages that are written often should not be written back each time.
constexpr int usual_threshold = 4096;  // pages

// How long commits may be kept waiting for readers of the old log.
constexpr int reader_wait_milliseconds = 20;

}  // namespace

checkpointer::checkpointer(connection_settings settings, writer_turn& turn, snapshot_pool& readers)
    : settings_(std::move(settings)),
      turn_(turn),
      readers_(readers),
      threshold_(usual_threshold),
      thread_([this] { run(); }) {}

checkpointer::~checkpointer() {
  {
    guarded_scope scope(lock_);
    stopping_ = true;
    wake_.notify_one();
  }
  thread_.join();
}

void checkpointer::request() {
  guarded_scope scope(lock_);
  if (requested_) return;
  requested_ = true;
  wake_.notify_one();
}

void checkpointer::run() {
  std::unique_ptr<sqlite_connection> connection;
  for (;;) {
    {
      guarded_scope scope(lock_);
      while (!requested_ && !stopping_) wake_.wait(lock_);
      if (stopping_) return;
    }
    try {
      if (!connection) {
        connection = connect(settings_);
        // A connection that has read nothing does not know that there is a log.
        connection->integer("PRAGMA schema_version");
      }
      checkpoint(*connection);
    } catch (...) {  // NOLINT(bugprone-empty-catch): see the class comment
    }
    guarded_scope scope(lock_);
    requested_ = false;
  }
}

void checkpointer::checkpoint(sqlite_connection& connection) {
  int log_pages = 0, written_back = 0;
  ::sqlite3_wal_checkpoint_v2(connection.handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &log_pages,
                              &written_back);
  writer_turn::hold turn(turn_);
  readers_.end_idle();
  ::sqlite3_busy_timeout(connection.handle(), reader_wait_milliseconds);
  const int result = ::sqlite3_wal_checkpoint_v2(
      connection.handle(), nullptr, SQLITE_CHECKPOINT_RESTART, &log_pages, &written_back);
  // With a reader in the way, the log goes on growing: try again when it has done so by as much.
  threshold_ = result == SQLITE_OK ? usual_threshold : std::max(log_pages, 0) + usual_threshold;
}

}  // namespace goods
