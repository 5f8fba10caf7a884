#include "Workload.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unordered_set>

namespace tarns::bench {

std::size_t RandomBelow(std::mt19937_64& random, std::size_t bound) {
  return static_cast<std::size_t>(random() % bound);
}

void PathList::add(std::string_view path) {
  text_.append(path).push_back('\0');
  ends_.push_back(text_.size());
}

void PathList::save(const std::filesystem::path& file) const {
  std::ofstream out(file, std::ios::binary);
  out.write(text_.data(), static_cast<std::streamsize>(text_.size()));
  out.close();
  if (!out) throw std::runtime_error("Cannot write " + file.string());
}

PathList PathList::Load(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  PathList list;
  list.text_.resize(std::filesystem::file_size(file));
  in.read(list.text_.data(), static_cast<std::streamsize>(list.text_.size()));
  if (!in) throw std::runtime_error("Cannot read " + file.string());
  for (std::size_t end = 0; (end = list.text_.find('\0', end)) != std::string::npos;) {
    list.ends_.push_back(++end);
  }
  return list;
}

Workload::Workload(const PackageIndex& index)
    : index_(index), changed_(index.fields().size()), erased_(index.packages().size()) {}

std::string Workload::pathOf(const PackageIndex::Package& package) const {
  return std::string(kPackages).append("~").append(package.name);
}

std::string Workload::pathOf(std::size_t field) const {
  return pathOf(index_.packageOf(field)).append("~").append(index_.fields()[field].name);
}

Value Workload::valueOf(std::size_t field) const {
  return changed_[field].empty() ? index_.fields()[field].value : Value::Text(changed_[field]);
}

bool Workload::isFieldErased(std::size_t field) const {
  return erased_[static_cast<std::size_t>(&index_.packageOf(field) - index_.packages().data())];
}

Reads Workload::randomReads(std::size_t count, std::uint64_t seed) const {
  std::mt19937_64 random(seed);
  Reads reads;
  while (reads.paths.size() < count) {
    const std::size_t field = RandomBelow(random, changed_.size());
    if (isFieldErased(field)) continue;
    reads.paths.add(pathOf(field));
    reads.digests += DigestOf(valueOf(field));
  }
  return reads;
}

std::string Workload::textOf(std::size_t package, std::string_view field) const {
  if (erased_[package]) return {};
  const auto& wanted = index_.packages()[package];
  for (std::size_t i = wanted.firstField; i < wanted.firstField + wanted.fieldCount; ++i) {
    if (index_.fields()[i].name == field) return std::string(valueOf(i).text);
  }
  return {};
}

Reads Workload::allReads() const {
  Reads reads;
  for (std::size_t field = 0; field < changed_.size(); ++field) {
    if (isFieldErased(field)) continue;
    reads.paths.add(pathOf(field));
    reads.digests += DigestOf(valueOf(field));
  }
  return reads;
}

std::vector<Update> Workload::randomUpdates(std::size_t count, std::uint64_t seed) const {
  std::mt19937_64 random(seed);
  std::unordered_set<std::size_t> taken;
  std::vector<Update> updates;
  count = std::min(count, static_cast<std::size_t>(values()) / 2);
  while (updates.size() < count) {
    const std::size_t field = RandomBelow(random, changed_.size());
    // The type stays: a value that is a text is given another one.
    if (isFieldErased(field) || index_.fields()[field].value.isInteger) continue;
    if (!taken.insert(field).second) continue;
    updates.push_back(
        {field, pathOf(field),
         "changed to " + std::to_string(updates.size()) + " by " + std::to_string(seed)});
  }
  return updates;
}

std::vector<std::size_t> Workload::randomPackages(std::size_t count, std::uint64_t seed) const {
  std::mt19937_64 random(seed);
  std::vector<std::size_t> packages;
  for (std::size_t i = 0; i < erased_.size(); ++i) {
    if (!erased_[i]) packages.push_back(i);
  }
  std::shuffle(packages.begin(), packages.end(), random);
  packages.resize(std::min(count, packages.size() / 3));
  return packages;
}

void Workload::apply(const std::vector<Update>& updates) {
  for (const Update& update : updates) changed_[update.field] = update.text;
}

void Workload::applyErase(const std::vector<std::size_t>& packages) {
  for (const std::size_t package : packages) erased_[package] = true;
}

std::uint64_t Workload::walkSum() const {
  WalkSum sum;
  sum.enter(kPackages);
  for (std::size_t i = 0; i < erased_.size(); ++i) {
    if (erased_[i]) continue;
    const auto& package = index_.packages()[i];
    sum.enter(package.name);
    for (std::size_t field = package.firstField; field < package.firstField + package.fieldCount;
         ++field) {
      sum.value(index_.fields()[field].name, valueOf(field));
    }
    sum.leave();
  }
  sum.leave();
  return sum.sum();
}

std::uint64_t Workload::values() const {
  std::uint64_t values = 0;
  for (std::size_t i = 0; i < erased_.size(); ++i) {
    if (!erased_[i]) values += index_.packages()[i].fieldCount;
  }
  return values;
}

}  // namespace tarns::bench
