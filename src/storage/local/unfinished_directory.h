// A directory that gets its name when everything in it is there.
#pragma once

#include <string>

namespace goods {

// Made as NAME.unfinished (0700) beside its own name. Until it is finished it holds the empty file
// "unfinished-copy", which is locked by whoever is at work; the kernel lets go of that when the
// process ends in whatever way. So the next one that is to be made under the same name knows what a
// crash has left, and removes it.
//
// What is removed are files by their known names only: a configuration file and those of stores in
// directories beneath. Anything else stays, and is an error.
// Threads: one.
class unfinished_directory {
 public:
  // `directory` must not be there, its parent must. Throws usage when there is something of that
  // name, or something other than a leftover where it would be put together; database_in_use when
  // another process or thread is making it; input_output.
  explicit unfinished_directory(const std::string& directory);
  // Removes all of it unless it is finished. What cannot be removed is a leftover.
  ~unfinished_directory();
  unfinished_directory(const unfinished_directory&) = delete;
  unfinished_directory& operator=(const unfinished_directory&) = delete;

  // Where to put it together: what lies directly in here must be synced by whoever makes it.
  const std::string& path() const { return path_; }

  // Gives it its name, durably. When this throws after that, the directory is there and whole, and
  // only a loss of power may take it away again.
  void finish();

 private:
  void make();
  void empty();
  void end() noexcept;

  const std::string directory_, path_, mark_;
  int lock_ = -1;
  bool finished_ = false;
};

// The name of the configuration file in a copied database.
inline constexpr const char* copied_configuration = "tarns.conf";

}  // namespace goods
