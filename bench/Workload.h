#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "PackageIndex.h"

namespace tarns::bench {

// The branch below which the packages lie.
inline constexpr const char* kPackages = "packages";

// Paths in the order in which they are asked for, laid out in that order, so that no peer pays for
// fetching them from all over memory. Each is followed by a NUL.
class PathList {
 public:
  void add(std::string_view path);
  std::size_t size() const { return ends_.size(); }
  std::string_view operator[](std::size_t i) const {
    const std::size_t from = i == 0 ? 0 : ends_[i - 1];
    return {text_.data() + from, ends_[i] - from - 1};
  }

  // As a file for another process: each path with its NUL.
  void save(const std::filesystem::path& file) const;
  static PathList Load(const std::filesystem::path& file);

 private:
  std::string text_;
  std::vector<std::size_t> ends_;  // behind each path's NUL
};

// Paths to read and the sum of the digests of what they lead to.
struct Reads {
  PathList paths;
  std::uint64_t digests = 0;
};

// A change of a value.
struct Update {
  std::size_t field;
  std::string path;
  std::string text;
};

// What the stores hold at a time: the index, with what the benchmark changed in it. Each change is
// made here once, after all peers have made it.
class Workload {
 public:
  explicit Workload(const PackageIndex& index);

  const PackageIndex& index() const { return index_; }
  std::string pathOf(std::size_t field) const;
  std::string pathOf(const PackageIndex::Package& package) const;

  // A text of a package; empty when it has none, or has been erased.
  std::string textOf(std::size_t package, std::string_view field) const;

  // `count` reads of random values, the same ones for the same seed. Erased ones are not asked for.
  Reads randomReads(std::size_t count, std::uint64_t seed) const;
  // Every value once, in the order of the index.
  Reads allReads() const;
  // `count` new texts for random values, no value twice; at most every other value.
  std::vector<Update> randomUpdates(std::size_t count, std::uint64_t seed) const;
  // `count` different packages that are still there, at most a third of them.
  std::vector<std::size_t> randomPackages(std::size_t count, std::uint64_t seed) const;

  void apply(const std::vector<Update>& updates);
  void applyErase(const std::vector<std::size_t>& packages);
  bool isErased(std::size_t package) const { return erased_[package]; }

  // What a walk over the whole tree must add up to.
  std::uint64_t walkSum() const;
  std::uint64_t values() const;  // how many it meets

 private:
  Value valueOf(std::size_t field) const;
  bool isFieldErased(std::size_t field) const;

  const PackageIndex& index_;
  std::vector<std::string> changed_;  // new texts, by field; empty: as in the index
  std::vector<char> erased_;          // by package
};

// A number below `bound`, evenly enough; the same sequence everywhere.
std::size_t RandomBelow(std::mt19937_64& random, std::size_t bound);

}  // namespace tarns::bench
