// Connections that readers share, each holding the store's state as of one version.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <goods/dbs_storage.h>

#include "storage/guarded_mutex.h"
#include "storage/local/store_reader.h"

namespace goods {

// How connections to a store are opened.
struct connection_settings {
  std::string file;
  std::string store;  // name for messages
  bool mapped = true;
};

// Opens and sets one up for reading or writing.
std::unique_ptr<sqlite_connection> connect(const connection_settings& settings);

// One connection and the read transaction that it keeps open.
// Threads: one at a time.
class snapshot {
 public:
  explicit snapshot(const connection_settings& settings);

  // Of what the open read transaction sees; 0 when there is none.
  const store_state& state() const { return state_; }
  bool is_open() const { return open_; }
  store_reader& reader() { return reader_; }
  sqlite_connection& connection() { return *connection_; }

  // Begins anew, at the newest version there is.
  void refresh();
  void end() noexcept;

 private:
  std::unique_ptr<sqlite_connection> connection_;
  store_reader reader_;
  sqlite_statement begin_;
  sqlite_statement commit_;
  store_state state_;
  bool open_ = false;
};

// Snapshots made when needed, at most `most`; further readers wait for one to be returned.
//
// Idle snapshots stay open for the next reader: beginning one costs more than reading a segment. A
// log that is to start over needs them ended: end_idle().
// Threads: any.
class snapshot_pool {
 public:
  static constexpr std::size_t most = 8;

  explicit snapshot_pool(connection_settings settings) : settings_(std::move(settings)) {
    guarded_scope scope(lock_);
    idle_.reserve(most);  // giving one back must not fail
  }

  // A snapshot for a scope.
  class lease {
   public:
    lease(snapshot_pool& pool, std::unique_ptr<snapshot> taken)
        : pool_(pool), taken_(std::move(taken)) {}
    ~lease() {
      if (taken_) pool_.give_back(std::move(taken_));
    }
    lease(lease&&) = default;
    lease(const lease&) = delete;
    lease& operator=(const lease&) = delete;
    snapshot* operator->() const { return taken_.get(); }

   private:
    snapshot_pool& pool_;
    std::unique_ptr<snapshot> taken_;
  };

  // One of version `at_least` or newer.
  lease take(commit_version at_least);

  void end_idle();

 private:
  std::unique_ptr<snapshot> take_any();
  void give_back(std::unique_ptr<snapshot> returned) noexcept;

  const connection_settings settings_;
  guarded_mutex lock_;
  std::condition_variable_any returned_;
  std::vector<std::unique_ptr<snapshot>> idle_ GUARDED_BY(lock_);  // last used last
  std::size_t made_ GUARDED_BY(lock_) = 0;
};

}  // namespace goods
