// What was done to a disk, and what a loss of power leaves of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

// One thing that was done, in the order in which it was. Files have numbers, so that one that is
// removed and made again is another one; `file` is 0 where it is about names only.
struct disk_event {
  enum class kind : std::uint8_t {
    make_directory,  // path
    create,          // path, file
    remove,          // path
    rename,          // path, to
    write,           // file, at, bytes
    truncate,        // file, at: its new size
    sync,            // file, path: its name when it was opened
    failed_sync,     // likewise
    sync_directory,  // path
    note             // at: whatever the test says
  };
  kind what;
  std::string path, to;
  std::uint64_t file = 0, at = 0;
  std::vector<std::byte> bytes;
};

struct disk_trace {
  std::string root;  // a directory that is there for good
  std::vector<disk_event> events;
  std::size_t begin = 0;  // those before put there what there was at the beginning
};

// Files by name; a directory has a name that ends with '/'.
using disk_image = std::map<std::string, std::vector<std::byte>>;

// Puts the files into `directory`, in place of what it has.
void write_image(const disk_image& image, const std::string& root,
                 const std::filesystem::path& directory);

// A disk that loses its power.
//
// What is known to survive: what was written to a file before it was synced, and names that were
// given and taken before their directory was synced. Of the rest, each write, truncation and change
// of a name may be there or not, whichever came first; a write may also be there in some of its
// sectors of 512 bytes only. Every file and directory has its own luck. A sync that fails drops
// some of the writes before it for good: the next one that succeeds tells nothing of them.
class power_loss {
 public:
  // `counts`: whether a sync has any effect; null: it has. For a disk that lies.
  using sync_filter = std::function<bool(const disk_event&)>;
  explicit power_loss(std::string root, sync_filter counts = {})
      : root_(std::move(root)), counts_(std::move(counts)) {}

  // The next thing that is done. The event must stay.
  void apply(const disk_event& event, std::minstd_rand& random);

  // What is found when the power is lost now.
  disk_image image(std::minstd_rand& random) const;

 private:
  struct held_file {
    std::vector<std::byte> durable;
    std::vector<const disk_event*> pending;  // writes and truncations
  };
  using entries = std::map<std::string, std::uint64_t>;  // files by name; 0: a directory

  static void change_names(const disk_event& event, entries& names);
  void sync_names(const std::string& directory);

  const std::string root_;
  const sync_filter counts_;
  std::map<std::uint64_t, held_file> files_;
  entries durable_names_;
  std::vector<const disk_event*> pending_names_;
};

// Makes so many images, spread evenly over the whole trace, and calls `look` with each; and `noted`
// with each note before what comes after it.
void for_each_loss(const disk_trace& trace, unsigned images, std::minstd_rand& random,
                   const power_loss::sync_filter& counts,
                   const std::function<void(std::uint64_t)>& noted,
                   const std::function<void(const disk_image&)>& look);

// How many images the workloads of the embedded store make together: the environment variable
// TARNS_POWER_LOSS_IMAGES, or 5,000; fewer where a sanitizer makes them slow.
unsigned power_loss_images();
