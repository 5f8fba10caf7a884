#include "goods/database_copier.h"

#include <algorithm>
#include <span>

#include "storage/local/storage_file.h"
#include "storage/local/unfinished_directory.h"

namespace goods {

database_copier::database_copier(std::vector<dbs_storage*> storages,
                                 const std::vector<std::string>& addresses,
                                 const copy_options& options)
    : storages_(std::move(storages)), addresses_(addresses), options_(options) {
  for (dbs_storage* storage : storages_) copiers_.push_back(storage->copier());
}

bool database_copier::run(const std::string& directory) {
  unfinished_directory place(directory);
  fix_all();
  if (!write_all(place.path())) return false;
  write_configuration(place.path());
  if (!tell()) return false;
  place.finish();
  return true;
}

// No commit over several storages is under way while all are paused, so that the copies agree.
void database_copier::fix_all() {
  for (const auto& copier : copiers_) copier->prepare();
  std::vector<dbs_storage*> ordered = storages_;
  std::ranges::sort(ordered, {}, [](const dbs_storage* storage) { return storage->identity(); });
  ordered.erase(std::unique(ordered.begin(), ordered.end()), ordered.end());

  std::vector<std::unique_ptr<commit_pause>> pauses;
  const auto begin = std::chrono::steady_clock::now();
  pauses.reserve(ordered.size());
  for (dbs_storage* storage : ordered) pauses.push_back(storage->pause_commits());
  for (const auto& copier : copiers_) copier->fix();
  pauses.clear();
  reached_.commits_held = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - begin);
  for (const auto& copier : copiers_) reached_.bytes += copier->bytes();
}

bool database_copier::write_all(const std::string& into) {
  for (std::size_t i = 0; i < copiers_.size(); ++i) {
    if (!write(i, into)) return false;
    copiers_[i].reset();  // lets the storage's write-ahead log shrink
  }
  return true;
}

bool database_copier::write(std::size_t storage, const std::string& into) {
  const copy_progress before = reached_;
  const auto told = [&](std::uint64_t written, std::uint64_t verified) {
    reached_.written = before.written + written;
    reached_.verified = before.verified + verified;
    return tell();
  };
  const bool is_done = copiers_[storage]->write(into + '/' + directory_of(storage), told);
  const std::uint64_t bytes = copiers_[storage]->bytes();
  reached_.written = before.written + bytes;
  reached_.verified = before.verified + bytes;
  return is_done;
}

std::string database_copier::directory_of(std::size_t storage) const {
  return storages_.size() == 1 ? "data" : "data" + std::to_string(storage);
}

void database_copier::write_configuration(const std::string& into) const {
  std::string text = std::to_string(storages_.size()) + '\n';
  for (std::size_t i = 0; i < storages_.size(); ++i) {
    const std::size_t options = addresses_[i].find('?');
    text += std::to_string(i) + ": file:./" + directory_of(i);
    if (options != std::string::npos) text += addresses_[i].substr(options);
    text += '\n';
  }
  const auto file = storage_disk::instance().create(into + '/' + copied_configuration);
  file->write(0, std::as_bytes(std::span(text)));
  file->sync();
}

bool database_copier::tell() const { return !options_.progress || options_.progress(reached_); }

}  // namespace goods
