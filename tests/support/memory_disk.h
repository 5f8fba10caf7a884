// A disk in memory that can lose power.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storage/local/storage_file.h"

namespace goods {

// While one exists, it is goods::storage_disk::instance(); a later one stands in front of it.
// Everything that is written is remembered until a sync covers it. Threads: one.
class memory_disk : public storage_disk {
 public:
  using bytes = std::vector<std::byte>;

  using image = std::map<std::string, bytes>;

  explicit memory_disk(const image& begin = {}) : before_(&instance()) {
    for (const auto& [path, held] : begin) files_[path] = {held, held, {}, true};
    replace(this);
  }
  ~memory_disk() override { replace(before_); }

  std::unique_ptr<storage_file> create(const std::string& path) override {
    if (!files_.emplace(path, content{}).second) throw_system_error("making it", path, 17);
    return open(path);
  }
  std::unique_ptr<storage_file> open(const std::string& path) override {
    if (files_.count(path) == 0) return nullptr;
    return std::make_unique<file>(*this, path);
  }
  bool remove(const std::string& path) override { return files_.erase(path) != 0; }
  void rename(const std::string& from, const std::string& to) override {
    auto node = files_.extract(from);
    if (!node) throw_system_error("giving it its name", from, 2);
    files_.erase(to);
    node.key() = to;
    files_.insert(std::move(node));
  }
  std::optional<std::uint64_t> size(const std::string& path) override {
    const auto found = files_.find(path);
    if (found == files_.end()) return std::nullopt;
    return found->second.now.size();
  }
  bool make_directory(const std::string&) override { return true; }
  void remove_directory(const std::string&) override {}
  std::vector<std::string> list(const std::string&) override { return {}; }
  bool is_there(const std::string& path) override { return files_.count(path) != 0; }
  void rename_to_new(const std::string& from, const std::string& to) override { rename(from, to); }
  int lock(const std::string&) override { return -1; }
  void sync_directory(const std::string&) override {
    for (auto& [path, held] : files_) held.is_listed = true;
  }

  // What is on the disk when everything that was written is, or only what was synced and, by
  // chance, some of the writes after that, whole or in part.
  image complete() const {
    image all;
    for (const auto& [path, held] : files_) all[path] = held.now;
    return all;
  }
  image after_power_loss(std::minstd_rand& random) const {
    image all;
    for (const auto& [path, held] : files_) {
      if (!held.is_listed && random() % 2 == 0) continue;
      bytes& kept = all[path] = held.synced;
      for (const auto& [at, written] : held.pending) {
        const std::size_t size = random() % 3 == 0   ? written.size()
                                 : random() % 2 == 0 ? random() % (written.size() + 1)
                                                     : 0;
        put(kept, at, std::span(written).first(size));
      }
    }
    return all;
  }
  // Called before every sync; null: nothing.
  std::function<void()> before_sync;
  bool ignores_syncs = false;

 private:
  struct content {
    bytes now, synced;
    std::vector<std::pair<std::uint64_t, bytes>> pending;
    bool is_listed = false;
  };

  static void put(bytes& into, std::uint64_t at, std::span<const std::byte> from) {
    if (from.empty()) return;
    if (into.size() < at + from.size()) into.resize(at + from.size());
    std::copy(from.begin(), from.end(), into.begin() + static_cast<std::ptrdiff_t>(at));
  }

  class file : public storage_file {
   public:
    file(memory_disk& disk, std::string path) : disk_(disk), path_(std::move(path)) {}
    std::uint64_t size() override { return content().now.size(); }
    void read(std::uint64_t at, std::span<std::byte> into) override {
      if (at + into.size() > content().now.size()) throw_system_error("reading it", path_, 5);
      std::copy_n(content().now.begin() + static_cast<std::ptrdiff_t>(at), into.size(),
                  into.begin());
    }
    void write(std::uint64_t at, std::span<const std::byte> from) override {
      put(content().now, at, from);
      content().pending.emplace_back(at, bytes(from.begin(), from.end()));
    }
    void sync() override {
      if (disk_.before_sync) disk_.before_sync();
      if (disk_.ignores_syncs) return;
      content().synced = content().now;
      content().pending.clear();
    }
    void bypass_cache() override {}

   private:
    memory_disk::content& content() { return disk_.files_.at(path_); }
    memory_disk& disk_;
    const std::string path_;
  };

  std::map<std::string, content> files_;
  storage_disk* const before_;
};

}  // namespace goods
