#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Value.h"

namespace tarns::bench {

// Debian's package index in memory: what all peers store as packages~NAME~FIELD.
//
// Size and Installed-Size are integers, everything else text, byte for byte, with the line breaks
// and blanks of continued fields. Where a name comes a second time (a package, or a field within a
// package), the first one counts and the other is skipped, so that all peers hold the same tree.
// Threads: read only once made.
class PackageIndex {
 public:
  struct Package {
    std::string_view name;
    std::uint32_t firstField;
    std::uint32_t fieldCount;
  };

  // Throws std::runtime_error when the command fails or a name cannot be a branch of a path.
  static PackageIndex FromCommand(const char* command);
  static PackageIndex FromFile(const std::filesystem::path& file);

  PackageIndex(PackageIndex&&) = default;
  PackageIndex& operator=(PackageIndex&&) = default;

  // Keeps the first `count` packages only.
  void truncate(std::size_t count);

  std::span<const Package> packages() const { return packages_; }
  std::span<const Field> fields() const { return fields_; }  // of all packages, in order
  std::span<const Field> fieldsOf(const Package& package) const {
    return fields().subspan(package.firstField, package.fieldCount);
  }
  const Package& packageOf(std::size_t field) const { return packages_[owner_[field]]; }
  std::size_t duplicates() const { return duplicates_; }  // packages and fields that were skipped
  std::uint64_t valueBytes() const;

 private:
  explicit PackageIndex(std::vector<char> text);

  void parse();
  void addPackage(std::string_view stanza);
  void addField(std::string_view lines, std::size_t firstOfPackage);

  std::vector<char> text_;  // what all the views look at
  std::vector<Package> packages_;
  std::vector<Field> fields_;
  std::vector<std::uint32_t> owner_;  // the package of each field
  std::size_t duplicates_ = 0;
};

}  // namespace tarns::bench
