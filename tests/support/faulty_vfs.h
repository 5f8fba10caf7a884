// A failing disk under SQLite and under the files that storages write by themselves.
#pragma once

#include <cstdint>
#include <string>

#include "support/disk_trace.h"

// While one exists, it is SQLite's default file layer and goods::storage_disk::instance(): it
// passes everything on to the usual one until the chosen operation, and then fails or ends the
// process. Only one at a time.
//
// It can also write down everything that changes the disk, in the order in which it is done, so
// that power_loss can tell what the machine would have found after losing its power at any moment.
// Syncing does nothing but count and be written down: it is quick.
// Threads: any, once it exists. Files that are open must be closed before it is destroyed.
class faulty_vfs {
 public:
  enum class operation : std::uint8_t {
    open,
    read,  // also of a file's size
    write,
    sync,  // of a file or a directory
    truncate,
    name,  // making, removing and renaming files and directories
    lock,  // and memory that is shared with other connections
  };
  enum class fault : std::uint8_t {
    io_error,   // the operation fails and has no effect
    full,       // the disk is full
    torn,       // writes half, then fails
    lost_sync,  // a write is done and then said to have failed
    kill,       // the process ends on the spot, before the operation
  };

  struct plan {
    unsigned operations = 0;  // bits of the operations that count: 1 << operation
    std::uint64_t after = 0;  // how many of them succeed
    fault what = fault::io_error;
    bool for_good = false;  // fails from then on, or once
  };

  static constexpr unsigned bit(operation o) { return 1U << static_cast<unsigned>(o); }
  // But locking, which leaves nothing.
  static constexpr unsigned all_operations = 0x3f;

  faulty_vfs();
  ~faulty_vfs();
  faulty_vfs(const faulty_vfs&) = delete;
  faulty_vfs& operator=(const faulty_vfs&) = delete;

  // Counting begins anew.
  void arm(const plan& next);
  void disarm();
  // Whether the fault has come.
  bool has_failed() const;
  // Operations that counted since arm().
  std::uint64_t count() const;

  // Begins to write down what is done in a directory, which must exist, after what it has. No file
  // in it may be open.
  void record(const std::string& directory);
  // Adds a note of the test's own.
  void note(std::uint64_t what);
  disk_trace stop_recording();
};
