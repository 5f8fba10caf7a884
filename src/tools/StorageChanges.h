// Noticing that other programs have used a database.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace tarns {

// The directories of a database's storages, watched for changes of their files.
//
// Whoever has the database open calls noteHeld(): nobody else changes the files then, so that what
// is found to be different later was changed by somebody after that. That the one who has noted it
// closes the database, which takes files away, is no difference.
// Errors: std::system_error. Threads: one.
class StorageChanges {
 public:
  // Those that the configuration file names; what is missing is left out.
  explicit StorageChanges(const std::string& configuration);
  ~StorageChanges();
  StorageChanges(const StorageChanges&) = delete;
  StorageChanges& operator=(const StorageChanges&) = delete;

  void noteHeld();
  // Whether files have come or changed since.
  bool areThere() const;

  // Returns when something happens to the files, or after `limit` (none: never); whether something
  // did. Throws Interrupted.
  bool wait(std::optional<std::chrono::milliseconds> limit);

 private:
  using Stamp = std::tuple<std::uint64_t, std::uint64_t, std::int64_t, std::int64_t>;
  using Stamps = std::map<std::string, Stamp>;
  Stamps look() const;
  void close() noexcept;

  const std::vector<std::string> directories_;
  int notices_ = -1, timer_ = -1, either_ = -1;
  Stamps held_;
};

}  // namespace tarns
