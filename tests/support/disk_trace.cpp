#include "support/disk_trace.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <span>

namespace {

using kind = disk_event::kind;
using bytes = std::vector<std::byte>;

constexpr std::size_t sector = 512;

void put(bytes& into, std::uint64_t at, std::span<const std::byte> from) {
  if (into.size() < at + from.size()) into.resize(at + from.size());
  std::ranges::copy(from, into.begin() + static_cast<std::ptrdiff_t>(at));
}

void change(bytes& into, const disk_event& event) {
  if (event.what == kind::truncate)
    into.resize(event.at);
  else
    put(into, event.at, event.bytes);
}

// Some of the sectors that were written.
void change_in_part(bytes& into, const disk_event& event, std::minstd_rand& random) {
  std::uint64_t at = event.at;
  for (std::span<const std::byte> rest(event.bytes); !rest.empty();) {
    const auto part = rest.first(std::min<std::size_t>(rest.size(), sector - at % sector));
    if (random() % 2 == 0) put(into, at, part);
    rest = rest.subspan(part.size());
    at += part.size();
  }
}

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// How likely something that was not synced is to be there.
class luck {
 public:
  explicit luck(std::minstd_rand& random) : random_(random), outOf8_(choices[random() % 6]) {}
  bool strikes() { return random_() % 8 < outOf8_; }

 private:
  static constexpr unsigned choices[] = {0, 0, 8, 4, 7, 1};
  std::minstd_rand& random_;
  const unsigned outOf8_;
};

}  // namespace

void write_image(const disk_image& image, const std::string& root,
                 const std::filesystem::path& directory) {
  for (const auto& old : std::filesystem::directory_iterator(directory))
    std::filesystem::remove_all(old.path());
  for (const auto& [path, content] : image) {
    const std::filesystem::path to = directory / path.substr(root.size() + 1);
    if (path.back() == '/') {
      std::filesystem::create_directory(to);
      continue;
    }
    std::ofstream out(to, std::ios::binary);
    out.write(reinterpret_cast<const char*>(content.data()),
              static_cast<std::streamsize>(content.size()));
  }
}

void power_loss::change_names(const disk_event& event, entries& names) {
  switch (event.what) {
    case kind::make_directory:
    case kind::create:
      names[event.path] = event.file;
      break;
    case kind::remove:
      names.erase(event.path);
      break;
    case kind::rename:
      if (auto node = names.extract(event.path)) {
        names.erase(event.to);
        node.key() = event.to;
        names.insert(std::move(node));
      }
      break;
    default:
      break;
  }
}

void power_loss::sync_names(const std::string& directory) {
  std::erase_if(pending_names_, [&](const disk_event* event) {
    if (parent_of(event->path) != directory) return false;
    change_names(*event, durable_names_);
    return true;
  });
}

void power_loss::apply(const disk_event& event, std::minstd_rand& random) {
  switch (event.what) {
    case kind::make_directory:
    case kind::create:
    case kind::remove:
    case kind::rename:
      pending_names_.push_back(&event);
      break;
    case kind::write:
    case kind::truncate:
      files_[event.file].pending.push_back(&event);
      break;
    case kind::sync: {
      if (counts_ && !counts_(event)) break;
      held_file& file = files_[event.file];
      for (const disk_event* pending : file.pending) change(file.durable, *pending);
      file.pending.clear();
      break;
    }
    case kind::failed_sync: {
      luck of_file(random);
      std::erase_if(files_[event.file].pending,
                    [&](const disk_event*) { return !of_file.strikes(); });
      break;
    }
    case kind::sync_directory:
      if (!counts_ || counts_(event)) sync_names(event.path);
      break;
    case kind::note:
      break;
  }
}

disk_image power_loss::image(std::minstd_rand& random) const {
  entries names = durable_names_;
  luck of_names(random);
  for (const disk_event* event : pending_names_)
    if (of_names.strikes()) change_names(*event, names);

  disk_image result;
  for (const auto& [path, file] : names) {
    const std::string parent = parent_of(path);
    if (parent != root_ && names.count(parent) == 0) continue;
    if (file == 0) {
      result[path + '/'] = {};
      continue;
    }
    bytes& content = result[path];
    const auto found = files_.find(file);
    if (found == files_.end()) continue;
    content = found->second.durable;
    luck of_file(random);
    for (const disk_event* event : found->second.pending) {
      if (!of_file.strikes()) continue;
      if (event->what == kind::write && random() % 4 == 0)
        change_in_part(content, *event, random);
      else
        change(content, *event);
    }
  }
  return result;
}

void for_each_loss(const disk_trace& trace, unsigned images, std::minstd_rand& random,
                   const power_loss::sync_filter& counts,
                   const std::function<void(std::uint64_t)>& noted,
                   const std::function<void(const disk_image&)>& look) {
  power_loss disk(trace.root, counts);
  const std::size_t length = trace.events.size() - trace.begin;
  for (std::size_t i = 0, made = 0; i < trace.events.size(); ++i) {
    const disk_event& event = trace.events[i];
    disk.apply(event, random);
    if (event.what == kind::note) noted(event.at);
    if (i < trace.begin) continue;
    for (; made < images * (i + 1 - trace.begin) / length; ++made) look(disk.image(random));
  }
}

unsigned power_loss_images() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr unsigned usual = 500;
#else
  constexpr unsigned usual = 5000;
#endif
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no test changes the environment
  const char* wanted = std::getenv("TARNS_POWER_LOSS_IMAGES");
  // NOLINTNEXTLINE(cert-err34-c): nonsense means none, which fails
  return wanted != nullptr ? static_cast<unsigned>(std::atoi(wanted)) : usual;
}
